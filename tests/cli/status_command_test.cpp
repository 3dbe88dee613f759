#include "cli/status_command.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>

#include "cli/cli.hpp"
#include "cli/integrations_command.hpp"
#include "core/integrations/integration_instance_coordinator.hpp"
#include "core/ledger/usage_store.hpp"
#include "tests/support/command_run.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;

using Outcome = test_support::CommandOutcome;

class StatusCommandTest : public ::testing::Test {
  protected:
    Outcome call(const std::function<int(cli::CommandContext&)>& command) {
        return test_support::runCommand(home.path(), support.path(), command);
    }

    nlohmann::json statusJSON() {
        const auto o = call([](auto& ctx) { return cli::runStatus(ctx, true); });
        EXPECT_EQ(o.code, cli::kExitOK) << o.err;
        return nlohmann::json::parse(o.out);
    }

    Outcome setEnabled(const std::string& source, bool enabled, bool json = false) {
        return call(
            [&](auto& ctx) { return cli::runIntegrationsSetEnabled(ctx, source, enabled, json); });
    }

    Outcome preset(const std::string& name, bool json = false) {
        return call([&](auto& ctx) { return cli::runIntegrationsPreset(ctx, name, json); });
    }

    static const nlohmann::json& row(const nlohmann::json& status, const std::string& source) {
        for (const auto& r : status) {
            if (r["source"] == source) {
                return r;
            }
        }
        ADD_FAILURE() << "no row for " << source;
        static const nlohmann::json none;
        return none;
    }

    static std::vector<std::string> order(const nlohmann::json& status) {
        std::vector<std::string> out;
        for (const auto& r : status) {
            out.push_back(r["source"]);
        }
        return out;
    }

    // What the ingestor stores after reading a source: its last scan, counts and health.
    void recordScan(AgentSource source, int roots, int accepted) {
        UsageStore store(support.path());
        IntegrationInstanceCoordinator coordinator(PluginRegistry::builtIn(), store);
        const IntegrationHealth health{IntegrationHealthState::healthy, std::nullopt, 1000.0,
                                       std::nullopt};
        ASSERT_TRUE(
            coordinator.recordScan(source, {1000.0, roots, accepted, 2, 0, 0, health}, 1000.0));
    }

    TempDir home, support;
};

TEST_F(StatusCommandTest, AnEmptyHomeListsEveryAgentAsNotInstalledWithStableInstances) {
    const auto first = statusJSON();
    ASSERT_EQ(first.size(), 35u);
    EXPECT_EQ(first.front()["source"], "claude");
    EXPECT_EQ(first.back()["source"], "trae-cn");
    std::set<std::string> ids;
    for (const auto& r : first) {
        EXPECT_EQ(r["group"], "notInstalled") << r["source"];
        EXPECT_EQ(r["health"]["state"], "notInstalled") << r["source"];
        ids.insert(r["instanceID"].get<std::string>());
    }
    EXPECT_EQ(ids.size(), 35u);
    // The instances are kept in the ledger, not made up again on every run.
    const auto second = statusJSON();
    for (std::size_t i = 0; i < second.size(); ++i) {
        EXPECT_EQ(second[i]["instanceID"], first[i]["instanceID"]);
    }
    const auto text = call([](auto& ctx) { return cli::runStatus(ctx, false); });
    EXPECT_NE(text.out.find("0 of 35 agents detected"), std::string::npos) << text.out;
}

TEST_F(StatusCommandTest, InstalledAgentsComeFirstAndDisablingMovesThemDown) {
    std::filesystem::create_directories(home / ".codex");
    std::filesystem::create_directories(home / ".claude");
    std::filesystem::create_directories(home / ".config/claude");

    auto status = statusJSON();
    EXPECT_EQ(order(status)[0], "claude");
    EXPECT_EQ(order(status)[1], "codex");
    EXPECT_EQ(row(status, "claude")["group"], "enabled");
    EXPECT_EQ(row(status, "claude")["health"]["state"], "detected");
    EXPECT_EQ(row(status, "claude")["installedRoots"].size(), 2u);
    EXPECT_EQ(row(status, "codex")["installedRoots"][0], (home / ".codex").string());
    const std::string claudeID = row(status, "claude")["instanceID"];
    const auto claudeCapabilities = row(status, "claude")["enabledCapabilities"];

    const auto off = setEnabled("claude", false);
    EXPECT_EQ(off.code, cli::kExitOK) << off.err;
    EXPECT_EQ(off.out, "Claude Code: disabled\n");
    status = statusJSON();
    // Still installed: after the enabled agents, before those not installed.
    EXPECT_EQ(order(status)[0], "codex");
    EXPECT_EQ(order(status)[1], "claude");
    EXPECT_EQ(row(status, "claude")["group"], "detected");
    EXPECT_TRUE(row(status, "claude")["archivedAt"].is_number());
    const auto text = call([](auto& ctx) { return cli::runStatus(ctx, false); });
    EXPECT_NE(text.out.find("2 of 35 agents detected"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find(", 1 enabled."), std::string::npos) << text.out;

    EXPECT_EQ(setEnabled("Claude code", false).out, "Claude Code: already disabled\n");
    const auto on = setEnabled("CLAUDE", true, true);
    EXPECT_EQ(on.code, cli::kExitOK) << on.err;
    EXPECT_EQ(nlohmann::json::parse(on.out)["changed"], true);
    status = statusJSON();
    EXPECT_EQ(order(status)[0], "claude");
    EXPECT_EQ(row(status, "claude")["instanceID"], claudeID);
    EXPECT_EQ(row(status, "claude")["enabledCapabilities"], claudeCapabilities);
    EXPECT_TRUE(row(status, "claude")["archivedAt"].is_null());
}

TEST_F(StatusCommandTest, QuotaReadFromAnAgentsLogsIsShown) {
    std::filesystem::create_directories(home / ".codex");
    {
        UsageStore store(support.path());
        AccountSnapshot quota;
        quota.identity.source = AgentSource::codex;
        quota.identity.planLabel = "plus";
        quota.provenance = QuotaProvenance::localSession;
        quota.fetchedAt = 1000.0;
        QuotaWindow five;
        five.kind = QuotaWindowKind::session5h;
        five.usedPercent = 12.4;
        QuotaWindow week;
        week.kind = QuotaWindowKind::weekly;
        week.usedPercent = 41;
        quota.windows = {five, week};
        ASSERT_TRUE(store.saveQuota(quota));
    }
    const auto status = statusJSON();
    EXPECT_EQ(row(status, "codex")["quota"]["windows"].size(), 2u);
    EXPECT_TRUE(row(status, "claude")["quota"].is_null());
    const auto text = call([](auto& ctx) { return cli::runStatus(ctx, false); });
    EXPECT_NE(text.out.find("Codex quota (plus, read from its logs at "), std::string::npos)
        << text.out;
    EXPECT_NE(text.out.find("5-hour window 12% used; weekly window 41% used"), std::string::npos)
        << text.out;
    EXPECT_NE(text.out.find("  Codex: " + (home / ".codex").string()), std::string::npos)
        << text.out;
}

TEST_F(StatusCommandTest, BadNamesAreUsageErrorsThatSayWhy) {
    struct Case {
        std::function<Outcome()> run;
        std::string mentions;
    };
    const std::vector<Case> cases{
        {[&] { return setEnabled("vim", true); }, "known: claude, codex"},
        {[&] { return setEnabled("openrouter", false); }, "OpenRouter"},
        {[&] { return setEnabled("deepseek", true); }, "no integration"},
        {[&] { return preset("everything"); }, "known: recommended, all, disabled"},
    };
    for (const auto& c : cases) {
        const auto o = c.run();
        EXPECT_EQ(o.code, cli::kExitUsage) << c.mentions;
        EXPECT_NE(o.err.find(c.mentions), std::string::npos) << o.err;
    }
}

TEST_F(StatusCommandTest, PresetsSwitchOnlyScannedAgentsAndNeverHooks) {
    std::filesystem::create_directories(home / ".claude");
    std::filesystem::create_directories(home / ".codex");
    const std::string notice =
        "Enables Local read and Online lookup for every detected Agent: reads local credentials "
        "to query official quota or account usage. Hooks are never installed by this action.\n";
    // Installed but never scanned: nothing for a preset to act on.
    EXPECT_EQ(
        preset("all").out,
        notice + "Nothing changed: presets apply only to agents a scan has found installed.\n");
    const auto codexBefore = row(statusJSON(), "codex");

    recordScan(AgentSource::claude, 1, 1234);
    EXPECT_EQ(row(statusJSON(), "claude")["health"]["state"], "healthy");
    const auto table = call([](auto& ctx) { return cli::runStatus(ctx, false); });
    const auto claudeLine = table.out.substr(table.out.find("Claude Code"));
    EXPECT_LT(claudeLine.find("1,234"), claudeLine.find('\n')) << table.out;

    const auto all = preset("all", true);
    ASSERT_EQ(all.code, cli::kExitOK) << all.err;
    const auto doc = nlohmann::json::parse(all.out);
    EXPECT_EQ(doc["preset"], "allIncludingNetwork");
    ASSERT_EQ(doc["changed"].size(), 1u);
    EXPECT_EQ(doc["changed"][0]["source"], "claude");
    const auto capabilities = doc["changed"][0]["enabledCapabilities"].get<std::set<std::string>>();
    const auto permissions = doc["changed"][0]["grantedPermissions"].get<std::set<std::string>>();
    EXPECT_TRUE(capabilities.contains("quota"));
    EXPECT_FALSE(capabilities.contains("hookManagement"));
    EXPECT_TRUE(permissions.contains("credentialRead"));
    EXPECT_FALSE(permissions.contains("hookConfigurationWrite"));
    EXPECT_EQ(row(statusJSON(), "codex"), codexBefore);
    EXPECT_EQ(
        preset("all").out,
        notice + "Nothing changed: every agent found installed already has these settings.\n");

    EXPECT_EQ(preset("recommended").out, "Claude Code: enabled (detect,activity,import,plans)\n");
    EXPECT_FALSE(
        row(statusJSON(), "claude")["grantedPermissions"].get<std::set<std::string>>().contains(
            "networkAccess"));
    EXPECT_EQ(preset("disabled").out, "Claude Code: disabled\n");
    EXPECT_EQ(row(statusJSON(), "claude")["group"], "detected");
}

}  // namespace
}  // namespace kestrel
