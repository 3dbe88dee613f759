#include "core/sources/codex_parser.hpp"

#include <simdjson.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <unordered_set>

#include "core/model/base64.hpp"
#include "core/model/event_id.hpp"
#include "core/model/privacy.hpp"
#include "core/model/timestamp.hpp"
#include "core/model/token_semantics.hpp"
#include "core/sources/checkpoint_reuse.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/file_discovery.hpp"
#include "core/sources/json_fields.hpp"
#include "core/sources/jsonl.hpp"
#include "core/sources/utf8.hpp"
#include "core/sources/zstd_reader.hpp"

namespace kestrel {

void to_json(nlohmann::json& j, const CodexContext& c) {
    j = nlohmann::json{{"sessionID", c.sessionID},
                       {"model", c.model},
                       {"cwd", c.cwd},
                       {"tokenUsageBaselines", c.tokenUsageBaselines},
                       {"forkedFromID", c.forkedFromID},
                       {"replayingParent", c.replayingParent},
                       {"lastReplayAt", c.lastReplayAt}};
}

void from_json(const nlohmann::json& j, CodexContext& c) {
    c.sessionID = j.value("sessionID", std::string());
    c.model = j.value("model", std::string());
    c.cwd = j.value("cwd", std::string());
    c.tokenUsageBaselines.clear();
    if (auto it = j.find("tokenUsageBaselines"); it != j.end() && it->is_array()) {
        for (const auto& b : *it) {
            c.tokenUsageBaselines.push_back(b.get<TokenSnapshot>());
        }
    }
    c.forkedFromID = j.value("forkedFromID", std::string());
    c.replayingParent = j.value("replayingParent", false);
    c.lastReplayAt = j.value("lastReplayAt", 0.0);
}

namespace CodexParser {

static_assert(JSONL::kLinePadding >= simdjson::SIMDJSON_PADDING,
              "lines are parsed in place with simdjson's padding");

namespace {

constexpr std::string_view kPlainSuffix = ".jsonl";
constexpr std::string_view kCompressedSuffix = ".jsonl.zst";
constexpr std::size_t kMaxBaselines = 8;

bool isCompressed(const std::filesystem::path& p) {
    return p.filename().native().ends_with(kCompressedSuffix);
}

bool isRolloutName(const std::string& name) {
    return name.starts_with("rollout-") &&
           (name.ends_with(kPlainSuffix) || name.ends_with(kCompressedSuffix));
}

}  // namespace

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    DiscoveryOptions options;
    options.accept = [](const std::filesystem::path& p) {
        return isRolloutName(p.filename().string());
    };
    options.errors = errors;
    std::vector<std::filesystem::path> all;
    // In this order the two sorted lists make one sorted list.
    for (const char* folder : {"archived_sessions", "sessions"}) {
        auto found = discoverFiles(root / folder, options);
        all.insert(all.end(), std::make_move_iterator(found.begin()),
                   std::make_move_iterator(found.end()));
    }
    std::unordered_set<std::string> plainFiles;
    for (const auto& p : all) {
        if (!isCompressed(p)) {
            plainFiles.insert(p.native());
        }
    }
    std::vector<std::filesystem::path> kept;
    kept.reserve(all.size());
    for (auto& p : all) {
        // The plain file is the live one; a compressed copy beside it would only repeat it.
        if (isCompressed(p) &&
            plainFiles.contains(p.native().substr(0, p.native().size() - 4))) {  // less ".zst"
            continue;
        }
        kept.push_back(std::move(p));
    }
    return kept;
}

std::optional<std::string> rolloutDate(const std::filesystem::path& rollout) {
    static const std::regex pattern(R"(^rollout-(\d{4}-\d{2}-\d{2})T)");
    const std::string name = rollout.filename().string();
    std::smatch m;
    if (!std::regex_search(name, m, pattern)) {
        return std::nullopt;
    }
    return m[1].str();
}

std::string sessionIDFromName(const std::filesystem::path& rollout) {
    std::string name = rollout.filename().string();
    for (auto suffix : {kCompressedSuffix, kPlainSuffix}) {
        if (name.ends_with(suffix)) {
            name.resize(name.size() - suffix.size());
            break;
        }
    }
    // A UUID is 36 characters: 8-4-4-4-12 hexadecimal digits.
    if (name.size() < 37 || name[name.size() - 37] != '-') {
        return {};
    }
    std::string id = name.substr(name.size() - 36);
    for (std::size_t i = 0; i < id.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? id[i] != '-' : !std::isxdigit(static_cast<unsigned char>(id[i]))) {
            return {};
        }
    }
    return id;
}

namespace {

namespace dom = simdjson::dom;
using JsonFields::isBlank;
using JsonFields::looksLikeObject;
using JsonFields::mentions;
using JsonFields::readCount;
using JsonFields::readNumber;
using JsonFields::readString;

// ---- reading one line ----------------------------------------------------------------------

enum class LineKind { blank, malformed, other, sessionMeta, turnContext, tokenCount };

struct Counts {
    TokenSnapshot snapshot;
    bool hasTotal = false;    // total_tokens was written
    int known = 0;            // token keys read
    bool unreadable = false;  // a token key of the wrong type or out of range
};

struct LimitWindow {
    std::optional<double> usedPercent;
    std::optional<int64_t> windowMinutes;
    std::optional<double> resetsAt;
    std::optional<double> resetsInSeconds;
    std::string limitName;
};

struct RateLimits {
    std::optional<LimitWindow> primary;
    std::optional<LimitWindow> secondary;
    std::string planType;
};

struct CodexLine {
    LineKind kind = LineKind::other;
    std::string timestamp;
    // session_meta
    std::string id;
    std::string forkedFromID;
    // session_meta, turn_context
    std::string cwd;
    std::string model;  // turn_context; Every Code's latest_response_model on a report
    // token_count
    bool hasInfo = false;
    std::optional<Counts> total;
    std::optional<Counts> last;
    std::optional<RateLimits> rateLimits;
};

// Only three kinds of record matter; the rest (messages, tool output, reasoning) is most of
// the bytes and is never parsed.
bool mayMatter(std::string_view line) {
    return mentions(line, "token_count") || mentions(line, "session_meta") ||
           mentions(line, "turn_context");
}

std::optional<Counts> readCounts(dom::element v) {
    dom::object o;
    if (v.get_object().get(o)) {
        return std::nullopt;
    }
    Counts c;
    for (auto [key, value] : o) {
        int64_t* field = nullptr;
        if (key == "input_tokens") {
            field = &c.snapshot.input;
        } else if (key == "cached_input_tokens") {
            field = &c.snapshot.cachedInput;
        } else if (key == "cache_write_input_tokens") {
            field = &c.snapshot.cacheCreate;
        } else if (key == "output_tokens") {
            field = &c.snapshot.output;
        } else if (key == "reasoning_output_tokens") {
            field = &c.snapshot.reasoning;
        } else if (key == "total_tokens") {
            field = &c.snapshot.providerTotal;
        }
        if (field == nullptr || value.is_null()) {
            continue;
        }
        if (readCount(value, *field)) {
            ++c.known;
            c.hasTotal = c.hasTotal || field == &c.snapshot.providerTotal;
        } else {
            c.unreadable = true;
        }
    }
    return c;
}

std::optional<LimitWindow> readWindow(dom::element v) {
    dom::object o;
    if (v.get_object().get(o)) {
        return std::nullopt;
    }
    LimitWindow w;
    for (auto [key, value] : o) {
        if (key == "used_percent") {
            w.usedPercent = readNumber(value);
        } else if (key == "window_minutes") {
            int64_t m = 0;
            if (readCount(value, m)) {
                w.windowMinutes = m;
            }
        } else if (key == "resets_at") {
            w.resetsAt = readNumber(value);
        } else if (key == "resets_in_seconds") {
            w.resetsInSeconds = readNumber(value);
        } else if (key == "limit_name") {
            readString(value, w.limitName);
        }
    }
    return w;
}

std::optional<RateLimits> readRateLimits(dom::element v) {
    dom::object o;
    if (v.get_object().get(o)) {
        return std::nullopt;
    }
    RateLimits r;
    for (auto [key, value] : o) {
        if (key == "primary") {
            r.primary = readWindow(value);
        } else if (key == "secondary") {
            r.secondary = readWindow(value);
        } else if (key == "plan_type") {
            readString(value, r.planType);
        }
    }
    return r;
}

// The message of a token report: the payload itself ("event_msg") or its "msg" ("event").
void readTokenCount(dom::object msg, CodexLine& line) {
    for (auto [key, value] : msg) {
        if (key == "info") {
            dom::object info;
            if (value.get_object().get(info)) {
                continue;  // null: a rate-limit-only report
            }
            line.hasInfo = true;
            for (auto [k, v] : info) {
                if (k == "total_token_usage") {
                    line.total = readCounts(v);
                } else if (k == "last_token_usage") {
                    line.last = readCounts(v);
                } else if (k == "latest_response_model") {
                    readString(v, line.model);
                }
            }
        } else if (key == "rate_limits") {
            line.rateLimits = readRateLimits(value);
        }
    }
}

bool isTokenCount(dom::object o) {
    std::string_view type;
    return !o["type"].get_string().get(type) && type == "token_count";
}

void readPayload(std::string_view type, dom::object payload, CodexLine& line) {
    if (type == "session_meta") {
        line.kind = LineKind::sessionMeta;
        for (auto [key, value] : payload) {
            if (key == "id" || (key == "session_id" && line.id.empty())) {
                readString(value, line.id);
            } else if (key == "cwd") {
                readString(value, line.cwd);
            } else if (key == "forked_from_id") {
                readString(value, line.forkedFromID);
            }
        }
    } else if (type == "turn_context") {
        line.kind = LineKind::turnContext;
        for (auto [key, value] : payload) {
            if (key == "model") {
                readString(value, line.model);
            } else if (key == "cwd") {
                readString(value, line.cwd);
            }
        }
    } else if (type == "event_msg") {
        if (isTokenCount(payload)) {
            line.kind = LineKind::tokenCount;
            readTokenCount(payload, line);
        }
    } else if (type == "event") {
        dom::object msg;
        if (!payload["msg"].get_object().get(msg) && isTokenCount(msg)) {
            line.kind = LineKind::tokenCount;
            readTokenCount(msg, line);
        }
    }
}

class LineReader {
  public:
    LineKind read(std::string_view text, std::size_t paddingAfter, CodexLine& line) {
        if (isBlank(text)) {
            return LineKind::blank;
        }
        if (!looksLikeObject(text)) {
            return LineKind::malformed;
        }
        if (!mayMatter(text)) {
            return LineKind::other;
        }
        bool utf8Error = false;
        LineKind kind;
        if (paddingAfter >= simdjson::SIMDJSON_PADDING) {
            kind = parse(text.data(), text.size(), line, utf8Error);
        } else {
            scratch_.assign(text);
            scratch_.append(simdjson::SIMDJSON_PADDING, ' ');
            kind = parse(scratch_.data(), text.size(), line, utf8Error);
        }
        if (utf8Error) {
            // A bad byte in a message string should not cost the record.
            scratch_ = utf8::replaceInvalid(text);
            const std::size_t length = scratch_.size();
            scratch_.append(simdjson::SIMDJSON_PADDING, ' ');
            kind = parse(scratch_.data(), length, line, utf8Error);
        }
        return kind;
    }

  private:
    LineKind parse(const char* data, std::size_t length, CodexLine& line, bool& utf8Error) {
        utf8Error = false;
        dom::element doc;
        if (auto err = parser_.parse(data, length, false).get(doc); err) {
            utf8Error = err == simdjson::UTF8_ERROR;
            return LineKind::malformed;
        }
        dom::object object;
        if (doc.get_object().get(object)) {
            return LineKind::malformed;
        }
        line = CodexLine{};
        std::string_view type;
        dom::object payload;
        bool hasPayload = false;
        for (auto [key, value] : object) {
            if (key == "type") {
                if (value.get_string().get(type)) {
                    type = {};
                }
            } else if (key == "payload") {
                hasPayload = !value.get_object().get(payload);
            } else if (key == "timestamp") {
                readString(value, line.timestamp);
            }
        }
        if (hasPayload) {
            readPayload(type, payload, line);
        }
        return line.kind;
    }

    dom::parser parser_;
    std::string scratch_;
};

// The envelope's time without parsing the line; the agent writes "timestamp" first.
std::optional<double> leadingTimestamp(std::string_view line) {
    constexpr std::string_view key = "\"timestamp\":\"";
    const auto at = line.substr(0, 64).find(key);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    const auto start = at + key.size();
    const auto end = line.find('"', start);
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    return parseISO8601(line.substr(start, end - start));
}

// ---- turning reports into events -----------------------------------------------------------

// The fill-to-context-window rewrite: only total_tokens is set.
bool isContextFill(const Counts& c) {
    const auto& s = c.snapshot;
    return s.input == 0 && s.cachedInput == 0 && s.cacheCreate == 0 && s.output == 0 &&
           s.reasoning == 0 && s.providerTotal > 0;
}

bool isZero(const TokenSnapshot& s) {
    return s.input == 0 && s.cachedInput == 0 && s.cacheCreate == 0 && s.output == 0 &&
           s.reasoning == 0;
}

QuotaWindowKind windowKind(std::optional<int64_t> minutes) {
    if (!minutes || *minutes <= 24 * 60) {
        return QuotaWindowKind::session5h;
    }
    if (*minutes <= 8 * 24 * 60) {
        return QuotaWindowKind::weekly;
    }
    return QuotaWindowKind::monthly;
}

std::optional<AccountSnapshot> quotaFrom(const RateLimits& limits, double at, AgentSource source) {
    AccountSnapshot snapshot;
    snapshot.identity.source = source;
    snapshot.identity.planLabel = limits.planType.empty() ? "unknown" : limits.planType;
    for (const auto* w : {&limits.primary, &limits.secondary}) {
        if (!*w) {
            continue;
        }
        QuotaWindow q;
        q.kind = windowKind((*w)->windowMinutes);
        q.usedPercent = (*w)->usedPercent;
        if ((*w)->resetsAt) {
            q.resetsAt = (*w)->resetsAt;
        } else if ((*w)->resetsInSeconds) {
            // Older builds wrote the time left, relative to the report.
            q.resetsAt = at + *(*w)->resetsInSeconds;
        }
        if (!(*w)->limitName.empty()) {
            q.label = (*w)->limitName;
        }
        snapshot.windows.push_back(std::move(q));
    }
    if (snapshot.windows.empty()) {
        return std::nullopt;
    }
    snapshot.fetchedAt = at;
    snapshot.provenance = QuotaProvenance::localSession;
    snapshot.completeness = CostCompleteness::none;
    return snapshot;
}

struct Reading {
    AgentSource source;  // codex, or a fork writing the same rollouts
    double fileTime = 0;
    std::string sessionFromName;
    CodexContext context;
    IngestResult& result;
    const SourceEventSink& sink;
    double quotaAt = -1;
    int64_t usableReports = 0;
    int64_t unreadableReports = 0;

    const TokenSnapshot* baseline() const {
        return context.tokenUsageBaselines.empty() ? nullptr : &context.tokenUsageBaselines.back();
    }

    void setBaseline(const TokenSnapshot& totals) {
        if (context.tokenUsageBaselines.empty()) {
            context.tokenUsageBaselines.push_back(totals);
        } else {
            context.tokenUsageBaselines.back() = totals;
        }
        result.checkpoint.lastCumulative = totals;
    }

    // The counters went backwards: keep the old baseline for the record, start a new one.
    void restartBaseline(const TokenSnapshot& totals) {
        context.tokenUsageBaselines.push_back(totals);
        if (context.tokenUsageBaselines.size() > kMaxBaselines) {
            context.tokenUsageBaselines.erase(context.tokenUsageBaselines.begin());
        }
        result.checkpoint.lastCumulative = totals;
    }

    void onLine(std::string_view text, const CodexLine& line, LineKind kind) {
        if (context.replayingParent) {
            const auto at =
                kind == LineKind::other || kind == LineKind::blank || kind == LineKind::malformed
                    ? leadingTimestamp(text)
                    : parseISO8601(line.timestamp);
            if (at && *at > context.lastReplayAt + kForkReplayGapSeconds) {
                context.replayingParent = false;
            } else if (at) {
                context.lastReplayAt = std::max(context.lastReplayAt, *at);
            }
        }
        switch (kind) {
            case LineKind::blank:
                return;
            case LineKind::malformed:
                ++result.stats.malformed;
                return;
            case LineKind::other:
                ++result.stats.withoutUsage;
                return;
            case LineKind::sessionMeta:
                ++result.stats.withoutUsage;
                onSessionMeta(line);
                return;
            case LineKind::turnContext:
                ++result.stats.withoutUsage;
                if (!line.model.empty()) {
                    context.model = line.model;
                }
                if (!line.cwd.empty()) {
                    context.cwd = line.cwd;
                }
                return;
            case LineKind::tokenCount:
                onReport(line);
                return;
        }
    }

    void onSessionMeta(const CodexLine& line) {
        if (!context.sessionID.empty() && line.id != context.sessionID) {
            return;  // an ancestor's metadata copied into a fork: not this file's session
        }
        if (context.sessionID.empty()) {
            context.sessionID = line.id;
            if (!line.forkedFromID.empty()) {
                context.forkedFromID = line.forkedFromID;
                context.replayingParent = true;
                context.lastReplayAt = parseISO8601(line.timestamp).value_or(fileTime);
            }
        }
        if (!line.cwd.empty()) {
            context.cwd = line.cwd;
        }
    }

    void onReport(const CodexLine& line) {
        const auto at = parseISO8601(line.timestamp);
        if (line.rateLimits && !context.replayingParent) {
            const double when = at.value_or(fileTime);
            if (when >= quotaAt) {
                if (auto q = quotaFrom(*line.rateLimits, when, source)) {
                    result.quota = std::move(q);
                    quotaAt = when;
                }
            }
        }
        if (!line.hasInfo) {
            ++result.stats.withoutUsage;  // a rate-limit-only report
            return;
        }
        const bool totalUsable = line.total && !line.total->unreadable && line.total->known > 0;
        const bool lastUsable = line.last && !line.last->unreadable && line.last->known > 0;
        if ((line.total && line.total->unreadable) || (line.last && line.last->unreadable) ||
            (!totalUsable && !lastUsable)) {
            // Usage that is there but cannot be read: a count of the wrong type or far beyond
            // any request, or token objects without a single known key.
            ++result.stats.malformed;
            ++unreadableReports;
            return;
        }
        ++usableReports;
        if ((totalUsable && isContextFill(*line.total)) ||
            (!totalUsable && isContextFill(*line.last))) {
            ++result.stats.withoutUsage;
            return;
        }
        std::optional<TokenSnapshot> usage;
        TokenSnapshot identityTotals;
        bool hasTotal = false;
        if (totalUsable) {
            const TokenSnapshot& totals = line.total->snapshot;
            identityTotals = totals;
            hasTotal = line.total->hasTotal;
            if (const TokenSnapshot* before = baseline()) {
                usage = TokenSemantics::delta(*before, totals);
                if (usage) {
                    setBaseline(totals);
                } else {
                    // A restart of the counters. The request's own counts are the new usage
                    // when they fit inside the new totals; otherwise the totals themselves.
                    restartBaseline(totals);
                    usage = line.last && line.last->snapshot.input <= totals.input &&
                                    line.last->snapshot.output <= totals.output
                                ? line.last->snapshot
                                : totals;
                    hasTotal = line.last ? line.last->hasTotal : hasTotal;
                }
            } else {
                setBaseline(totals);
                usage = totals;
            }
        } else {
            // No running totals: the request's counts are the usage, and the baseline moves on
            // by them so a later report with totals does not count them again.
            usage = line.last->snapshot;
            hasTotal = line.last->hasTotal;
            TokenSnapshot moved = baseline() ? *baseline() : TokenSnapshot{};
            bool overflow = false;
            for (auto [sum, add] : {std::pair{&moved.input, usage->input},
                                    std::pair{&moved.cachedInput, usage->cachedInput},
                                    std::pair{&moved.cacheCreate, usage->cacheCreate},
                                    std::pair{&moved.output, usage->output},
                                    std::pair{&moved.reasoning, usage->reasoning},
                                    std::pair{&moved.providerTotal, usage->providerTotal}}) {
                overflow = __builtin_add_overflow(*sum, add, sum) || overflow;
            }
            if (overflow) {
                // Only a file built to break readers sums past 64 bits; it proves nothing.
                ++result.stats.malformed;
                return;
            }
            setBaseline(moved);
            identityTotals = moved;
        }
        if (context.replayingParent || isZero(*usage)) {
            // Copied parent history (already counted from the parent's file), or a repeat.
            ++result.stats.withoutUsage;
            return;
        }
        sink(makeEvent(line, at, *usage, hasTotal, identityTotals));
    }

    UsageEvent makeEvent(const CodexLine& line, std::optional<double> at,
                         const TokenSnapshot& usage, bool hasTotal, const TokenSnapshot& totals) {
        UsageEvent e;
        const std::string& session =
            context.sessionID.empty() ? sessionFromName : context.sessionID;
        e.id = EventID::codex(session, line.timestamp, totals);
        if (source != AgentSource::codex) {
            // A fork's session may share an id with a Codex one (a history imported from it):
            // its events keep their own prefix so neither replaces the other in the ledger.
            e.id = std::string(rawValue(source)) + e.id.substr(e.id.find(':'));
        }
        e.occurredAt = at.value_or(fileTime);
        e.timeQuality = at ? ObservationTimeQuality::trusted : ObservationTimeQuality::inferred;
        e.usagePrecision = UsagePrecision::nativeExact;
        e.granularity = UsageGranularity::request;
        e.source = source;
        e.model = line.model.empty() ? context.model : line.model;
        e.provider = "openai";
        if (source != AgentSource::codex) {
            // Forks route to other vendors too; the model name says which.
            if (auto vendor = providerForModel(e.model); vendor != "unknown") {
                e.provider = std::move(vendor);
            }
        }
        if (!context.cwd.empty()) {
            e.cwdHash = Privacy::cwdHash(context.cwd);
            e.projectDisplayName = Privacy::displayName(context.cwd);
        }
        e.sessionID = session;
        e.raw = usage;
        if (!hasTotal) {
            e.raw.providerTotal = 0;
        }
        // Rollouts keep cached input inside input and reasoning inside output, whichever agent
        // wrote them. A fork whose source counts through the independent rule has those parts
        // taken out first, so that both agents' buckets come out the same.
        const auto mapped =
            TokenSemantics::family(source) == TokenFamily::subset
                ? TokenSemantics::map(source, e.raw, hasTotal)
                : TokenSemantics::map(source, std::max<int64_t>(usage.input - usage.cachedInput, 0),
                                      usage.cachedInput, usage.cacheCreate,
                                      std::max<int64_t>(usage.output - usage.reasoning, 0),
                                      usage.reasoning, std::nullopt);
        e.exclusive = mapped.exclusive;
        e.breakdownTrusted = mapped.trusted;
        e.providerInputTotal = mapped.providerIn;
        e.providerOutputTotal = mapped.providerOut;
        e.providerTotal = mapped.providerTotal;
        e.usageSemanticsVersion = usageSemanticsVersion(source);
        if (!context.forkedFromID.empty()) {
            nlohmann::json extras{{"forkedFromId", context.forkedFromID}};
            e.rawExtras = extras.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        }
        e.promptTokens = TokenSemantics::promptTokens(e.exclusive);
        return e;
    }
};

double modificationTime(const std::filesystem::path& p) {
    struct stat st {};
    if (::stat(p.c_str(), &st) != 0) {
        return 0;
    }
    return static_cast<double>(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9;
}

std::optional<CodexContext> contextFrom(const SourceCheckpoint& cp) {
    if (cp.parserContext.empty()) {
        return std::nullopt;
    }
    auto json = nlohmann::json::parse(cp.parserContext, nullptr, false);
    if (json.is_discarded() || !json.is_object()) {
        return std::nullopt;
    }
    try {
        return json.get<CodexContext>();
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
}

}  // namespace

std::expected<IngestResult, FileError> ingest(const SourceReadContext& read) {
    const auto& rollout = read.file;
    const auto& checkpoint = read.checkpoint;
    const AgentSource source = read.source;
    const bool compressed = isCompressed(rollout);
    const auto stamp = fileStamp(rollout);
    if (compressed && checkpoint && checkpoint->fileStamp && stamp &&
        *checkpoint->fileStamp == *stamp && checkpoint->parserVersion == parserVersion) {
        IngestResult same;
        same.checkpoint = *checkpoint;
        return same;  // already read whole at this stamp
    }

    // Resuming needs both the offset and the state that goes with it; without either the file
    // is read from its start, which the event identities make harmless.
    int64_t start = 0;
    std::optional<CodexContext> resumed;
    if (!compressed && checkpoint && checkpoint->byteOffset && *checkpoint->byteOffset > 0) {
        resumed = contextFrom(*checkpoint);
        if (resumed) {
            start = *checkpoint->byteOffset;
        }
    }

    IngestResult result;
    Reading reading{source,
                    modificationTime(rollout),
                    sessionIDFromName(rollout),
                    resumed.value_or(CodexContext{}),
                    result,
                    read.sink};
    if (reading.context.model.empty()) {
        reading.context.model = read.defaultModel;
    }
    if (resumed && !resumed->tokenUsageBaselines.empty()) {
        result.checkpoint.lastCumulative = resumed->tokenUsageBaselines.back();
    }

    // The checkpoint after the lines read so far, the reading state included, so that a read
    // resumed from it goes on exactly as this one would.
    // The inode and fingerprint come from the read itself at the end of a plain file.
    const auto checkpointAt = [&](int64_t next, std::optional<int64_t> partialStart,
                                  std::optional<uint64_t> inode = std::nullopt,
                                  std::optional<std::string> fingerprint = std::nullopt) {
        SourceCheckpoint cp;
        cp.source = source;
        cp.stableID = SourceCheckpoint::stableIDFor(rollout);
        cp.pathHint = rollout.string();
        cp.inode = inode ? inode : JSONL::inode(rollout);
        cp.byteOffset = next;
        cp.partialLineStart = partialStart;
        cp.contentFingerprint =
            fingerprint ? std::move(fingerprint) : JSONL::boundaryFingerprint(rollout, next);
        cp.lastCumulative = result.checkpoint.lastCumulative;
        cp.parserContext = nlohmann::json(reading.context).dump();
        cp.parserVersion = parserVersion;
        cp.schemaVersion = checkpointSchemaVersion;
        return cp;
    };
    // Offsets into a decompressed archive cannot be resumed from: it is read in one go.
    const bool mayHandOver = !compressed && read.wantsHandOver && read.handOver;

    LineReader reader;
    CodexLine line;
    const auto onLine = [&](std::string_view text, int64_t offset) {
        ++result.stats.lines;
        const LineKind kind = reader.read(text, JSONL::kLinePadding, line);
        reading.onLine(text, line, kind);
        if (mayHandOver && read.wantsHandOver()) {
            read.handOver(checkpointAt(JSONL::offsetAfter(text, offset), std::nullopt));
        }
    };
    auto end = compressed ? Zstd::forEachLine(rollout, onLine)
                          : JSONL::forEachCompleteLineSealed(rollout, start, onLine);
    if (!end) {
        return std::unexpected(end.error());
    }
    result.stats.malformed += end->oversizedLines;
    result.stats.lines += end->oversizedLines;
    // A whole file whose token reports are there but none of which can be read: Codex changed
    // how it writes them, which a person should hear about rather than see zero. (One odd
    // report appended to a file that read well is damage, not a new format.)
    result.formatChanged =
        start == 0 && reading.unreadableReports > 0 && reading.usableReports == 0;

    if (compressed) {
        // The checkpoint covers the whole compressed file, and a changed stamp means reading it
        // all again.
        std::error_code ec;
        const auto size = std::filesystem::file_size(rollout, ec);
        result.checkpoint = checkpointAt(ec ? 0 : static_cast<int64_t>(size), std::nullopt);
        result.stats.bytes = *result.checkpoint.byteOffset;
    } else {
        result.checkpoint = checkpointAt(end->nextOffset, end->partialStart, end->inode,
                                         std::move(end->fingerprint));
        result.stats.bytes = end->nextOffset - start;
    }
    result.checkpoint.fileStamp = stamp;
    return result;
}

SourceReader reader() {
    return {SourceReaderKind::jsonLines, parserVersion, discover, ingest};
}

namespace {

std::string_view trim(std::string_view s) {
    const auto first = s.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return {};
    }
    const auto last = s.find_last_not_of(" \t\r");
    return s.substr(first, last - first + 1);
}

}  // namespace

std::string configuredModel(const std::vector<std::filesystem::path>& roots) {
    // A full TOML parser is not worth it for one quoted string. Only a small regular file is
    // read: a FIFO or a device in its place must not stall the scan.
    constexpr std::uintmax_t kMaxConfigBytes = 1 << 20;
    for (const auto& root : roots) {
        const auto config = root / "config.toml";
        std::error_code ec;
        if (!std::filesystem::is_regular_file(config, ec) ||
            std::filesystem::file_size(config, ec) > kMaxConfigBytes || ec) {
            continue;
        }
        std::ifstream in(config);
        std::string line;
        while (in && std::getline(in, line)) {
            const auto text = trim(line);
            if (text.starts_with('[')) {
                break;
            }
            if (!text.starts_with("model")) {
                continue;
            }
            auto rest = trim(text.substr(5));
            if (!rest.starts_with('=')) {
                continue;  // model_provider, model_reasoning_effort, ...
            }
            rest = trim(rest.substr(1));
            if (rest.size() >= 2 && (rest.front() == '"' || rest.front() == '\'')) {
                const auto close = rest.find(rest.front(), 1);
                if (close != std::string_view::npos && close > 1) {
                    // The name lands in checkpoints and the ledger, which hold valid UTF-8 only.
                    return utf8::replaceInvalid(rest.substr(1, close - 1));
                }
            }
        }
    }
    return {};
}

// ---- auth.json ---------------------------------------------------------------------------------

namespace {

// The payload (middle part) of a JWT, decoded from base64url; not verified, only read.
std::optional<nlohmann::json> jwtPayload(const std::string& token) {
    const auto first = token.find('.');
    const auto second = first == std::string::npos ? first : token.find('.', first + 1);
    if (second == std::string::npos) {
        return std::nullopt;
    }
    std::string text = token.substr(first + 1, second - first - 1);
    for (char& c : text) {
        c = c == '-' ? '+' : c == '_' ? '/' : c;
    }
    text.append((4 - text.size() % 4) % 4, '=');
    const auto bytes = base64::decode(text);
    if (!bytes) {
        return std::nullopt;
    }
    auto json = nlohmann::json::parse(*bytes, nullptr, false);
    if (json.is_discarded() || !json.is_object()) {
        return std::nullopt;
    }
    return json;
}

std::optional<std::string> stringAt(const nlohmann::json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_string() || it->get_ref<const std::string&>().empty()) {
        return std::nullopt;
    }
    return it->get<std::string>();
}

}  // namespace

std::optional<AccountIdentity> accountIdentityFromAuthJSON(const nlohmann::json& auth) {
    if (!auth.is_object()) {
        return std::nullopt;
    }
    auto tokens = auth.find("tokens");
    if (tokens == auth.end() || !tokens->is_object()) {
        return std::nullopt;
    }
    const auto idToken = stringAt(*tokens, "id_token");
    const auto claims = idToken ? jwtPayload(*idToken) : std::nullopt;
    if (!claims) {
        return std::nullopt;
    }
    AccountIdentity identity;
    identity.source = AgentSource::codex;
    identity.planLabel = "unknown";
    if (auto email = stringAt(*claims, "email")) {
        identity.emailMasked = Privacy::maskEmail(*email);
    }
    if (auto it = claims->find("https://api.openai.com/auth");
        it != claims->end() && it->is_object()) {
        if (auto plan = stringAt(*it, "chatgpt_plan_type")) {
            identity.planLabel = *plan;
        }
    }
    return identity;
}

std::optional<AccountIdentity> accountIdentityFromAuthFile(const std::filesystem::path& authJSON) {
    std::error_code ec;
    const auto size = std::filesystem::file_size(authJSON, ec);
    if (ec || size > (1u << 20)) {
        return std::nullopt;  // the file is a few kilobytes; anything larger is not it
    }
    std::ifstream in(authJSON, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    auto json = nlohmann::json::parse(in, nullptr, false);
    if (json.is_discarded()) {
        return std::nullopt;
    }
    return accountIdentityFromAuthJSON(json);
}

}  // namespace CodexParser
}  // namespace kestrel
