#include "core/sources/pi_session_format.hpp"

#include <simdjson.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <nlohmann/json.hpp>

#include "core/model/event_id.hpp"
#include "core/model/timestamp.hpp"
#include "core/sources/file_discovery.hpp"
#include "core/sources/json_fields.hpp"
#include "core/sources/jsonl.hpp"
#include "core/sources/utf8.hpp"

namespace kestrel::PiSessionFormat {

namespace dom = simdjson::dom;
using LineSource::LineKind;

static_assert(JSONL::kLinePadding >= simdjson::SIMDJSON_PADDING,
              "lines are parsed in place only with simdjson's padding behind them");

namespace {

// A count that is a non-negative integer within bounds; false for anything else.
bool readTokenCount(dom::element v, int64_t& out) {
    int64_t n = 0;
    if (!JsonFields::readCount(v, n) || n < 0) {
        return false;
    }
    out = n;
    return true;
}

// The usage object shared by assistant messages, side calls and child usage. False when a
// field that must be a number is not one: the record is then unreadable, not zero.
bool readUsage(dom::object usage, PiUsage& out) {
    for (auto [key, value] : usage) {
        if (key == "input") {
            if (!readTokenCount(value, out.input))
                return false;
        } else if (key == "output") {
            if (!readTokenCount(value, out.output))
                return false;
        } else if (key == "cacheRead") {
            if (!readTokenCount(value, out.cacheRead))
                return false;
        } else if (key == "cacheWrite") {
            if (!readTokenCount(value, out.cacheWrite))
                return false;
        } else if (key == "totalTokens") {
            int64_t n = 0;
            if (value.is_null())
                continue;
            if (!readTokenCount(value, n))
                return false;
            out.totalTokens = n;
        } else if (key == "reasoningTokens") {
            int64_t n = 0;
            if (value.is_null())
                continue;
            if (!readTokenCount(value, n))
                return false;
            out.reasoningTokens = n;
        } else if (key == "cost") {
            if (value.is_null())
                continue;
            dom::object cost;
            if (value.get_object().get(cost))
                return false;
            dom::element total;
            if (cost["total"].get(total) || total.is_null())
                continue;
            const auto amount = JsonFields::readNumber(total);
            if (!amount || *amount < 0)
                return false;
            out.costUSD = *amount;
        }
    }
    return true;
}

// api / provider / model of a message or an extra entry; only strings are taken.
void readModelFields(std::string_view key, dom::element value, PiUsage& out) {
    if (key == "api") {
        JsonFields::readString(value, out.api);
    } else if (key == "provider") {
        JsonFields::readString(value, out.provider);
    } else if (key == "model") {
        JsonFields::readString(value, out.model);
    }
}

bool hasCounts(const PiUsage& u) {
    return u.input > 0 || u.output > 0 || u.cacheRead > 0 || u.cacheWrite > 0;
}

std::string lower(std::string_view s) {
    std::string out(s);
    std::ranges::transform(out, out.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

}  // namespace

struct LineReader::Impl {
    dom::parser parser;
    std::string scratch;

    PiLine parse(const char* data, std::size_t length, bool& utf8Error) {
        utf8Error = false;
        PiLine line;
        dom::element doc;
        if (auto err = parser.parse(data, length, false).get(doc); err) {
            utf8Error = err == simdjson::UTF8_ERROR;
            line.kind = LineKind::malformed;
            return line;
        }
        dom::object object;
        if (doc.get_object().get(object)) {
            line.kind = LineKind::malformed;
            return line;
        }
        std::string_view type;
        if (object["type"].get_string().get(type)) {
            return line;  // an entry of no known kind
        }
        PiUsage usage;
        std::string isoTime;
        if (dom::element v; !object["id"].get(v)) {
            JsonFields::readString(v, usage.entryID);
        }
        if (dom::element v; !object["timestamp"].get(v)) {
            JsonFields::readString(v, isoTime);
        }
        dom::object usageObject;
        bool badUsage = false;
        if (type == "session") {
            std::string id, cwd;
            if (dom::element v; !object["id"].get(v) && JsonFields::readString(v, id)) {
                line.sessionID = id;
            }
            if (dom::element v; !object["cwd"].get(v) && JsonFields::readString(v, cwd)) {
                line.cwd = cwd;
            }
            return line;
        } else if (type == "message") {
            dom::object message;
            if (object["message"].get_object().get(message)) {
                return line;
            }
            std::string_view role;
            if (message["role"].get_string().get(role) || role != "assistant") {
                return line;  // user turns, tool results (whose details may hold a sub-agent's
                              // aggregate, counted through its own transcript instead)
            }
            dom::element usageValue;
            if (message["usage"].get(usageValue) || usageValue.is_null()) {
                return line;
            }
            badUsage = usageValue.get_object().get(usageObject) != simdjson::SUCCESS;
            for (auto [key, value] : message) {
                readModelFields(key, value, usage);
                if (key == "timestamp") {
                    if (auto ms = JsonFields::readNumber(value)) {
                        usage.stamp = std::to_string(std::llround(*ms));
                        usage.occurredAt = std::round(*ms) / 1000.0;  // the entry's time wins
                    } else {
                        JsonFields::readString(value, usage.stamp);
                    }
                }
            }
        } else if (type == "model_usage" || type == "child_usage_attributed") {
            // omp's side calls outside the transcript; Prime Agent's usage of a child attributed
            // to this session. The latter also carries the parent's running aggregate, which
            // would count the parent's own requests again: only childUsage is read.
            const bool child = type == "child_usage_attributed";
            dom::element usageValue;
            if (object[child ? "childUsage" : "usage"].get(usageValue) || usageValue.is_null()) {
                return line;
            }
            badUsage = usageValue.get_object().get(usageObject) != simdjson::SUCCESS;
            for (auto [key, value] : object) {
                readModelFields(key, value, usage);
            }
            if (child && !badUsage) {
                // A child's own model, when the entry does not name one.
                PiUsage named;
                for (auto [key, value] : usageObject) {
                    readModelFields(key, value, named);
                }
                if (usage.model.empty()) {
                    usage.model = named.model;
                    usage.api = usage.api.empty() ? named.api : usage.api;
                    usage.provider = usage.provider.empty() ? named.provider : usage.provider;
                }
            }
        } else {
            return line;
        }
        line.kind = LineKind::usage;
        if (badUsage || !readUsage(usageObject, usage)) {
            line.kind = LineKind::unreadableUsage;
            return line;
        }
        if (!isoTime.empty()) {
            if (auto t = parseISO8601(isoTime)) {
                usage.occurredAt = *t;
            }
            if (usage.stamp.empty()) {
                usage.stamp = isoTime;
            }
        }
        if (hasCounts(usage)) {
            line.usage = std::move(usage);
        }
        return line;
    }
};

LineReader::LineReader() : impl_(std::make_unique<Impl>()) {}
LineReader::~LineReader() = default;

PiLine LineReader::read(std::string_view text, std::size_t paddingAfter) {
    if (JsonFields::isBlank(text)) {
        return PiLine{LineKind::blank, {}, {}, {}};
    }
    if (!JsonFields::looksLikeObject(text)) {
        return PiLine{LineKind::malformed, {}, {}, {}};
    }
    // Usage lives under "usage", "childUsage" (or in a "model_usage" entry); the header says
    // "session". Anything else is conversation, not worth parsing.
    if (!JsonFields::mentions(text, "usage\"") && !JsonFields::mentions(text, "Usage\"") &&
        !JsonFields::mentions(text, "\"session\"")) {
        return PiLine{};
    }
    bool utf8Error = false;
    PiLine line;
    if (paddingAfter >= simdjson::SIMDJSON_PADDING) {
        line = impl_->parse(text.data(), text.size(), utf8Error);
    } else {
        impl_->scratch.assign(text);
        impl_->scratch.append(simdjson::SIMDJSON_PADDING, ' ');
        line = impl_->parse(impl_->scratch.data(), text.size(), utf8Error);
    }
    if (utf8Error) {
        // A bad byte inside a message's text should not cost the record.
        impl_->scratch = utf8::replaceInvalid(text);
        const std::size_t length = impl_->scratch.size();
        impl_->scratch.append(simdjson::SIMDJSON_PADDING, ' ');
        line = impl_->parse(impl_->scratch.data(), length, utf8Error);
    }
    return line;
}

bool inputIncludesCacheRead(std::string_view api) {
    return api == "google-generative-ai" || api == "google-vertex";
}

SessionState SessionState::decode(const std::string& parserContext) {
    SessionState s;
    if (parserContext.empty()) {
        return s;
    }
    const auto json = nlohmann::json::parse(parserContext, nullptr, false);
    if (!json.is_object()) {
        return s;
    }
    if (auto it = json.find("session"); it != json.end() && it->is_string()) {
        s.sessionID = it->get<std::string>();
    }
    if (auto it = json.find("cwd"); it != json.end() && it->is_string()) {
        s.cwd = it->get<std::string>();
    }
    return s;
}

std::string SessionState::encode() const {
    // Names from agents' files may hold bad UTF-8; nlohmann's dump would throw on them.
    return nlohmann::json{{"session", utf8::replaceInvalid(sessionID)},
                          {"cwd", utf8::replaceInvalid(cwd)}}
        .dump();
}

std::string eventID(AgentSource source, const PiUsage& usage, std::string_view sessionID,
                    int64_t position) {
    if (!usage.entryID.empty() && !usage.stamp.empty()) {
        return EventID::local(source, "", usage.entryID + "@" + usage.stamp, usage.model);
    }
    const std::string key =
        !usage.stamp.empty() ? usage.entryID + "@" + usage.stamp : "at:" + std::to_string(position);
    return EventID::local(source, sessionID, key, usage.model);
}

EventDraft draft(AgentSource source, const PiUsage& usage, const SessionState& session,
                 int64_t position, double fallbackTime) {
    EventDraft d;
    d.source = source;
    d.id = eventID(source, usage, session.sessionID, position);
    if (usage.occurredAt) {
        d.occurredAt = *usage.occurredAt;
        d.timeQuality = ObservationTimeQuality::trusted;
    } else {
        d.occurredAt = fallbackTime;
        d.timeQuality = ObservationTimeQuality::inferred;
    }
    d.precision = UsagePrecision::nativeExact;
    d.granularity = UsageGranularity::request;
    d.model = usage.model.empty() ? "unknown" : usage.model;
    // The model names its maker better than the agent's route ("openrouter", "amazon-bedrock");
    // the route is kept only for models nobody recognises.
    if (providerForModel(d.model) == "unknown" && !usage.provider.empty()) {
        d.provider = lower(usage.provider);
    }
    d.sessionID = session.sessionID;
    d.cwd = session.cwd;
    d.input = inputIncludesCacheRead(usage.api)
                  ? std::max<int64_t>(0, usage.input - usage.cacheRead)
                  : usage.input;
    d.cachedInput = usage.cacheRead;
    d.cacheWrite = usage.cacheWrite;
    d.output = usage.output;
    d.reasoning = 0;  // inside output; a separate count would bill it twice
    // totalTokens adds the cache counts to input and output; the ledger's provider total is
    // input plus output as the family's rule derives them, so it is left to that rule.
    nlohmann::json extras = nlohmann::json::object();
    // A zero figure means the agent had no price for the model, not that the request was free.
    if (usage.costUSD && *usage.costUSD > 0) {
        extras["costUSD"] = *usage.costUSD;
    }
    if (usage.reasoningTokens) {
        extras["reasoningTokens"] = *usage.reasoningTokens;
    }
    if (!extras.empty()) {
        d.rawExtras = extras.dump();
    }
    return d;
}

LineKind consume(LineReader& reader, std::string_view text, std::size_t paddingAfter,
                 int64_t position, AgentSource source, SessionState& session,
                 const SourceEventSink& sink, double fallbackTime) {
    auto line = reader.read(text, paddingAfter);
    if (line.sessionID && !line.sessionID->empty()) {
        session.sessionID = *line.sessionID;
    }
    if (line.cwd && !line.cwd->empty()) {
        session.cwd = *line.cwd;
    }
    if (line.usage) {
        sink(buildEvent(draft(source, *line.usage, session, position, fallbackTime)));
    }
    return line.kind;
}

std::expected<IngestResult, FileError> ingestLines(
    AgentSource source, int64_t parserVersion, const SourceReadContext& context,
    const std::optional<SourceCheckpoint>& checkpoint) {
    const auto& file = context.file;
    SessionState session =
        checkpoint ? SessionState::decode(checkpoint->parserContext) : SessionState{};
    if (session.sessionID.empty()) {
        session.sessionID = sessionIDFromFileName(file);
    }
    LineReader reader;
    const double fallbackTime = modificationTime(file);
    auto result =
        LineSource::read(source, parserVersion, file, checkpoint,
                         [&](std::string_view line, int64_t offset) {
                             return consume(reader, line, JSONL::kLinePadding, offset, source,
                                            session, context.sink, fallbackTime);
                         },
                         {.context = &context, .state = [&] { return session.encode(); }});
    if (result) {
        result->checkpoint.parserContext = session.encode();
    }
    return result;
}

std::expected<IngestResult, FileError> ingestLines(AgentSource source, int64_t parserVersion,
                                                   const SourceReadContext& context) {
    return ingestLines(source, parserVersion, context, context.checkpoint);
}

std::string sessionIDFromFileName(const std::filesystem::path& file) {
    std::string name = file.filename().string();
    if (name.ends_with(".zst")) {
        name.resize(name.size() - 4);
    }
    if (const auto reset = name.find(".jsonl.reset."); reset != std::string::npos) {
        name.resize(reset + 6);
    }
    if (name.ends_with(".jsonl")) {
        name.resize(name.size() - 6);
    }
    if (const auto underscore = name.rfind('_');
        underscore != std::string::npos && underscore + 1 < name.size()) {
        name = name.substr(underscore + 1);
    }
    return name;
}

double modificationTime(const std::filesystem::path& file) {
    struct stat st {};
    if (::stat(file.c_str(), &st) != 0) {
        return epochNow();
    }
    return static_cast<double>(st.st_mtim.tv_sec) + static_cast<double>(st.st_mtim.tv_nsec) / 1e9;
}

std::vector<std::filesystem::path> discoverSessions(const std::filesystem::path& root,
                                                    std::vector<FileError>* errors) {
    DiscoveryOptions options;
    options.errors = errors;
    options.accept = [&root](const std::filesystem::path& p) {
        if (p.extension() != ".jsonl") {
            return false;
        }
        const auto relative = p.lexically_relative(root).parent_path();
        return std::ranges::any_of(relative, [](const auto& part) { return part == "sessions"; });
    };
    return discoverFiles(root, options);
}

}  // namespace kestrel::PiSessionFormat
