#include "core/sources/transcripts/kimi_reader.hpp"

#include <array>
#include <cmath>
#include <fstream>

#include "core/model/event_id.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/file_discovery.hpp"
#include "core/sources/json_fields.hpp"
#include "core/sources/jsonl.hpp"
#include "core/sources/line_source.hpp"
#include "core/sources/transcripts/transcript_lines.hpp"
#include "core/sources/utf8.hpp"

namespace kestrel::KimiReader {
namespace {

namespace dom = simdjson::dom;
using LineSource::LineKind;
using TranscriptLines::CountRead;

constexpr std::string_view kUnknownModel = "kimi-unknown";
// Far beyond any real time, yet small enough to round safely into 64 bits.
constexpr double kMaxEpochMs = 1e15;

// Where a log sits decides whose session it belongs to.
struct LogFacts {
    bool kimiCode = false;  // sessions/<wd>/session_<id>/agents/<agent>/wire.jsonl
    std::string sessionID;
    std::string cwd;
    std::string projectLabel;
    double mtime = 0;
};

std::string_view trim(std::string_view s) {
    const auto first = s.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return {};
    }
    return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

// Kimi Code's index of sessions names each session's working directory.
std::string indexedWorkDir(const std::filesystem::path& root, const std::string& sessionFolder,
                           const std::string& sessionID) {
    std::string workDir;
    TranscriptLines::ObjectParser parser;
    (void)JSONL::forEachCompleteLine(
        root / "session_index.jsonl", 0, [&](std::string_view line, int64_t) {
            if (!workDir.empty() || !JsonFields::mentions(line, sessionID)) {
                return;
            }
            auto row = parser.parse(line);
            if (!row) {
                return;
            }
            const auto id = TranscriptLines::stringMember(*row, "sessionId").value_or("");
            const auto dir = TranscriptLines::stringMember(*row, "sessionDir").value_or("");
            if (id == sessionID || id == sessionFolder ||
                std::filesystem::path(dir).filename() == sessionFolder) {
                workDir = TranscriptLines::stringMember(*row, "workDir").value_or("");
            }
        });
    return workDir;
}

LogFacts factsOf(const std::filesystem::path& file) {
    LogFacts facts;
    facts.mtime = TranscriptLines::modificationTime(file);
    const auto dir = file.parent_path();
    if (dir.parent_path().filename() == "agents") {
        facts.kimiCode = true;
        const auto session = dir.parent_path().parent_path();
        const std::string folder = session.filename().string();
        facts.sessionID = folder.starts_with("session_") ? folder.substr(8) : folder;
        // wd_<slug>_<sha256-12>: the slug names the project when the index does not.
        const std::string workFolder = session.parent_path().filename().string();
        if (workFolder.starts_with("wd_") && workFolder.size() > 3) {
            const auto cut = workFolder.rfind('_');
            facts.projectLabel = workFolder.substr(3, cut > 3 ? cut - 3 : std::string::npos);
        }
        facts.cwd = indexedWorkDir(session.parent_path().parent_path().parent_path(), folder,
                                   facts.sessionID);
    } else if (dir.parent_path().filename() == "subagents") {
        facts.sessionID = dir.parent_path().parent_path().filename().string();
    } else {
        facts.sessionID = dir.filename().string();
    }
    return facts;
}

struct Usage {
    int64_t inputOther = 0, output = 0, cacheRead = 0, cacheCreation = 0;
    bool zero() const {
        return inputOther == 0 && output == 0 && cacheRead == 0 && cacheCreation == 0;
    }
};

// The four counts under either spelling; absent when one of them is not a count.
std::optional<Usage> readUsage(dom::object usage, bool camelCase) {
    Usage u;
    const std::array<std::pair<std::string_view, int64_t*>, 4> fields{{
        {camelCase ? "inputOther" : "input_other", &u.inputOther},
        {"output", &u.output},
        {camelCase ? "inputCacheRead" : "input_cache_read", &u.cacheRead},
        {camelCase ? "inputCacheCreation" : "input_cache_creation", &u.cacheCreation},
    }};
    for (const auto& [key, out] : fields) {
        if (TranscriptLines::readCountMember(usage, key, *out) == CountRead::invalid) {
            return std::nullopt;
        }
    }
    return u;
}

EventDraft draftFor(const LogFacts& facts, const Usage& u) {
    EventDraft d;
    d.source = AgentSource::kimi;
    d.provider = "moonshot";
    d.sessionID = facts.sessionID;
    d.cwd = facts.cwd;
    d.projectName = facts.projectLabel;
    d.input = u.inputOther;  // excludes both cache counts
    d.cachedInput = u.cacheRead;
    d.cacheWrite = u.cacheCreation;
    d.output = u.output;
    return d;
}

class LineReader {
  public:
    LineReader(const LogFacts& facts, std::string model)
        : facts_(facts), model_(std::move(model)) {}

    // Events of this read so far; a "forked" line drops the ones before it (copies).
    std::vector<UsageEvent> events;

    LineKind read(std::string_view line) {
        if (JsonFields::isBlank(line)) {
            return LineKind::blank;
        }
        if (!JsonFields::looksLikeObject(line)) {
            return LineKind::malformed;
        }
        if (!JsonFields::mentions(line, "token_usage") &&
            !JsonFields::mentions(line, "usage.record") && !JsonFields::mentions(line, "forked")) {
            return LineKind::noUsage;
        }
        auto record = parser_.parse(line);
        if (!record) {
            return LineKind::malformed;
        }
        const auto type = TranscriptLines::stringMember(*record, "type").value_or("");
        if (type == "usage.record") {
            return codeUsage(*record);
        }
        if (type == "forked") {
            events.clear();
            return LineKind::noUsage;
        }
        auto message = TranscriptLines::objectMember(*record, "message");
        if (!message) {
            return LineKind::noUsage;
        }
        double timestamp = facts_.mtime;
        bool trusted = false;
        if (auto t = TranscriptLines::member(*record, "timestamp")) {
            if (auto seconds = JsonFields::readNumber(*t);
                seconds && *seconds >= 0 && *seconds * 1000 <= kMaxEpochMs) {
                timestamp = *seconds;
                trusted = true;
            }
        }
        // A sub-agent's step forwarded into its parent's log: the same usage as in the
        // sub-agent's own log, told apart by nothing but its message id.
        for (int depth = 0; depth < 3; ++depth) {
            const auto kind = TranscriptLines::stringMember(*message, "type").value_or("");
            auto payload = TranscriptLines::objectMember(*message, "payload");
            if (!payload) {
                return LineKind::noUsage;
            }
            if (kind == "StatusUpdate") {
                return statusUpdate(*payload, timestamp, trusted);
            }
            if (kind != "SubagentEvent") {
                return LineKind::noUsage;
            }
            auto inner = TranscriptLines::objectMember(*payload, "event");
            if (!inner) {
                return LineKind::noUsage;
            }
            message = inner;
        }
        return LineKind::noUsage;
    }

  private:
    LineKind statusUpdate(dom::object payload, double timestamp, bool trusted) {
        auto value = TranscriptLines::member(payload, "token_usage");
        if (!value || value->is_null()) {
            return LineKind::noUsage;
        }
        dom::object usageObject;
        if (value->get_object().get(usageObject)) {
            return LineKind::unreadableUsage;
        }
        auto usage = readUsage(usageObject, false);
        if (!usage) {
            return LineKind::unreadableUsage;
        }
        if (usage->zero()) {
            return LineKind::noUsage;
        }
        EventDraft d = draftFor(facts_, *usage);
        d.model = model_;
        d.occurredAt = timestamp;
        d.timeQuality =
            trusted ? ObservationTimeQuality::trusted : ObservationTimeQuality::inferred;
        // The provider's message id is the one thing a fork's copy, a forwarded sub-agent step
        // and the original share; the model is only assumed from the configuration, so it
        // stays out of the identity as well.
        if (auto messageID = TranscriptLines::stringMember(payload, "message_id")) {
            d.id = EventID::kimi(*messageID, 0, "", "step");
        } else {
            d.id = EventID::kimi(facts_.sessionID, std::llround(timestamp * 1000), "", "step");
        }
        emit(d);
        return LineKind::usage;
    }

    LineKind codeUsage(dom::object record) {
        auto usageObject = TranscriptLines::objectMember(record, "usage");
        if (!usageObject) {
            return LineKind::unreadableUsage;
        }
        // Epoch milliseconds: beyond what a token count may be, so read as a plain number.
        std::optional<double> timeMs;
        if (auto t = TranscriptLines::member(record, "time"); t && !t->is_null()) {
            timeMs = JsonFields::readNumber(*t);
            if (!timeMs || *timeMs < 0 || *timeMs > kMaxEpochMs) {
                return LineKind::unreadableUsage;
            }
        }
        const int64_t time = timeMs ? std::llround(*timeMs) : 0;
        auto usage = readUsage(*usageObject, true);
        if (!usage) {
            return LineKind::unreadableUsage;
        }
        if (usage->zero()) {
            return LineKind::noUsage;  // the provider sent no usage for this request
        }
        EventDraft d = draftFor(facts_, *usage);
        d.model = TranscriptLines::stringMember(record, "model").value_or(model_);
        const bool trusted = timeMs.has_value();
        d.occurredAt = trusted ? static_cast<double>(time) / 1000.0 : facts_.mtime;
        d.timeQuality =
            trusted ? ObservationTimeQuality::trusted : ObservationTimeQuality::inferred;
        const auto scope = TranscriptLines::stringMember(record, "usageScope").value_or("turn");
        const auto agent = TranscriptLines::stringMember(record, "agentId").value_or("main");
        d.id = EventID::kimi(facts_.sessionID, time, d.model, scope + "@" + agent);
        emit(d);
        return LineKind::usage;
    }

    void emit(const EventDraft& d) { events.push_back(buildEvent(d)); }

    const LogFacts& facts_;
    std::string model_;
    TranscriptLines::ObjectParser parser_;
};

}  // namespace

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    DiscoveryOptions options;
    options.errors = errors;
    options.maxDepth = 8;
    options.accept = [](const std::filesystem::path& file) {
        return file.filename() == "wire.jsonl";
    };
    return discoverFiles(root / "sessions", options);
}

std::string configuredModel(const std::vector<std::filesystem::path>& roots) {
    constexpr std::uintmax_t kMaxConfigBytes = 1 << 20;
    auto unquote = [](std::string_view v) -> std::string {
        v = trim(v);
        if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'')) {
            const auto close = v.find(v.front(), 1);
            if (close != std::string_view::npos) {
                return std::string(v.substr(1, close - 1));
            }
        }
        return {};
    };
    // `key = "value"` on one line; empty when the line sets another key.
    auto valueOf = [&](std::string_view line, std::string_view key) -> std::string {
        if (!line.starts_with(key)) {
            return {};
        }
        auto rest = trim(line.substr(key.size()));
        return rest.starts_with('=') ? unquote(rest.substr(1)) : std::string();
    };
    for (const auto& root : roots) {
        auto text = LineSource::readSmallFile(root / "config.toml", kMaxConfigBytes);
        if (!text) {
            continue;
        }
        std::string alias, section, resolved;
        std::string_view rest = *text;
        std::vector<std::pair<std::string, std::string>> modelOf;  // alias table -> model
        while (!rest.empty()) {
            const auto end = rest.find('\n');
            const auto line = trim(rest.substr(0, end));
            rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
            if (line.starts_with('[')) {
                section = std::string(trim(line.substr(1, line.find(']') - 1)));
                continue;
            }
            if (section.empty()) {
                if (auto v = valueOf(line, "default_model"); !v.empty()) {
                    alias = v;
                }
            } else if (auto v = valueOf(line, "model"); !v.empty()) {
                modelOf.emplace_back(section, v);
            }
        }
        if (alias.empty()) {
            continue;
        }
        for (const auto& [table, model] : modelOf) {
            if (table == "models." + alias || table == "models.\"" + alias + "\"") {
                return utf8::replaceInvalid(model);
            }
        }
        return utf8::replaceInvalid(alias);
    }
    return {};
}

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    const auto& file = context.file;
    const auto& checkpoint = context.checkpoint;
    const auto& defaultModel = context.defaultModel;
    const auto& sink = context.sink;
    const LogFacts facts = factsOf(file);
    LineReader lines(facts, defaultModel.empty() ? std::string(kUnknownModel) : defaultModel);
    const auto flush = [&] {
        for (auto& e : lines.events) {
            sink(std::move(e));
        }
        lines.events.clear();
    };
    auto result =
        LineSource::read(AgentSource::kimi, parserVersion, file, checkpoint,
                         [&](std::string_view line, int64_t) {
                             auto kind = lines.read(line);
                             // Kimi CLI logs have no fork marker: nothing to hold.
                             if (!facts.kimiCode) {
                                 flush();
                             }
                             return kind;
                         },
                         // A Kimi Code log holds its events until its end, where no fork marker can
                         // follow that would drop them: it is not handed over in the middle.
                         {.context = &context, .ready = [&] { return !facts.kimiCode; }});
    if (result) {
        flush();
    }
    return result;
}

SourceReader reader() {
    return {SourceReaderKind::jsonLines, parserVersion, discover, ingest};
}

}  // namespace kestrel::KimiReader
