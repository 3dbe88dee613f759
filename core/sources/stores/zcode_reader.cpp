#include "core/sources/stores/zcode_reader.hpp"

#include <algorithm>
#include <string>

#include "core/model/event_id.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/readonly_sqlite.hpp"
#include "core/sources/stores/store_rows.hpp"

namespace kestrel::ZCodeReader {
namespace {

using StoreRows::CountRead;

constexpr const char* kRequiredColumns[] = {
    "id",
    "session_id",
    "provider_id",
    "model_id",
    "started_at",
    "input_tokens",
    "output_tokens",
    "reasoning_tokens",
    "status",
    "cache_creation_input_tokens",
    "cache_read_input_tokens",
};

// A row is final when it completes, which is not the order the rows were started in (requests of
// sub-agents overlap): the cursor follows completion time where the table keeps it.
std::string statementFor(ReadonlySQLite& db, const std::set<std::string, std::less<>>& usage,
                         bool resuming) {
    const auto session = db.columns("session");
    const bool joinSession = session.contains("id") && session.contains("directory");
    const std::string cursorKey = usage.contains("completed_at")
                                      ? "COALESCE(mu.completed_at, mu.started_at)"
                                      : "mu.started_at";
    std::string sql =
        "SELECT mu.id, mu.session_id, mu.provider_id, mu.model_id, mu.started_at, "
        "mu.input_tokens, mu.output_tokens, mu.reasoning_tokens, mu.cache_creation_input_tokens, "
        "mu.cache_read_input_tokens, " +
        cursorKey + " AS cursor_at, " +
        std::string(joinSession ? "s.directory AS directory" : "NULL AS directory") +
        " FROM model_usage mu";
    if (joinSession) {
        sql += " LEFT JOIN session s ON s.id = mu.session_id";
    }
    sql +=
        " WHERE mu.status = 'completed' AND (mu.input_tokens > 0 OR mu.output_tokens > 0 OR "
        "mu.reasoning_tokens > 0 OR mu.cache_creation_input_tokens > 0 OR "
        "mu.cache_read_input_tokens > 0)";
    if (resuming) {
        sql += " AND (" + cursorKey + ", mu.id) > (?, ?)";
    }
    return sql + " ORDER BY mu.started_at, mu.id";
}

}  // namespace

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>*) {
    return StoreRows::databaseAt(root, std::filesystem::path("cli") / "db" / "db.sqlite");
}

namespace {

IngestResult readStore(const std::filesystem::path& database,
                       const std::optional<SourceCheckpoint>& checkpoint) {
    ReadonlySQLite db(database);
    IngestResult result;
    result.checkpoint =
        StoreRows::startCheckpoint(AgentSource::zcode, parserVersion, database, checkpoint);
    SourceCheckpoint& cp = result.checkpoint;
    const auto usage = db.columns("model_usage");
    if (!std::ranges::all_of(kRequiredColumns,
                             [&](const char* column) { return usage.contains(column); })) {
        result.formatChanged = true;
        return result;
    }
    const auto cursor = StoreRows::decodeCursor(cp.logicalHighWater, 2);
    const std::string sql = statementFor(db, usage, cursor.has_value());
    const double fileTime = StoreRows::modificationTime(database);
    std::optional<std::pair<SQLiteCell, SQLiteCell>> highWater;
    int64_t usable = 0, unreadable = 0;

    db.forEach(
        sql, cursor.value_or(std::vector<ReadonlySQLite::Binding>{}), [&](const SQLiteRow& row) {
            ++result.stats.lines;
            const auto& at = row["cursor_at"];
            const auto& id = row["id"];
            if (!highWater || StoreRows::compareCells(at, highWater->first) > 0 ||
                (StoreRows::compareCells(at, highWater->first) == 0 &&
                 StoreRows::compareCells(id, highWater->second) > 0)) {
                highWater = std::pair(at, id);
            }
            int64_t counts[5] = {0, 0, 0, 0, 0};
            const char* names[5] = {"input_tokens", "output_tokens", "reasoning_tokens",
                                    "cache_creation_input_tokens", "cache_read_input_tokens"};
            bool readable = true;
            for (int i = 0; i < 5; ++i) {
                readable = readable &&
                           StoreRows::cellCount(row[names[i]], counts[i]) != CountRead::invalid;
            }
            if (!readable) {
                ++unreadable;
                ++result.stats.malformed;
                return true;
            }
            ++usable;
            const auto [input, output, reasoning, cacheWrite, cacheRead] =
                std::tuple(counts[0], counts[1], counts[2], counts[3], counts[4]);

            EventDraft d;
            d.source = AgentSource::zcode;
            d.model = StoreRows::cellText(row["model_id"]);
            d.provider = StoreRows::cellText(row["provider_id"]);
            d.sessionID = StoreRows::cellText(row["session_id"]);
            d.id =
                EventID::local(AgentSource::zcode, d.sessionID, StoreRows::cellText(id), d.model);
            if (auto t = StoreRows::epochSeconds(row["started_at"])) {
                d.occurredAt = *t;
                d.timeQuality = ObservationTimeQuality::trusted;
            } else {
                d.occurredAt = fileTime;
                d.timeQuality = ObservationTimeQuality::inferred;
            }
            d.cwd = row["directory"].text().value_or(std::string());
            d.precision = UsagePrecision::nativeExact;
            d.granularity = UsageGranularity::request;
            // The agent's input includes the cache reads and writes; the buckets want it without.
            d.input = std::max<int64_t>(input - cacheRead - cacheWrite, 0);
            d.cachedInput = cacheRead;
            d.cacheWrite = cacheWrite;
            d.output = output;
            d.reasoning = reasoning;
            d.rawExtras = nlohmann::json{{"reportedInput", input}}.dump();
            result.events.push_back(buildEvent(d));
            return true;
        });
    if (highWater) {
        cp.logicalHighWater = StoreRows::encodeCursor({highWater->first, highWater->second});
    }
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

}  // namespace kestrel::ZCodeReader
