#include "core/sources/stores/opencode_message.hpp"

#include <simdjson.h>

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>

#include "core/model/event_id.hpp"
#include "core/sources/json_fields.hpp"

namespace kestrel::OpencodeMessage {

namespace dom = simdjson::dom;

bool Usage::empty() const {
    return input == 0 && cacheRead == 0 && cacheWrite == 0 && output == 0 && reasoning == 0 &&
           (!costUSD || *costUSD == 0);
}

void Usage::add(const Usage& o) {
    // Each count is at most 10^12 (JsonFields::readCount), so sums of the parts of one message
    // stay far from overflow.
    input += o.input;
    cacheRead += o.cacheRead;
    cacheWrite += o.cacheWrite;
    output += o.output;
    reasoning += o.reasoning;
    if (records == 0) {
        total = o.total;
    } else {
        total = total && o.total ? std::optional<int64_t>(*total + *o.total) : std::nullopt;
    }
    ++records;
    if (o.costUSD) {
        costUSD = costUSD.value_or(0) + *o.costUSD;
    }
}

namespace {

dom::parser& threadParser() {
    thread_local dom::parser parser;
    return parser;
}

// A count field that may be missing or null; false for any other non-count value.
bool optionalCount(dom::object o, std::string_view key, int64_t& out) {
    dom::element v;
    if (o[key].get(v)) {
        return true;
    }
    return JsonFields::readOptionalCount(v, out);
}

std::string stringField(dom::object o, std::string_view key) {
    std::string out;
    dom::element v;
    if (!o[key].get(v)) {
        JsonFields::readString(v, out);
    }
    return out;
}

// The `tokens` and `cost` of a message or a step-finish part. False when a value has the wrong
// type; `out` stays absent when there is neither.
bool readUsage(dom::object holder, std::optional<Usage>& out) {
    Usage u;
    bool sawTokens = false;
    dom::element tokens;
    if (!holder["tokens"].get(tokens) && !tokens.is_null()) {
        dom::object t;
        if (tokens.get(t)) {
            return false;
        }
        sawTokens = true;
        if (!optionalCount(t, "input", u.input) || !optionalCount(t, "output", u.output) ||
            !optionalCount(t, "reasoning", u.reasoning)) {
            return false;
        }
        dom::element total;
        if (!t["total"].get(total) && !total.is_null()) {
            int64_t value = 0;
            if (!JsonFields::readCount(total, value)) {
                return false;
            }
            u.total = value;
        }
        dom::element cache;
        if (!t["cache"].get(cache) && !cache.is_null()) {
            dom::object c;
            if (cache.get(c) || !optionalCount(c, "read", u.cacheRead) ||
                !optionalCount(c, "write", u.cacheWrite)) {
                return false;
            }
        }
    }
    dom::element cost;
    if (!holder["cost"].get(cost) && !cost.is_null()) {
        const auto value = JsonFields::readNumber(cost);
        if (!value || *value < 0 || *value > 1e9) {
            return false;
        }
        u.costUSD = *value;
    }
    if (sawTokens || u.costUSD) {
        out = u;
    }
    return true;
}

bool isHex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}
bool isBase62(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0;
}

std::string lower(std::string_view s) {
    std::string out(s);
    std::ranges::transform(out, out.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

// Fields an importer would plausibly use to say where a record came from.
bool hasImportMarker(dom::object o) {
    dom::element v;
    if (!o["imported"].get(v)) {
        bool flag = false;
        if (!v.get_bool().get(flag) && flag) {
            return true;
        }
    }
    for (auto key : {"importedFrom", "importSource", "origin", "source"}) {
        std::string value;
        if (!o[key].get(v) && JsonFields::readString(v, value) && namesImportOrigin(value)) {
            return true;
        }
    }
    return false;
}

}  // namespace

ParsedMessage parseMessage(std::string_view json) {
    ParsedMessage out;
    dom::element doc;
    if (threadParser().parse(json.data(), json.size()).get(doc)) {
        return out;
    }
    dom::object o;
    if (doc.get(o)) {
        return out;
    }
    auto& m = out.message;
    m.id = stringField(o, "id");
    m.sessionID = stringField(o, "sessionID");
    m.role = stringField(o, "role");
    m.modelID = stringField(o, "modelID");
    m.providerID = stringField(o, "providerID");
    dom::element path;
    dom::object pathObject;
    if (!o["path"].get(path) && !path.get(pathObject)) {
        m.cwd = stringField(pathObject, "cwd");
    }
    dom::element time;
    dom::object timeObject;
    if (!o["time"].get(time) && !time.get(timeObject)) {
        dom::element v;
        if (!timeObject["created"].get(v)) {
            if (auto ms = JsonFields::readNumber(v); ms && *ms > 0) {
                m.createdMs = *ms;
            }
        }
        m.completed = !timeObject["completed"].get(v) && !v.is_null();
    }
    dom::element error;
    if (!o["error"].get(error) && !error.is_null()) {
        m.completed = true;  // an aborted or failed call is as final as a finished one
    }
    if (!readUsage(o, m.usage)) {
        return out;
    }
    m.importMarked = hasImportMarker(o) || namesImportOrigin(m.providerID);
    out.status = ParseStatus::ok;
    return out;
}

std::optional<Usage> parseStepFinish(std::string_view json, bool& malformed) {
    malformed = false;
    dom::element doc;
    dom::object o;
    if (threadParser().parse(json.data(), json.size()).get(doc) || doc.get(o)) {
        malformed = true;
        return std::nullopt;
    }
    if (stringField(o, "type") != "step-finish") {
        return std::nullopt;
    }
    std::optional<Usage> usage;
    if (!readUsage(o, usage)) {
        malformed = true;
        return std::nullopt;
    }
    // A step without counts still ended a call: the message's parts are what counts, not its
    // own last-call tokens.
    return usage.value_or(Usage{});
}

bool isNativeID(std::string_view id) {
    const auto underscore = id.find('_');
    if (underscore == std::string_view::npos || underscore == 0 || underscore > 8) {
        return false;
    }
    const auto rest = id.substr(underscore + 1);
    return rest.size() == 26 && std::ranges::all_of(rest.substr(0, 12), isHex) &&
           std::ranges::all_of(rest.substr(12), isBase62);
}

bool isForeignID(std::string_view id) {
    if (id.size() == 36) {
        bool uuid = true;
        for (std::size_t i = 0; i < id.size() && uuid; ++i) {
            const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
            uuid = dash ? id[i] == '-' : std::isxdigit(static_cast<unsigned char>(id[i])) != 0;
        }
        if (uuid) {
            return true;
        }
    }
    if (id.starts_with("msg_bdrk_") || id.starts_with("msg_vrtx_")) {
        return true;
    }
    return id.size() == 28 && id.starts_with("msg_01") &&
           std::ranges::all_of(id.substr(6), isBase62);
}

bool namesImportOrigin(std::string_view value) {
    const auto v = lower(value);
    return v.find("import") != std::string::npos || v == "claude" || v == "claude-code" ||
           v == "claude_code" || v == "codex" || v == "codex-cli";
}

bool isImported(const Message& m, bool sessionMarked, std::string_view sessionID) {
    return m.importMarked || sessionMarked || isForeignID(m.id) ||
           (isForeignID(sessionID) && !isNativeID(m.id));
}

std::optional<Counted> countedUsage(const Message& m, const std::optional<Usage>& stepSum) {
    Counted c;
    if (stepSum) {
        c.usage = *stepSum;
        c.fromParts = true;
    } else if (m.usage) {
        c.usage = *m.usage;
    } else {
        return std::nullopt;
    }
    if (c.usage.empty()) {
        return std::nullopt;
    }
    return c;
}

EventDraft draftFor(AgentSource source, const Message& m, const Counted& counted,
                    std::string_view sessionID, std::string_view cwd, bool costIncludesChildren,
                    double fallbackTime) {
    EventDraft d;
    d.source = source;
    d.id = EventID::local(source, sessionID, m.id, m.modelID);
    if (m.createdMs) {
        d.occurredAt = *m.createdMs / 1000.0;
        d.timeQuality = ObservationTimeQuality::trusted;
    } else {
        d.occurredAt = fallbackTime;
        d.timeQuality = ObservationTimeQuality::inferred;
    }
    d.precision = UsagePrecision::nativeExact;
    d.granularity = UsageGranularity::request;
    d.provider = lower(m.providerID);
    d.model = m.modelID;
    d.sessionID = std::string(sessionID);
    d.cwd = cwd.empty() ? m.cwd : std::string(cwd);
    const auto& u = counted.usage;
    // These agents store input without the cache counts and report reasoning in its own field;
    // whether their output already holds the reasoning is not known, so each count goes to its
    // own bucket as written (the independent family) and nothing is added together here.
    d.input = u.input;
    d.cachedInput = u.cacheRead;
    d.cacheWrite = u.cacheWrite;
    d.output = u.output;
    d.reasoning = u.reasoning;
    d.providerTotal = u.total;
    if (u.costUSD) {
        nlohmann::ordered_json extras = nlohmann::ordered_json::object();
        if (costIncludesChildren) {
            extras["reportedCostUSD"] = *u.costUSD;
            extras["costMayIncludeSubsessions"] = true;
        } else {
            extras["costUSD"] = *u.costUSD;
        }
        d.rawExtras = extras.dump();
    }
    return d;
}

}  // namespace kestrel::OpencodeMessage
