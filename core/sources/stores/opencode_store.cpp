// The database of an opencode-family agent, read from the rows after the last one consumed.
//
// Ordering: a message row is written when the call starts and updated in place (same rowid)
// while its step-finish parts arrive, until time.completed is set. Advancing the high-water mark
// past an unfinished message would lose its usage, so events are made only for finished
// messages, and the mark stops just before the first unfinished one: that message (and the rows
// after it, whose events the ledger de-duplicates by id) is read again on the next scan that
// finds the database changed. A message abandoned unfinished is taken as it stands after
// kUnfinishedGiveUpSeconds so that it cannot hold the mark back for ever.

#include <charconv>
#include <map>
#include <set>
#include <string>
#include <unordered_map>

#include "core/model/timestamp.hpp"
#include "core/sources/line_source.hpp"
#include "core/sources/readonly_sqlite.hpp"
#include "core/sources/stores/opencode_message.hpp"
#include "core/sources/stores/opencode_reader.hpp"

namespace kestrel::OpencodeFamily {
namespace {

namespace fs = std::filesystem;
using OpencodeMessage::Message;
using OpencodeMessage::Usage;

constexpr std::string_view kMessageTables[] = {"message", "session_message"};

// logicalHighWater holds one mark per message table: "message:120,session_message:7".
std::map<std::string, int64_t, std::less<>> parseMarks(const std::optional<std::string>& text) {
    std::map<std::string, int64_t, std::less<>> marks;
    if (!text) {
        return marks;
    }
    std::string_view rest = *text;
    while (!rest.empty()) {
        const auto comma = rest.find(',');
        const auto item = rest.substr(0, comma);
        rest = comma == std::string_view::npos ? std::string_view{} : rest.substr(comma + 1);
        const auto colon = item.rfind(':');
        if (colon == std::string_view::npos) {
            continue;
        }
        int64_t value = 0;
        const auto digits = item.substr(colon + 1);
        const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
        if (ec == std::errc() && end == digits.data() + digits.size() && value >= 0) {
            marks[std::string(item.substr(0, colon))] = value;
        }
    }
    return marks;
}

std::string formatMarks(const std::map<std::string, int64_t, std::less<>>& marks) {
    std::string out;
    for (const auto& [table, value] : marks) {
        if (!out.empty()) {
            out += ',';
        }
        out += table + ":" + std::to_string(value);
    }
    return out;
}

struct SessionInfo {
    std::string directory;
    bool importMarked = false;
    bool hasChildren = false;
};

// Every session's directory, import marker and whether sub-agent sessions hang below it.
std::unordered_map<std::string, SessionInfo> loadSessions(ReadonlySQLite& db) {
    std::unordered_map<std::string, SessionInfo> sessions;
    const auto cols = db.columns("session");
    if (!cols.contains("id")) {
        return sessions;
    }
    // Columns an importer might use to name a session's origin; `slug` is machine-made (the
    // title is the user's words, so it is not looked at).
    constexpr std::string_view kMarkerColumns[] = {"imported_from", "import_source", "source",
                                                   "origin", "slug"};
    std::string sql = "SELECT id, " + db.columnOrNull(cols, "directory") + ", " +
                      db.columnOrNull(cols, "parent_id");
    for (auto column : kMarkerColumns) {
        sql += ", " + db.columnOrNull(cols, column);
    }
    sql += " FROM session";
    std::vector<std::string> parents;
    db.forEach(sql, {}, [&](const SQLiteRow& row) {
        const auto id = row["id"].text();
        if (!id) {
            return true;
        }
        auto& info = sessions[*id];
        info.directory = row["directory"].text().value_or("");
        for (auto column : kMarkerColumns) {
            const auto value = row[column].text();
            if (value && OpencodeMessage::namesImportOrigin(*value)) {
                info.importMarked = true;
            }
        }
        if (auto parent = row["parent_id"].text(); parent && !parent->empty()) {
            parents.push_back(std::move(*parent));
        }
        return true;
    });
    for (const auto& parent : parents) {
        if (auto it = sessions.find(parent); it != sessions.end()) {
            it->second.hasChildren = true;
        }
    }
    return sessions;
}

struct PendingMessage {
    int64_t rowid = 0;
    Message message;
    std::string sessionID;
};

bool ownsName(const Flavor& flavor, const fs::path& database) {
    const auto name = database.filename().string();
    return name.starts_with(flavor.databasePrefix) || !flavor.anyDatabase;
}

class TableReader {
  public:
    TableReader(const Flavor& flavor, const fs::path& database, ReadonlySQLite& db,
                const std::unordered_map<std::string, SessionInfo>& sessions,
                const SourceEventSink& sink, IngestResult& result)
        : flavor_(flavor),
          database_(database),
          db_(db),
          sessions_(sessions),
          sink_(sink),
          result_(result) {}

    // Reads `table` after `mark`; returns the new mark.
    int64_t read(std::string_view table, int64_t mark, bool& unreadable) {
        const auto cols = db_.columns(table);
        if (!cols.contains("data")) {
            unreadable = true;
            return mark;
        }
        const std::string name(table);
        const std::string sql = "SELECT rowid AS row_id, " + db_.columnOrNull(cols, "session_id") +
                                ", " + db_.columnOrNull(cols, "time_created") + ", " +
                                db_.columnOrNull(cols, "type") + ", " +
                                db_.columnOrNull(cols, "id") + ", data FROM " + name +
                                " WHERE rowid > ? ORDER BY rowid";
        int64_t lastRow = mark;
        int64_t parsed = 0;
        int64_t withData = 0;
        std::vector<PendingMessage> assistants;
        db_.forEach(sql, {mark}, [&](const SQLiteRow& row) {
            lastRow = row["row_id"].integer().value_or(lastRow);
            ++result_.stats.lines;
            const auto data = row["data"].text();
            if (!data) {
                ++result_.stats.malformed;
                return true;
            }
            ++withData;
            result_.stats.bytes += static_cast<int64_t>(data->size());
            auto parsedMessage = OpencodeMessage::parseMessage(*data);
            if (parsedMessage.status != OpencodeMessage::ParseStatus::ok) {
                ++result_.stats.malformed;
                return true;
            }
            ++parsed;
            auto& m = parsedMessage.message;
            if (m.role.empty()) {
                m.role = row["type"].text().value_or("");
            }
            if (m.role != "assistant") {
                ++result_.stats.withoutUsage;
                return true;
            }
            if (auto id = row["id"].text(); id && !id->empty()) {
                m.id = std::move(*id);
            }
            if (m.id.empty()) {
                ++result_.stats.malformed;
                return true;
            }
            if (!m.createdMs) {
                if (auto ms = row["time_created"].real(); ms && *ms > 0) {
                    m.createdMs = *ms;
                }
            }
            PendingMessage p{lastRow, std::move(m), row["session_id"].text().value_or("")};
            if (p.sessionID.empty()) {
                p.sessionID = p.message.sessionID;
            }
            assistants.push_back(std::move(p));
            return true;
        });
        if (withData > 0 && parsed == 0 && mark == 0) {
            result_.formatChanged = true;  // rows of a shape this reader does not know
        }
        if (assistants.empty()) {
            return lastRow;
        }
        const auto steps = stepSums(name, mark, cols.contains("id"));

        const double now = epochNow();
        std::optional<int64_t> firstUnfinished;
        for (const auto& p : assistants) {
            const auto& m = p.message;
            const bool abandoned = !m.completed && m.createdMs &&
                                   now - *m.createdMs / 1000.0 > kUnfinishedGiveUpSeconds;
            // Without any time there is no telling how old it is: taken as it stands rather
            // than holding the mark back for ever.
            if (!m.completed && !abandoned && m.createdMs) {
                if (!firstUnfinished) {
                    firstUnfinished = p.rowid;
                }
                continue;
            }
            emit(p, steps);
        }
        return firstUnfinished ? *firstUnfinished - 1 : lastRow;
    }

  private:
    // The summed step-finish parts of the messages after `mark`, by message id.
    std::unordered_map<std::string, Usage> stepSums(const std::string& table, int64_t mark,
                                                    bool tableHasID) {
        std::unordered_map<std::string, Usage> sums;
        const auto partCols = db_.columns("part");
        if (!tableHasID || !partCols.contains("message_id") || !partCols.contains("data")) {
            return sums;
        }
        // The text filter lets SQLite pass over the many parts of other types without handing
        // them over; each candidate is still checked after parsing.
        const std::string sql =
            "SELECT message_id, data FROM part WHERE message_id IN (SELECT id FROM " + table +
            " WHERE rowid > ?) AND data LIKE '%step-finish%' ORDER BY rowid";
        db_.forEach(sql, {mark}, [&](const SQLiteRow& row) {
            const auto messageID = row["message_id"].text();
            const auto data = row["data"].text();
            if (!messageID || !data) {
                return true;
            }
            bool malformed = false;
            const auto usage = OpencodeMessage::parseStepFinish(*data, malformed);
            if (malformed) {
                ++result_.stats.malformed;
            } else if (usage) {
                sums[*messageID].add(*usage);
            }
            return true;
        });
        return sums;
    }

    void emit(const PendingMessage& p, const std::unordered_map<std::string, Usage>& steps) {
        const auto& m = p.message;
        const SessionInfo* session = nullptr;
        if (auto it = sessions_.find(p.sessionID); it != sessions_.end()) {
            session = &it->second;
        }
        if (flavor_.skipImported &&
            OpencodeMessage::isImported(m, session != nullptr && session->importMarked,
                                        p.sessionID)) {
            ++result_.stats.withoutUsage;
            return;
        }
        std::optional<Usage> stepSum;
        if (auto it = steps.find(m.id); it != steps.end()) {
            stepSum = it->second;
        }
        const auto counted = OpencodeMessage::countedUsage(m, stepSum);
        if (!counted) {
            ++result_.stats.withoutUsage;
            return;
        }
        const bool folded = flavor_.childCostsFolded && session != nullptr && session->hasChildren;
        const auto draft =
            OpencodeMessage::draftFor(flavor_.source, m, *counted, p.sessionID,
                                      session ? session->directory : "", folded, fallbackTime());
        auto event = buildEvent(draft);
        if (sink_) {
            sink_(std::move(event));
        } else {
            result_.events.push_back(std::move(event));
        }
    }

    // The database's modification time, for a message without any time of its own.
    double fallbackTime() {
        if (!fallbackTime_) {
            fallbackTime_ = modificationTime(database_);
        }
        return *fallbackTime_;
    }

    const Flavor& flavor_;
    const fs::path& database_;
    ReadonlySQLite& db_;
    const std::unordered_map<std::string, SessionInfo>& sessions_;
    const SourceEventSink& sink_;
    IngestResult& result_;
    std::optional<double> fallbackTime_;
};

}  // namespace

IngestResult readDatabase(const Flavor& flavor, const fs::path& database,
                          const std::optional<SourceCheckpoint>& checkpoint,
                          const SourceEventSink& sink) {
    ReadonlySQLite db(database);
    IngestResult result;
    result.checkpoint = LineSource::wholeFileCheckpoint(flavor.source, parserVersion, database);
    auto marks = parseMarks(checkpoint ? checkpoint->logicalHighWater : std::nullopt);

    std::vector<std::string_view> tables;
    for (auto table : kMessageTables) {
        if (db.hasTable(table)) {
            tables.push_back(table);
        }
    }
    if (tables.empty()) {
        // Another program's database next to the agent's is not a format change.
        result.formatChanged = ownsName(flavor, database);
        result.checkpoint.logicalHighWater =
            checkpoint ? checkpoint->logicalHighWater : std::nullopt;
        return result;
    }
    const auto sessions =
        db.hasTable("session") ? loadSessions(db) : std::unordered_map<std::string, SessionInfo>{};
    TableReader reader(flavor, database, db, sessions, sink, result);
    for (auto table : tables) {
        const std::string name(table);
        bool unreadable = false;
        const int64_t mark = marks.contains(name) ? marks.find(name)->second : 0;
        marks[name] = reader.read(table, mark, unreadable);
        if (unreadable) {
            result.formatChanged = true;
        }
    }
    result.checkpoint.logicalHighWater = formatMarks(marks);
    return result;
}

}  // namespace kestrel::OpencodeFamily
