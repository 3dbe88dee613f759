#include "core/sources/claude_line_reader.hpp"

#include <simdjson.h>

#include "core/sources/json_fields.hpp"
#include "core/sources/utf8.hpp"

namespace kestrel {

namespace dom = simdjson::dom;
using JsonFields::isBlank;
using JsonFields::looksLikeObject;
using JsonFields::readCount;
using JsonFields::readOptionalCount;
using JsonFields::readString;

namespace {

// Cheap pre-filters: a line that carries usage mentions both words; the rest (user turns with
// large tool results, snapshots, summaries) is never parsed.
bool mayCarryUsage(std::string_view line) {
    return JsonFields::mentions(line, "\"usage\"") && JsonFields::mentions(line, "assistant");
}

void readCacheSplit(dom::element v, ClaudeRecord& r) {
    dom::object split;
    if (v.get_object().get(split)) {
        return;
    }
    for (auto [key, value] : split) {
        int64_t n = 0;
        if (!readCount(value, n)) {
            continue;
        }
        if (key == "ephemeral_5m_input_tokens") {
            r.cacheWrite5m = n;
        } else if (key == "ephemeral_1h_input_tokens") {
            r.cacheWrite1h = n;
        }
    }
}

// Reads the `usage` object; false when it is not an object.
bool readUsage(dom::element v, ClaudeRecord& r) {
    dom::object usage;
    if (v.get_object().get(usage)) {
        return false;
    }
    for (auto [key, value] : usage) {
        bool readable = true;
        if (key == "input_tokens") {
            readable = readOptionalCount(value, r.inputTokens);
        } else if (key == "cache_creation_input_tokens") {
            readable = readOptionalCount(value, r.cacheCreationInputTokens);
        } else if (key == "cache_read_input_tokens") {
            readable = readOptionalCount(value, r.cacheReadInputTokens);
        } else if (key == "output_tokens") {
            readable = readOptionalCount(value, r.outputTokens);
        } else if (key == "service_tier") {
            readString(value, r.serviceTier);
        } else if (key == "cache_creation") {
            readCacheSplit(value, r);
        }
        r.unreadableCount = r.unreadableCount || !readable;
    }
    return true;
}

// True when the message object carries a usage object.
bool readMessage(dom::element v, ClaudeRecord& r) {
    dom::object message;
    if (v.get_object().get(message)) {
        return false;
    }
    bool hasUsage = false;
    for (auto [key, value] : message) {
        if (key == "id") {
            readString(value, r.messageID);
        } else if (key == "model") {
            readString(value, r.model);
        } else if (key == "usage") {
            hasUsage = readUsage(value, r);
        }
    }
    return hasUsage;
}

}  // namespace

// The DOM parser dispatches to the best SIMD kernel of the running CPU at run time; it also
// validates the whole line, so a cut or corrupted record is never half-read.
struct ClaudeLineReader::Impl {
    dom::parser parser;
    std::string scratch;  // padded copy when the caller's buffer has no room after the line

    ClaudeLineKind parse(const char* data, std::size_t length, ClaudeRecord& r, bool& utf8Error) {
        utf8Error = false;
        dom::element doc;
        if (auto err = parser.parse(data, length, false).get(doc); err) {
            utf8Error = err == simdjson::UTF8_ERROR;
            return ClaudeLineKind::malformed;
        }
        dom::object object;
        if (doc.get_object().get(object)) {
            return ClaudeLineKind::malformed;
        }
        r = ClaudeRecord{};
        bool isAssistant = false;
        bool hasUsage = false;
        for (auto [key, value] : object) {
            if (key == "type") {
                std::string_view type;
                isAssistant = !value.get_string().get(type) && type == "assistant";
            } else if (key == "message") {
                hasUsage = readMessage(value, r);
            } else if (key == "timestamp") {
                readString(value, r.timestamp);
            } else if (key == "sessionId") {
                readString(value, r.sessionID);
            } else if (key == "cwd") {
                readString(value, r.cwd);
            } else if (key == "costUSD") {
                double cost;
                if (!value.get_double().get(cost) && std::isfinite(cost)) {
                    r.costUSD = cost;
                }
            } else if (key == "isSidechain") {
                bool b;
                r.isSidechain = !value.get_bool().get(b) && b;
            } else if (key == "isApiErrorMessage") {
                bool b;
                r.isApiErrorMessage = !value.get_bool().get(b) && b;
            } else if (key == "agentId") {
                readString(value, r.agentID);
            }
        }
        if (!isAssistant || !hasUsage) {
            return ClaudeLineKind::noUsage;
        }
        return r.messageID.empty() || r.unreadableCount ? ClaudeLineKind::unreadableUsage
                                                        : ClaudeLineKind::usage;
    }
};

ClaudeLineReader::ClaudeLineReader() : impl_(std::make_unique<Impl>()) {}
ClaudeLineReader::~ClaudeLineReader() = default;

ClaudeLineKind ClaudeLineReader::read(std::string_view line, std::size_t paddingAfter,
                                      ClaudeRecord& record) {
    if (isBlank(line)) {
        return ClaudeLineKind::blank;
    }
    if (!looksLikeObject(line)) {
        return ClaudeLineKind::malformed;
    }
    if (!mayCarryUsage(line)) {
        return ClaudeLineKind::noUsage;
    }
    bool utf8Error = false;
    ClaudeLineKind kind;
    if (paddingAfter >= simdjson::SIMDJSON_PADDING) {
        kind = impl_->parse(line.data(), line.size(), record, utf8Error);
    } else {
        impl_->scratch.assign(line);
        impl_->scratch.append(simdjson::SIMDJSON_PADDING, ' ');
        kind = impl_->parse(impl_->scratch.data(), line.size(), record, utf8Error);
    }
    if (utf8Error) {
        // One bad byte inside a string should not cost the usage on the line.
        impl_->scratch = utf8::replaceInvalid(line);
        const std::size_t length = impl_->scratch.size();
        impl_->scratch.append(simdjson::SIMDJSON_PADDING, ' ');
        kind = impl_->parse(impl_->scratch.data(), length, record, utf8Error);
    }
    return kind;
}

}  // namespace kestrel
