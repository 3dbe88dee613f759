// `kestrel scan` stopped where it cannot finish: killed with SIGKILL at random moments, or out of
// room for the ledger. Either way the ledger is a sound database with no commit left half-done,
// and scanning on to the end gives row for row the ledger of one scan never interrupted.

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <sstream>
#include <thread>

#include "cli/cli.hpp"
#include "core/ledger/usage_store.hpp"
#include "tests/support/command_run.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/agent_corpus/all_agents.hpp"
#include "tools/claude_corpus.hpp"
#include "tools/codex_corpus.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// The first column of every row `sql` yields, a row per line; "error: ..." when it fails.
std::string column(sqlite3* db, const std::string& sql) {
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr) != SQLITE_OK) {
        return std::string("error: ") + sqlite3_errmsg(db);
    }
    std::string out;
    int rc = SQLITE_ROW;
    while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
        const auto* text = sqlite3_column_text(s, 0);
        out += text ? reinterpret_cast<const char*>(text) : "NULL";
        out += '\n';
    }
    if (rc != SQLITE_DONE) {
        out += std::string("error: ") + sqlite3_errmsg(db);
    }
    sqlite3_finalize(s);
    return out;
}

std::vector<std::string> split(const std::string& lines) {
    std::vector<std::string> out;
    std::istringstream in(lines);
    for (std::string line; std::getline(in, line);) {
        out.push_back(line);
    }
    return out;
}

class Ledger {
  public:
    explicit Ledger(const fs::path& support) {
        // Read-write: opening is what replays or discards the log a killed writer left.
        if (sqlite3_open_v2((support / UsageStore::kFileName).c_str(), &db_, SQLITE_OPEN_READWRITE,
                            nullptr) != SQLITE_OK) {
            ADD_FAILURE() << "cannot open the ledger: " << sqlite3_errmsg(db_);
        }
        sqlite3_busy_timeout(db_, 5000);
    }
    ~Ledger() { sqlite3_close_v2(db_); }
    Ledger(const Ledger&) = delete;
    Ledger& operator=(const Ledger&) = delete;

    std::string query(const std::string& sql) const { return column(db_, sql); }

    // Every row of the tables a scan fills, without the columns that say when or in which run a
    // row was written: those differ between any two scans.
    std::string rows() const {
        std::string out;
        for (const char* table :
             {"events", "checkpoints", "usage_observations", "ledger_events", "ledger_costs",
              "adapter_checkpoints", "coverage_issues", "quota_snapshots", "quota_accounts"}) {
            std::string columns;
            for (const auto& name :
                 split(query(std::string("SELECT name FROM pragma_table_info('") + table +
                             "') ORDER BY cid"))) {
                if (name == "run_id" || (name.ends_with("_at") && name != "occurred_at")) {
                    continue;
                }
                columns += (columns.empty() ? "quote(" : " || '|' || quote(") + name + ")";
            }
            out += std::string("-- ") + table + "\n" +
                   query("SELECT " + columns + " FROM " + table + " ORDER BY 1");
        }
        // A first import drops indexes and triggers while it fills the ledger: a kill must not
        // leave them missing.
        out += "-- indexes and triggers\n" +
               query("SELECT type || ' ' || name FROM sqlite_master WHERE type IN ('index', "
                     "'trigger') ORDER BY 1");
        return out;
    }

  private:
    sqlite3* db_ = nullptr;
};

// Claude Code and Codex transcripts from their generators and every other agent's records: many
// files, so that a kill can fall between any two of them or in any commit.
void writeHome(const fs::path& home) {
    corpus::ClaudeCorpusOptions claude;
    claude.home = home;
    claude.targetBytes = 400'000;
    claude.files = 8;
    ASSERT_TRUE(corpus::writeClaudeCorpus(claude));
    corpus::CodexCorpusOptions codex;
    codex.home = home;
    codex.targetBytes = 300'000;
    codex.files = 8;
    ASSERT_TRUE(corpus::writeCodexCorpus(codex));
    for (const auto& agent : corpus::otherAgents()) {
        agent.write(home, 1);
    }
}

std::vector<std::string> scanArgs(const fs::path& home, const fs::path& support) {
    return {"scan", "--home", home.string(), "--support-dir", support.string()};
}

TEST(ScanKill, KilledScansLeaveASoundLedgerThatScansOnToTheSameEnd) {
    test_support::TempDir home, reference;
    writeHome(home.path());

    const auto started = Clock::now();
    const auto oneShot = test_support::runKestrel({"scan"}, home.path(), reference.path());
    const auto scanTime = Clock::now() - started;
    ASSERT_EQ(oneShot.code, 0) << oneShot.err;
    const std::string expected = Ledger(reference.path()).rows();
    ASSERT_GT(Ledger(reference.path()).query("SELECT COUNT(*) FROM ledger_events"), "0");

    const auto seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    // Slightly past the scan's own length, so that kills also meet its last commit and its end.
    std::uniform_int_distribution<int64_t> delayMicros(
        0, std::chrono::duration_cast<std::chrono::microseconds>(scanTime).count() * 11 / 10);

    constexpr int kKills = 50;
    int kills = 0, homes = 0;
    while (kills < kKills) {
        // Each round starts from an empty ledger, so that later kills fall into the first
        // commits again instead of into ever shorter rescans.
        test_support::TempDir support;
        ++homes;
        for (int attempt = 0; attempt < 20; ++attempt) {
            const pid_t child = ::fork();
            ASSERT_NE(child, -1);
            if (child == 0) {
                std::ostringstream out, err;
                const int code = cli::run(scanArgs(home.path(), support.path()), out, err);
                ::_exit(code == 0 ? 0 : 100 + code);
            }
            std::this_thread::sleep_for(std::chrono::microseconds(delayMicros(random)));
            ::kill(child, SIGKILL);
            int status = 0;
            ASSERT_EQ(::waitpid(child, &status, 0), child);
            if (!WIFSIGNALED(status)) {
                ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
                    << "a scan after " << kills << " kills failed: " << status;
                break;  // finished before the kill came
            }
            ++kills;
            if (!fs::exists(support.path() / UsageStore::kFileName)) {
                continue;  // killed before the ledger was created
            }
            Ledger ledger(support.path());
            ASSERT_EQ(ledger.query("PRAGMA integrity_check"), "ok\n") << "after kill " << kills;
            // A run is marked completed in the transaction that writes it: one still running
            // would be a commit that landed in part.
            if (ledger.query("SELECT COUNT(*) FROM sqlite_master WHERE name='ingest_runs'") ==
                "0\n") {
                continue;  // killed while the tables were being created
            }
            ASSERT_EQ(ledger.query("SELECT COUNT(*) FROM ingest_runs WHERE status<>'completed'"),
                      "0\n")
                << "after kill " << kills;
        }
        const auto rest = test_support::runKestrel({"scan"}, home.path(), support.path());
        ASSERT_EQ(rest.code, 0) << rest.err;
        ASSERT_EQ(Ledger(support.path()).rows(), expected) << "after " << kills << " kills";
    }
    RecordProperty("kills", kills);
    RecordProperty(
        "scanMillis",
        static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(scanTime).count()));
    RecordProperty("ledgers", homes);
}

// The disk fills up under the ledger: a scan in a child process whose files may not grow past a
// few kilobytes more than the ledger already holds (the limit on file size stands in for a full
// disk; its writes fail the same way). The scan fails saying so, and the ledger keeps exactly
// what it held before; once there is room, the next scan completes it.
TEST(ScanOutOfRoom, FailsSayingWhyAndCommitsNothingOfTheScan) {
    test_support::TempDir home, reference, support;
    writeHome(home.path());
    const auto oneShot = test_support::runKestrel({"scan"}, home.path(), reference.path());
    ASSERT_EQ(oneShot.code, 0) << oneShot.err;
    const std::string expected = Ledger(reference.path()).rows();

    // An empty ledger with its tables, and its size now.
    ASSERT_EQ(test_support::runKestrel({"settings"}, home.path(), support.path()).code, 0);
    std::error_code ec;
    const auto ledgerBytes = fs::file_size(support.path() / UsageStore::kFileName, ec);
    ASSERT_FALSE(ec);

    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const pid_t child = ::fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        ::close(pipe[0]);
        ::signal(SIGXFSZ, SIG_IGN);  // a write past the limit fails instead of ending the process
        const rlimit limit{ledgerBytes + 16384, ledgerBytes + 16384};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        std::ostringstream out, err;
        const int code = cli::run(scanArgs(home.path(), support.path()), out, err);
        const std::string said = err.str();
        [[maybe_unused]] const auto written = ::write(pipe[1], said.data(), said.size());
        ::_exit(code);
    }
    ::close(pipe[1]);
    std::string said;
    char buffer[4096];
    for (ssize_t n; (n = ::read(pipe[0], buffer, sizeof buffer)) > 0;) {
        said.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(pipe[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_NE(WEXITSTATUS(status), 0) << said;
    // SQLite says "database or disk is full" or "disk I/O error", as the write failed.
    EXPECT_NE(said.find("disk"), std::string::npos) << said;

    {
        Ledger ledger(support.path());
        EXPECT_EQ(ledger.query("PRAGMA integrity_check"), "ok\n");
        EXPECT_EQ(ledger.query("SELECT COUNT(*) FROM ingest_runs WHERE status<>'completed'"),
                  "0\n");
        // Each agent's usage is one commit: the disk filled up in one of them, and the agents
        // committed before it may stay, but none is there in part.
        const std::string perSource =
            "SELECT source || ' ' || COUNT(*) FROM ledger_events GROUP BY source ORDER BY 1";
        const auto complete = split(Ledger(reference.path()).query(perSource));
        const auto left = split(ledger.query(perSource));
        EXPECT_LT(left.size(), complete.size()) << "the scan did not fail in a commit";
        for (const auto& source : left) {
            EXPECT_NE(std::find(complete.begin(), complete.end(), source), complete.end())
                << source << " committed in part";
        }
    }
    const auto again = test_support::runKestrel({"scan"}, home.path(), support.path());
    ASSERT_EQ(again.code, 0) << again.err;
    EXPECT_EQ(Ledger(support.path()).rows(), expected);
}

}  // namespace
}  // namespace kestrel
