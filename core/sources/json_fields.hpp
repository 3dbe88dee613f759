#pragma once
// The small pieces every JSON-lines reader needs: cheap tests on a raw line before it is parsed,
// and tolerant reads of one parsed value. Inline, since they run for every field of every line.

#include <simdjson.h>
#include <string.h>

#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kestrel::JsonFields {

// Only spaces, tabs and line ends.
inline bool isBlank(std::string_view line) {
    return line.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

// Shaped like one object ("{ ... }" up to surrounding blanks); anything else is malformed
// without parsing it.
inline bool looksLikeObject(std::string_view line) {
    const auto first = line.find_first_not_of(" \t\r");
    const auto last = line.find_last_not_of(" \t\r");
    return first != std::string_view::npos && line[first] == '{' && line[last] == '}';
}

// The raw line contains `word` (a pre-filter: a record type or key must appear to matter).
inline bool mentions(std::string_view line, std::string_view word) {
    return ::memmem(line.data(), line.size(), word.data(), word.size()) != nullptr;
}

// No single request comes near a trillion tokens; a count beyond it is damage or hostility, and
// refusing it here keeps every later sum of counts far from 64-bit overflow.
inline constexpr int64_t kMaxTokenCount = 1'000'000'000'000;

// A token count: an integer, or a float spelling of one ("12.0", rounded), at most
// kMaxTokenCount either way from zero; false, leaving `out` alone, for anything else.
inline bool readCount(simdjson::dom::element v, int64_t& out) {
    int64_t i;
    if (!v.get_int64().get(i)) {
        if (i > kMaxTokenCount || i < -kMaxTokenCount) {
            return false;
        }
        out = i;
        return true;
    }
    double d;
    if (!v.get_double().get(d) && std::isfinite(d) &&
        std::fabs(d) <= static_cast<double>(kMaxTokenCount)) {
        out = static_cast<int64_t>(std::llround(d));
        return true;
    }
    return false;
}

// As readCount, for a field that may also be null (absent): true when it is a count or null,
// false for any other value, such as a string or a count out of range.
inline bool readOptionalCount(simdjson::dom::element v, int64_t& out) {
    return v.is_null() || readCount(v, out);
}

// Any finite number; absent for other values.
inline std::optional<double> readNumber(simdjson::dom::element v) {
    double d;
    if (!v.get_double().get(d) && std::isfinite(d)) {
        return d;
    }
    int64_t i;
    if (!v.get_int64().get(i)) {
        return static_cast<double>(i);
    }
    return std::nullopt;
}

// A string value; false, leaving `out` alone, for anything else.
inline bool readString(simdjson::dom::element v, std::string& out) {
    std::string_view s;
    if (v.get_string().get(s)) {
        return false;
    }
    out.assign(s);
    return true;
}

}  // namespace kestrel::JsonFields
