#include "core/sources/stores/kiro_reader.hpp"

#include <string>

#include "core/model/event_id.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/readonly_sqlite.hpp"
#include "core/sources/stores/store_rows.hpp"

namespace kestrel::KiroReader {
namespace {

using StoreRows::CountRead;

// Per conversation: how many history entries were consumed, and the request key of the last
// one (to notice a history that was rewritten rather than extended).
struct Progress {
    std::size_t consumed = 0;
    std::string lastKey;
};
using Conversations = std::map<std::string, Progress>;

Conversations decodeContext(const std::string& text) {
    Conversations out;
    const auto json = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!json.is_object() || !json.contains("conversations") ||
        !json["conversations"].is_object()) {
        return out;
    }
    for (const auto& [id, entry] : json["conversations"].items()) {
        if (entry.is_object() && entry.value("n", nlohmann::json()).is_number_unsigned()) {
            out[id] = {entry["n"].get<std::size_t>(), entry.value("last", std::string())};
        }
    }
    return out;
}

std::string encodeContext(const Conversations& conversations) {
    nlohmann::json entries = nlohmann::json::object();
    for (const auto& [id, progress] : conversations) {
        entries[id] = {{"n", progress.consumed}, {"last", progress.lastKey}};
    }
    return nlohmann::json{{"conversations", entries}}.dump(
        -1, ' ', false, nlohmann::json::error_handler_t::replace);
}

const nlohmann::json* metadataOf(const nlohmann::json& entry) {
    if (!entry.is_object()) {
        return nullptr;
    }
    const auto it = entry.find("request_metadata");
    return it != entry.end() && it->is_object() ? &*it : nullptr;
}

std::string requestKey(const nlohmann::json& entry) {
    const auto* metadata = metadataOf(entry);
    return metadata ? StoreRows::stringField(*metadata, {"request_id", "message_id"})
                    : std::string();
}

int64_t estimatedTokens(int64_t bytes) {
    return (bytes + kEstimatedBytesPerToken - 1) / kEstimatedBytesPerToken;
}

enum class Outcome { event, noUsage, malformed };

struct RowFacts {
    std::string conversationID;
    std::string cwd;
    std::string sessionModel;
    double rowTime = 0;  // updated_at, else the file's time
};

// One request's draft from its metadata; the draft's counts and precision are filled here.
Outcome draftRequest(const nlohmann::json& metadata, std::size_t index, const RowFacts& row,
                     EventDraft& d) {
    static constexpr const char* kExactKeys[] = {
        "uncached_input_tokens",
        "cache_read_input_tokens",
        "cache_write_input_tokens",
        "output_tokens",
        "total_tokens",
    };
    int64_t exact[5] = {0, 0, 0, 0, 0};
    bool anyExact = false;
    for (std::size_t i = 0; i < 5; ++i) {
        switch (StoreRows::readCount(metadata, {kExactKeys[i]}, exact[i])) {
            case CountRead::invalid:
                return Outcome::malformed;
            case CountRead::count:
                anyExact = true;
                break;
            case CountRead::absent:
                break;
        }
    }
    if (anyExact) {
        d.precision = UsagePrecision::nativeExact;
        d.input = exact[0];
        d.cachedInput = exact[1];
        d.cacheWrite = exact[2];
        d.output = exact[3];
        if (metadata.contains("total_tokens") && !metadata["total_tokens"].is_null()) {
            d.providerTotal = exact[4];
        }
    } else {
        int64_t promptBytes = 0, responseBytes = 0;
        const auto prompt = StoreRows::readCount(metadata, {"user_prompt_length"}, promptBytes);
        const auto response = StoreRows::readCount(metadata, {"response_size"}, responseBytes);
        if (prompt == CountRead::invalid || response == CountRead::invalid) {
            return Outcome::malformed;
        }
        d.precision = UsagePrecision::estimateOnly;
        d.input = estimatedTokens(promptBytes);
        d.output = estimatedTokens(responseBytes);
        d.rawExtras = nlohmann::json{{"estimatedFrom", "utf8Bytes"},
                                     {"bytesPerToken", kEstimatedBytesPerToken},
                                     {"promptBytes", promptBytes},
                                     {"responseBytes", responseBytes}}
                          .dump();
    }
    if (d.input == 0 && d.output == 0 && d.cachedInput == 0 && d.cacheWrite == 0) {
        return Outcome::noUsage;
    }

    std::string requestID = StoreRows::stringField(metadata, {"request_id", "message_id"});
    if (requestID.empty()) {
        requestID = "#" + std::to_string(index);  // position in the history: stable while it grows
    }
    d.source = AgentSource::kiro;
    d.model = StoreRows::stringField(metadata, {"model_id"});
    if (d.model.empty()) {
        d.model = row.sessionModel.empty() ? kUnknownModel : row.sessionModel;
    }
    d.sessionID = row.conversationID;
    d.cwd = row.cwd;
    d.id = EventID::local(AgentSource::kiro, row.conversationID, requestID, d.model);
    const auto started = metadata.find("request_start_timestamp_ms");
    if (auto t = started != metadata.end() ? StoreRows::epochSeconds(*started) : std::nullopt) {
        d.occurredAt = *t;
        d.timeQuality = ObservationTimeQuality::trusted;
    } else {
        d.occurredAt = row.rowTime;
        d.timeQuality = ObservationTimeQuality::inferred;
    }
    d.granularity = UsageGranularity::request;
    return Outcome::event;
}

}  // namespace

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>*) {
    return StoreRows::databaseAt(root, "data.sqlite3");
}

namespace {

IngestResult readStore(const std::filesystem::path& database,
                       const std::optional<SourceCheckpoint>& checkpoint) {
    ReadonlySQLite db(database);
    IngestResult result;
    result.checkpoint =
        StoreRows::startCheckpoint(AgentSource::kiro, parserVersion, database, checkpoint);
    SourceCheckpoint& cp = result.checkpoint;
    const auto columns = db.columns("conversations_v2");
    if (!columns.contains("value")) {
        // No table, or one without the JSON: an older or newer store than this reader knows.
        result.formatChanged = true;
        return result;
    }
    const bool hasUpdatedAt = columns.contains("updated_at");
    // Rows updated in the same millisecond as the last one consumed are read again: one written
    // just after the last scan must not be missed, and the per-conversation progress keeps the
    // re-read from producing anything twice.
    const auto cursor =
        hasUpdatedAt ? StoreRows::decodeCursor(cp.logicalHighWater, 1) : std::nullopt;
    std::string sql = "SELECT rowid AS row_id, " + db.columnOrNull(columns, "key") + ", " +
                      db.columnOrNull(columns, "conversation_id") + ", value, " +
                      db.columnOrNull(columns, "updated_at") + " FROM conversations_v2";
    if (cursor) {
        sql += " WHERE updated_at >= ?";
    }
    sql += hasUpdatedAt ? " ORDER BY updated_at, rowid" : " ORDER BY rowid";

    Conversations conversations = decodeContext(cp.parserContext);
    const double fileTime = StoreRows::modificationTime(database);
    std::optional<SQLiteCell> highWater;
    int64_t usable = 0, unreadable = 0;
    db.forEach(
        sql, cursor ? *cursor : std::vector<ReadonlySQLite::Binding>{}, [&](const SQLiteRow& row) {
            ++result.stats.lines;
            const auto& updated = row["updated_at"];
            if (!updated.isNull() &&
                (!highWater || StoreRows::compareCells(updated, *highWater) > 0)) {
                highWater = updated;
            }
            const auto value = StoreRows::objectIn(row["value"]);
            if (auto text = row["value"].text()) {
                result.stats.bytes += static_cast<int64_t>(text->size());
            }
            if (!value) {
                ++result.stats.malformed;
                return true;
            }
            const auto history = value->find("history");
            if (history == value->end() || !history->is_array()) {
                ++result.stats.withoutUsage;
                return true;
            }
            RowFacts facts;
            facts.conversationID = StoreRows::cellText(row["conversation_id"]);
            if (facts.conversationID.empty()) {
                facts.conversationID = StoreRows::stringField(*value, {"conversation_id"});
            }
            facts.cwd = StoreRows::cellText(row["key"]);
            if (facts.conversationID.empty()) {
                facts.conversationID = facts.cwd;  // the oldest rows are keyed by directory only
            }
            if (const auto info = value->find("model_info");
                info != value->end() && info->is_object()) {
                facts.sessionModel = StoreRows::stringField(*info, {"model_id"});
            }
            facts.rowTime = StoreRows::epochSeconds(updated).value_or(fileTime);

            // Resume after the entries already consumed when the history still begins with them;
            // a history that was rewritten (compacted) is read again whole: its requests keep their
            // ids, so the ledger keeps one copy of each.
            Progress& progress = conversations[facts.conversationID];
            std::size_t start = 0;
            if (progress.consumed > 0 && progress.consumed <= history->size() &&
                requestKey((*history)[progress.consumed - 1]) == progress.lastKey) {
                start = progress.consumed;
            }
            for (std::size_t i = start; i < history->size(); ++i) {
                const auto* metadata = metadataOf((*history)[i]);
                if (metadata == nullptr) {
                    ++result.stats.withoutUsage;
                    continue;
                }
                EventDraft d;
                switch (draftRequest(*metadata, i, facts, d)) {
                    case Outcome::event:
                        ++usable;
                        result.events.push_back(buildEvent(d));
                        break;
                    case Outcome::noUsage:
                        ++usable;
                        ++result.stats.withoutUsage;
                        break;
                    case Outcome::malformed:
                        ++unreadable;
                        ++result.stats.malformed;
                        break;
                }
            }
            // Entries at the end without metadata yet are looked at again next time.
            std::size_t consumed = history->size();
            while (consumed > 0 && metadataOf((*history)[consumed - 1]) == nullptr) {
                --consumed;
            }
            progress.consumed = consumed;
            progress.lastKey = consumed > 0 ? requestKey((*history)[consumed - 1]) : std::string();
            return true;
        });
    if (highWater) {
        cp.logicalHighWater = StoreRows::encodeCursor({*highWater});
    }
    cp.parserContext = encodeContext(conversations);
    result.formatChanged = !cursor && unreadable > 0 && usable == 0;
    return result;
}

}  // namespace

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    return guardStoreRead(context.file,
                          [&] { return readStore(context.file, context.checkpoint); });
}

SourceReader reader() {
    return {SourceReaderKind::store, parserVersion, discover, ingest};
}

}  // namespace kestrel::KiroReader
