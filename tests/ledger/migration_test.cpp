// Files written by older versions, built by hand with the raw SQLite API, opened by the store.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/ledger/ledger_schema.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/model/account_snapshot_json.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;

// A plain connection to usage.sqlite, as an older build or another process would hold it.
class RawDB {
  public:
    explicit RawDB(const std::filesystem::path& file) {
        if (sqlite3_open(file.c_str(), &db_) != SQLITE_OK) {
            throw std::runtime_error(sqlite3_errmsg(db_));
        }
    }
    ~RawDB() { sqlite3_close(db_); }
    RawDB(const RawDB&) = delete;
    RawDB& operator=(const RawDB&) = delete;

    void exec(const std::string& sql) {
        char* message = nullptr;
        if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
            std::string why = message ? message : "?";
            sqlite3_free(message);
            throw std::runtime_error(why + " in: " + sql);
        }
    }

    // Every row of `sql`, columns joined by '|', NULL shown as NULL.
    std::vector<std::string> rows(const std::string& sql) {
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
            throw std::runtime_error(std::string(sqlite3_errmsg(db_)) + " in: " + sql);
        }
        std::vector<std::string> out;
        int rc;
        while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
            std::string row;
            for (int c = 0; c < sqlite3_column_count(stmt); ++c) {
                if (c) {
                    row += '|';
                }
                const auto* text = sqlite3_column_text(stmt, c);
                row += text ? reinterpret_cast<const char*>(text) : "NULL";
            }
            out.push_back(row);
        }
        const std::string why = sqlite3_errmsg(db_);
        sqlite3_finalize(stmt);
        if (rc != SQLITE_DONE) {
            throw std::runtime_error(why + " in: " + sql);
        }
        return out;
    }

    std::string value(const std::string& sql) {
        auto r = rows(sql);
        return r.empty() ? "<no row>" : r.front();
    }

    int64_t userVersion() { return std::stoll(value("PRAGMA user_version;")); }

    // The schema, the version and every row of every table, for before/after comparisons.
    std::vector<std::string> dump() {
        auto out = rows("SELECT type, name, tbl_name, sql FROM sqlite_master ORDER BY name;");
        out.push_back("version " + std::to_string(userVersion()));
        for (const auto& table :
             rows("SELECT name FROM sqlite_master WHERE type='table' ORDER BY name;")) {
            auto content = rows("SELECT * FROM \"" + table + "\";");
            std::sort(content.begin(), content.end());
            out.push_back("table " + table);
            out.insert(out.end(), content.begin(), content.end());
        }
        return out;
    }

    // Every table's columns and every index's keys, in an order independent of how they were made.
    std::vector<std::string> schema() {
        auto out = rows(
            "SELECT m.name, p.name, p.type, p.\"notnull\", p.dflt_value, p.pk\n"
            "FROM sqlite_master m, pragma_table_info(m.name) p WHERE m.type='table'\n"
            "ORDER BY m.name, p.cid;");
        auto indexes = rows(
            "SELECT m.name, m.tbl_name, l.\"unique\", l.partial, x.name, x.desc\n"
            "FROM sqlite_master m, pragma_index_list(m.tbl_name) l, pragma_index_xinfo(m.name) x\n"
            "WHERE m.type='index' AND l.name=m.name AND x.key=1 ORDER BY m.name, x.seqno;");
        out.insert(out.end(), indexes.begin(), indexes.end());
        return out;
    }

    bool hasTable(const std::string& name) {
        return value("SELECT count(*) FROM sqlite_master WHERE type='table' AND name='" + name +
                     "';") == "1";
    }

  private:
    sqlite3* db_ = nullptr;
};

// The older key/JSON tables as the first versions wrote them.
constexpr const char* kLegacyTables = R"sql(
CREATE TABLE events (id TEXT PRIMARY KEY, occurred_at REAL NOT NULL, source TEXT NOT NULL,
                     json TEXT NOT NULL);
CREATE TABLE checkpoints (source TEXT NOT NULL, stable_id TEXT NOT NULL, json TEXT NOT NULL,
                          PRIMARY KEY(source, stable_id));
CREATE TABLE quota (source TEXT PRIMARY KEY, json TEXT NOT NULL, fetched_at REAL NOT NULL);
CREATE TABLE settings (key TEXT PRIMARY KEY, value TEXT NOT NULL);
)sql";

constexpr const char* kVersion1Tables = R"sql(
CREATE TABLE quota_accounts (account_id TEXT PRIMARY KEY, kind TEXT NOT NULL,
                             json TEXT NOT NULL, fetched_at REAL NOT NULL);
CREATE TABLE plan_accounts (account_id TEXT PRIMARY KEY, json TEXT NOT NULL,
                            updated_at REAL NOT NULL);
)sql";

std::filesystem::path databaseIn(const TempDir& dir) {
    return dir / UsageStore::kFileName;
}

std::vector<std::string> newFileSchema() {
    TempDir dir;
    { UsageStore store(dir.path()); }
    return RawDB(databaseIn(dir)).schema();
}

std::string checkpointJSON(const SourceCheckpoint& c, const std::string& sourceKey) {
    nlohmann::json j = c;
    j["source"] = sourceKey;
    return j.dump();
}

TEST(LedgerMigration, VersionZeroFileGetsSourceKeysRenamedEverywhere) {
    TempDir dir;
    SourceCheckpoint checkpoint;
    checkpoint.source = AgentSource::deepseekHarness;
    checkpoint.stableID = "/home/u/.dsh/log.jsonl";
    checkpoint.pathHint = checkpoint.stableID;
    checkpoint.byteOffset = 4096;
    checkpoint.parserVersion = 3;
    {
        RawDB raw(databaseIn(dir));
        raw.exec(kLegacyTables);
        raw.exec(R"sql(
INSERT INTO events VALUES('roo-code:x', 10, 'roo-code', '{"source":"roo-code","n":1}');
INSERT INTO events VALUES('kilo-code:dup', 11, 'kilo-code', '{"source":"kilo-code","n":1}');
INSERT INTO events VALUES('kilocode:dup', 12, 'kilocode', '{"source":"kilocode","n":2}');
INSERT INTO events VALUES('legacy-7', 13, 'trae-work-cn', '{"source":"trae-work-cn","n":3}');
INSERT INTO events VALUES('deepseek-harness:bad', 14, 'deepseek-harness', 'not json');
INSERT INTO events VALUES('claude:1', 15, 'claude', '{"source":"claude","n":4}');
INSERT INTO quota VALUES('roo-code', '{"identity":{"source":"roo-code","planLabel":"Pro"}}', 100);
INSERT INTO quota VALUES('claude', '{"identity":{"source":"claude","planLabel":"Max"}}', 200);
INSERT INTO settings VALUES('app', '{}');
)sql");
        raw.exec("INSERT INTO checkpoints VALUES('deepseek-harness', '" + checkpoint.stableID +
                 "', '" + checkpointJSON(checkpoint, "deepseek-harness") + "');");
        raw.exec("INSERT INTO checkpoints VALUES('claude', '/c', 'not json');");
    }

    {
        UsageStore store(dir.path());
        EXPECT_EQ(store.checkpoints(AgentSource::deepseekHarness),
                  std::vector<SourceCheckpoint>{checkpoint});
        EXPECT_TRUE(store.checkpoints(AgentSource::claude).empty());  // undecodable row skipped
        EXPECT_EQ(store.setting("app"), "{}");
    }

    RawDB raw(databaseIn(dir));
    EXPECT_EQ(raw.userVersion(), UsageStore::kSchemaVersion);
    const struct {
        const char* query;
        std::vector<std::string> expected;
    } checks[] = {
        {"SELECT id, source, json_extract(json, '$.source'), json_extract(json, '$.n')\n"
         "FROM events WHERE json_valid(json) ORDER BY id;",
         {"claude:1|claude|claude|4", "kilocode:dup|kilocode|kilocode|2",
          "legacy-7|trae-cn|trae-cn|3", "roocode:x|roocode|roocode|1"}},
        {"SELECT id, source, json FROM events WHERE NOT json_valid(json);",
         {"dsh:bad|dsh|not json"}},
        {"SELECT source, stable_id FROM checkpoints ORDER BY source;",
         {"claude|/c", "dsh|" + checkpoint.stableID}},
        {"SELECT source, json_extract(json, '$.identity.source'),\n"
         "  json_extract(json, '$.identity.planLabel') FROM quota ORDER BY source;",
         {"claude|claude|Max", "roocode|roocode|Pro"}},
        {"SELECT account_id, kind, json_extract(json, '$.identity.source'), fetched_at\n"
         "FROM quota_accounts ORDER BY account_id;",
         {"source:claude|source|claude|200.0", "source:roocode|source|roocode|100.0"}},
    };
    for (const auto& check : checks) {
        EXPECT_EQ(raw.rows(check.query), check.expected) << check.query;
    }

    EXPECT_EQ(raw.schema(), newFileSchema());

    const auto afterFirstOpen = raw.dump();
    { UsageStore again(dir.path()); }
    EXPECT_EQ(raw.dump(), afterFirstOpen);
}

TEST(LedgerMigration, VersionTwoFileGainsLedgerTablesAndIsNotRenamedAgain) {
    TempDir dir;
    {
        RawDB raw(databaseIn(dir));
        raw.exec(kLegacyTables);
        raw.exec(kVersion1Tables);
        // Left by a build that knew the key under its old name after the rename had run.
        raw.exec("INSERT INTO events VALUES('roo-code:y', 1, 'roo-code', '{}');");
        raw.exec("PRAGMA user_version = 2;");
    }
    { UsageStore store(dir.path()); }

    RawDB raw(databaseIn(dir));
    EXPECT_EQ(raw.userVersion(), UsageStore::kSchemaVersion);
    EXPECT_EQ(raw.schema(), newFileSchema());
    EXPECT_EQ(raw.rows("SELECT id, source FROM events;"),
              std::vector<std::string>{"roo-code:y|roo-code"});

    const auto before = raw.dump();
    { UsageStore again(dir.path()); }
    EXPECT_EQ(raw.dump(), before);
}

TEST(LedgerMigration, VersionThreeFileIsRepaired) {
    TempDir dir;
    {
        RawDB raw(databaseIn(dir));
        raw.exec(std::string(ledger_schema::kBaseScript));
        raw.exec(kVersion1Tables);
        raw.exec(std::string(ledger_schema::kLedgerScript));
        // What an early version 3 looked like: no granularity, an unconditional binding index.
        raw.exec(R"sql(
ALTER TABLE usage_observations DROP COLUMN granularity;
DROP INDEX idx_account_bindings_active_identity;
CREATE UNIQUE INDEX idx_account_bindings_identity
  ON account_bindings(integration_instance_id, account_id, binding_key);
INSERT INTO ingest_runs(id, adapter_id, source, started_at, status)
  VALUES('run-1', 'claude', 'claude', 1, 'completed');
INSERT INTO usage_observations(id, run_id, source, provider, model, observed_at, time_quality,
  precision, breakdown_trusted, usage_semantics_version, cost_completeness, cost_source,
  billing_mode)
  VALUES('obs-1', 'run-1', 'claude', 'anthropic', 'm', 2, 'trusted', 'nativeExact', 1, 1,
  'none', 'unknown', 'apiEquivalent');
INSERT INTO integration_instances(id, plugin_id, enabled_capabilities, granted_permissions,
  health_state, created_at, updated_at) VALUES('inst', 'p', '[]', '[]', 'ok', 1, 1);
INSERT INTO subscription_accounts(id, provider, state, created_at, last_seen_at)
  VALUES('acct', 'anthropic', 'confirmed', 1, 1);
INSERT INTO account_bindings VALUES('b1', 'inst', 'acct', 'key', 'archived', 1, 1, 5);
PRAGMA user_version = 3;
)sql");
    }
    { UsageStore store(dir.path()); }

    RawDB raw(databaseIn(dir));
    EXPECT_EQ(raw.userVersion(), UsageStore::kSchemaVersion);
    EXPECT_EQ(raw.value("SELECT granularity FROM usage_observations WHERE id='obs-1';"), "unknown");
    EXPECT_NE(raw.value("SELECT sql FROM sqlite_master WHERE name="
                        "'idx_account_bindings_active_identity';")
                  .find("WHERE archived_at IS NULL"),
              std::string::npos);
    EXPECT_EQ(raw.schema(), newFileSchema());

    // Archived bindings may repeat a live one's identity; two live ones may not.
    raw.exec(
        "INSERT INTO account_bindings VALUES('b2', 'inst', 'acct', 'key', 'confirmed', 1, 1,"
        " NULL);");
    EXPECT_THROW(raw.exec("INSERT INTO account_bindings VALUES('b3', 'inst', 'acct', 'key',"
                          " 'candidate', 1, 1, NULL);"),
                 std::runtime_error);
}

TEST(LedgerMigration, FailedStepLeavesFileAtLastCompleteVersion) {
    const struct {
        const char* name;
        std::string setup;
        int64_t versionAfter;
        const char* absentTable;  // made by the failing step, so rolled back with it
    } cases[] = {
        {"quota table without json column breaks the copy of version 1",
         "CREATE TABLE quota (source TEXT PRIMARY KEY, fetched_at REAL NOT NULL);", 0,
         "quota_accounts"},
        {"foreign ledger_events table breaks the ledger script of version 3",
         std::string(kLegacyTables) + kVersion1Tables +
             "CREATE TABLE ledger_events (x TEXT); PRAGMA user_version = 2;",
         2, "integration_instances"},
        {"version 3 file without usage_observations cannot be repaired",
         std::string(kLegacyTables) + kVersion1Tables + "PRAGMA user_version = 3;", 3,
         "removed_subscription_accounts"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        {
            RawDB raw(databaseIn(dir));
            raw.exec(c.setup);
        }
        try {
            UsageStore store(dir.path());
            ADD_FAILURE() << "the store opened";
        } catch (const StoreError& e) {
            EXPECT_EQ(e.code(), StoreErrorCode::migrate) << e.what();
            EXPECT_NE(std::string(e.what()).find("no such"), std::string::npos) << e.what();
        }
        RawDB raw(databaseIn(dir));
        EXPECT_EQ(raw.userVersion(), c.versionAfter);
        EXPECT_FALSE(raw.hasTable(c.absentTable));
    }
}

TEST(LedgerMigration, BackfillsWindowLabelsAndKeysFromStoredSnapshot) {
    TempDir dir;
    { UsageStore fresh(dir.path()); }

    AccountSnapshot snapshot;
    snapshot.identity = {AgentSource::claude, "Max", "Ada", "a***@x.org", std::nullopt};
    snapshot.fetchedAt = 1000;
    snapshot.provenance = QuotaProvenance::liveOAuth;
    snapshot.windows = {
        {std::nullopt, QuotaWindowKind::session5h, 12.5, 2000.0, "5-hour", std::nullopt,
         std::nullopt, std::nullopt, std::nullopt},
        {std::nullopt, QuotaWindowKind::weekly, 40, std::nullopt, "Week", std::nullopt,
         std::nullopt, std::nullopt, std::nullopt},
        {"opus", QuotaWindowKind::weeklyModelScoped, 5, std::nullopt, "Opus week", std::nullopt,
         std::nullopt, std::nullopt, std::nullopt},
        {"sonnet", QuotaWindowKind::weeklyModelScoped, 7, std::nullopt, std::nullopt, std::nullopt,
         std::nullopt, std::nullopt, std::nullopt},
    };
    snapshot.plans = {{"p1", "Max 20x", PurchasedPlanKind::subscription, "active", 3000.0,
                       std::nullopt, 200.0, "USD"}};
    const std::string stored = nlohmann::json(snapshot).dump();
    ASSERT_EQ(nlohmann::json::parse(stored).get<AccountSnapshot>(), snapshot);

    {
        RawDB raw(databaseIn(dir));
        raw.exec("INSERT INTO quota_accounts VALUES('source:claude', 'source', '" + stored +
                 "', 1000);");
        raw.exec("INSERT INTO quota_accounts VALUES('plan:broken', 'plan', '{\"windows\":7}', 1);");
        raw.exec(R"sql(
INSERT INTO quota_snapshots(id, account_id, window_kind, captured_at, provenance, is_stale,
                            window_label, window_key) VALUES
  ('s1', 'source:claude', 'session5h', 1000, 'liveOAuth', 0, NULL, NULL),
  ('s2', 'source:claude', 'weekly', 1000, 'liveOAuth', 0, NULL, NULL),
  ('s3', 'source:claude', 'weeklyModelScoped', 1000, 'liveOAuth', 0, NULL, NULL),
  ('s4', 'source:claude', 'weeklyModelScoped', 1000, 'liveOAuth', 0, NULL, NULL),
  ('s5', 'source:claude', 'weeklyModelScoped', 900, 'liveOAuth', 0, NULL, NULL),
  ('s6', 'source:claude', 'monthly', 1000, 'liveOAuth', 0, NULL, NULL),
  ('s7', 'source:claude', 'weekly', 1000, 'liveOAuth', 0, 'Kept', 'weekly:kept'),
  ('s8', 'plan:broken', 'weekly', 1000, 'liveOAuth', 0, NULL, NULL);
)sql");
    }
    { UsageStore store(dir.path()); }

    RawDB raw(databaseIn(dir));
    EXPECT_EQ(raw.rows("SELECT id, window_label, window_key FROM quota_snapshots ORDER BY id;"),
              (std::vector<std::string>{
                  "s1|5-hour|session5h", "s2|Week|weekly", "s3|Opus week|weeklyModelScoped:opus",
                  "s4|NULL|weeklyModelScoped:sonnet",
                  "s5|Opus week|weeklyModelScoped:opus",  // alone at its instant: the first
                  "s6|NULL|NULL",                         // no monthly window to take it from
                  "s7|Kept|weekly:kept",
                  "s8|NULL|NULL",  // its account's reading does not decode
              }));
}

TEST(AccountSnapshotJson, OlderReadingsDecodeAndUnknownKindsDoNot) {
    const auto minimal = nlohmann::json::parse(
        R"({"identity":{"source":"codex","planLabel":"Plus"},"windows":[{"kind":"weekly"}],
            "fetchedAt":5,"provenance":"localSession"})");
    const auto snapshot = minimal.get<AccountSnapshot>();
    EXPECT_EQ(snapshot.identity.source, AgentSource::codex);
    EXPECT_EQ(snapshot.windows.at(0).kind, QuotaWindowKind::weekly);
    EXPECT_FALSE(snapshot.windows.at(0).scopeKey.has_value());
    EXPECT_TRUE(snapshot.plans.empty());
    EXPECT_FALSE(snapshot.stale);

    auto unknownKind = minimal;
    unknownKind["windows"][0]["kind"] = "daily";
    EXPECT_THROW(unknownKind.get<AccountSnapshot>(), nlohmann::json::exception);
}

}  // namespace
}  // namespace kestrel
