#include "core/sources/transcripts/reasonix_reader.hpp"

#include <algorithm>

#include "core/model/event_id.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/file_discovery.hpp"
#include "core/sources/json_fields.hpp"
#include "core/sources/jsonl.hpp"
#include "core/sources/line_source.hpp"
#include "core/sources/transcripts/json_line.hpp"

namespace kestrel::ReasonixReader {

namespace dom = simdjson::dom;

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    return discoverFilesWithSuffix(root / "sessions", ".jsonl", errors);
}

std::string sessionIDFromName(const std::filesystem::path& log) {
    std::string name = log.filename().string();
    for (std::string_view suffix : {".events.jsonl", ".jsonl"}) {
        if (name.ends_with(suffix) && name.size() > suffix.size()) {
            name.resize(name.size() - suffix.size());
            break;
        }
    }
    return name;
}

namespace {

constexpr std::string_view kPrompt = "promptTokens";
constexpr std::string_view kCompletion = "completionTokens";
constexpr std::string_view kHit = "promptCacheHitTokens";
constexpr std::string_view kMiss = "promptCacheMissTokens";

struct Counts {
    std::optional<int64_t> prompt, completion, hit, miss;
    bool unreadable = false;
};

Counts readCounts(dom::object o) {
    Counts c;
    for (auto [key, target] : {std::pair{kPrompt, &c.prompt}, std::pair{kCompletion, &c.completion},
                               std::pair{kHit, &c.hit}, std::pair{kMiss, &c.miss}}) {
        dom::element v;
        if (o.at_key(key).get(v) || v.is_null()) {
            continue;
        }
        int64_t n = 0;
        if (JsonFields::readCount(v, n) && n >= 0) {
            *target = n;
        } else {
            c.unreadable = true;
        }
    }
    return c;
}

}  // namespace

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    const auto& log = context.file;
    const auto& checkpoint = context.checkpoint;
    const auto& sink = context.sink;
    const double fileTime = JsonLine::modificationTime(log);
    const std::string sessionFromName = sessionIDFromName(log);
    JsonLineParser parser;

    auto parse = [&](std::string_view line, int64_t offset) {
        using LineSource::LineKind;
        if (JsonFields::isBlank(line)) {
            return LineKind::blank;
        }
        if (!JsonFields::mentions(line, "Tokens\"")) {
            return JsonFields::looksLikeObject(line) ? LineKind::noUsage : LineKind::malformed;
        }
        auto record = parser.parse(line, JSONL::kLinePadding);
        if (!record) {
            return LineKind::malformed;
        }
        auto found = JsonLine::findObjectWithKey(*record, {kPrompt, kCompletion, kHit, kMiss});
        if (!found) {
            return LineKind::noUsage;
        }
        Counts c = readCounts(found->holder);
        if (c.unreadable || (!c.prompt && !c.hit && !c.miss && !c.completion)) {
            return LineKind::unreadableUsage;
        }
        // promptTokens is hits + misses; whichever part is missing follows from the others.
        if (!c.hit && c.prompt && c.miss) {
            c.hit = std::max<int64_t>(*c.prompt - *c.miss, 0);
        }
        if (!c.miss && c.prompt) {
            c.miss = std::max<int64_t>(*c.prompt - c.hit.value_or(0), 0);
        }
        const int64_t hit = c.hit.value_or(0), miss = c.miss.value_or(0);
        const int64_t output = c.completion.value_or(0);
        if (hit == 0 && miss == 0 && output == 0) {
            return LineKind::usage;
        }
        EventDraft d;
        d.source = AgentSource::reasonix;
        d.provider = "deepseek";
        d.model = found->model;
        d.sessionID = JsonLine::stringAt(*record, "sessionId");
        if (d.sessionID.empty()) {
            d.sessionID = sessionFromName;
        }
        std::string recordID = JsonLine::stringAt(*record, "id");
        if (recordID.empty()) {
            recordID = "@" + std::to_string(offset);  // lines never move in an append-only log
        }
        d.id = EventID::local(AgentSource::reasonix, d.sessionID, recordID, d.model);
        auto at = JsonLine::timeAt(*record, {"timestamp", "ts", "time", "createdAt", "created_at"});
        if (!at) {
            at = JsonLine::timeAt(found->holder, {"timestamp", "ts", "time", "createdAt"});
        }
        d.occurredAt = at.value_or(fileTime);
        d.timeQuality = at ? ObservationTimeQuality::trusted : ObservationTimeQuality::inferred;
        d.cwd = JsonLine::stringAt(*record, "cwd");
        d.input = miss;
        d.cachedInput = hit;
        d.output = output;
        sink(buildEvent(d));
        return LineKind::usage;
    };
    return LineSource::read(AgentSource::reasonix, parserVersion, log, checkpoint, parse,
                            {.context = &context});
}

SourceReader reader() {
    return {SourceReaderKind::jsonLines, parserVersion, discover, ingest};
}

}  // namespace kestrel::ReasonixReader
