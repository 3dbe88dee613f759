#include "core/sources/stores/hermes_reader.hpp"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "core/sources/cumulative_meter.hpp"
#include "core/sources/readonly_sqlite.hpp"

namespace kestrel::HermesReader {
namespace {

constexpr AgentSource kSource = AgentSource::hermes;
using Columns = std::set<std::string, std::less<>>;

// The billing provider is the route the request took (openrouter, nous, ...), not the model's
// vendor, which comes from the model name: it is kept for audit, with the side task (titles,
// compression, ...) that spent the tokens.
std::optional<std::string> extrasFor(const std::string& billingProvider, const std::string& task) {
    nlohmann::json extras = nlohmann::json::object();
    if (!billingProvider.empty()) {
        extras["billingProvider"] = billingProvider;
    }
    if (!task.empty()) {
        extras["task"] = task;
    }
    if (extras.empty()) {
        return std::nullopt;
    }
    return extras.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string sessionKey(const std::string& id) {
    return "s:" + id;
}

// Reads the token counters of one row into `r`. input excludes the cache counts; reasoning is
// most likely inside output already, so it is checked but left out rather than billed twice.
// Sets `ok` to false for a counter that is not a count.
void readCounters(const SQLiteRow& row, CumulativeMeter::Reading& r, bool& ok) {
    r.totals.input = CumulativeMeter::cellCount(row["input_tokens"], ok).value_or(0);
    r.totals.output = CumulativeMeter::cellCount(row["output_tokens"], ok).value_or(0);
    r.totals.cachedInput = CumulativeMeter::cellCount(row["cache_read_tokens"], ok).value_or(0);
    r.totals.cacheCreate = CumulativeMeter::cellCount(row["cache_write_tokens"], ok).value_or(0);
    CumulativeMeter::cellCount(row["reasoning_tokens"], ok);
}

struct Session {
    std::string id;
    std::string model;
    std::string billingProvider;
    std::string cwd;
    std::optional<double> endedAt;
    std::optional<int64_t> total;
    int64_t sequence = 0;
    CumulativeMeter::Reading reading;
    bool ok = true;
};

struct Reading {
    ReadonlySQLite& db;
    SQLiteCumulativeContext& state;
    double fallbackTime;
    const SourceEventSink& sink;
    IngestResult& result;
};

// The sessions rows with any usage, in the order the agent started them.
std::vector<Session> readSessions(Reading& in, const Columns& present) {
    std::vector<Session> sessions;
    std::string where;
    for (const char* counter : {"input_tokens", "output_tokens", "cache_read_tokens",
                                "cache_write_tokens", "reasoning_tokens"}) {
        if (present.contains(counter)) {
            where += (where.empty() ? "" : " OR ") + std::string(counter) + " > 0";
        }
    }
    auto& db = in.db;
    const std::string sql =
        "SELECT id, " + db.columnOrNull(present, "model") + ", " +
        db.columnOrNull(present, "started_at") + ", rowid AS row_id, " +
        db.columnOrNull(present, "billing_provider") + ", " +
        db.columnOrNull(present, "computed_total_tokens") + ", " + db.columnOrNull(present, "cwd") +
        ", " + db.columnOrNull(present, "ended_at") + ", input_tokens, output_tokens, " +
        db.columnOrNull(present, "cache_read_tokens") + ", " +
        db.columnOrNull(present, "cache_write_tokens") + ", " +
        db.columnOrNull(present, "reasoning_tokens") + " FROM sessions WHERE " + where +
        " ORDER BY started_at, id";
    db.forEach(sql, {}, [&](const SQLiteRow& row) {
        Session s;
        s.id = CumulativeMeter::cellText(row["id"]);
        s.ok = !s.id.empty();
        readCounters(row, s.reading, s.ok);
        s.total = CumulativeMeter::cellCount(row["computed_total_tokens"], s.ok);
        s.model = row["model"].text().value_or("");
        s.billingProvider = row["billing_provider"].text().value_or("");
        s.cwd = row["cwd"].text().value_or("");
        s.endedAt = row["ended_at"].real();
        s.sequence = row["row_id"].integer().value_or(0);
        sessions.push_back(std::move(s));
        return true;
    });
    return sessions;
}

// Per-model counters; returns the sessions they cover.
std::set<std::string> meterModelUsage(Reading& in, const std::vector<Session>& sessions) {
    std::set<std::string> covered;
    auto& db = in.db;
    auto& result = in.result;
    const auto present = db.columns("session_model_usage");
    if (!present.contains("session_id") || !present.contains("input_tokens") ||
        !present.contains("output_tokens")) {
        result.formatChanged = true;
        return covered;
    }
    std::map<std::string, std::string> cwdOf;
    for (const auto& s : sessions) {
        cwdOf.emplace(s.id, s.cwd);
    }
    const std::string sql =
        "SELECT rowid AS row_id, session_id, " + db.columnOrNull(present, "model") + ", " +
        db.columnOrNull(present, "billing_provider") + ", " +
        db.columnOrNull(present, "billing_base_url") + ", " +
        db.columnOrNull(present, "billing_mode") + ", " + db.columnOrNull(present, "task") +
        ", input_tokens, output_tokens, " + db.columnOrNull(present, "cache_read_tokens") + ", " +
        db.columnOrNull(present, "cache_write_tokens") + ", " +
        db.columnOrNull(present, "reasoning_tokens") + ", " +
        db.columnOrNull(present, "first_seen") + ", " + db.columnOrNull(present, "last_seen") +
        " FROM session_model_usage ORDER BY rowid";
    db.forEach(sql, {}, [&](const SQLiteRow& row) {
        ++result.stats.lines;
        const std::string session = CumulativeMeter::cellText(row["session_id"]);
        if (session.empty()) {
            ++result.stats.malformed;
            return true;
        }
        covered.insert(session);
        // A session already metered by its own row (before this table existed) stays metered
        // that way: switching would count its totals a second time.
        if (in.state.entries.contains(sessionKey(session))) {
            ++result.stats.withoutUsage;
            return true;
        }
        CumulativeMeter::Reading r;
        bool ok = true;
        readCounters(row, r, ok);
        if (!ok) {
            ++result.stats.malformed;
            return true;
        }
        r.sessionID = session;
        r.model = row["model"].text().value_or("");
        const std::string billing = row["billing_provider"].text().value_or("");
        const std::string task = row["task"].text().value_or("");
        r.scope = billing + "|" + row["billing_base_url"].text().value_or("") + "|" +
                  row["billing_mode"].text().value_or("") + "|" + task;
        r.rawExtras = extrasFor(billing, task);
        r.key = "m:" + session + "\x1f" + r.model + "\x1f" + r.scope;
        r.sequence = row["row_id"].integer().value_or(0);
        r.updatedAt = row["last_seen"].real();
        if (!r.updatedAt) {
            r.updatedAt = row["first_seen"].real();
        }
        if (const auto it = cwdOf.find(session); it != cwdOf.end()) {
            r.cwd = it->second;
        }
        CumulativeMeter::meter(kSource, in.state, r, in.fallbackTime, in.sink);
        return true;
    });
    return covered;
}

}  // namespace

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    // Only the two places Hermes keeps a state database: walking the whole root would wander
    // through workspaces and caches.
    std::vector<std::filesystem::path> found;
    std::error_code ec;
    if (std::filesystem::is_regular_file(root / "state.db", ec)) {
        found.push_back(root / "state.db");
    }
    const auto profiles = root / "profiles";
    if (!std::filesystem::is_directory(profiles, ec)) {
        return found;
    }
    std::vector<std::filesystem::path> profileDatabases;
    std::filesystem::directory_iterator it(profiles, ec);
    for (; !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
        const auto database = it->path() / "state.db";
        std::error_code typeError;
        if (std::filesystem::is_regular_file(database, typeError)) {
            profileDatabases.push_back(database);
        }
    }
    if (ec && errors != nullptr) {
        errors->push_back(FileError{profiles.string(), "list", ec.value(), {}});
    }
    found.insert(found.end(), profileDatabases.begin(), profileDatabases.end());
    std::ranges::sort(found);
    return found;
}

namespace {

IngestResult readStore(const std::filesystem::path& database,
                       const std::optional<SourceCheckpoint>& checkpoint,
                       const SourceEventSink& sink) {
    auto state = SQLiteCumulativeContext::decode(checkpoint ? checkpoint->parserContext : "");
    IngestResult result;
    ReadonlySQLite db(database);
    Reading in{db, state, CumulativeMeter::storeTime(database), sink, result};
    const auto present = db.columns("sessions");
    const bool shaped = present.contains("id") && present.contains("input_tokens") &&
                        present.contains("output_tokens");
    if (!shaped) {
        result.formatChanged = true;
        result.checkpoint = CumulativeMeter::checkpoint(kSource, parserVersion, database, state);
        return result;
    }
    const auto sessions = readSessions(in, present);
    std::set<std::string> covered;
    if (db.hasTable("session_model_usage")) {
        covered = meterModelUsage(in, sessions);
    }
    for (const auto& s : sessions) {
        if (covered.contains(s.id) && !state.entries.contains(sessionKey(s.id))) {
            continue;  // metered per model above
        }
        ++result.stats.lines;
        if (!s.ok) {
            ++result.stats.malformed;
            continue;
        }
        auto r = s.reading;
        r.key = sessionKey(s.id);
        r.sequence = s.sequence;
        r.sessionID = s.id;
        r.model = s.model;
        r.rawExtras = extrasFor(s.billingProvider, "");
        r.cwd = s.cwd;
        r.hasProviderTotal = s.total.has_value();
        r.totals.providerTotal = s.total.value_or(0);
        // A finished session's end is when its totals last grew; a running one's rows carry
        // no such time, so the database's own is used.
        r.updatedAt = s.endedAt;
        CumulativeMeter::meter(kSource, state, r, in.fallbackTime, sink);
    }
    result.checkpoint = CumulativeMeter::checkpoint(kSource, parserVersion, database, state);
    return result;
}

}  // namespace

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    return guardStoreRead(
        context.file, [&] { return readStore(context.file, context.checkpoint, context.sink); });
}

SourceReader reader() {
    return {SourceReaderKind::store, parserVersion, discover, ingest};
}

}  // namespace kestrel::HermesReader
