#include "core/integrations/plugin_registry.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <vector>

#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using S = AgentSource;
using P = UsagePrecision;
using Cap = IntegrationCapability;
using Perm = IntegrationPermission;
using Ev = ActivityEvidenceKind;

// One row per built-in plug-in, in registry order, worked out by hand from the derivation rules:
// hook agents get hook evidence and hook management, subscription agents discovery and quota,
// agents read through a product database get that evidence and need that permission to import.
struct Expected {
    AgentSource source;
    UsagePrecision precision;
    bool filesystem;
    bool hook;
    bool database;
    bool subscription;
};

const std::vector<Expected> kTable = {
    {S::claude, P::nativeExact, true, true, false, true},
    {S::codex, P::derivedExact, true, true, true, true},
    {S::cursor, P::nativeExact, true, true, true, false},
    {S::gemini, P::nativeExact, true, false, false, false},
    {S::antigravity, P::estimateOnly, true, false, false, false},
    {S::kiro, P::nativeExact, true, false, true, false},
    {S::opencode, P::nativeExact, true, true, true, true},
    {S::openclaw, P::nativeExact, true, false, false, false},
    {S::everyCode, P::derivedExact, true, false, false, false},
    {S::hermes, P::derivedExact, true, false, true, false},
    {S::copilot, P::nativeExact, true, false, true, false},
    {S::kimi, P::nativeExact, true, true, false, true},
    {S::codebuddy, P::nativeExact, true, false, false, false},
    {S::workbuddy, P::nativeExact, true, false, false, false},
    {S::grok, P::nativeExact, true, true, false, true},
    {S::omp, P::nativeExact, true, true, false, false},
    {S::pi, P::nativeExact, true, true, false, true},
    {S::dots, P::unsupported, false, false, false, false},
    {S::primeAgent, P::nativeExact, true, false, false, false},
    {S::craft, P::nativeExact, true, false, false, false},
    {S::reasonix, P::nativeExact, true, false, false, false},
    {S::kiloCLI, P::nativeExact, true, false, true, false},
    {S::kiloCode, P::nativeExact, true, false, false, false},
    {S::rooCode, P::nativeExact, true, false, false, false},
    {S::zed, P::derivedExact, true, false, true, false},
    {S::goose, P::derivedExact, true, false, true, false},
    {S::droid, P::derivedExact, true, false, false, false},
    {S::mimo, P::nativeExact, true, false, true, false},
    {S::zcode, P::nativeExact, true, false, true, true},
    {S::qoder, P::nativeExact, true, false, true, false},
    {S::qoderCN, P::nativeExact, true, false, true, false},
    {S::anythingLLM, P::nativeExact, true, false, true, false},
    {S::claudeScience, P::nativeExact, true, false, false, false},
    {S::deepseekHarness, P::nativeExact, true, false, false, false},
    {S::traeWorkCN, P::nativeExact, true, false, true, false},
};

TEST(PluginRegistryTest, HoldsOnePluginPerUsageAgentInOrder) {
    const auto& registry = PluginRegistry::builtIn();
    ASSERT_EQ(registry.plugins().size(), kTable.size());
    for (std::size_t i = 0; i < kTable.size(); ++i) {
        const auto& d = registry.plugins()[i].descriptor;
        EXPECT_EQ(d.legacySource, kTable[i].source) << i;
        EXPECT_EQ(registry.plugin(d.legacySource), &registry.plugins()[i]);
        EXPECT_EQ(registry.plugin(d.id), &registry.plugins()[i]);
    }
    for (S source : {S::openrouter, S::deepseek}) {
        EXPECT_FALSE(PluginRegistry::stableID(source));
        EXPECT_EQ(registry.plugin(source), nullptr);
    }
    EXPECT_EQ(registry.plugin(IntegrationPluginID("com.nordwick.kestrel.agent.openrouter")),
              nullptr);
}

TEST(PluginRegistryTest, IdentityFieldsComeFromTheSource) {
    for (const auto& plugin : PluginRegistry::builtIn().plugins()) {
        const auto& d = plugin.descriptor;
        const std::string raw(rawValue(d.legacySource));
        SCOPED_TRACE(raw);
        EXPECT_EQ(d.id.rawValue, "com.nordwick.kestrel.agent." + raw);
        EXPECT_EQ(PluginRegistry::stableID(d.legacySource), d.id);
        EXPECT_EQ(d.iconKey, raw);
        EXPECT_EQ(d.displayName, displayName(d.legacySource));
        EXPECT_EQ(d.version, 1);
        EXPECT_EQ(d.trust, IntegrationPluginTrust::builtInSigned);
    }
    // The stored raw value, not the case name, forms the id.
    EXPECT_EQ(PluginRegistry::stableID(S::deepseekHarness)->rawValue,
              "com.nordwick.kestrel.agent.dsh");
}

TEST(PluginRegistryTest, DerivedPrecisionEvidenceAndCapabilities) {
    const auto& registry = PluginRegistry::builtIn();
    for (const auto& row : kTable) {
        SCOPED_TRACE(std::string(rawValue(row.source)));
        const auto* plugin = registry.plugin(row.source);
        ASSERT_NE(plugin, nullptr);
        const auto& d = plugin->descriptor;

        EXPECT_EQ(d.usagePrecision, row.precision);

        std::set<Ev> evidence;
        if (row.filesystem)
            evidence.insert(Ev::filesystem);
        if (row.hook)
            evidence.insert(Ev::hook);
        if (row.database)
            evidence.insert(Ev::productDatabase);
        EXPECT_EQ(d.activityEvidence, evidence);

        std::set<Cap> capabilities{Cap::installationDetection, Cap::usageImport};
        if (!evidence.empty())
            capabilities.insert(Cap::activity);
        if (row.hook)
            capabilities.insert(Cap::hookManagement);
        if (row.subscription)
            capabilities.insert({Cap::subscriptionDiscovery, Cap::quota});
        EXPECT_EQ(d.capabilities(), capabilities);
        EXPECT_EQ(d.capabilityDeclarations.size(), capabilities.size()) << "one per capability";

        std::set<Perm> importNeeds{Perm::homeDirectoryRead};
        if (row.database)
            importNeeds.insert(Perm::productDatabaseRead);
        EXPECT_EQ(d.requiredPermissions(Cap::usageImport), importNeeds);
        EXPECT_EQ(d.requiredPermissions(Cap::installationDetection),
                  std::set<Perm>{Perm::homeDirectoryRead});

        const std::set<Perm> quotaNeeds =
            row.subscription ? std::set<Perm>{Perm::networkAccess, Perm::credentialRead}
                             : std::set<Perm>{};
        EXPECT_EQ(d.requiredPermissions(Cap::quota), quotaNeeds);
        const std::set<Perm> hookNeeds =
            row.hook ? std::set<Perm>{Perm::homeDirectoryRead, Perm::hookConfigurationWrite}
                     : std::set<Perm>{};
        EXPECT_EQ(d.requiredPermissions(Cap::hookManagement), hookNeeds);
    }
}

TEST(PluginRegistryTest, DotsObservationsNeverReachTheLedger) {
    const auto* dots = PluginRegistry::builtIn().plugin(S::dots);
    ASSERT_NE(dots, nullptr);
    EXPECT_FALSE(isEligibleForLedger(dots->descriptor.usagePrecision));
    EXPECT_FALSE(dots->descriptor.capabilities().contains(Cap::activity));
}

TEST(PluginRegistryTest, DescriptorSurvivesJson) {
    const auto& d = PluginRegistry::builtIn().plugin(S::codex)->descriptor;
    nlohmann::json j = IntegrationPlugin{d};
    EXPECT_EQ(j.at("descriptor").at("id"), "com.nordwick.kestrel.agent.codex");
    EXPECT_EQ(j.at("descriptor").at("usagePrecision"), "derivedExact");
    EXPECT_EQ(j.at("descriptor").at("capabilityDeclarations").at(0).at("capability"),
              "installationDetection");
    EXPECT_EQ(j.get<IntegrationPlugin>().descriptor, d);
}

TEST(PluginRegistryTest, DetectsOnlyExistingRoots) {
    test_support::TempDir home;
    std::filesystem::create_directories(home / ".claude");
    const auto installations = PluginRegistry::builtIn().detectInstallations(home.path(), 42.0);
    ASSERT_EQ(installations.size(), kTable.size());
    for (const auto& inst : installations) {
        SCOPED_TRACE(std::string(rawValue(inst.legacySource)));
        EXPECT_EQ(inst.checkedAt, 42.0);
        EXPECT_EQ(PluginRegistry::stableID(inst.legacySource), inst.pluginID);
        EXPECT_FALSE(inst.candidateRoots.empty());
        for (const auto& root : inst.installedRoots) {
            EXPECT_NE(std::ranges::find(inst.candidateRoots, root), inst.candidateRoots.end());
        }
        const std::vector<std::filesystem::path> expected =
            inst.legacySource == S::claude ? std::vector<std::filesystem::path>{home / ".claude"}
                                           : std::vector<std::filesystem::path>{};
        EXPECT_EQ(inst.installedRoots, expected);
    }
}

}  // namespace
}  // namespace kestrel
