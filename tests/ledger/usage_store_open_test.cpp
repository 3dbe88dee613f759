// Opening the ledger database: the schema of a new file, refused files, the closed store, and the
// small reads and writes that live beside the migration.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_store.hpp"
#include "tests/support/ledger_connection.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
using test_support::LedgerConnection;
using test_support::TempDir;

// Every row of `sql`, columns joined by '|', NULL shown as NULL.
std::vector<std::string> rows(sqlite3* db, const std::string& sql) {
    sqlite::Statement s(db, sql);
    std::vector<std::string> out;
    while (s.step()) {
        std::string row;
        for (int c = 0; c < sqlite3_column_count(s.handle()); ++c) {
            row += (c ? "|" : "") + (s.isNull(c) ? std::string("NULL") : s.text(c));
        }
        out.push_back(row);
    }
    return out;
}

std::string value(sqlite3* db, const std::string& sql) {
    auto r = rows(db, sql);
    return r.empty() ? "<no row>" : r.front();
}

// The full table and index layout is compared against migrated files in migration_test.cpp.
TEST(UsageStoreOpen, NewDirectoryGetsTheCurrentSchema) {
    TempDir dir;
    UsageStore store(dir / "nested" / "support");
    EXPECT_EQ(store.databasePath(), dir / "nested" / "support" / UsageStore::kFileName);
    EXPECT_TRUE(fs::exists(store.databasePath()));
    LedgerConnection ledger(store.databasePath());
    sqlite3* db = ledger.get();

    // Foreign keys are a setting of each connection: StoreConnectionEnforcesForeignKeys.
    EXPECT_EQ(sqlite::userVersion(db), UsageStore::kSchemaVersion);
    EXPECT_EQ(value(db, "PRAGMA journal_mode;"), "wal");

    const auto names = rows(db,
                            "SELECT type || ' ' || name FROM sqlite_master\n"
                            "WHERE name NOT LIKE 'sqlite_%';");
    const std::set<std::string> expected{"table events",
                                         "table checkpoints",
                                         "table quota",
                                         "table settings",
                                         "table price_overrides",
                                         "table quota_accounts",
                                         "table plan_accounts",
                                         "table integration_instances",
                                         "table subscription_accounts",
                                         "table account_bindings",
                                         "table quota_snapshots",
                                         "table ingest_runs",
                                         "table usage_observations",
                                         "table ledger_events",
                                         "table ledger_costs",
                                         "table adapter_checkpoints",
                                         "table coverage_issues",
                                         "table removed_subscription_accounts",
                                         "table plan_discovery_candidates",
                                         "index idx_events_time",
                                         "index idx_events_source_time",
                                         "index idx_integration_instances_plugin_active",
                                         "index idx_subscription_accounts_provider_state",
                                         "index idx_subscription_accounts_fingerprint",
                                         "index idx_account_bindings_active_identity",
                                         "index idx_account_bindings_account",
                                         "index idx_quota_snapshots_account_time",
                                         "index idx_ingest_runs_source_time",
                                         "index idx_ingest_runs_status",
                                         "index idx_usage_observations_source_time",
                                         "index idx_usage_observations_run",
                                         "index idx_usage_observations_account_time",
                                         "index idx_ledger_events_time_id",
                                         "index idx_ledger_events_source_time",
                                         "index idx_ledger_events_session",
                                         "index idx_ledger_events_account_time",
                                         "index idx_ledger_events_instance_time",
                                         "index idx_ledger_costs_known_amount",
                                         "index idx_adapter_checkpoints_updated",
                                         "index idx_coverage_issues_open",
                                         "index idx_coverage_issues_observation",
                                         "index idx_coverage_issues_run",
                                         "index idx_plan_candidates_pending",
                                         "index idx_plan_candidates_account",
                                         "table ledger_rollups",
                                         "table ledger_rollups_hour",
                                         "table ledger_rollups_day",
                                         "table ledger_rollup_dirty",
                                         "trigger ledger_events_rollup_insert",
                                         "trigger ledger_events_rollup_delete",
                                         "trigger ledger_events_rollup_update"};
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), expected);
    EXPECT_EQ(names.size(), expected.size());
    // The partial indexes keep their conditions.
    EXPECT_NE(value(db,
                    "SELECT sql FROM sqlite_master WHERE name="
                    "'idx_account_bindings_active_identity';")
                  .find("WHERE archived_at IS NULL"),
              std::string::npos);
    // Rows written without a granularity read as unknown; an absent breakdown flag is refused.
    EXPECT_EQ(value(db,
                    "SELECT type, \"notnull\", dflt_value FROM pragma_table_info("
                    "'usage_observations') WHERE name='granularity';"),
              "TEXT|1|'unknown'");
    EXPECT_EQ(value(db,
                    "SELECT \"notnull\", dflt_value FROM pragma_table_info("
                    "'plan_discovery_candidates') WHERE name='is_present';"),
              "1|1");
    EXPECT_EQ(value(db,
                    "SELECT \"notnull\", dflt_value IS NULL FROM pragma_table_info("
                    "'usage_observations') WHERE name='breakdown_trusted';"),
              "1|1");
}

TEST(UsageStoreOpen, RefusedFilesNameTheCause) {
    TempDir dir;
    const std::string foreign(600, 'x');
    dir.write("text/usage.sqlite", foreign);
    dir.write("blocker", "a file where a folder should be");

    const struct {
        const char* name;
        fs::path directory;
        const char* cause;
    } cases[] = {
        {"not a database", dir / "text", "file is not a database"},
        {"directory cannot be made", dir / "blocker" / "sub", "blocker"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        try {
            UsageStore store(c.directory);
            ADD_FAILURE() << "opened";
        } catch (const StoreError& e) {
            EXPECT_EQ(e.code(), StoreErrorCode::open);
            EXPECT_NE(std::string(e.what()).find(c.cause), std::string::npos) << e.what();
        }
    }
    // A file that is not ours is left exactly as it was.
    std::ifstream in(dir / "text" / "usage.sqlite", std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    EXPECT_EQ(content.str(), foreign);
}

// Read-only for everyone, root included: the immutable attribute. Skipped where the file
// system or the sandbox does not allow setting it.
TEST(UsageStoreOpen, ReadOnlyLedgerIsRefusedAtOpen) {
    TempDir dir;
    { UsageStore store(dir.path()); }
    const auto file = dir / UsageStore::kFileName;
    if (std::system(("chattr +i '" + file.string() + "' 2>/dev/null").c_str()) != 0) {
        GTEST_SKIP() << "cannot make a file immutable here";
    }
    try {
        UsageStore store(dir.path());
        ADD_FAILURE() << "opened a read-only ledger";
    } catch (const StoreError& e) {
        EXPECT_EQ(e.code(), StoreErrorCode::open);
        EXPECT_NE(std::string(e.what()).find("read-only"), std::string::npos) << e.what();
    }
    EXPECT_EQ(std::system(("chattr -i '" + file.string() + "'").c_str()), 0);
}

TEST(UsageStoreOpen, DatabaseLockedByAnotherConnectionFailsAfterTheBusyTimeout) {
    TempDir dir;
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open((dir / UsageStore::kFileName).c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE;", nullptr, nullptr, nullptr), SQLITE_OK);

    const auto start = std::chrono::steady_clock::now();
    try {
        UsageStore store(dir.path());
        ADD_FAILURE() << "opened a locked database";
    } catch (const StoreError& e) {
        EXPECT_EQ(e.code(), StoreErrorCode::open);
        EXPECT_NE(std::string(e.what()).find("database is locked"), std::string::npos) << e.what();
    }
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(UsageStore::kBusyTimeoutMs - 500));

    sqlite3_exec(other, "ROLLBACK;", nullptr, nullptr, nullptr);
    sqlite3_close(other);
    UsageStore store(dir.path());  // usable once the other connection lets go
    EXPECT_EQ(sqlite::userVersion(LedgerConnection(store.databasePath()).get()),
              UsageStore::kSchemaVersion);
}

TEST(UsageStoreOpen, ClosedStoreRefusesEveryOperation) {
    TempDir dir;
    UsageStore store(dir.path());
    store.setSetting("k", "v");
    store.close();
    EXPECT_FALSE(store.isOpen());
    store.close();  // twice is harmless

    const auto expectOpenError = [](auto&& operation) {
        try {
            operation();
            ADD_FAILURE() << "ran on a closed store";
        } catch (const StoreError& e) {
            EXPECT_EQ(e.code(), StoreErrorCode::open);
        }
    };
    expectOpenError([&] { store.setting("k"); });
    expectOpenError([&] { store.setSetting("k", "w"); });
    expectOpenError([&] { store.checkpoints(AgentSource::claude); });

    UsageStore reopened(dir.path());
    EXPECT_EQ(reopened.setting("k"), "v");
}

// A completed Claude Code run with two observations, their priced ledger events, and two coverage
// issues, one of them tied to the first observation.
void insertPricedEvents(sqlite3* db) {
    sqlite::exec(db, R"sql(
INSERT INTO ingest_runs(id, adapter_id, source, started_at, status)
  VALUES('run', 'claude', 'claude', 1, 'completed');
INSERT INTO usage_observations(id, run_id, source, provider, model, observed_at, time_quality,
  precision, breakdown_trusted, usage_semantics_version, cost_completeness, cost_source,
  billing_mode) VALUES
  ('o1', 'run', 'claude', 'anthropic', 'm', 2, 'trusted', 'nativeExact', 1, 1, 'none',
   'unknown', 'apiEquivalent'),
  ('o2', 'run', 'claude', 'anthropic', 'm', 2, 'trusted', 'nativeExact', 1, 1, 'none',
   'unknown', 'apiEquivalent');
INSERT INTO ledger_events(id, observation_id, occurred_at, source, provider, model,
  usage_semantics_version, created_at, updated_at) VALUES
  ('le:o1', 'o1', 1, 'claude', 'anthropic', 'm', 1, 3, 3),
  ('le:o2', 'o2', 1, 'claude', 'anthropic', 'm', 1, 3, 3);
INSERT INTO ledger_costs(ledger_event_id, amount_usd_micros, completeness, cost_source,
  billing_mode, updated_at) VALUES
  ('le:o1', 10, 'complete', 'priceTable', 'apiEquivalent', 3),
  ('le:o2', 20, 'complete', 'priceTable', 'apiEquivalent', 3);
INSERT INTO coverage_issues(id, run_id, observation_id, code, severity, origin, detected_at)
  VALUES ('i1', 'run', 'o1', 'unknownCost', 'info', 'validation', 4),
         ('i2', 'run', NULL, 'formatChanged', 'warning', 'adapter', 4);
)sql");
}

TEST(UsageStoreOpen, DeletingAnObservationCascades) {
    TempDir dir;
    UsageStore store(dir.path());
    LedgerConnection ledger(store.databasePath());
    sqlite3* db = ledger.get();
    insertPricedEvents(db);
    // An event for no observation is refused.
    EXPECT_THROW(sqlite::exec(db,
                              "INSERT INTO ledger_events(id, observation_id, occurred_at, source,"
                              " provider, model, usage_semantics_version, created_at, updated_at)"
                              " VALUES('le:x', 'nothing', 1, 'c', 'p', 'm', 1, 1, 1);"),
                 StoreError);

    sqlite::exec(db, "DELETE FROM usage_observations WHERE id='o1';");
    EXPECT_EQ(rows(db, "SELECT id FROM ledger_events;"), std::vector<std::string>{"le:o2"});
    EXPECT_EQ(rows(db, "SELECT ledger_event_id FROM ledger_costs;"),
              std::vector<std::string>{"le:o2"});
    EXPECT_EQ(rows(db, "SELECT id FROM coverage_issues;"), std::vector<std::string>{"i2"});
}

// A full rescan that no longer finds the events deletes them on the store's connection; their
// costs go only through the cascade, which SQLite applies when that connection enables it.
TEST(UsageStoreOpen, StoreConnectionEnforcesForeignKeys) {
    TempDir dir;
    UsageStore store(dir.path());
    LedgerConnection ledger(store.databasePath());
    insertPricedEvents(ledger.get());

    UsageBatch rescan;
    rescan.id = "rescan";
    rescan.adapterID = "claude";
    rescan.source = AgentSource::claude;
    rescan.startedAt = 5;
    rescan.completedAt = 6;
    store.replaceLedgerSource(AgentSource::claude, rescan);

    EXPECT_EQ(rows(ledger.get(), "SELECT id FROM ledger_events;"), std::vector<std::string>{});
    EXPECT_EQ(rows(ledger.get(), "SELECT ledger_event_id FROM ledger_costs;"),
              std::vector<std::string>{});
}

TEST(UsageStoreOpen, SettingsRoundTrip) {
    TempDir dir;
    {
        UsageStore store(dir.path());
        EXPECT_EQ(store.setting("app"), std::nullopt);
        store.setSetting("app", R"({"a":"it's"})");
        store.setSetting("plan_salt", "first");
        store.setSetting("plan_salt", "second");
        store.setSetting("empty", "");
        EXPECT_EQ(store.setting("plan_salt"), "second");
    }
    UsageStore store(dir.path());
    EXPECT_EQ(store.setting("app"), R"({"a":"it's"})");
    EXPECT_EQ(store.setting("plan_salt"), "second");
    EXPECT_EQ(store.setting("empty"), "");  // empty, not absent
}

TEST(UsageStoreOpen, CheckpointsOfOneSourceDecode) {
    TempDir dir;
    UsageStore store(dir.path());
    SourceCheckpoint a;
    a.source = AgentSource::codex;
    a.stableID = "/h/.codex/sessions/a.jsonl";
    a.pathHint = a.stableID;
    a.inode = 77;
    a.byteOffset = 1234;
    a.parserContext = std::string("\x00\xff", 2);
    a.fileStamp = "1234:99";
    SourceCheckpoint other = a;
    other.source = AgentSource::claude;

    LedgerConnection ledger(store.databasePath());
    sqlite::Statement insert(ledger.get(),
                             "INSERT INTO checkpoints(source, stable_id, json) VALUES(?,?,?);");
    const auto put = [&](std::string_view source, std::string_view id, const std::string& json) {
        insert.reset();
        insert.bind(1, source).bind(2, id).bind(3, json);
        insert.run();
    };
    put("codex", a.stableID, nlohmann::json(a).dump());
    put("codex", "/broken", "{\"source\":\"codex\"");
    put("codex", "/unknown-source", R"({"source":"nope","stableID":"/unknown-source"})");
    put("claude", other.stableID, nlohmann::json(other).dump());

    EXPECT_EQ(store.checkpoints(AgentSource::codex), std::vector<SourceCheckpoint>{a});
    EXPECT_EQ(store.checkpoints(AgentSource::claude), std::vector<SourceCheckpoint>{other});
    EXPECT_TRUE(store.checkpoints(AgentSource::gemini).empty());
}

TEST(SqliteStatement, ErrorsNameTheStatementButNotItsValuesAndTransactionsRollBack) {
    TempDir dir;
    UsageStore store(dir.path());
    LedgerConnection ledger(store.databasePath());
    sqlite3* db = ledger.get();
    store.setSetting("token", "x");

    sqlite::Statement insert(db, "INSERT INTO settings(key, value) VALUES(?,?);");
    insert.bind(1, "token").bind(2, "secret-value-123");
    try {
        insert.run();
        ADD_FAILURE() << "duplicate key accepted";
    } catch (const StoreError& e) {
        const std::string message = e.what();
        EXPECT_EQ(e.code(), StoreErrorCode::sql);
        EXPECT_NE(message.find("UNIQUE constraint failed"), std::string::npos) << message;
        EXPECT_NE(message.find("INSERT INTO settings"), std::string::npos) << message;
        EXPECT_EQ(message.find("secret-value-123"), std::string::npos) << message;
    }
    EXPECT_THROW(sqlite::Statement(db, "SELECT * FROM no_such_table;"), StoreError);

    {
        sqlite::Transaction abandoned(db);
        sqlite::exec(db, "INSERT INTO settings VALUES('rolled-back', '1');");
    }
    {
        sqlite::Transaction kept(db);
        sqlite::exec(db, "INSERT INTO settings VALUES('committed', '1');");
        kept.commit();
    }
    EXPECT_EQ(store.setting("rolled-back"), std::nullopt);
    EXPECT_EQ(store.setting("committed"), "1");
}

#ifndef __APPLE__
TEST(UsageStoreOpen, SupportDirectory) {
    const fs::path home = "/home/ada";
    const struct {
        std::map<std::string, std::string> env;
        fs::path expected;
    } cases[] = {
        {{}, "/home/ada/.local/share/kestrel"},
        {{{"XDG_DATA_HOME", "/data"}}, "/data/kestrel"},
        {{{"XDG_DATA_HOME", "relative/data"}}, "/home/ada/.local/share/kestrel"},
        {{{"XDG_DATA_HOME", "/data"}, {"KESTREL_SUPPORT_DIR", "/srv/k"}}, "/srv/k"},
        {{{"KESTREL_SUPPORT_DIR", ""}}, "/home/ada/.local/share/kestrel"},
    };
    for (const auto& c : cases) {
        const EnvironmentLookup env = [&](std::string_view name) -> std::optional<std::string> {
            auto it = c.env.find(std::string(name));
            return it == c.env.end() ? std::nullopt : std::optional(it->second);
        };
        EXPECT_EQ(UsageStore::supportDirectoryURL(env, home), c.expected);
    }
}
#endif

}  // namespace
}  // namespace kestrel
