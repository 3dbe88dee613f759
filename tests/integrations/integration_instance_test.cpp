#include "core/model/integration_instance.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <regex>

#include "core/integrations/plugin_registry.hpp"

namespace kestrel {
namespace {

using S = AgentSource;
using Cap = IntegrationCapability;
using Perm = IntegrationPermission;
using H = IntegrationHealthState;

const std::set<Cap> kAllCapabilities{
    Cap::installationDetection, Cap::activity, Cap::usageImport,
    Cap::subscriptionDiscovery, Cap::quota,    Cap::hookManagement};
const std::set<Perm> kAllPermissions{Perm::homeDirectoryRead, Perm::productDatabaseRead,
                                     Perm::hookConfigurationWrite, Perm::networkAccess,
                                     Perm::credentialRead};

IntegrationInstance fullyOpen(AgentSource source) {
    IntegrationInstance i;
    i.id = IntegrationInstanceID("inst-" + std::string(rawValue(source)));
    i.pluginID = *PluginRegistry::stableID(source);
    i.enabledCapabilities = kAllCapabilities;
    i.grantedPermissions = kAllPermissions;
    i.health = {H::healthy, std::nullopt, 10.0, std::nullopt};
    return i;
}

IntegrationScanResult scanFinding(int roots) {
    return {100.0, roots, 7, 1, 0, 2, {H::healthy, HookHealthState::emitting, 100.0, std::nullopt}};
}

TEST(IntegrationInstanceTest, CanRunNeedsEveryCondition) {
    const auto& registry = PluginRegistry::builtIn();
    struct Case {
        const char* name;
        AgentSource source;
        Cap capability;
        void (*change)(IntegrationInstance&);
        bool expected;
    };
    const Case cases[] = {
        {"all granted", S::claude, Cap::quota, [](IntegrationInstance&) {}, true},
        {"disabled state", S::claude, Cap::usageImport,
         [](IntegrationInstance& i) { i.health.state = H::disabled; }, false},
        {"archived", S::claude, Cap::usageImport,
         [](IntegrationInstance& i) { i.archivedAt = 5.0; }, false},
        {"switched off", S::claude, Cap::activity,
         [](IntegrationInstance& i) { i.enabledCapabilities.erase(Cap::activity); }, false},
        {"quota without credentials", S::claude, Cap::quota,
         [](IntegrationInstance& i) { i.grantedPermissions.erase(Perm::credentialRead); }, false},
        {"import does not need the network", S::claude, Cap::usageImport,
         [](IntegrationInstance& i) { i.grantedPermissions.erase(Perm::networkAccess); }, true},
        {"database agent without database grant", S::cursor, Cap::usageImport,
         [](IntegrationInstance& i) { i.grantedPermissions.erase(Perm::productDatabaseRead); },
         false},
        {"hook write revoked", S::cursor, Cap::hookManagement,
         [](IntegrationInstance& i) { i.grantedPermissions.erase(Perm::hookConfigurationWrite); },
         false},
        {"not declared by the plug-in", S::cursor, Cap::quota, [](IntegrationInstance&) {}, false},
        {"unknown plug-in", S::claude, Cap::usageImport,
         [](IntegrationInstance& i) { i.pluginID = IntegrationPluginID("com.example.other"); },
         false},
        {"failing health still runs", S::gemini, Cap::usageImport,
         [](IntegrationInstance& i) { i.health.state = H::formatChanged; }, true},
    };
    for (const auto& c : cases) {
        auto instance = fullyOpen(c.source);
        c.change(instance);
        EXPECT_EQ(registry.canRun(c.capability, instance), c.expected) << c.name;
    }
}

TEST(IntegrationInstanceTest, DisabledInstanceRunsNothing) {
    const auto& registry = PluginRegistry::builtIn();
    auto instance = fullyOpen(S::claude);
    instance.disable(20.0);
    for (Cap c : kAllCapabilities) {
        EXPECT_FALSE(registry.canRun(c, instance)) << rawValue(c);
    }
}

TEST(IntegrationInstanceTest, DisableAndReactivateKeepIdentityAndSwitches) {
    auto instance = fullyOpen(S::codex);
    instance.enabledCapabilities = {Cap::usageImport, Cap::activity};
    const auto original = instance;

    instance.disable(20.0);
    EXPECT_EQ(instance.archivedAt, 20.0);
    EXPECT_EQ(instance.health, (IntegrationHealth{H::disabled, std::nullopt, 20.0, std::nullopt}));
    EXPECT_FALSE(instance.isEnabled());
    EXPECT_FALSE(instance.hasEnabled(Cap::usageImport));

    instance.reactivate(30.0);
    EXPECT_FALSE(instance.archivedAt);
    EXPECT_EQ(instance.health, (IntegrationHealth{H::detected, std::nullopt, 30.0, std::nullopt}));
    EXPECT_EQ(instance.id, original.id);
    EXPECT_EQ(instance.enabledCapabilities, original.enabledCapabilities);
    EXPECT_EQ(instance.grantedPermissions, original.grantedPermissions);
    EXPECT_TRUE(instance.hasEnabled(Cap::usageImport));
}

TEST(IntegrationInstanceTest, RecordScanTakesTheScanHealth) {
    auto instance = fullyOpen(S::grok);
    const auto scan = scanFinding(2);
    instance.recordScan(scan);
    EXPECT_EQ(instance.lastScanResult, scan);
    EXPECT_EQ(instance.health, scan.health);
}

TEST(IntegrationInstanceTest, JsonRoundTripUsesFieldNames) {
    auto instance = fullyOpen(S::kimi);
    instance.recordScan(scanFinding(1));
    instance.archivedAt = 55.5;
    instance.health.diagnosticCode = "sqlite-locked";
    nlohmann::json j = instance;
    EXPECT_EQ(j.at("pluginID"), "com.nordwick.kestrel.agent.kimi");
    EXPECT_EQ(j.at("health").at("hook"), "emitting");
    EXPECT_EQ(j.at("lastScanResult").at("acceptedObservationCount"), 7);
    EXPECT_EQ(j.at("grantedPermissions").at(0), "homeDirectoryRead");
    EXPECT_EQ(j.get<IntegrationInstance>(), instance);

    auto bare = fullyOpen(S::kimi);
    nlohmann::json k = bare;
    EXPECT_TRUE(k.at("archivedAt").is_null());
    EXPECT_TRUE(k.at("lastScanResult").is_null());
    EXPECT_EQ(k.get<IntegrationInstance>(), bare);

    k["enabledCapabilities"].push_back("teleport");
    EXPECT_THROW((void)k.get<IntegrationInstance>(), nlohmann::json::exception);
}

TEST(IntegrationInstanceTest, NewIdsAreFreshLowerCaseUuids) {
    const std::regex uuid("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    const auto a = newIntegrationInstanceID();
    const auto b = newIntegrationInstanceID();
    EXPECT_TRUE(std::regex_match(a.rawValue, uuid)) << a.rawValue;
    EXPECT_NE(a, b);
}

TEST(IntegrationListGroupTest, Classify) {
    auto enabled = fullyOpen(S::claude);
    auto archived = fullyOpen(S::claude);
    archived.disable(1.0);
    struct Case {
        const IntegrationInstance* instance;
        std::optional<SourceStatus> status;
        IntegrationListGroup expected;
    };
    const Case cases[] = {
        {&enabled, SourceStatus::notInstalled, IntegrationListGroup::enabled},
        {&archived, SourceStatus::healthy, IntegrationListGroup::detected},
        {&archived, std::nullopt, IntegrationListGroup::detected},
        {nullptr, std::nullopt, IntegrationListGroup::notInstalled},
        {nullptr, SourceStatus::notInstalled, IntegrationListGroup::notInstalled},
        {nullptr, SourceStatus::authorizedEmpty, IntegrationListGroup::detected},
        {nullptr, SourceStatus::readError, IntegrationListGroup::detected},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(classify(c.instance, c.status), c.expected)
            << (c.instance ? "instance " : "none ") << (c.status ? rawValue(*c.status) : "-");
    }
}

class BulkPresetTest : public ::testing::Test {
  protected:
    IntegrationInstance installed(AgentSource source) {
        IntegrationInstance i;
        i.id = IntegrationInstanceID("inst");
        i.pluginID = *PluginRegistry::stableID(source);
        i.health = {H::detected, std::nullopt, 1.0, std::nullopt};
        i.lastScanResult = scanFinding(1);
        return i;
    }
    const IntegrationPlugin* plugin(AgentSource source) {
        return PluginRegistry::builtIn().plugin(source);
    }
};

TEST_F(BulkPresetTest, RecommendedStaysLocal) {
    auto i = installed(S::claude);
    i.grantedPermissions = {Perm::networkAccess};
    i.enabledCapabilities = {Cap::quota};
    ASSERT_TRUE(applyBulkPreset(IntegrationBulkPreset::recommended, i, plugin(S::claude), 9.0));
    EXPECT_EQ(i.enabledCapabilities, (std::set<Cap>{Cap::installationDetection, Cap::activity,
                                                    Cap::usageImport, Cap::subscriptionDiscovery}));
    EXPECT_EQ(i.grantedPermissions, std::set<Perm>{Perm::homeDirectoryRead});
    for (Cap c : i.enabledCapabilities) {
        EXPECT_TRUE(PluginRegistry::builtIn().canRun(c, i)) << rawValue(c);
    }
    EXPECT_FALSE(PluginRegistry::builtIn().canRun(Cap::quota, i));
}

TEST_F(BulkPresetTest, NetworkPresetAddsQuotaButNeverHooks) {
    auto i = installed(S::codex);
    ASSERT_TRUE(
        applyBulkPreset(IntegrationBulkPreset::allIncludingNetwork, i, plugin(S::codex), 9.0));
    EXPECT_TRUE(i.enabledCapabilities.contains(Cap::quota));
    EXPECT_FALSE(i.enabledCapabilities.contains(Cap::hookManagement));
    EXPECT_FALSE(i.grantedPermissions.contains(Perm::hookConfigurationWrite));
    EXPECT_TRUE(PluginRegistry::builtIn().canRun(Cap::quota, i));
    EXPECT_TRUE(PluginRegistry::builtIn().canRun(Cap::usageImport, i));  // needs the database

    // Applying it again changes nothing.
    EXPECT_FALSE(
        applyBulkPreset(IntegrationBulkPreset::allIncludingNetwork, i, plugin(S::codex), 10.0));
}

TEST_F(BulkPresetTest, HookSwitchIsLeftAsTheUserSetIt) {
    auto i = installed(S::cursor);
    i.enabledCapabilities = {Cap::hookManagement};
    i.grantedPermissions = {Perm::homeDirectoryRead, Perm::hookConfigurationWrite};
    applyBulkPreset(IntegrationBulkPreset::recommended, i, plugin(S::cursor), 9.0);
    EXPECT_TRUE(PluginRegistry::builtIn().canRun(Cap::hookManagement, i));
}

TEST_F(BulkPresetTest, EnablingPresetReactivatesAndDisabledArchives) {
    auto i = installed(S::gemini);
    i.disable(5.0);
    ASSERT_TRUE(applyBulkPreset(IntegrationBulkPreset::recommended, i, plugin(S::gemini), 9.0));
    EXPECT_TRUE(i.isEnabled());
    EXPECT_EQ(i.id.rawValue, "inst");

    ASSERT_TRUE(applyBulkPreset(IntegrationBulkPreset::disabled, i, plugin(S::gemini), 11.0));
    EXPECT_EQ(i.archivedAt, 11.0);
    EXPECT_EQ(i.health.state, H::disabled);
    EXPECT_FALSE(applyBulkPreset(IntegrationBulkPreset::disabled, i, plugin(S::gemini), 12.0));
}

TEST_F(BulkPresetTest, InstancesWithoutInstalledRootsAreLeftAlone) {
    for (auto preset : allCases<IntegrationBulkPreset>()) {
        auto neverScanned = installed(S::claude);
        neverScanned.lastScanResult.reset();
        auto empty = installed(S::claude);
        empty.lastScanResult = scanFinding(0);
        const auto before1 = neverScanned;
        const auto before2 = empty;
        EXPECT_FALSE(applyBulkPreset(preset, neverScanned, plugin(S::claude), 9.0));
        EXPECT_FALSE(applyBulkPreset(preset, empty, plugin(S::claude), 9.0));
        EXPECT_EQ(neverScanned, before1);
        EXPECT_EQ(empty, before2);
    }
}

}  // namespace
}  // namespace kestrel
