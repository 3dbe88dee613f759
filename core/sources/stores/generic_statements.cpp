#include "core/sources/stores/generic_statements.hpp"

#include <algorithm>
#include <functional>
#include <set>
#include <string>

#include "core/model/event_id.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/sqlite_cumulative.hpp"
#include "core/sources/stores/store_rows.hpp"

namespace kestrel::GenericStatements {
namespace {

using StoreRows::CountRead;
using Columns = std::set<std::string, std::less<>>;

// `<column> AS <alias>` for the first candidate the table has, else `NULL AS <alias>`.
std::string firstColumn(const Columns& present, std::initializer_list<std::string_view> candidates,
                        std::string_view alias) {
    for (auto candidate : candidates) {
        if (present.contains(candidate)) {
            return std::string(candidate) + " AS " + std::string(alias);
        }
    }
    return "NULL AS " + std::string(alias);
}

// The columns every statement may use to name the record's session, model and time.
std::string contextColumns(const Columns& present) {
    return firstColumn(present, {"session_id", "conversation_id"}, "session_id") + ", " +
           firstColumn(present, {"model", "model_id", "model_name"}, "model") + ", " +
           firstColumn(present, {"created_at", "timestamp", "updated_at"}, "created_at");
}

bool hasAll(const Columns& present, std::initializer_list<std::string_view> required) {
    return std::ranges::all_of(required, [&](std::string_view c) { return present.contains(c); });
}

// Counts of one row, read from the named columns (absent columns are NULL, read as zero).
struct RowCounts {
    int64_t input = 0, cacheRead = 0, cacheWrite = 0, output = 0, reasoning = 0;
};

bool readRowCounts(const SQLiteRow& row, std::string_view input, std::string_view output,
                   std::string_view cacheRead, std::string_view cacheWrite,
                   std::string_view reasoning, RowCounts& c) {
    const std::pair<std::string_view, int64_t*> fields[] = {{input, &c.input},
                                                            {output, &c.output},
                                                            {cacheRead, &c.cacheRead},
                                                            {cacheWrite, &c.cacheWrite},
                                                            {reasoning, &c.reasoning}};
    for (const auto& [column, target] : fields) {
        if (!column.empty() && StoreRows::cellCount(row[column], *target) == CountRead::invalid) {
            return false;
        }
    }
    return true;
}

// What the per-row statements share: the read, the cursor, the drafts and the counting.
struct RowReader {
    RowReader(ReadonlySQLite& db, AgentSource source,
              const std::optional<SourceCheckpoint>& checkpoint)
        : db_(db), source_(source) {
        database_ = StoreRows::databasePath(db);
        result_.checkpoint =
            StoreRows::startCheckpoint(source, parserVersion, database_, checkpoint);
        fileTime_ = StoreRows::modificationTime(database_);
        unknownModel_ = std::string(rawValue(source)) + "-unknown";
    }

    IngestResult& result() { return result_; }
    const SourceCheckpoint& checkpoint() const { return result_.checkpoint; }

    // Records the row's counts as one request event; `recordID` identifies it in its session.
    void emit(const SQLiteRow& row, const std::string& recordID, const RowCounts& c,
              std::optional<std::string> extras = std::nullopt) {
        if (c.input == 0 && c.output == 0 && c.cacheRead == 0 && c.cacheWrite == 0 &&
            c.reasoning == 0) {
            ++result_.stats.withoutUsage;
            return;
        }
        EventDraft d;
        d.source = source_;
        d.model = StoreRows::cellText(row["model"]);
        if (d.model.empty()) {
            d.model = unknownModel_;
        }
        d.sessionID = StoreRows::cellText(row["session_id"]);
        d.id = EventID::local(source_, d.sessionID, recordID, d.model);
        if (auto t = StoreRows::epochSeconds(row["created_at"])) {
            d.occurredAt = *t;
            d.timeQuality = ObservationTimeQuality::trusted;
        } else {
            d.occurredAt = fileTime_;
            d.timeQuality = ObservationTimeQuality::inferred;
        }
        d.precision = UsagePrecision::nativeExact;
        d.granularity = UsageGranularity::request;
        d.input = c.input;
        d.cachedInput = c.cacheRead;
        d.cacheWrite = c.cacheWrite;
        d.output = c.output;
        d.reasoning = c.reasoning;
        d.rawExtras = std::move(extras);
        result_.events.push_back(buildEvent(d));
    }

    void malformed() {
        ++unreadable_;
        ++result_.stats.malformed;
    }
    void usable() { ++usable_; }

    // A whole store read from its start whose rows could none of them be read has changed.
    void finish(bool resumed) {
        result_.formatChanged = !resumed && unreadable_ > 0 && usable_ == 0;
    }

    ReadonlySQLite& db_;
    AgentSource source_;
    std::filesystem::path database_;
    IngestResult result_;
    double fileTime_ = 0;
    std::string unknownModel_;
    int64_t usable_ = 0, unreadable_ = 0;
};

// Reads `sql` (one `?` for the rowid cursor) row by row with `handle`, advancing the cursor.
void readAfterRowid(RowReader& reader, const std::string& sql,
                    const std::function<void(const SQLiteRow&, int64_t rowID)>& handle) {
    const auto cursor = StoreRows::rowCursor(reader.checkpoint().logicalHighWater);
    const int64_t after = cursor.value_or(0);
    int64_t lastRow = after;
    reader.db_.forEach(sql, {after}, [&](const SQLiteRow& row) {
        ++reader.result().stats.lines;
        const int64_t rowID = row["row_id"].integer().value_or(lastRow);
        lastRow = std::max(lastRow, rowID);
        handle(row, rowID);
        return true;
    });
    if (lastRow > after) {
        reader.result().checkpoint.logicalHighWater = std::to_string(lastRow);
    }
    reader.finish(cursor.has_value());
}

}  // namespace

IngestResult readTokensGenerated(ReadonlySQLite& db, AgentSource source,
                                 const std::optional<SourceCheckpoint>& checkpoint) {
    RowReader reader(db, source, checkpoint);
    const auto columns = db.columns("tokens_generated");
    if (!hasAll(columns, {"tokens_prompt", "tokens_generated"})) {
        reader.result().formatChanged = true;
        return std::move(reader.result());
    }
    const std::string sql = "SELECT rowid AS row_id, " + contextColumns(columns) +
                            ", tokens_prompt, tokens_generated, " +
                            firstColumn(columns, {"id"}, "record_id") +
                            " FROM tokens_generated WHERE (tokens_prompt > 0 OR "
                            "tokens_generated > 0) AND rowid > ? ORDER BY rowid";
    readAfterRowid(reader, sql, [&](const SQLiteRow& row, int64_t rowID) {
        RowCounts c;
        if (!readRowCounts(row, "tokens_prompt", "tokens_generated", {}, {}, {}, c)) {
            reader.malformed();
            return;
        }
        reader.usable();
        std::string record = StoreRows::cellText(row["record_id"]);
        reader.emit(row, record.empty() ? std::to_string(rowID) : record, c);
    });
    return std::move(reader.result());
}

IngestResult readAssistantUsageEvents(ReadonlySQLite& db, AgentSource source,
                                      const std::optional<SourceCheckpoint>& checkpoint) {
    RowReader reader(db, source, checkpoint);
    const auto columns = db.columns("assistant_usage_events");
    if (!hasAll(columns, {"id", "input_tokens", "output_tokens"})) {
        reader.result().formatChanged = true;
        return std::move(reader.result());
    }
    const auto cursor = StoreRows::decodeCursor(reader.checkpoint().logicalHighWater, 1);
    std::string sql = "SELECT id, " + contextColumns(columns) + ", input_tokens, output_tokens, " +
                      db.columnOrNull(columns, "cache_read_tokens") + ", " +
                      db.columnOrNull(columns, "cache_write_tokens") + ", " +
                      db.columnOrNull(columns, "reasoning_tokens") + ", " +
                      db.columnOrNull(columns, "token_details_json") +
                      " FROM assistant_usage_events";
    if (cursor) {
        sql += " WHERE id > ?";
    }
    sql += " ORDER BY id";
    std::optional<SQLiteCell> last;
    db.forEach(sql, cursor.value_or(std::vector<ReadonlySQLite::Binding>{}),
               [&](const SQLiteRow& row) {
                   ++reader.result().stats.lines;
                   const auto& id = row["id"];
                   if (!last || StoreRows::compareCells(id, *last) > 0) {
                       last = id;
                   }
                   RowCounts c;
                   if (!readRowCounts(row, "input_tokens", "output_tokens", "cache_read_tokens",
                                      "cache_write_tokens", "reasoning_tokens", c)) {
                       reader.malformed();
                       return true;
                   }
                   reader.usable();
                   std::optional<std::string> extras;
                   if (auto details = StoreRows::objectIn(row["token_details_json"])) {
                       extras = nlohmann::json{{"tokenDetails", *details}}.dump(
                           -1, ' ', false, nlohmann::json::error_handler_t::replace);
                   }
                   reader.emit(row, StoreRows::cellText(id), c, std::move(extras));
                   return true;
               });
    if (last) {
        reader.result().checkpoint.logicalHighWater = StoreRows::encodeCursor({*last});
    }
    reader.finish(cursor.has_value());
    return std::move(reader.result());
}

IngestResult readSessionTotals(ReadonlySQLite& db, AgentSource source,
                               const std::optional<SourceCheckpoint>& checkpoint) {
    RowReader reader(db, source, checkpoint);
    const auto columns = db.columns("sessions");
    if (!hasAll(columns, {"id", "total_input_tokens", "total_output_tokens"})) {
        reader.result().formatChanged = true;
        return std::move(reader.result());
    }
    // Totals are read whole every time: a session's row changes in place as it grows.
    const std::string sql =
        "SELECT rowid AS row_id, id, " +
        firstColumn(columns, {"model", "model_id", "model_name"}, "model") + ", " +
        firstColumn(columns, {"updated_at", "last_updated_at", "created_at"}, "updated_at") +
        ", total_input_tokens, total_output_tokens, " +
        db.columnOrNull(columns, "total_cached_tokens") + ", " +
        db.columnOrNull(columns, "total_reasoning_tokens") + " FROM sessions ORDER BY id";
    IngestResult& result = reader.result();
    auto context = SQLiteCumulativeContext::decode(result.checkpoint.parserContext);
    db.forEach(sql, {}, [&](const SQLiteRow& row) {
        ++result.stats.lines;
        RowCounts c;
        if (!readRowCounts(row, "total_input_tokens", "total_output_tokens", "total_cached_tokens",
                           {}, "total_reasoning_tokens", c)) {
            reader.malformed();
            return true;
        }
        reader.usable();
        const std::string sessionID = StoreRows::cellText(row["id"]);
        const TokenSnapshot totals{c.input, c.cacheRead, 0, c.output, c.reasoning, 0};
        const auto added = context.advance(sessionID, totals, row["row_id"].integer().value_or(0));
        if (!added) {
            ++result.stats.withoutUsage;
            return true;
        }
        EventDraft d;
        d.source = source;
        d.model = StoreRows::cellText(row["model"]);
        if (d.model.empty()) {
            d.model = reader.unknownModel_;
        }
        d.sessionID = sessionID;
        // The totals reached identify the growth: read again, the same growth has the same id.
        d.id = EventID::local(source, sessionID,
                              "totals:" + std::to_string(c.input) + ":" + std::to_string(c.output) +
                                  ":" + std::to_string(c.cacheRead) + ":" +
                                  std::to_string(c.reasoning),
                              d.model);
        d.occurredAt = StoreRows::epochSeconds(row["updated_at"]).value_or(reader.fileTime_);
        d.timeQuality = ObservationTimeQuality::inferred;
        d.precision = UsagePrecision::nativeExact;
        d.granularity = UsageGranularity::sessionAggregate;
        d.input = added->input;
        d.cachedInput = added->cachedInput;
        d.output = added->output;
        d.reasoning = added->reasoning;
        result.events.push_back(buildEvent(d));
        return true;
    });
    result.checkpoint.parserContext = context.encode();
    reader.finish(false);
    return std::move(result);
}

IngestResult readFrames(ReadonlySQLite& db, AgentSource source,
                        const std::optional<SourceCheckpoint>& checkpoint) {
    RowReader reader(db, source, checkpoint);
    const auto columns = db.columns("frames");
    if (!hasAll(columns, {"aux_input_tokens", "aux_output_tokens"})) {
        reader.result().formatChanged = true;
        return std::move(reader.result());
    }
    const std::string sql = "SELECT rowid AS row_id, " + contextColumns(columns) + ", " +
                            firstColumn(columns, {"id", "frame_id"}, "record_id") +
                            ", aux_input_tokens, aux_output_tokens, " +
                            db.columnOrNull(columns, "aux_cache_read_tokens") + ", " +
                            db.columnOrNull(columns, "aux_cache_write_tokens") +
                            " FROM frames WHERE rowid > ? ORDER BY rowid";
    readAfterRowid(reader, sql, [&](const SQLiteRow& row, int64_t rowID) {
        RowCounts c;
        if (!readRowCounts(row, "aux_input_tokens", "aux_output_tokens", "aux_cache_read_tokens",
                           "aux_cache_write_tokens", {}, c)) {
            reader.malformed();
            return;
        }
        reader.usable();
        std::string record = StoreRows::cellText(row["record_id"]);
        reader.emit(row, "frame-" + (record.empty() ? std::to_string(rowID) : record), c);
    });
    return std::move(reader.result());
}

}  // namespace kestrel::GenericStatements
