#include "core/sources/transcripts/copilot_reader.hpp"

#include <algorithm>
#include <array>
#include <charconv>

#include "core/model/event_id.hpp"
#include "core/model/timestamp.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/file_discovery.hpp"
#include "core/sources/json_fields.hpp"
#include "core/sources/line_source.hpp"
#include "core/sources/transcripts/transcript_lines.hpp"

namespace kestrel::CopilotReader {
namespace {

namespace dom = simdjson::dom;
using LineSource::LineKind;
using TranscriptLines::CountRead;

constexpr std::string_view kUnknownModel = "copilot-unknown";

struct Counts {
    int64_t input = 0;  // includes the cache counts
    int64_t output = 0;
    int64_t cacheRead = 0;
    int64_t cacheWrite = 0;
    int64_t reasoning = 0;  // part of output
};

struct FileFacts {
    std::string sessionID;
    double mtime = 0;
};

EventDraft draftFor(const Counts& c) {
    EventDraft d;
    d.source = AgentSource::copilot;
    // The agent's input counts the cache too; the buckets want it apart.
    d.input = std::max<int64_t>(c.input - c.cacheRead - c.cacheWrite, 0);
    d.cachedInput = c.cacheRead;
    d.cacheWrite = c.cacheWrite;
    // Reasoning is already inside output: kept for audit, not counted twice.
    d.output = c.output;
    if (c.reasoning > 0) {
        d.rawExtras = "{\"reasoningTokens\":" + std::to_string(c.reasoning) + "}";
    }
    return d;
}

// --- session.shutdown ------------------------------------------------------------------------

LineKind shutdown(dom::object record, int64_t offset, const FileFacts& facts,
                  const SourceEventSink& sink) {
    auto data = TranscriptLines::objectMember(record, "data");
    if (!data) {
        return LineKind::unreadableUsage;
    }
    auto metricsValue = TranscriptLines::member(*data, "modelMetrics");
    if (!metricsValue || metricsValue->is_null()) {
        return LineKind::noUsage;  // a session that made no model call
    }
    dom::object metrics;
    if (metricsValue->get_object().get(metrics)) {
        return LineKind::unreadableUsage;
    }
    // All of the record's models or none: half a shutdown would under-count silently.
    std::vector<std::pair<std::string, Counts>> models;
    for (auto [model, entry] : metrics) {
        dom::object usage;
        if (entry.at_key("usage").get_object().get(usage)) {
            return LineKind::unreadableUsage;
        }
        Counts c;
        const std::array<std::pair<std::string_view, int64_t*>, 5> fields{{
            {"inputTokens", &c.input},
            {"outputTokens", &c.output},
            {"cacheReadTokens", &c.cacheRead},
            {"cacheWriteTokens", &c.cacheWrite},
            {"reasoningTokens", &c.reasoning},
        }};
        for (const auto& [key, out] : fields) {
            if (TranscriptLines::readCountMember(usage, key, *out) == CountRead::invalid) {
                return LineKind::unreadableUsage;
            }
        }
        models.emplace_back(std::string(model), c);
    }
    const auto shutdownID =
        TranscriptLines::stringMember(record, "id").value_or("@" + std::to_string(offset));
    const auto sessionID =
        TranscriptLines::stringMember(*data, "sessionId").value_or(facts.sessionID);
    std::optional<double> when;
    if (auto ts = TranscriptLines::stringMember(record, "timestamp")) {
        when = parseISO8601(*ts);
    }
    for (const auto& [model, counts] : models) {
        if (counts.input == 0 && counts.output == 0) {
            continue;
        }
        EventDraft d = draftFor(counts);
        d.model = model.empty() ? std::string(kUnknownModel) : model;
        // Each run of a session reports its own totals: one event per run and model.
        d.id = EventID::local(AgentSource::copilot, sessionID, shutdownID, d.model);
        d.sessionID = sessionID;
        d.granularity = UsageGranularity::sessionAggregate;
        d.occurredAt = when.value_or(facts.mtime);
        d.timeQuality = when ? ObservationTimeQuality::trusted : ObservationTimeQuality::inferred;
        sink(buildEvent(d));
    }
    return LineKind::usage;
}

// --- OpenTelemetry spans ---------------------------------------------------------------------

// A span's attributes, written either as a plain object or as OTLP's list of
// {key, value: {intValue | stringValue | doubleValue}}.
class Attributes {
  public:
    explicit Attributes(dom::object span) {
        auto value = TranscriptLines::member(span, "attributes");
        if (!value) {
            return;
        }
        if (!value->get_object().get(object_)) {
            isObject_ = true;
        } else {
            hasList_ = !value->get_array().get(list_);
        }
    }

    std::optional<dom::element> get(std::string_view name) const {
        if (isObject_) {
            return TranscriptLines::member(object_, name);
        }
        if (!hasList_) {
            return std::nullopt;
        }
        for (auto item : list_) {
            dom::object entry;
            std::string_view key;
            if (item.get_object().get(entry) || entry.at_key("key").get_string().get(key) ||
                key != name) {
                continue;
            }
            dom::object wrapped;
            if (entry.at_key("value").get_object().get(wrapped)) {
                return TranscriptLines::member(entry, "value");
            }
            for (auto kind : {"intValue", "doubleValue", "stringValue"}) {
                if (auto v = TranscriptLines::member(wrapped, kind)) {
                    return v;
                }
            }
            return std::nullopt;
        }
        return std::nullopt;
    }

    std::optional<std::string> text(std::string_view name) const {
        std::string out;
        auto v = get(name);
        if (v && JsonFields::readString(*v, out) && !out.empty()) {
            return out;
        }
        return std::nullopt;
    }

    // The count under the first of `names` present.
    CountRead count(std::initializer_list<std::string_view> names, int64_t& out) const {
        for (auto name : names) {
            if (auto v = get(name); v && !v->is_null()) {
                return TranscriptLines::readLooseCount(*v, out) ? CountRead::present
                                                                : CountRead::invalid;
            }
        }
        return CountRead::absent;
    }

  private:
    dom::object object_;
    dom::array list_;
    bool isObject_ = false;
    bool hasList_ = false;
};

std::optional<std::string> spanText(dom::object span,
                                    std::initializer_list<std::string_view> keys) {
    for (auto key : keys) {
        if (auto v = TranscriptLines::stringMember(span, key)) {
            return v;
        }
    }
    if (auto context = TranscriptLines::objectMember(span, "context")) {
        for (auto key : keys) {
            if (auto v = TranscriptLines::stringMember(*context, key)) {
                return v;
            }
        }
    }
    return std::nullopt;
}

// End (else start) of the span: OTLP's nanosecond strings or numbers, the SDK's [seconds,
// nanoseconds] pairs, or ISO text.
std::optional<double> spanTime(dom::object span) {
    for (auto key : {"endTimeUnixNano", "startTimeUnixNano"}) {
        if (auto v = TranscriptLines::member(span, key)) {
            int64_t ns = 0;
            std::string_view s;
            if (!v->get_string().get(s)) {
                const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), ns);
                if (ec != std::errc{} || end != s.data() + s.size()) {
                    ns = 0;
                }
            } else if (v->get_int64().get(ns)) {
                ns = 0;
            }
            if (ns > 0) {
                return static_cast<double>(ns) / 1e9;
            }
        }
    }
    for (auto key : {"endTime", "startTime", "end_time", "start_time"}) {
        auto v = TranscriptLines::member(span, key);
        if (!v) {
            continue;
        }
        dom::array pair;
        std::string_view s;
        if (!v->get_array().get(pair)) {
            std::vector<double> parts;
            for (auto p : pair) {
                if (auto n = JsonFields::readNumber(p)) {
                    parts.push_back(*n);
                }
            }
            if (parts.size() == 2 && parts[0] > 0) {
                return parts[0] + parts[1] / 1e9;
            }
        } else if (!v->get_string().get(s)) {
            if (auto t = parseISO8601(s)) {
                return t;
            }
        }
    }
    return std::nullopt;
}

bool isModelCall(const Attributes& attributes) {
    // Agent and tool spans repeat the usage of the calls below them.
    const auto operation = attributes.text("gen_ai.operation.name");
    return !operation || *operation == "chat" || *operation == "text_completion" ||
           *operation == "generate_content";
}

// One span: an event when it is a model call with token attributes.
LineKind span(dom::object span, std::string_view recordFallback, const FileFacts& facts,
              const SourceEventSink& sink) {
    const Attributes attributes(span);
    Counts c;
    const auto input = attributes.count({"gen_ai.usage.input_tokens"}, c.input);
    const auto output = attributes.count({"gen_ai.usage.output_tokens"}, c.output);
    if (input == CountRead::absent && output == CountRead::absent) {
        return LineKind::noUsage;
    }
    // Both spellings: the dotted names of newer exports, the older flat ones.
    const auto cacheRead = attributes.count(
        {"gen_ai.usage.cache_read.input_tokens", "gen_ai.usage.cached_input_tokens"}, c.cacheRead);
    const auto cacheWrite =
        attributes.count({"gen_ai.usage.cache_creation.input_tokens"}, c.cacheWrite);
    const auto reasoning = attributes.count(
        {"gen_ai.usage.reasoning.output_tokens", "gen_ai.usage.reasoning_output_tokens"},
        c.reasoning);
    for (auto read : {input, output, cacheRead, cacheWrite, reasoning}) {
        if (read == CountRead::invalid) {
            return LineKind::unreadableUsage;
        }
    }
    if (!isModelCall(attributes) || (c.input == 0 && c.output == 0)) {
        return LineKind::noUsage;
    }
    EventDraft d = draftFor(c);
    d.model = attributes.text("gen_ai.response.model")
                  .value_or(attributes.text("gen_ai.request.model").value_or(""));
    if (d.model.empty()) {
        d.model = std::string(kUnknownModel);
    }
    const auto traceID = spanText(span, {"traceId", "trace_id"});
    d.sessionID =
        attributes.text("gen_ai.conversation.id")
            .value_or(attributes.text("session.id").value_or(traceID.value_or(facts.sessionID)));
    const auto spanID = spanText(span, {"spanId", "span_id", "id"});
    d.id = EventID::local(AgentSource::copilot, traceID.value_or(d.sessionID),
                          spanID.value_or(std::string(recordFallback)), d.model);
    const auto when = spanTime(span);
    d.occurredAt = when.value_or(facts.mtime);
    d.timeQuality = when ? ObservationTimeQuality::trusted : ObservationTimeQuality::inferred;
    sink(buildEvent(d));
    return LineKind::usage;
}

// A line of the export: one span, or an OTLP envelope of resource and scope spans.
LineKind spans(dom::object record, int64_t offset, const FileFacts& facts,
               const SourceEventSink& sink) {
    dom::array resources;
    if (record.at_key("resourceSpans").get_array().get(resources)) {
        return span(record, "@" + std::to_string(offset), facts, sink);
    }
    LineKind kind = LineKind::noUsage;
    int index = 0;
    for (auto resource : resources) {
        dom::array scopes;
        if (resource.at_key("scopeSpans").get_array().get(scopes)) {
            continue;
        }
        for (auto scope : scopes) {
            dom::array list;
            if (scope.at_key("spans").get_array().get(list)) {
                continue;
            }
            for (auto element : list) {
                dom::object one;
                if (element.get_object().get(one)) {
                    continue;
                }
                const auto fallback = "@" + std::to_string(offset) + "#" + std::to_string(index++);
                const auto read = span(one, fallback, facts, sink);
                if (read == LineKind::usage ||
                    (read == LineKind::unreadableUsage && kind == LineKind::noUsage)) {
                    kind = read;
                }
            }
        }
    }
    return kind;
}

bool inTelemetryPlace(const std::filesystem::path& file) {
    for (const auto& part : file) {
        const auto name = part.string();
        if (name.find("otel") != std::string::npos || name.find("telemetry") != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    DiscoveryOptions options;
    options.errors = errors;
    options.maxDepth = 6;
    options.accept = [&root](const std::filesystem::path& file) {
        if (file.extension() != ".jsonl") {
            return false;
        }
        const auto relative = file.lexically_relative(root);
        const auto top =
            relative.begin() == relative.end() ? std::string() : relative.begin()->string();
        if (top == "session-state") {
            return file.filename() == "events.jsonl";
        }
        return top == "history-session-state" || inTelemetryPlace(relative);
    };
    return discoverFiles(root, options);
}

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    const auto& file = context.file;
    const auto& checkpoint = context.checkpoint;
    const auto& sink = context.sink;
    FileFacts facts;
    facts.sessionID = file.filename() == "events.jsonl" ? file.parent_path().filename().string()
                                                        : file.stem().string();
    facts.mtime = TranscriptLines::modificationTime(file);
    TranscriptLines::ObjectParser parser;
    return LineSource::read(
        AgentSource::copilot, parserVersion, file, checkpoint,
        [&](std::string_view line, int64_t offset) {
            if (JsonFields::isBlank(line)) {
                return LineKind::blank;
            }
            if (!JsonFields::looksLikeObject(line)) {
                return LineKind::malformed;
            }
            const bool mayShutdown = JsonFields::mentions(line, "session.shutdown");
            if (!mayShutdown && !JsonFields::mentions(line, "gen_ai.usage")) {
                return LineKind::noUsage;
            }
            auto record = parser.parse(line);
            if (!record) {
                return LineKind::malformed;
            }
            if (mayShutdown &&
                TranscriptLines::stringMember(*record, "type").value_or("") == "session.shutdown") {
                return shutdown(*record, offset, facts, sink);
            }
            return spans(*record, offset, facts, sink);
        },
        {.context = &context});
}

SourceReader reader() {
    return {SourceReaderKind::jsonLines, parserVersion, discover, ingest};
}

}  // namespace kestrel::CopilotReader
