#include "core/sources/stores/chat_message_reader.hpp"

#include <algorithm>
#include <string>

#include "core/model/event_id.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/file_discovery.hpp"
#include "core/sources/readonly_sqlite.hpp"
#include "core/sources/stores/store_rows.hpp"

namespace kestrel::ChatMessageReader {
namespace {

using StoreRows::CountRead;
using Columns = std::set<std::string, std::less<>>;

// Folders deeper than this below an application's data folder are not where its stores live.
constexpr int kDiscoveryDepth = 8;

bool hasStoreSuffix(const std::filesystem::path& path) {
    const auto name = path.filename().string();
    return name.ends_with(".db") || name.ends_with(".sqlite") || name.ends_with(".sqlite3");
}

// "<qualifier>.<first present candidate> AS <alias>", or "NULL AS <alias>".
std::string firstColumn(const Columns& present, std::initializer_list<std::string_view> candidates,
                        std::string_view qualifier, std::string_view alias) {
    for (auto candidate : candidates) {
        if (present.contains(candidate)) {
            return std::string(qualifier) + "." + std::string(candidate) + " AS " +
                   std::string(alias);
        }
    }
    return "NULL AS " + std::string(alias);
}

// The statement for the tables this store has, or empty when chat_message lacks what every
// store of this kind holds.
std::string statementFor(ReadonlySQLite& db) {
    const Columns message = db.columns("chat_message");
    if (!message.contains("role") || !message.contains("token_info")) {
        return {};
    }
    const Columns session = db.columns("chat_session");
    const Columns record = db.columns("chat_record");
    const bool joinSession = message.contains("session_id") && session.contains("session_id");
    const bool joinRecord = message.contains("request_id") && record.contains("request_id");
    const Columns none;
    const Columns& cs = joinSession ? session : none;

    std::string sql = "SELECT cm.rowid AS row_id, ";
    sql += firstColumn(message, {"session_id"}, "cm", "session_id") + ", ";
    sql += firstColumn(message, {"id", "message_id"}, "cm", "message_id") + ", ";
    sql += firstColumn(message, {"model", "model_name"}, "cm", "model") + ", ";
    sql += firstColumn(message,
                       {"created_at", "gmt_create", "create_time", "created_time", "timestamp"},
                       "cm", "created_at") +
           ", ";
    sql += firstColumn(cs, {"project_name"}, "cs", "project_name") + ", ";
    sql += firstColumn(cs, {"project_uri"}, "cs", "project_uri") + ", ";
    sql += firstColumn(cs, {"preferred_model_info"}, "cs", "preferred_model_info") + ", ";
    if (message.contains("record_extra")) {
        sql += "cm.record_extra AS record_extra, ";
    } else if (joinRecord && record.contains("extra")) {
        sql += "cr.extra AS record_extra, ";
    } else {
        sql += "NULL AS record_extra, ";
    }
    sql += "cm.token_info FROM chat_message cm";
    if (joinSession) {
        sql += " LEFT JOIN chat_session cs ON cs.session_id = cm.session_id";
    }
    if (joinRecord) {
        sql += " LEFT JOIN chat_record cr ON cr.request_id = cm.request_id";
    }
    sql +=
        " WHERE cm.role = 'assistant' AND cm.token_info IS NOT NULL AND trim(cm.token_info) NOT "
        "IN ('', '{}') AND cm.rowid > ? ORDER BY cm.rowid";
    return sql;
}

struct Counts {
    int64_t input = 0, cacheRead = 0, cacheWrite = 0, output = 0, total = 0;
    bool hasTotal = false;
    bool inputIncludedCache = false;
};

// Reads the counts of one token_info object; false when a count has the wrong type or none of
// the input and output spellings is there.
bool readCounts(const nlohmann::json& object, Counts& c) {
    const nlohmann::json& info =
        object.contains("usage") && object["usage"].is_object() ? object["usage"] : object;
    CountRead reads[5];
    // Input as Anthropic-style APIs report it excludes the cache; as OpenAI-style ones report it
    // ("prompt tokens") it includes the cached part.
    reads[0] = StoreRows::readCount(info, {"input_tokens", "inputTokens"}, c.input);
    if (reads[0] == CountRead::absent) {
        reads[0] = StoreRows::readCount(info, {"prompt_tokens", "promptTokens"}, c.input);
        c.inputIncludedCache = reads[0] == CountRead::count;
    }
    reads[1] = StoreRows::readCount(
        info, {"output_tokens", "completion_tokens", "outputTokens", "completionTokens"}, c.output);
    reads[2] = StoreRows::readCount(
        info,
        {"cache_read_input_tokens", "cache_read_tokens", "cacheReadInputTokens", "cacheReadTokens",
         "cached_tokens", "cachedTokens"},
        c.cacheRead);
    if (reads[2] == CountRead::absent) {
        for (const char* details : {"prompt_tokens_details", "input_tokens_details"}) {
            if (info.contains(details) && info[details].is_object()) {
                reads[2] = StoreRows::readCount(info[details], {"cached_tokens"}, c.cacheRead);
                break;
            }
        }
    }
    reads[3] = StoreRows::readCount(
        info,
        {"cache_creation_input_tokens", "cache_write_input_tokens", "cache_write_tokens",
         "cache_creation_tokens", "cacheCreationInputTokens", "cacheWriteInputTokens",
         "cacheWriteTokens"},
        c.cacheWrite);
    reads[4] = StoreRows::readCount(info, {"total_tokens", "totalTokens"}, c.total);
    c.hasTotal = reads[4] == CountRead::count;
    if (std::ranges::any_of(reads, [](CountRead r) { return r == CountRead::invalid; })) {
        return false;
    }
    return reads[0] == CountRead::count || reads[1] == CountRead::count;
}

std::string modelIn(const nlohmann::json& object) {
    return StoreRows::stringField(object, {"model", "model_name", "modelName", "model_id",
                                           "modelId", "modelKey", "name", "key"});
}

// The model from the first place that names it: the counts, the message, the request's extras,
// the session's preferred model (a name, or JSON naming one).
std::string modelOf(const nlohmann::json& info, const SQLiteRow& row) {
    if (auto m = StoreRows::stringField(info, {"model", "model_name", "modelName"}); !m.empty()) {
        return m;
    }
    if (auto m = StoreRows::cellText(row["model"]); !m.empty()) {
        return m;
    }
    if (const auto extra = StoreRows::objectIn(row["record_extra"])) {
        if (auto m = StoreRows::stringField(*extra, {"model", "model_name", "modelName"});
            !m.empty()) {
            return m;
        }
    }
    const auto preferred = row["preferred_model_info"].text().value_or(std::string());
    if (const auto json = StoreRows::objectIn(preferred)) {
        return modelIn(*json);
    }
    const auto first = preferred.find_first_not_of(" \t\r\n");
    return first == std::string::npos || preferred[first] == '{' || preferred[first] == '['
               ? std::string()
               : preferred;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// A folder from a "file://" URI (percent escapes decoded); other URIs and plain paths as given.
std::string pathOfURI(const std::string& uri) {
    constexpr std::string_view kScheme = "file://";
    if (!uri.starts_with(kScheme)) {
        return uri;
    }
    std::string out;
    for (std::size_t i = kScheme.size(); i < uri.size(); ++i) {
        if (uri[i] == '%' && i + 2 < uri.size() && hexValue(uri[i + 1]) >= 0 &&
            hexValue(uri[i + 2]) >= 0) {
            out += static_cast<char>(hexValue(uri[i + 1]) * 16 + hexValue(uri[i + 2]));
            i += 2;
        } else {
            out += uri[i];
        }
    }
    return out;
}

}  // namespace

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    DiscoveryOptions options;
    options.maxDepth = kDiscoveryDepth;
    options.errors = errors;
    options.accept = [](const std::filesystem::path& path) {
        if (!hasStoreSuffix(path)) {
            return false;
        }
        try {
            ReadonlySQLite db(path);
            return db.hasTable("chat_message");
        } catch (const SQLiteUsageError&) {
            return false;  // not SQLite, or busy: not one of these stores, as far as can be told
        }
    };
    return discoverFiles(root, options);
}

namespace {

IngestResult readStore(AgentSource source, const std::filesystem::path& database,
                       const std::optional<SourceCheckpoint>& checkpoint) {
    ReadonlySQLite db(database);
    IngestResult result;
    result.checkpoint = StoreRows::startCheckpoint(source, parserVersion, database, checkpoint);
    SourceCheckpoint& cp = result.checkpoint;
    const std::string sql = statementFor(db);
    if (sql.empty()) {
        result.formatChanged = true;
        return result;
    }
    const auto cursor = StoreRows::rowCursor(cp.logicalHighWater);
    const int64_t after = cursor.value_or(0);
    const double fileTime = StoreRows::modificationTime(database);
    const std::string unknownModel = std::string(rawValue(source)) + "-unknown";
    int64_t lastRow = after, usable = 0, unreadable = 0;

    db.forEach(sql, {after}, [&](const SQLiteRow& row) {
        ++result.stats.lines;
        const int64_t rowID = row["row_id"].integer().value_or(lastRow);
        lastRow = std::max(lastRow, rowID);
        const auto text = row["token_info"].text();
        result.stats.bytes += text ? static_cast<int64_t>(text->size()) : 0;
        const auto info = text ? StoreRows::objectIn(std::string_view(*text)) : std::nullopt;
        Counts counts;
        if (!info || !readCounts(*info, counts)) {
            ++unreadable;
            ++result.stats.malformed;
            return true;
        }
        ++usable;
        if (counts.inputIncludedCache) {
            counts.input =
                std::max<int64_t>(counts.input - counts.cacheRead - counts.cacheWrite, 0);
        }
        if (counts.input == 0 && counts.output == 0 && counts.cacheRead == 0 &&
            counts.cacheWrite == 0) {
            ++result.stats.withoutUsage;
            return true;
        }

        EventDraft d;
        d.source = source;
        const std::string model = modelOf(*info, row);
        d.model = model.empty() ? unknownModel : model;
        d.sessionID = StoreRows::cellText(row["session_id"]);
        std::string recordID = StoreRows::cellText(row["message_id"]);
        if (recordID.empty()) {
            recordID = std::to_string(rowID);
        }
        d.id = EventID::local(source, d.sessionID, recordID, d.model);
        if (auto t = StoreRows::epochSeconds(row["created_at"])) {
            d.occurredAt = *t;
            d.timeQuality = ObservationTimeQuality::trusted;
        } else {
            d.occurredAt = fileTime;
            d.timeQuality = ObservationTimeQuality::inferred;
        }
        d.cwd = pathOfURI(row["project_uri"].text().value_or(std::string()));
        d.projectName = row["project_name"].text().value_or(std::string());
        d.precision = UsagePrecision::nativeExact;
        d.granularity = UsageGranularity::request;
        d.input = counts.input;
        d.cachedInput = counts.cacheRead;
        d.cacheWrite = counts.cacheWrite;
        d.output = counts.output;
        if (counts.hasTotal) {
            d.providerTotal = counts.total;
        }
        if (counts.inputIncludedCache) {
            d.rawExtras = R"({"inputIncludedCache":true})";
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
    return guardStoreRead(
        context.file, [&] { return readStore(context.source, context.file, context.checkpoint); });
}

SourceReader reader() {
    return {SourceReaderKind::store, parserVersion, discover, ingest};
}

}  // namespace kestrel::ChatMessageReader
