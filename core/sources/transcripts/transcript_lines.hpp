#pragma once
// Pieces the JSON transcript readers share: one reusable parser that turns a line into a JSON
// object (repairing bad UTF-8 rather than losing the record), tolerant lookups on the parsed
// object, the file's modification time for records without a time of their own, and the small
// JSON state a reader keeps between scans in its checkpoint.

#include <simdjson.h>

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "core/sources/line_source.hpp"

namespace kestrel::TranscriptLines {

namespace dom = simdjson::dom;

// Parses one line or document at a time; the returned object lives until the next parse.
class ObjectParser {
  public:
    // The line as an object; absent when it is not JSON or not an object.
    std::optional<dom::object> parse(std::string_view text);
    // Any JSON value (whole documents whose top level may be something else).
    std::optional<dom::element> parseValue(std::string_view text);

  private:
    dom::parser parser_;
    std::string repaired_;
};

// The member `key` of `object`; absent when missing.
std::optional<dom::element> member(dom::object object, std::string_view key);
// The member `key` when it is an object / a non-empty string.
std::optional<dom::object> objectMember(dom::object object, std::string_view key);
std::optional<std::string> stringMember(dom::object object, std::string_view key);

// How a count field read: absent (missing or null), a count, or a value of the wrong type.
enum class CountRead { absent, present, invalid };
CountRead readCountMember(dom::object object, std::string_view key, int64_t& out);
// A count written as a JSON integer, float or decimal string (OpenTelemetry's JSON encoding
// writes 64-bit integers as strings).
bool readLooseCount(dom::element value, int64_t& out);

// The shared file-time helper, under the name this family's readers use.
using LineSource::modificationTime;

// The reader's state kept in a checkpoint's parser context: a JSON object, empty when the
// context is missing or not one.
nlohmann::json decodeContext(const std::string& context);
// A string kept in that state; `fallback` when missing or not a string.
std::string contextString(const nlohmann::json& state, const char* key, std::string fallback);
// `state` with the string `key` set to `value`, written out as a parser context.
std::string contextWith(nlohmann::json state, const char* key, const std::string& value);

}  // namespace kestrel::TranscriptLines
