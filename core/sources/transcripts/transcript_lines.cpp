#include "core/sources/transcripts/transcript_lines.hpp"

#include <sys/stat.h>

#include <charconv>

#include "core/sources/json_fields.hpp"
#include "core/sources/utf8.hpp"

namespace kestrel::TranscriptLines {

std::optional<dom::element> ObjectParser::parseValue(std::string_view text) {
    dom::element doc;
    auto err = parser_.parse(text.data(), text.size(), true).get(doc);
    if (err == simdjson::UTF8_ERROR) {
        // One bad byte inside a message's text should not cost the usage on the same record.
        repaired_ = utf8::replaceInvalid(text);
        err = parser_.parse(repaired_.data(), repaired_.size(), true).get(doc);
    }
    if (err) {
        return std::nullopt;
    }
    return doc;
}

std::optional<dom::object> ObjectParser::parse(std::string_view text) {
    if (!JsonFields::looksLikeObject(text)) {
        return std::nullopt;
    }
    auto doc = parseValue(text);
    dom::object object;
    if (!doc || doc->get_object().get(object)) {
        return std::nullopt;
    }
    return object;
}

std::optional<dom::element> member(dom::object object, std::string_view key) {
    dom::element value;
    if (object.at_key(key).get(value)) {
        return std::nullopt;
    }
    return value;
}

std::optional<dom::object> objectMember(dom::object object, std::string_view key) {
    dom::object out;
    if (object.at_key(key).get_object().get(out)) {
        return std::nullopt;
    }
    return out;
}

std::optional<std::string> stringMember(dom::object object, std::string_view key) {
    std::string_view s;
    if (object.at_key(key).get_string().get(s) || s.empty()) {
        return std::nullopt;
    }
    return std::string(s);
}

CountRead readCountMember(dom::object object, std::string_view key, int64_t& out) {
    auto value = member(object, key);
    if (!value || value->is_null()) {
        return CountRead::absent;
    }
    int64_t count = 0;
    // A negative count is as unusable as a string: no request uses fewer than zero tokens.
    if (!JsonFields::readCount(*value, count) || count < 0) {
        return CountRead::invalid;
    }
    out = count;
    return CountRead::present;
}

bool readLooseCount(dom::element value, int64_t& out) {
    int64_t count = 0;
    if (JsonFields::readCount(value, count)) {
        if (count < 0) {
            return false;
        }
        out = count;
        return true;
    }
    std::string_view s;
    if (value.get_string().get(s) || s.empty()) {
        return false;
    }
    int64_t parsed = 0;
    const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), parsed);
    if (ec != std::errc{} || end != s.data() + s.size() || parsed > JsonFields::kMaxTokenCount ||
        parsed < 0) {
        return false;
    }
    out = parsed;
    return true;
}

nlohmann::json decodeContext(const std::string& context) {
    if (context.empty()) {
        return nlohmann::json::object();
    }
    auto parsed = nlohmann::json::parse(context, nullptr, false);
    return parsed.is_object() ? parsed : nlohmann::json::object();
}

std::string contextString(const nlohmann::json& state, const char* key, std::string fallback) {
    auto it = state.find(key);
    if (it == state.end() || !it->is_string()) {
        return fallback;
    }
    return it->get<std::string>();
}

std::string contextWith(nlohmann::json state, const char* key, const std::string& value) {
    state[key] = value;
    return state.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace kestrel::TranscriptLines
