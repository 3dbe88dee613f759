#include "core/sources/codex_live.hpp"

#include <sqlite3.h>

#ifdef __APPLE__
#include <sys/sysctl.h>
#include <sys/time.h>
#endif

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>

namespace kestrel::CodexLive {

namespace {

struct DatabaseCloser {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct StatementFinalizer {
    void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using Database = std::unique_ptr<sqlite3, DatabaseCloser>;
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

Database openReadOnly(const std::filesystem::path& path) {
    sqlite3* raw = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
    Database db(raw);
    if (rc != SQLITE_OK) {
        return nullptr;
    }
    // The agent may be writing; wait briefly rather than fail the scan.
    sqlite3_busy_timeout(db.get(), 200);
    // A second guard besides the read-only open: nothing here may ever change the agent's file.
    sqlite3_exec(db.get(), "PRAGMA query_only=1;", nullptr, nullptr, nullptr);
    return db;
}

// Runs `sql`, calling `onRow` per row; false when the statement cannot be prepared or run
// (a missing table, a locked file).
template <class F>
bool query(sqlite3* db, const std::string& sql, F&& onRow) {
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) {
        sqlite3_finalize(raw);
        return false;
    }
    Statement stmt(raw);
    for (;;) {
        const int rc = sqlite3_step(stmt.get());
        if (rc == SQLITE_DONE) {
            return true;
        }
        if (rc != SQLITE_ROW) {
            return false;
        }
        onRow(stmt.get());
    }
}

std::optional<std::string> text(sqlite3_stmt* s, int column) {
    const auto* p = sqlite3_column_text(s, column);
    if (p == nullptr) {
        return std::nullopt;
    }
    return std::string(reinterpret_cast<const char*>(p));
}

std::set<std::string> columns(sqlite3* db, const std::string& table) {
    std::set<std::string> names;
    query(db, "PRAGMA table_info(" + table + ");", [&](sqlite3_stmt* s) {
        if (auto name = text(s, 1)) {
            names.insert(*name);
        }
    });
    return names;
}

// Turn times are epoch seconds; a value too large for that is read as milliseconds.
std::optional<double> epochSeconds(sqlite3_stmt* s, int column) {
    if (sqlite3_column_type(s, column) == SQLITE_NULL) {
        return std::nullopt;
    }
    const double v = sqlite3_column_double(s, column);
    return v > 1e11 ? v / 1000.0 : v;
}

}  // namespace

std::vector<std::filesystem::path> databases(const std::filesystem::path& folder) {
    std::vector<std::filesystem::path> found;
    std::error_code ec;
    for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end;
         it.increment(ec)) {
        const auto ext = it->path().extension();
        if ((ext == ".sqlite" || ext == ".sqlite3") && it->is_regular_file(ec)) {
            found.push_back(it->path());
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

std::vector<InProgressRow> inProgressRows(const std::filesystem::path& database,
                                          std::optional<double> systemStartedAt) {
    const Database db = openReadOnly(database);
    if (!db) {
        return {};
    }
    std::map<std::string, std::string> projects;
    query(db.get(), "SELECT id, cwd FROM threads;", [&](sqlite3_stmt* s) {
        auto id = text(s, 0);
        auto cwd = text(s, 1);
        if (id && cwd) {
            projects[*id] = *cwd;
        }
    });

    // Sub-agent threads are not sessions of their own; without a known spawner they are dropped.
    std::set<std::string> subagents;
    query(db.get(), "SELECT id FROM threads WHERE thread_source = 'subagent';",
          [&](sqlite3_stmt* s) {
              if (auto id = text(s, 0)) {
                  subagents.insert(*id);
              }
          });

    std::map<std::string, std::string> parentOf;
    const auto edgeColumns = columns(db.get(), "thread_spawn_edges");
    const std::string edgeSQL =
        edgeColumns.contains("status")
            ? "SELECT parent_thread_id, child_thread_id, status FROM thread_spawn_edges;"
            : "SELECT parent_thread_id, child_thread_id FROM thread_spawn_edges;";
    query(db.get(), edgeSQL, [&](sqlite3_stmt* s) {
        auto parent = text(s, 0);
        auto child = text(s, 1);
        if (parent && child && *parent != *child) {
            parentOf[*child] = *parent;
        }
    });
    const auto rootOf = [&](std::string id) {
        // Bounded, so that a cycle in the edges cannot hang the scan.
        for (std::size_t hops = 0; hops <= parentOf.size(); ++hops) {
            auto it = parentOf.find(id);
            if (it == parentOf.end()) {
                break;
            }
            id = it->second;
        }
        return id;
    };

    const auto turnColumns = columns(db.get(), "thread_turns");
    if (turnColumns.empty()) {
        return {};
    }
    std::string later;
    if (turnColumns.contains("rollout_ordinal")) {
        later = "later.rollout_ordinal > t.rollout_ordinal";
    } else if (turnColumns.contains("started_at")) {
        later =
            "COALESCE(later.started_at, 0) > COALESCE(t.started_at, 0) OR "
            "(COALESCE(later.started_at, 0) = COALESCE(t.started_at, 0) AND later.rowid > "
            "t.rowid)";
    } else {
        later = "later.rowid > t.rowid";
    }
    const std::string startedAt = turnColumns.contains("started_at") ? "t.started_at" : "NULL";
    const std::string sql = "SELECT t.thread_id, " + startedAt +
                            " FROM thread_turns t WHERE t.status = 'inProgress' AND NOT EXISTS "
                            "(SELECT 1 FROM thread_turns later WHERE later.thread_id = "
                            "t.thread_id AND (" +
                            later + "));";
    std::vector<InProgressRow> rows;
    std::set<std::string> seen;
    query(db.get(), sql, [&](sqlite3_stmt* s) {
        auto thread = text(s, 0);
        if (!thread) {
            return;
        }
        const auto started = epochSeconds(s, 1);
        if (systemStartedAt && started && *started < *systemStartedAt) {
            return;  // begun before the last boot: the process that ran it is gone
        }
        InProgressRow row;
        row.threadID = rootOf(*thread);
        if (row.threadID == *thread && subagents.contains(*thread)) {
            return;
        }
        row.startedAt = started;
        if (auto it = projects.find(row.threadID); it != projects.end()) {
            row.project = it->second;
        }
        if (seen.insert(row.threadID).second) {
            rows.push_back(std::move(row));
        }
    });
    return rows;
}

std::optional<double> bootTimeFromProcStat(std::string_view procStat) {
    std::size_t at = 0;
    while (at < procStat.size()) {
        auto end = procStat.find('\n', at);
        if (end == std::string_view::npos) {
            end = procStat.size();
        }
        auto line = procStat.substr(at, end - at);
        at = end + 1;
        if (!line.starts_with("btime ")) {
            continue;
        }
        line.remove_prefix(6);
        while (!line.empty() && line.back() == ' ') {
            line.remove_suffix(1);
        }
        int64_t seconds = 0;
        const auto [ptr, ec] = std::from_chars(line.data(), line.data() + line.size(), seconds);
        if (ec != std::errc() || ptr != line.data() + line.size() || seconds <= 0) {
            return std::nullopt;
        }
        return static_cast<double>(seconds);
    }
    return std::nullopt;
}

std::optional<double> systemStartedAt() {
#ifdef __APPLE__
    timeval boot{};
    std::size_t size = sizeof(boot);
    if (sysctlbyname("kern.boottime", &boot, &size, nullptr, 0) != 0 || boot.tv_sec <= 0) {
        return std::nullopt;
    }
    return static_cast<double>(boot.tv_sec) + boot.tv_usec / 1e6;
#else
    std::ifstream in("/proc/stat");
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return bootTimeFromProcStat(text);
#endif
}

bool hasInProgressTurn(const std::filesystem::path& codexHome,
                       std::optional<double> systemStartedAt) {
    for (const auto& db : databases(codexHome)) {
        if (!inProgressRows(db, systemStartedAt).empty()) {
            return true;
        }
    }
    return false;
}

}  // namespace kestrel::CodexLive
