#include "core/sources/stores/openclaw_store_reader.hpp"

#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "core/sources/line_source.hpp"
#include "core/sources/pi_session_format.hpp"
#include "core/sources/readonly_sqlite.hpp"
#include "core/sources/utf8.hpp"
#include "core/sources/zstd_reader.hpp"

namespace kestrel::OpenClawStoreReader {

namespace {

using LineSource::LineKind;
using PiSessionFormat::SessionState;

constexpr std::string_view kTable = "transcript_events";
// Working folders remembered per session between scans; beyond this the map starts afresh
// (a later header fills it again) rather than growing the checkpoint without bound.
constexpr std::size_t kMaxRememberedSessions = 4096;

// The parser context: the session being read when rows name none, and each session's folder
// when they do (a header row and the session's later rows may arrive in different scans).
struct StoreContext {
    SessionState current;
    std::map<std::string, std::string> cwdBySession;

    static StoreContext decode(const std::string& text) {
        StoreContext c;
        const auto json = nlohmann::json::parse(text, nullptr, false);
        if (!json.is_object()) {
            return c;
        }
        if (auto it = json.find("current"); it != json.end() && it->is_string()) {
            c.current = SessionState::decode(it->get<std::string>());
        }
        if (auto it = json.find("cwd"); it != json.end() && it->is_object()) {
            for (const auto& [session, cwd] : it->items()) {
                if (cwd.is_string()) {
                    c.cwdBySession[session] = cwd.get<std::string>();
                }
            }
        }
        return c;
    }

    std::string encode() const {
        nlohmann::json cwd = nlohmann::json::object();
        for (const auto& [session, folder] : cwdBySession) {
            cwd[utf8::replaceInvalid(session)] = utf8::replaceInvalid(folder);
        }
        return nlohmann::json{{"current", current.encode()}, {"cwd", cwd}}.dump();
    }
};

std::optional<int64_t> parseRowID(const std::optional<std::string>& text) {
    if (!text || text->empty()) {
        return std::nullopt;
    }
    try {
        std::size_t used = 0;
        const int64_t value = std::stoll(*text, &used);
        return used == text->size() ? std::optional<int64_t>(value) : std::nullopt;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

IngestResult readStore(const SourceReadContext& context, int64_t parserVersion) {
    const auto& database = context.file;
    const auto& checkpoint = context.checkpoint;
    IngestResult result;
    result.checkpoint =
        LineSource::wholeFileCheckpoint(AgentSource::openclaw, parserVersion, database);
    if (checkpoint) {
        result.checkpoint.parserContext = checkpoint->parserContext;
        result.checkpoint.logicalHighWater = checkpoint->logicalHighWater;
    }

    ReadonlySQLite db(database);
    const auto columns = db.columns(kTable);
    if (!columns.contains("event_json") && !columns.contains("event_zstd")) {
        result.formatChanged = true;  // not the store this reader knows (or no table at all)
        return result;
    }

    int64_t after = checkpoint ? parseRowID(checkpoint->logicalHighWater).value_or(0) : 0;
    if (after > 0) {
        const auto last = db.query("SELECT max(rowid) AS last FROM transcript_events");
        const auto lastRow = last.empty() ? std::optional<int64_t>() : last[0]["last"].integer();
        if (lastRow.value_or(0) < after) {
            after = 0;  // rebuilt or emptied: identities make reading it again harmless
        }
    }
    StoreContext state =
        after > 0 && checkpoint ? StoreContext::decode(checkpoint->parserContext) : StoreContext{};

    const std::string sql = "SELECT rowid AS row_id, " + db.columnOrNull(columns, "event_json") +
                            ", " + db.columnOrNull(columns, "event_zstd") + ", " +
                            db.columnOrNull(columns, "session_id") + " FROM " +
                            std::string(kTable) + " WHERE rowid > ? ORDER BY rowid";
    PiSessionFormat::LineReader reader;
    const double fallbackTime = PiSessionFormat::modificationTime(database);
    int64_t lastRowID = after;
    int64_t usable = 0, unreadable = 0;
    db.forEach(sql, {after}, [&](const SQLiteRow& row) {
        const auto rowID = row["row_id"].integer();
        if (!rowID) {
            return true;
        }
        lastRowID = *rowID;
        ++result.stats.lines;
        std::string text;
        if (auto json = row["event_json"].text()) {
            text = std::move(*json);
        } else if (auto frame = row["event_zstd"].data()) {
            auto decoded = Zstd::decompress(*frame, kMaxEventBytes);
            if (!decoded) {
                ++result.stats.malformed;  // a damaged or oversized frame costs this row only
                return true;
            }
            text = std::move(*decoded);
        } else {
            ++result.stats.malformed;  // neither form of the event
            return true;
        }
        result.stats.bytes += static_cast<int64_t>(text.size());

        if (auto session = row["session_id"].text();
            session && !session->empty() && *session != state.current.sessionID) {
            state.current.sessionID = *session;
            const auto known = state.cwdBySession.find(*session);
            state.current.cwd = known != state.cwdBySession.end() ? known->second : std::string();
        }
        const std::string before = state.current.cwd;
        switch (PiSessionFormat::consume(reader, text, 0, *rowID, AgentSource::openclaw,
                                         state.current, context.sink, fallbackTime)) {
            case LineKind::usage:
                ++usable;
                break;
            case LineKind::unreadableUsage:
                ++unreadable;
                ++result.stats.malformed;
                break;
            case LineKind::malformed:
                ++result.stats.malformed;
                break;
            case LineKind::noUsage:
                ++result.stats.withoutUsage;
                break;
            case LineKind::blank:
                break;
        }
        if (state.current.cwd != before && !state.current.sessionID.empty()) {
            if (state.cwdBySession.size() >= kMaxRememberedSessions) {
                state.cwdBySession.clear();
            }
            state.cwdBySession[state.current.sessionID] = state.current.cwd;
        }
        return true;
    });
    result.formatChanged = after == 0 && unreadable > 0 && usable == 0;
    result.checkpoint.logicalHighWater = std::to_string(lastRowID);
    result.checkpoint.parserContext = state.encode();
    return result;
}

}  // namespace

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context,
                                              int64_t parserVersion) {
    return guardStoreRead(context.file, [&] { return readStore(context, parserVersion); });
}

}  // namespace kestrel::OpenClawStoreReader
