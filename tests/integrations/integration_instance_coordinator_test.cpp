#include "core/integrations/integration_instance_coordinator.hpp"

#include <gtest/gtest.h>

#include "core/integrations/in_memory_instance_repository.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using S = AgentSource;
using Cap = IntegrationCapability;
using Perm = IntegrationPermission;
using H = IntegrationHealthState;
using Code = IntegrationInstanceCoordinatorErrorCode;

class CoordinatorTest : public ::testing::Test {
  protected:
    CoordinatorTest() : coordinator_(PluginRegistry::builtIn(), repository_) {
        std::filesystem::create_directories(home_ / ".claude");
        std::filesystem::create_directories(home_ / ".codex");
    }

    IntegrationInstance instanceOf(const std::vector<IntegrationInstance>& all,
                                   AgentSource source) {
        for (const auto& i : all) {
            if (i.pluginID == PluginRegistry::stableID(source)) {
                return i;
            }
        }
        ADD_FAILURE() << "no instance for " << rawValue(source);
        return {};
    }

    test_support::TempDir home_;
    InMemoryIntegrationInstanceRepository repository_;
    IntegrationInstanceCoordinator coordinator_;
};

TEST_F(CoordinatorTest, ReconcileCreatesOneLocalInstancePerPluginOnce) {
    const auto first = coordinator_.reconcileInstallations(home_.path(), 100.0);
    ASSERT_EQ(first.size(), 35u);
    EXPECT_EQ(repository_.loadAll().size(), 35u);

    const auto claude = instanceOf(first, S::claude);
    EXPECT_EQ(claude.health.state, H::detected);
    EXPECT_EQ(instanceOf(first, S::gemini).health.state, H::notInstalled);
    EXPECT_TRUE(coordinator_.canRun(Cap::usageImport, S::claude));
    EXPECT_FALSE(coordinator_.canRun(Cap::quota, S::claude)) << "network is opt-in";
    EXPECT_FALSE(coordinator_.canRun(Cap::hookManagement, S::claude)) << "hooks are opt-in";
    EXPECT_FALSE(coordinator_.canRun(Cap::usageImport, S::openrouter));

    const int saves = repository_.saveCount();
    const auto second = coordinator_.reconcileInstallations(home_.path(), 200.0);
    EXPECT_EQ(second, first) << "nothing changed on disk, so nothing changes";
    EXPECT_EQ(repository_.saveCount(), saves);
}

TEST_F(CoordinatorTest, ReconcileFollowsInstallationButKeepsDisabledOff) {
    auto first = coordinator_.reconcileInstallations(home_.path(), 100.0);
    const auto codexID = instanceOf(first, S::codex).id;
    ASSERT_TRUE(coordinator_.setInstanceEnabled(false, codexID, 150.0));
    std::filesystem::remove_all(home_ / ".claude");
    std::filesystem::create_directories(home_ / ".gemini");

    const auto second = coordinator_.reconcileInstallations(home_.path(), 200.0);
    EXPECT_EQ(instanceOf(second, S::claude).health.state, H::notInstalled);
    EXPECT_EQ(instanceOf(second, S::gemini).health.state, H::detected);
    EXPECT_EQ(instanceOf(second, S::codex).id, codexID);
    EXPECT_FALSE(instanceOf(second, S::codex).isEnabled());
    EXPECT_EQ(repository_.loadAll().size(), 35u) << "no replacement for the disabled instance";
}

TEST_F(CoordinatorTest, EnabledSourcesListsWhatMayRun) {
    auto all = coordinator_.reconcileInstallations(home_.path(), 100.0);
    const auto claudeID = instanceOf(all, S::claude).id;
    EXPECT_TRUE(coordinator_.enabledSources(Cap::quota).empty());

    ASSERT_TRUE(coordinator_.setCapabilityAuthorization(Cap::quota, true, claudeID, 110.0));
    EXPECT_EQ(coordinator_.enabledSources(Cap::quota), std::set<AgentSource>{S::claude});
    EXPECT_TRUE(coordinator_.canRefreshQuota(claudeID));

    ASSERT_TRUE(coordinator_.setPermission(Perm::credentialRead, false, claudeID, 120.0));
    EXPECT_FALSE(coordinator_.canRefreshQuota(claudeID));
    EXPECT_FALSE(coordinator_.canRefreshQuota(IntegrationInstanceID("missing")));

    ASSERT_TRUE(coordinator_.setCapability(Cap::usageImport, false, claudeID, 130.0));
    EXPECT_FALSE(coordinator_.enabledSources(Cap::usageImport).contains(S::claude));
    EXPECT_TRUE(coordinator_.enabledSources(Cap::usageImport).contains(S::codex));
}

TEST_F(CoordinatorTest, RevokingAuthorizationKeepsPermissionsOthersNeed) {
    auto all = coordinator_.reconcileInstallations(home_.path(), 100.0);
    const auto cursorID = instanceOf(all, S::cursor).id;
    ASSERT_TRUE(coordinator_.setCapabilityAuthorization(Cap::hookManagement, true, cursorID, 1.0));
    auto after = coordinator_.setCapabilityAuthorization(Cap::hookManagement, false, cursorID, 2.0);
    ASSERT_TRUE(after);
    EXPECT_FALSE(after->grantedPermissions.contains(Perm::hookConfigurationWrite));
    EXPECT_TRUE(after->grantedPermissions.contains(Perm::homeDirectoryRead))
        << "import and detection still need the home folder";
    EXPECT_TRUE(PluginRegistry::builtIn().canRun(Cap::usageImport, *after));
}

TEST_F(CoordinatorTest, FailuresNameTheirCauseAndSaveNothing) {
    auto all = coordinator_.reconcileInstallations(home_.path(), 100.0);
    const auto cursor = instanceOf(all, S::cursor);
    const int saves = repository_.saveCount();
    const IntegrationInstanceID missing("no-such-instance");

    auto r1 = coordinator_.setCapability(Cap::quota, true, cursor.id, 1.0);
    ASSERT_FALSE(r1);
    EXPECT_EQ(r1.error(),
              (IntegrationInstanceCoordinatorError{Code::capabilityNotSupported, cursor.id,
                                                   cursor.pluginID, Cap::quota}));
    EXPECT_FALSE(coordinator_.setCapabilityAuthorization(Cap::quota, true, cursor.id, 1.0));

    for (auto result : {coordinator_.setInstanceEnabled(true, missing, 1.0),
                        coordinator_.setCapability(Cap::activity, true, missing, 1.0),
                        coordinator_.setPermission(Perm::networkAccess, true, missing, 1.0)}) {
        ASSERT_FALSE(result);
        EXPECT_EQ(result.error().code, Code::instanceNotFound);
        EXPECT_EQ(result.error().instanceID, missing);
    }
    EXPECT_EQ(repository_.saveCount(), saves);
}

TEST_F(CoordinatorTest, ReenablingKeepsIdAndSwitches) {
    auto all = coordinator_.reconcileInstallations(home_.path(), 100.0);
    const auto before = instanceOf(all, S::codex);
    ASSERT_TRUE(coordinator_.setInstanceEnabled(false, before.id, 110.0));
    EXPECT_FALSE(coordinator_.canRun(Cap::usageImport, S::codex));
    auto after = coordinator_.setInstanceEnabled(true, before.id, 120.0);
    ASSERT_TRUE(after);
    EXPECT_EQ(after->id, before.id);
    EXPECT_EQ(after->enabledCapabilities, before.enabledCapabilities);
    EXPECT_TRUE(coordinator_.canRun(Cap::usageImport, S::codex));
}

TEST_F(CoordinatorTest, BulkPresetTouchesOnlyScannedInstallations) {
    auto all = coordinator_.reconcileInstallations(home_.path(), 100.0);
    auto claude = instanceOf(all, S::claude);
    claude.recordScan({105.0, 1, 3, 0, 0, 0, {H::healthy, std::nullopt, 105.0, std::nullopt}});
    repository_.save(claude, 105.0);

    const auto changed =
        coordinator_.applyBulkPreset(IntegrationBulkPreset::allIncludingNetwork, 110.0);
    ASSERT_EQ(changed.size(), 1u);
    EXPECT_EQ(changed[0].id, claude.id);
    EXPECT_TRUE(coordinator_.canRun(Cap::quota, S::claude));
    EXPECT_FALSE(coordinator_.canRun(Cap::hookManagement, S::claude));

    EXPECT_EQ(coordinator_.applyBulkPreset(IntegrationBulkPreset::disabled, 120.0).size(), 1u);
    EXPECT_TRUE(coordinator_.enabledSources(Cap::usageImport).contains(S::codex));
    EXPECT_FALSE(coordinator_.enabledSources(Cap::usageImport).contains(S::claude));
}

}  // namespace
}  // namespace kestrel
