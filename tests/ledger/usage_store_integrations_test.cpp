// The ledger store as the repository of integration instances: what a row holds, what comes
// back, which instance is the active one, and rows written by a newer build.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "core/integrations/integration_instance_coordinator.hpp"
#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_store.hpp"
#include "tests/support/ledger_connection.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::LedgerConnection;
using test_support::TempDir;
using Cap = IntegrationCapability;
using Perm = IntegrationPermission;
using H = IntegrationHealthState;

// The named columns of the instance's row, joined by '|', NULL shown as NULL.
std::string rowOf(UsageStore& store, const IntegrationInstanceID& id, const std::string& columns) {
    LedgerConnection ledger(store.databasePath());
    sqlite::Statement s(ledger.get(),
                        "SELECT " + columns + " FROM integration_instances WHERE id=?;");
    s.bind(1, id.rawValue);
    if (!s.step()) {
        return "<no row>";
    }
    std::string out;
    for (int c = 0; c < sqlite3_column_count(s.handle()); ++c) {
        out += (c ? "|" : "") + (s.isNull(c) ? std::string("NULL") : s.text(c));
    }
    return out;
}

int64_t rowCount(UsageStore& store) {
    LedgerConnection ledger(store.databasePath());
    sqlite::Statement s(ledger.get(), "SELECT COUNT(*) FROM integration_instances;");
    s.step();
    return s.int64(0);
}

IntegrationInstance instance(const std::string& id, const std::string& plugin) {
    IntegrationInstance i;
    i.id = IntegrationInstanceID(id);
    i.pluginID = IntegrationPluginID(plugin);
    return i;
}

class UsageStoreIntegrationsTest : public ::testing::Test {
  protected:
    TempDir dir_;
    UsageStore store_{dir_.path()};
};

TEST_F(UsageStoreIntegrationsTest, RoundTripsWhatTheRowHolds) {
    struct Case {
        const char* name;
        IntegrationInstance stored;
        double savedAt;
    };
    auto fresh = instance("a-fresh", "p.fresh");
    fresh.health = {H::notInstalled, std::nullopt, 10.0, std::nullopt};

    auto scanned = instance("b-scanned", "p.scanned");
    scanned.enabledCapabilities = {Cap::installationDetection, Cap::usageImport, Cap::quota,
                                   Cap::hookManagement};
    scanned.grantedPermissions = {Perm::homeDirectoryRead, Perm::networkAccess,
                                  Perm::credentialRead};
    scanned.recordScan(
        {20.0, 2, 41, 3, 1, 5, {H::permissionDenied, HookHealthState::emitting, 20.0, "open:13"}});

    auto zeroScan = instance("c-zero-scan", "p.zero");
    zeroScan.recordScan({30.0, 0, 0, 0, 0, 0, {H::detected, std::nullopt, 30.0, std::nullopt}});

    auto disabled = instance("d-disabled", "p.disabled");
    disabled.enabledCapabilities = {Cap::activity};
    disabled.disable(40.0);

    const std::vector<Case> cases{
        {"fresh, saved when created", fresh, 10.0},
        {"health from its scan, saved later", scanned, 25.0},
        {"scan with all counts zero is still a scan", zeroScan, 30.0},
        {"disabled, saved later", disabled, 45.0},
    };
    for (const auto& c : cases) {
        store_.save(c.stored, c.savedAt);
    }
    const auto all = store_.loadAll();
    ASSERT_EQ(all.size(), cases.size());
    for (std::size_t k = 0; k < cases.size(); ++k) {
        EXPECT_EQ(all[k], cases[k].stored) << cases[k].name;
    }
    EXPECT_EQ(store_.activeInstance(scanned.pluginID), scanned);
}

TEST_F(UsageStoreIntegrationsTest, ColumnsHoldCaseNamesAndScanCounts) {
    auto i = instance("id-1", "p.one");
    i.enabledCapabilities = {Cap::quota, Cap::installationDetection};
    i.grantedPermissions = {Perm::credentialRead, Perm::homeDirectoryRead};
    store_.save(i, 5.0);
    EXPECT_EQ(rowOf(store_, i.id,
                    "plugin_id, enabled_capabilities, granted_permissions, health_state, "
                    "hook_health, diagnostic_code, last_scan_at, installed_root_count, "
                    "accepted_observation_count, rejected_observation_count, conflict_count, "
                    "coverage_issue_count, archived_at"),
              "p.one|installationDetection,quota|homeDirectoryRead,credentialRead|notInstalled|"
              "NULL|NULL|NULL|NULL|NULL|NULL|NULL|NULL|NULL");

    i.recordScan({7.5, 1, 2, 3, 4, 5, {H::failed, HookHealthState::stale, 7.5, "read:5"}});
    i.archivedAt = 9.0;
    store_.save(i, 9.0);
    EXPECT_EQ(rowOf(store_, i.id,
                    "health_state, hook_health, diagnostic_code, last_scan_at, "
                    "installed_root_count, accepted_observation_count, "
                    "rejected_observation_count, conflict_count, coverage_issue_count, "
                    "archived_at"),
              "failed|stale|read:5|7.5|1|2|3|4|5|9.0");
}

TEST_F(UsageStoreIntegrationsTest, CheckedAtIsRestoredFromTheClosestStoredTime) {
    // Never scanned and re-saved without a health change: the later save time is read back.
    auto idle = instance("idle", "p.idle");
    idle.health = {H::detected, std::nullopt, 10.0, std::nullopt};
    store_.save(idle, 10.0);
    idle.enabledCapabilities = {Cap::activity};
    store_.save(idle, 50.0);
    auto loaded = store_.activeInstance(idle.pluginID);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->health.checkedAt, 50.0);

    // Scanned, then re-enabled: the new health reads as checked at the scan, and the scan's
    // own health is replaced by the instance's.
    auto back = instance("back", "p.back");
    back.recordScan({20.0, 1, 1, 0, 0, 0, {H::healthy, std::nullopt, 20.0, std::nullopt}});
    back.disable(30.0);
    back.reactivate(60.0);
    store_.save(back, 60.0);
    loaded = store_.activeInstance(back.pluginID);
    ASSERT_TRUE(loaded && loaded->lastScanResult);
    EXPECT_EQ(loaded->health.state, H::detected);
    EXPECT_EQ(loaded->health.checkedAt, 20.0);
    EXPECT_EQ(loaded->lastScanResult->health.state, H::detected);
    EXPECT_EQ(loaded->lastScanResult->installedRootCount, 1);
}

TEST_F(UsageStoreIntegrationsTest, ActiveInstanceIsTheNewestNotArchived) {
    const std::string plugin = "p.multi";
    auto older = instance("older", plugin);
    auto newer = instance("newer", plugin);
    auto archived = instance("archived", plugin);
    archived.archivedAt = 25.0;
    auto other = instance("other", "p.other");
    store_.save(older, 10.0);
    store_.save(newer, 20.0);
    store_.save(archived, 30.0);
    store_.save(other, 40.0);

    const IntegrationPluginID id(plugin);
    ASSERT_TRUE(store_.activeInstance(id));
    EXPECT_EQ(store_.activeInstance(id)->id, newer.id);

    store_.save(older, 50.0);
    EXPECT_EQ(store_.activeInstance(id)->id, older.id) << "a later save makes it the newest";

    auto onlyArchived = instance("gone", "p.gone");
    onlyArchived.disable(5.0);
    store_.save(onlyArchived, 5.0);
    EXPECT_FALSE(store_.activeInstance(onlyArchived.pluginID));
    EXPECT_FALSE(store_.activeInstance(IntegrationPluginID("p.unknown")));
    EXPECT_EQ(store_.loadAll().size(), 5u) << "archived instances are still listed";
}

TEST_F(UsageStoreIntegrationsTest, ResaveKeepsCreationTimeWhichOrdersTheList) {
    auto first = instance("zz-first", "p.a");
    auto second = instance("aa-second", "p.b");
    auto sameTime = instance("bb-same-time", "p.c");
    store_.save(first, 10.0);
    store_.save(second, 20.0);
    store_.save(sameTime, 20.0);
    first.grantedPermissions = {Perm::networkAccess};
    store_.save(first, 30.0);

    EXPECT_EQ(rowOf(store_, first.id, "created_at, updated_at"), "10.0|30.0");
    std::vector<std::string> ids;
    for (const auto& i : store_.loadAll()) {
        ids.push_back(i.id.rawValue);
    }
    EXPECT_EQ(ids, (std::vector<std::string>{"zz-first", "aa-second", "bb-same-time"}));
    EXPECT_EQ(store_.loadAll().front().grantedPermissions, first.grantedPermissions);
}

TEST_F(UsageStoreIntegrationsTest, RowsOfANewerBuildStillLoad) {
    sqlite::exec(LedgerConnection(store_.databasePath()).get(),
                 "INSERT INTO integration_instances(id, plugin_id, enabled_capabilities,\n"
                 "  granted_permissions, health_state, hook_health, diagnostic_code,\n"
                 "  created_at, updated_at) VALUES\n"
                 " ('new-state', 'p.x', 'usageImport,teleport,quota', 'mindRead',\n"
                 "  'quantumFlux', 'levitating', 'old-code', 1, 2),\n"
                 " ('new-hook', 'p.y', '', 'homeDirectoryRead,,networkAccess',\n"
                 "  'healthy', 'levitating', NULL, 3, 4);");
    const auto all = store_.loadAll();
    ASSERT_EQ(all.size(), 2u);

    EXPECT_EQ(all[0].enabledCapabilities, (std::set<Cap>{Cap::usageImport, Cap::quota}));
    EXPECT_TRUE(all[0].grantedPermissions.empty());
    EXPECT_EQ(all[0].health.state, H::degraded);
    EXPECT_EQ(all[0].health.diagnosticCode, "unknownHealthState:quantumFlux");
    EXPECT_FALSE(all[0].health.hook);

    EXPECT_TRUE(all[1].enabledCapabilities.empty());
    EXPECT_EQ(all[1].grantedPermissions,
              (std::set<Perm>{Perm::homeDirectoryRead, Perm::networkAccess}));
    EXPECT_EQ(all[1].health.state, H::healthy);
    EXPECT_FALSE(all[1].health.hook);
}

TEST_F(UsageStoreIntegrationsTest, SqlFailureThrowsStoreError) {
    sqlite::exec(LedgerConnection(store_.databasePath()).get(),
                 "DROP TABLE integration_instances;");
    try {
        store_.save(instance("x", "p"), 1.0);
        FAIL() << "save into a missing table succeeded";
    } catch (const StoreError& e) {
        EXPECT_EQ(e.code(), StoreErrorCode::sql);
    }
}

TEST(UsageStoreIntegrationsPersistence, CoordinatorOverReopenedStoreCreatesEachInstanceOnce) {
    TempDir home;
    TempDir support;
    std::filesystem::create_directories(home / ".claude");

    std::vector<IntegrationInstance> first;
    {
        UsageStore store(support.path());
        IntegrationInstanceCoordinator coordinator(PluginRegistry::builtIn(), store);
        first = coordinator.reconcileInstallations(home.path(), 100.0);
        ASSERT_EQ(first.size(), 35u);
        EXPECT_EQ(rowCount(store), 35);
    }

    UsageStore store(support.path());
    EXPECT_EQ(rowCount(store), 35) << "instances outlive the connection";
    IntegrationInstanceCoordinator coordinator(PluginRegistry::builtIn(), store);
    const auto second = coordinator.reconcileInstallations(home.path(), 200.0);
    EXPECT_EQ(second, first) << "the stored instances come back equal and unchanged";
    EXPECT_EQ(rowCount(store), 35);
    const auto claudeID = *PluginRegistry::stableID(AgentSource::claude);
    EXPECT_EQ(rowOf(store, store.activeInstance(claudeID)->id, "updated_at"), "100.0")
        << "nothing changed, so nothing was written";
    EXPECT_TRUE(coordinator.canRun(Cap::usageImport, AgentSource::claude));
}

}  // namespace
}  // namespace kestrel
