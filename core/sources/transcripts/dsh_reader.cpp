#include "core/sources/transcripts/dsh_reader.hpp"

#include <nlohmann/json.hpp>

#include "core/model/event_id.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/file_discovery.hpp"
#include "core/sources/json_fields.hpp"
#include "core/sources/jsonl.hpp"
#include "core/sources/line_source.hpp"
#include "core/sources/sqlite_cumulative.hpp"
#include "core/sources/transcripts/json_line.hpp"

namespace kestrel::DshReader {

namespace dom = simdjson::dom;

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    return discoverFilesWithSuffix(root, ".jsonl", errors);
}

namespace {

constexpr std::string_view kUncached = "uncachedInputTokens";
constexpr std::string_view kCacheRead = "cacheReadTokens";
constexpr std::string_view kCacheWrite = "cacheWriteTokens";
constexpr std::string_view kOutput = "outputTokens";

// A parser context written by this reader: an object with "entries". Anything else (none, or
// another parser's) means the totals behind the offset are unknown.
bool isOurContext(const std::string& text) {
    if (text.empty()) {
        return false;
    }
    const auto doc = nlohmann::json::parse(text, nullptr, false);
    return doc.is_object() && doc.contains("entries") && doc["entries"].is_object();
}

}  // namespace

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    const auto& file = context.file;
    const auto& checkpoint = context.checkpoint;
    const auto& sink = context.sink;
    // Resuming needs the totals already counted; without them the growth since the start of
    // the file would be counted again under new identities, so the file is read from its start.
    std::optional<SourceCheckpoint> from = checkpoint;
    SQLiteCumulativeContext totals;
    if (from && from->byteOffset && *from->byteOffset > 0) {
        if (isOurContext(from->parserContext)) {
            totals = SQLiteCumulativeContext::decode(from->parserContext);
        } else {
            from.reset();
        }
    }
    const bool fromStart = !from || !from->byteOffset || *from->byteOffset == 0;
    const double fileTime = JsonLine::modificationTime(file);
    const std::string sessionFromName = file.stem().string();
    JsonLineParser parser;
    int64_t objects = 0, meters = 0;

    auto parse = [&](std::string_view line, int64_t offset) {
        using LineSource::LineKind;
        if (JsonFields::isBlank(line)) {
            return LineKind::blank;
        }
        if (!JsonFields::looksLikeObject(line)) {
            return LineKind::malformed;
        }
        ++objects;
        if (!JsonFields::mentions(line, kUncached)) {
            return LineKind::noUsage;
        }
        auto record = parser.parse(line, JSONL::kLinePadding);
        if (!record) {
            --objects;
            return LineKind::malformed;
        }
        auto found = JsonLine::findObjectWithKey(*record, {kUncached});
        if (!found) {
            return LineKind::noUsage;
        }
        TokenSnapshot reading;
        int known = 0;
        for (auto [key, target] :
             {std::pair{kUncached, &reading.input}, std::pair{kCacheRead, &reading.cachedInput},
              std::pair{kCacheWrite, &reading.cacheCreate}, std::pair{kOutput, &reading.output}}) {
            dom::element v;
            if (found->holder.at_key(key).get(v) || v.is_null()) {
                continue;
            }
            if (!JsonFields::readCount(v, *target) || *target < 0) {
                return LineKind::unreadableUsage;
            }
            ++known;
        }
        dom::element outputValue;
        if (known < 2 || found->holder.at_key(kOutput).get(outputValue)) {
            return LineKind::unreadableUsage;  // not the meter: it always has output
        }
        ++meters;
        std::string session;
        for (auto key : {"sessionId", "session_id", "sessionID"}) {
            if (session.empty()) {
                session = JsonLine::stringAt(*record, key);
            }
        }
        if (session.empty()) {
            session = sessionFromName;
        }
        // The meter's four counts are independent buckets; the grand total follows from them.
        reading.providerTotal =
            reading.input + reading.cachedInput + reading.cacheCreate + reading.output;
        const auto added = totals.advance(session, reading, offset);
        if (!added) {
            return LineKind::usage;  // unchanged, or the meter restarted (no negative usage)
        }
        EventDraft d;
        d.source = AgentSource::deepseekHarness;
        d.granularity = UsageGranularity::sessionAggregate;
        d.model = found->model;
        if (d.model.empty()) {
            d.model = JsonLine::stringAt(*record, "model");
        }
        d.provider = providerForModel(d.model);
        if (d.provider == "unknown") {
            d.provider = "deepseek";  // the harness drives DeepSeek's models
        }
        d.sessionID = session;
        d.id = EventID::local(AgentSource::deepseekHarness, session, "@" + std::to_string(offset),
                              d.model);
        auto at = JsonLine::timeAt(*record, {"timestamp", "ts", "time", "updatedAt", "createdAt"});
        d.occurredAt = at.value_or(fileTime);
        d.timeQuality = at ? ObservationTimeQuality::trusted : ObservationTimeQuality::inferred;
        d.cwd = JsonLine::stringAt(*record, "cwd");
        d.input = added->input;
        d.cachedInput = added->cachedInput;
        d.cacheWrite = added->cacheCreate;
        d.output = added->output;
        sink(buildEvent(d));
        return LineKind::usage;
    };
    auto result = LineSource::read(AgentSource::deepseekHarness, parserVersion, file, from, parse,
                                   {.context = &context, .state = [&] { return totals.encode(); }});
    if (!result) {
        return result;
    }
    result->checkpoint.parserContext = totals.encode();
    // Records, but not one meter reading among them: the layout is not the one understood here.
    if (fromStart && objects > 0 && meters == 0) {
        result->formatChanged = true;
    }
    return result;
}

SourceReader reader() {
    return {SourceReaderKind::jsonLines, parserVersion, discover, ingest};
}

}  // namespace kestrel::DshReader
