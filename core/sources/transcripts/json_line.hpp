#pragma once
// One JSON-lines record parsed in place with simdjson, for the readers whose records are small
// objects with a handful of keys. A line with a bad UTF-8 byte is parsed again with the byte
// replaced, so that one damaged message string does not cost the record's usage.

#include <simdjson.h>

#include <cstddef>
#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "core/sources/line_source.hpp"

namespace kestrel {

class JsonLineParser {
  public:
    // The line's top-level object; absent when the line is not JSON or not an object. The
    // object stays valid until the next call. `paddingAfter` is how many readable bytes follow
    // the line in memory (JSONL::kLinePadding for lines handed out by the line readers).
    std::optional<simdjson::dom::object> parse(std::string_view line, std::size_t paddingAfter);

  private:
    simdjson::dom::parser parser_;
    std::string scratch_;
};

// Small tolerant reads shared by these readers.
namespace JsonLine {

// The string at `key` of `o`; empty when absent or not a string.
std::string stringAt(simdjson::dom::object o, std::string_view key);

// A time from a number (epoch milliseconds when above 10^11, else epoch seconds) or an ISO 8601
// string; absent for anything else.
std::optional<double> timeOf(simdjson::dom::element v);

// An object that carries one of `keys`, searched tolerantly: `root` itself, then its "usage"
// object, then the other nested objects (depth first, at most `maxDepth` levels down), for
// agents whose records are not documented and may nest their counters.
struct Found {
    simdjson::dom::object holder;
    std::string model;  // the "model" string of the holder or of its nearest enclosing object
};
std::optional<Found> findObjectWithKey(simdjson::dom::object root,
                                       std::initializer_list<std::string_view> keys,
                                       int maxDepth = 4);

// The first of `keys` present in `o` read as a time (see timeOf).
std::optional<double> timeAt(simdjson::dom::object o, std::initializer_list<std::string_view> keys);

// The shared file-time helper, under the name this family's readers use.
using LineSource::modificationTime;

}  // namespace JsonLine
}  // namespace kestrel
