#include "core/sources/transcripts/buddy_reader.hpp"

#include <algorithm>
#include <map>

#include "core/model/event_id.hpp"
#include "core/model/token_semantics.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/file_discovery.hpp"
#include "core/sources/json_fields.hpp"
#include "core/sources/jsonl.hpp"
#include "core/sources/line_source.hpp"
#include "core/sources/readonly_sqlite.hpp"
#include "core/sources/transcripts/json_line.hpp"

namespace kestrel::BuddyReader {

namespace dom = simdjson::dom;
using JsonFields::readCount;

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    return discoverFilesWithSuffix(root / "projects", ".jsonl", errors);
}

namespace {

struct Usage {
    int64_t input = 0, cached = 0, output = 0, reasoning = 0;
    std::optional<int64_t> total;
    bool unreadable = false;
    int known = 0;
};

void readInto(dom::element v, int64_t& field, Usage& u) {
    if (v.is_null()) {
        return;
    }
    if (readCount(v, field) && field >= 0) {
        ++u.known;
    } else {
        u.unreadable = true;
    }
}

// message.usage: snake_case, cache reads omitted when zero.
Usage snakeUsage(dom::object o) {
    Usage u;
    for (auto [key, value] : o) {
        if (key == "input_tokens") {
            readInto(value, u.input, u);
        } else if (key == "output_tokens") {
            readInto(value, u.output, u);
        } else if (key == "cache_read_input_tokens") {
            readInto(value, u.cached, u);
        } else if (key == "total_tokens") {
            int64_t total = 0;
            readInto(value, total, u);
            if (!value.is_null() && !u.unreadable) {
                u.total = total;
            }
        }
    }
    return u;
}

// providerData.usage: the camelCase copy, read only when message.usage is missing.
Usage camelUsage(dom::object o) {
    Usage u;
    for (auto [key, value] : o) {
        if (key == "inputTokens") {
            readInto(value, u.input, u);
        } else if (key == "outputTokens") {
            readInto(value, u.output, u);
        } else if (key == "totalTokens") {
            int64_t total = 0;
            readInto(value, total, u);
            if (!value.is_null() && !u.unreadable) {
                u.total = total;
            }
        } else if (key == "inputTokensDetails") {
            // An array of detail objects in the builds seen; a plain object is accepted too.
            dom::array details;
            dom::object detail;
            if (!value.get_array().get(details)) {
                for (auto item : details) {
                    dom::element cached;
                    if (!item.at_key("cached_tokens").get(cached)) {
                        int64_t n = 0;
                        readInto(cached, n, u);
                        u.cached += n;
                    }
                }
            } else if (!value.get_object().get(detail)) {
                dom::element cached;
                if (!detail.at_key("cached_tokens").get(cached)) {
                    readInto(cached, u.cached, u);
                }
            }
        } else if (key == "outputTokensDetails") {
            dom::element reasoning;
            if (!value.at_key("reasoning_tokens").get(reasoning)) {
                readInto(reasoning, u.reasoning, u);
            }
        }
    }
    return u;
}

// The working directory of each session from WorkBuddy's own database (next to projects/),
// for records that do not carry it. Loaded once per file read, only when needed.
class SessionDirectories {
  public:
    explicit SessionDirectories(std::filesystem::path transcript)
        : transcript_(std::move(transcript)) {}

    std::string lookup(const std::string& sessionID) {
        if (!loaded_) {
            load();
        }
        auto it = cwd_.find(sessionID);
        return it == cwd_.end() ? std::string() : it->second;
    }

  private:
    void load() {
        loaded_ = true;
        std::filesystem::path dir = transcript_.parent_path();
        while (!dir.empty() && dir.filename() != "projects" && dir != dir.parent_path()) {
            dir = dir.parent_path();
        }
        const auto db = dir.parent_path() / "workbuddy.db";
        std::error_code ec;
        if (dir.filename() != "projects" || !std::filesystem::is_regular_file(db, ec)) {
            return;
        }
        try {
            ReadonlySQLite store(db);
            const auto present = store.columns("sessions");
            if (!present.contains("id") || !present.contains("cwd")) {
                return;
            }
            store.forEach("SELECT id, cwd FROM sessions", {}, [&](const SQLiteRow& row) {
                auto id = row["id"].text();
                auto cwd = row["cwd"].text();
                if (id && cwd && !cwd->empty()) {
                    cwd_.emplace(std::move(*id), std::move(*cwd));
                }
                return true;
            });
        } catch (const SQLiteUsageError&) {
            // Only a label is lost: the usage comes from the transcript.
        }
    }

    std::filesystem::path transcript_;
    bool loaded_ = false;
    std::map<std::string, std::string> cwd_;
};

}  // namespace

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    const AgentSource source = context.source;
    const auto& transcript = context.file;
    const auto& sink = context.sink;
    const double fileTime = JsonLine::modificationTime(transcript);
    const std::string sessionFromName = transcript.stem().string();
    const std::string slug = transcript.parent_path().filename().string();
    // CodeBuddy counts through the independent rule and WorkBuddy through the subset one;
    // both write input with cache reads inside, so the former has them taken out here.
    const bool subset = TokenSemantics::family(source) == TokenFamily::subset;
    JsonLineParser parser;
    SessionDirectories directories(transcript);

    auto parse = [&](std::string_view line, int64_t offset) {
        if (JsonFields::isBlank(line)) {
            return LineSource::LineKind::blank;
        }
        if (!JsonFields::mentions(line, "sage\"")) {  // "usage" / "Usage" keys
            return JsonFields::looksLikeObject(line) ? LineSource::LineKind::noUsage
                                                     : LineSource::LineKind::malformed;
        }
        auto record = parser.parse(line, JSONL::kLinePadding);
        if (!record) {
            return LineSource::LineKind::malformed;
        }
        std::optional<Usage> usage;
        dom::object message, providerData, object;
        const bool hasProviderData = !record->at_key("providerData").get_object().get(providerData);
        if (!record->at_key("message").get_object().get(message) &&
            !message.at_key("usage").get_object().get(object)) {
            usage = snakeUsage(object);
        } else if (hasProviderData && !providerData.at_key("usage").get_object().get(object)) {
            usage = camelUsage(object);
        }
        if (!usage || (usage->known == 0 && !usage->unreadable && object.size() == 0)) {
            return LineSource::LineKind::noUsage;  // no usage, or an empty placeholder object
        }
        if (usage->unreadable || usage->known == 0 || usage->cached > usage->input ||
            usage->reasoning > usage->output) {
            return LineSource::LineKind::unreadableUsage;
        }
        if (usage->input == 0 && usage->output == 0 && usage->cached == 0) {
            return LineSource::LineKind::usage;  // a placeholder before the reply
        }

        EventDraft d;
        d.source = source;
        std::string model;
        if (hasProviderData) {
            model = JsonLine::stringAt(providerData, "model");
            if (model.empty()) {
                model = JsonLine::stringAt(providerData, "requestModelId");
            }
        }
        if (model.empty()) {
            model = JsonLine::stringAt(*record, "model");
        }
        d.model = model;
        d.sessionID = JsonLine::stringAt(*record, "sessionId");
        if (d.sessionID.empty()) {
            d.sessionID = sessionFromName;
        }
        std::string recordID = JsonLine::stringAt(*record, "id");
        if (recordID.empty()) {
            // Lines never move in an append-only file, so the position names the record.
            recordID = "@" + std::to_string(offset);
        }
        // The record id alone identifies the reply: a copy of it written again is the same usage.
        d.id = EventID::local(source, d.sessionID, recordID, "");
        dom::element time;
        std::optional<double> at;
        if (!record->at_key("timestamp").get(time)) {
            at = JsonLine::timeOf(time);
        }
        d.occurredAt = at.value_or(fileTime);
        d.timeQuality = at ? ObservationTimeQuality::trusted : ObservationTimeQuality::inferred;
        d.cwd = JsonLine::stringAt(*record, "cwd");
        if (d.cwd.empty() && source == AgentSource::workbuddy) {
            d.cwd = directories.lookup(d.sessionID);
        }
        if (d.cwd.empty()) {
            d.projectName = slug;
        }
        d.cachedInput = usage->cached;
        d.input = subset ? usage->input : usage->input - usage->cached;
        d.output = usage->output;
        // Reasoning is inside output; the independent rule would count it twice.
        d.reasoning = subset ? usage->reasoning : 0;
        if (subset) {
            // Under the independent rule the provider totals are the buckets' own sums.
            d.providerTotal = usage->total;
        }
        sink(buildEvent(d));
        return LineSource::LineKind::usage;
    };
    return LineSource::read(source, parserVersion, transcript, context.checkpoint, parse,
                            {.context = &context});
}

SourceReader reader() {
    return {SourceReaderKind::jsonLines, parserVersion, discover, ingest};
}

}  // namespace kestrel::BuddyReader
