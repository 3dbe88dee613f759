#include "core/sources/stores/cursor_reader.hpp"

#include <algorithm>
#include <map>
#include <string>

#include "core/model/event_id.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/readonly_sqlite.hpp"
#include "core/sources/stores/store_rows.hpp"

namespace kestrel::CursorReader {
namespace {

using StoreRows::CountRead;

constexpr int64_t kAssistantBubble = 2;

// A key range rather than LIKE: exact about case, and it can use the key's index. ';' is the
// character after ':', so the range holds every key that starts with "bubbleId:" and no other.
constexpr const char* kBubbleRows =
    "SELECT rowid AS row_id, key, value FROM cursorDiskKV WHERE key >= 'bubbleId:' AND "
    "key < 'bubbleId;' AND rowid > ? ORDER BY rowid";
constexpr const char* kComposerRow = "SELECT value FROM cursorDiskKV WHERE key = ?";

struct Composer {
    std::string model;
    std::optional<double> createdAt;
};

// The composer's current model and creation time; both may be missing.
Composer composerFacts(ReadonlySQLite& db, const std::string& composerID) {
    Composer out;
    db.forEach(kComposerRow, {std::string("composerData:") + composerID},
               [&](const SQLiteRow& row) {
                   if (const auto json = StoreRows::objectIn(row["value"])) {
                       if (const auto config = json->find("modelConfig");
                           config != json->end() && config->is_object()) {
                           out.model = StoreRows::stringField(*config, {"modelName"});
                       }
                       if (const auto created = json->find("createdAt"); created != json->end()) {
                           out.createdAt = StoreRows::epochSeconds(*created);
                       }
                   }
                   return false;
               });
    return out;
}

enum class Outcome { event, noUsage, malformed };

}  // namespace

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>*) {
    return StoreRows::databaseAt(root, "state.vscdb");
}

namespace {

IngestResult readStore(const std::filesystem::path& database,
                       const std::optional<SourceCheckpoint>& checkpoint) {
    ReadonlySQLite db(database);
    IngestResult result;
    result.checkpoint =
        StoreRows::startCheckpoint(AgentSource::cursor, parserVersion, database, checkpoint);
    SourceCheckpoint& cp = result.checkpoint;
    const auto columns = db.columns("cursorDiskKV");
    if (!columns.contains("key") || !columns.contains("value")) {
        result.formatChanged = true;
        return result;
    }
    // A bubble rewritten by the editor (its counts filled in when the reply ends) is stored again
    // under a new rowid, so the rowid cursor sees it again; its id stays the same.
    const auto cursor = StoreRows::rowCursor(cp.logicalHighWater);
    const int64_t after = cursor.value_or(0);
    const double fileTime = StoreRows::modificationTime(database);
    std::map<std::string, Composer> composers;
    int64_t lastRow = after, usable = 0, unreadable = 0;

    // One assistant bubble; the composer look-up runs on the same connection while the bubble
    // statement is open, which SQLite allows.
    const auto handle = [&](const std::string& composerID, const std::string& bubbleID,
                            const nlohmann::json& v) {
        const auto type = v.find("type");
        if (type == v.end() || !type->is_number_integer() ||
            type->get<int64_t>() != kAssistantBubble) {
            ++result.stats.withoutUsage;
            return;
        }
        const auto tokenCount = v.find("tokenCount");
        if (tokenCount == v.end() || tokenCount->is_null()) {
            ++result.stats.withoutUsage;
            return;
        }
        int64_t input = 0, output = 0;
        if (!tokenCount->is_object() ||
            StoreRows::readCount(*tokenCount, {"inputTokens"}, input) == CountRead::invalid ||
            StoreRows::readCount(*tokenCount, {"outputTokens"}, output) == CountRead::invalid) {
            ++unreadable;
            ++result.stats.malformed;
            return;
        }
        ++usable;
        if (input == 0 && output == 0) {
            // Newer builds leave the local counts at zero: no usage is known, none is invented.
            ++result.stats.withoutUsage;
            return;
        }
        auto [it, inserted] = composers.try_emplace(composerID);
        if (inserted) {
            it->second = composerFacts(db, composerID);
        }
        const Composer& composer = it->second;

        EventDraft d;
        d.source = AgentSource::cursor;
        // The bubble's own model when it names one: the composer's is only its current choice.
        std::string model;
        if (const auto info = v.find("modelInfo"); info != v.end() && info->is_object()) {
            model = StoreRows::stringField(*info, {"modelName"});
        }
        if (model.empty()) {
            model = composer.model;
        }
        d.model = model.empty() ? kUnknownModel : model;
        d.sessionID = composerID;
        d.id = EventID::local(AgentSource::cursor, composerID, bubbleID, d.model);
        const auto created = v.find("createdAt");
        if (auto t = created != v.end() ? StoreRows::epochSeconds(*created) : std::nullopt) {
            d.occurredAt = *t;
            d.timeQuality = ObservationTimeQuality::trusted;
        } else {
            d.occurredAt = composer.createdAt.value_or(fileTime);
            d.timeQuality = ObservationTimeQuality::inferred;
        }
        d.precision = UsagePrecision::nativeExact;
        d.granularity = UsageGranularity::request;
        d.input = input;
        d.output = output;
        result.events.push_back(buildEvent(d));
    };

    db.forEach(kBubbleRows, {after}, [&](const SQLiteRow& row) {
        ++result.stats.lines;
        lastRow = std::max(lastRow, row["row_id"].integer().value_or(lastRow));
        const std::string key = row["key"].text().value_or(std::string());
        const auto firstColon = key.find(':');
        const auto secondColon = key.find(':', firstColon + 1);
        const auto value = StoreRows::objectIn(row["value"]);
        if (auto data = row["value"].data()) {
            result.stats.bytes += static_cast<int64_t>(data->size());
        }
        if (secondColon == std::string::npos || secondColon == firstColon + 1 ||
            secondColon + 1 == key.size() || !value) {
            ++result.stats.malformed;
            return true;
        }
        handle(key.substr(firstColon + 1, secondColon - firstColon - 1),
               key.substr(secondColon + 1), *value);
        return true;
    });
    if (lastRow > after || cursor) {
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

}  // namespace kestrel::CursorReader
