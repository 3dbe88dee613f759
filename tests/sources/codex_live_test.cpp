#include "core/sources/codex_live.hpp"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>

#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;

void run(const std::filesystem::path& path, const std::string& sql) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    char* error = nullptr;
    const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error);
    EXPECT_EQ(rc, SQLITE_OK) << (error ? error : "");
    sqlite3_free(error);
    sqlite3_close(db);
}

constexpr const char* kThreads =
    "CREATE TABLE threads(id TEXT PRIMARY KEY, cwd TEXT, thread_source TEXT);"
    "INSERT INTO threads VALUES('root','/home/u/app','cli'),('child','/home/u/app','subagent'),"
    "('orphan','/tmp','subagent'),('other','/home/u/lib','cli');";

std::vector<std::string> threadIDs(const std::vector<CodexLive::InProgressRow>& rows) {
    std::vector<std::string> ids;
    for (const auto& r : rows) {
        ids.push_back(r.threadID);
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

TEST(CodexLive, OnlyTheLatestTurnOfAThreadCountsWhateverColumnsExist) {
    // Turns in insertion order: "other" had an inProgress turn that a completed one followed;
    // "root" is in progress.
    const struct {
        const char* what;
        const char* table;
        const char* rows;
    } cases[] = {
        {"rollout_ordinal",
         "CREATE TABLE thread_turns(thread_id TEXT, turn_id TEXT, rollout_ordinal INTEGER, "
         "status TEXT, started_at INTEGER);",
         "INSERT INTO thread_turns VALUES('other','a',2,'completed',100),"
         "('other','b',1,'inProgress',200),('root','c',1,'inProgress',300);"},
        {"started_at",
         "CREATE TABLE thread_turns(thread_id TEXT, turn_id TEXT, status TEXT, started_at "
         "INTEGER);",
         "INSERT INTO thread_turns VALUES('other','b',  'inProgress',100),"
         "('other','a','completed',200),('root','c','inProgress',300);"},
        {"rowid only", "CREATE TABLE thread_turns(thread_id TEXT, turn_id TEXT, status TEXT);",
         "INSERT INTO thread_turns VALUES('other','b','inProgress'),('other','a','completed'),"
         "('root','c','inProgress');"},
    };
    for (const auto& c : cases) {
        TempDir dir;
        const auto db = dir / "state_5.sqlite";
        run(db, std::string(kThreads) + c.table + c.rows);
        const auto rows = CodexLive::inProgressRows(db, std::nullopt);
        EXPECT_EQ(threadIDs(rows), std::vector<std::string>{"root"}) << c.what;
        ASSERT_EQ(rows.size(), 1u) << c.what;
        EXPECT_EQ(rows[0].project, "/home/u/app") << c.what;
    }
}

TEST(CodexLive, SubAgentsCountForTheirRootAndStaleTurnsAreDropped) {
    TempDir dir;
    const auto db = dir / "state_5.sqlite";
    run(db, std::string(kThreads) +
                "CREATE TABLE thread_spawn_edges(parent_thread_id TEXT, child_thread_id TEXT "
                "PRIMARY KEY);"
                "INSERT INTO thread_spawn_edges VALUES('root','child');"
                "CREATE TABLE thread_turns(thread_id TEXT, status TEXT, started_at INTEGER);"
                "INSERT INTO thread_turns VALUES('child','inProgress',5000),"
                "('orphan','inProgress',5000),('other','inProgress',1000);");
    auto rows = CodexLive::inProgressRows(db, std::nullopt);
    EXPECT_EQ(threadIDs(rows), (std::vector<std::string>{"other", "root"}));
    // Booted at 2000: the turn of "other" began before and cannot still be running.
    rows = CodexLive::inProgressRows(db, 2000.0);
    EXPECT_EQ(threadIDs(rows), std::vector<std::string>{"root"});
    EXPECT_TRUE(CodexLive::hasInProgressTurn(dir.path(), 2000.0));
    EXPECT_FALSE(CodexLive::hasInProgressTurn(dir.path(), 9000.0));
}

TEST(CodexLive, UnusableDatabasesYieldNothing) {
    TempDir dir;
    dir.write("broken.sqlite", "not a database");
    run(dir / "empty.sqlite3", "CREATE TABLE unrelated(x);");
    dir.write("notes.txt", "");
    EXPECT_EQ(CodexLive::databases(dir.path()).size(), 2u);
    for (const auto& db : CodexLive::databases(dir.path())) {
        EXPECT_TRUE(CodexLive::inProgressRows(db, std::nullopt).empty()) << db;
    }
    EXPECT_FALSE(CodexLive::hasInProgressTurn(dir.path(), std::nullopt));
    EXPECT_FALSE(CodexLive::hasInProgressTurn(dir / "missing", std::nullopt));
}

TEST(CodexLive, ALockedDatabaseYieldsNothingAndStaysUntouched) {
    TempDir dir;
    const auto path = dir / "state_5.sqlite";
    run(path, std::string(kThreads) +
                  "CREATE TABLE thread_turns(thread_id TEXT, status TEXT, started_at REAL);"
                  "INSERT INTO thread_turns VALUES('root','inProgress',5000);");
    const auto before = std::filesystem::last_write_time(path);
    const auto size = std::filesystem::file_size(path);

    // The agent holds its write lock for longer than the reader is willing to wait.
    sqlite3* agent = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &agent), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(agent, "BEGIN EXCLUSIVE;", nullptr, nullptr, nullptr), SQLITE_OK);
    const auto started = std::chrono::steady_clock::now();
    EXPECT_TRUE(CodexLive::inProgressRows(path, std::nullopt).empty());
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(3));
    sqlite3_exec(agent, "ROLLBACK;", nullptr, nullptr, nullptr);
    sqlite3_close(agent);

    EXPECT_EQ(CodexLive::inProgressRows(path, std::nullopt).size(), 1u);
    EXPECT_EQ(std::filesystem::last_write_time(path), before);
    EXPECT_EQ(std::filesystem::file_size(path), size);
}

TEST(CodexLive, BootTimeComesFromTheBtimeLine) {
    const struct {
        const char* text;
        std::optional<double> boot;
    } cases[] = {
        {"cpu  1 2 3\nbtime 1763800000\nprocesses 9\n", 1763800000.0},
        {"btime 1763800000", 1763800000.0},
        {"cpu 1\nbtime  \n", std::nullopt},
        {"btime 17638x0000\n", std::nullopt},
        {"btime -5\n", std::nullopt},
        {"xbtime 5\n", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(CodexLive::bootTimeFromProcStat(c.text), c.boot) << c.text;
    }
    // This machine's own: in the past, and not before the first rollouts were written.
    const auto boot = CodexLive::systemStartedAt();
    ASSERT_TRUE(boot.has_value());
    const double now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    EXPECT_LT(*boot, now);
    EXPECT_GT(*boot, 1.5e9);
}

}  // namespace
}  // namespace kestrel
