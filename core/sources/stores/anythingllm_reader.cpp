#include "core/sources/stores/anythingllm_reader.hpp"

#include <algorithm>
#include <map>
#include <string>

#include "core/model/event_id.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/readonly_sqlite.hpp"
#include "core/sources/stores/store_rows.hpp"

namespace kestrel::AnythingLLMReader {
namespace {

using StoreRows::CountRead;

struct Workspace {
    std::string name;
    std::string model;
    std::string provider;
};

// The workspaces' names and chat models, for replies that do not name their model. A store
// without the table (or its columns) just has none.
std::map<std::string, Workspace> workspaces(ReadonlySQLite& db) {
    std::map<std::string, Workspace> out;
    const auto columns = db.columns("workspaces");
    if (!columns.contains("id")) {
        return out;
    }
    const std::string sql = "SELECT id, " + db.columnOrNull(columns, "name") + ", " +
                            db.columnOrNull(columns, "chatModel") + ", " +
                            db.columnOrNull(columns, "chatProvider") + " FROM workspaces";
    db.forEach(sql, {}, [&](const SQLiteRow& row) {
        out[StoreRows::cellText(row["id"])] = {row["name"].text().value_or(std::string()),
                                               row["chatModel"].text().value_or(std::string()),
                                               row["chatProvider"].text().value_or(std::string())};
        return true;
    });
    return out;
}

}  // namespace

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>*) {
    return StoreRows::databaseAt(root, "anythingllm.db");
}

namespace {

IngestResult readStore(const std::filesystem::path& database,
                       const std::optional<SourceCheckpoint>& checkpoint) {
    ReadonlySQLite db(database);
    IngestResult result;
    result.checkpoint =
        StoreRows::startCheckpoint(AgentSource::anythingLLM, parserVersion, database, checkpoint);
    SourceCheckpoint& cp = result.checkpoint;
    const auto columns = db.columns("workspace_chats");
    if (!columns.contains("response")) {
        result.formatChanged = true;
        return result;
    }
    const auto spaces = workspaces(db);
    const std::string sql = "SELECT rowid AS row_id, " + db.columnOrNull(columns, "id") + ", " +
                            db.columnOrNull(columns, "workspaceId") + ", " +
                            db.columnOrNull(columns, "thread_id") + ", " +
                            db.columnOrNull(columns, "createdAt") +
                            ", response FROM workspace_chats WHERE response IS NOT NULL AND "
                            "rowid > ? ORDER BY rowid";
    const auto cursor = StoreRows::rowCursor(cp.logicalHighWater);
    const int64_t after = cursor.value_or(0);
    const double fileTime = StoreRows::modificationTime(database);
    int64_t lastRow = after, usable = 0, unreadable = 0;

    db.forEach(sql, {after}, [&](const SQLiteRow& row) {
        ++result.stats.lines;
        const int64_t rowID = row["row_id"].integer().value_or(lastRow);
        lastRow = std::max(lastRow, rowID);
        const auto text = row["response"].text();
        result.stats.bytes += text ? static_cast<int64_t>(text->size()) : 0;
        const auto response = text ? StoreRows::objectIn(std::string_view(*text)) : std::nullopt;
        if (!response) {
            ++result.stats.malformed;
            return true;
        }
        const auto metrics = response->find("metrics");
        if (metrics == response->end() || metrics->is_null()) {
            ++result.stats.withoutUsage;  // replies from before the metrics were kept
            return true;
        }
        int64_t prompt = 0, completion = 0, total = 0;
        const auto totalRead = metrics->is_object()
                                   ? StoreRows::readCount(*metrics, {"total_tokens"}, total)
                                   : CountRead::invalid;
        if (!metrics->is_object() ||
            StoreRows::readCount(*metrics, {"prompt_tokens"}, prompt) == CountRead::invalid ||
            StoreRows::readCount(*metrics, {"completion_tokens"}, completion) ==
                CountRead::invalid ||
            totalRead == CountRead::invalid) {
            ++unreadable;
            ++result.stats.malformed;
            return true;
        }
        ++usable;
        if (prompt == 0 && completion == 0) {
            ++result.stats.withoutUsage;
            return true;
        }
        const std::string workspaceID = StoreRows::cellText(row["workspaceId"]);
        const auto space = spaces.find(workspaceID);
        const Workspace* workspace = space == spaces.end() ? nullptr : &space->second;

        EventDraft d;
        d.source = AgentSource::anythingLLM;
        d.model = StoreRows::stringField(*metrics, {"model"});
        if (d.model.empty() && workspace) {
            d.model = workspace->model;
        }
        if (d.model.empty()) {
            d.model = kUnknownModel;
        }
        d.provider = StoreRows::stringField(*metrics, {"provider"});
        if (d.provider.empty() && workspace) {
            d.provider = workspace->provider;
        }
        const std::string thread = StoreRows::cellText(row["thread_id"]);
        d.sessionID = !thread.empty() ? "thread-" + thread : "workspace-" + workspaceID;
        std::string recordID = StoreRows::cellText(row["id"]);
        if (recordID.empty()) {
            recordID = std::to_string(rowID);
        }
        d.id = EventID::local(AgentSource::anythingLLM, d.sessionID, recordID, d.model);
        if (auto t = StoreRows::epochSeconds(row["createdAt"])) {
            d.occurredAt = *t;
            d.timeQuality = ObservationTimeQuality::trusted;
        } else if (auto stamp = metrics->contains("timestamp")
                                    ? StoreRows::epochSeconds((*metrics)["timestamp"])
                                    : std::nullopt) {
            d.occurredAt = *stamp;
            d.timeQuality = ObservationTimeQuality::trusted;
        } else {
            d.occurredAt = fileTime;
            d.timeQuality = ObservationTimeQuality::inferred;
        }
        if (workspace) {
            d.projectName = workspace->name;
        }
        d.precision = UsagePrecision::nativeExact;
        d.granularity = UsageGranularity::request;
        d.input = prompt;
        d.output = completion;
        if (totalRead == CountRead::count) {
            d.providerTotal = total;
        }
        result.events.push_back(buildEvent(d));
        return true;
    });
    if (lastRow > after) {
        cp.logicalHighWater = std::to_string(lastRow);
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

}  // namespace kestrel::AnythingLLMReader
