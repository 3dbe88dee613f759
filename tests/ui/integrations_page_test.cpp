// The integrations page: the agents as `kestrel status` lists them, and every switch (agent,
// capability, permission, preset, hooks) changing what the session stores.
#include <QCheckBox>
#include <QCoreApplication>
#include <QFrame>
#include <QLabel>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "app/pages/integrations_page.hpp"
#include "tests/ui/page_fixture.hpp"

namespace kestrel::desktop::test {
namespace {

class IntegrationsPageTest : public PageFixture {
  protected:
    IntegrationInstance claude(IntegrationsPage& page) {
        QCoreApplication::processEvents();  // the page rebuilds its cards after a switch
        page.reload();
        for (const auto& row : page.status().rows) {
            if (row.plugin->descriptor.legacySource == AgentSource::claude) {
                return row.instance;
            }
        }
        ADD_FAILURE() << "no Claude Code row";
        return {};
    }

    static QFrame* card(IntegrationsPage& page, const char* source) {
        for (auto* frame : page.findChildren<QFrame*>("agent")) {
            if (frame->property("source").toString() == source) {
                return frame;
            }
        }
        return nullptr;
    }

    std::string claudeSettings() const {
        std::ifstream in(home / ".claude/settings.json");
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
};

TEST_F(IntegrationsPageTest, ListsTheAgentsInTheGroupsTheCommandLineGives) {
    IntegrationsPage page(*host);
    const auto cli = kestrel({"status", "--json"});
    ASSERT_EQ(cli.code, 0) << cli.err;
    const auto rows = nlohmann::json::parse(cli.out);
    ASSERT_EQ(page.status().rows.size(), rows.size());
    std::size_t i = 0;
    for (const auto& row : page.status().rows) {
        SCOPED_TRACE(row.plugin->descriptor.displayName);
        EXPECT_EQ(rawValue(row.group), rows[i].at("group").get<std::string>());
        EXPECT_EQ(row.instance.isEnabled(), rows[i].at("enabled").get<bool>());
        auto* frame = card(page, rawValue(row.plugin->descriptor.legacySource).data());
        ASSERT_NE(frame, nullptr);
        EXPECT_EQ(frame->findChild<QCheckBox*>("enabled")->isChecked(), row.instance.isEnabled());
        ++i;
    }
    // Claude Code, with transcripts below the home, is enabled and shows its folder.
    auto* claudeCard = card(page, "claude");
    ASSERT_NE(claudeCard, nullptr);
    EXPECT_TRUE(claudeCard->findChild<QCheckBox*>("enabled")->isChecked());
    EXPECT_TRUE(claudeCard->findChild<QLabel*>("roots")->text().contains(".claude"));
    EXPECT_FALSE(page.findChildren<QLabel*>("group").isEmpty());
}

TEST_F(IntegrationsPageTest, SwitchesChangeTheStoredInstance) {
    IntegrationsPage page(*host);
    ASSERT_TRUE(claude(page).isEnabled());

    card(page, "claude")->findChild<QCheckBox*>("enabled")->setChecked(false);
    EXPECT_FALSE(claude(page).isEnabled());
    for (const auto& row : nlohmann::json::parse(kestrel({"status", "--json"}).out)) {
        if (row.at("source") == "claude") {
            EXPECT_FALSE(row.at("enabled").get<bool>());
        }
    }
    page.setEnabled(AgentSource::claude, true);
    EXPECT_TRUE(claude(page).isEnabled());

    // Quota comes with the network and credential permissions it needs, and goes with them.
    card(page, "claude")->findChild<QCheckBox*>("capability-quota")->setChecked(true);
    auto instance = claude(page);
    EXPECT_TRUE(instance.hasEnabled(IntegrationCapability::quota));
    EXPECT_TRUE(instance.grantedPermissions.contains(IntegrationPermission::networkAccess));
    EXPECT_TRUE(instance.grantedPermissions.contains(IntegrationPermission::credentialRead));
    EXPECT_TRUE(card(page, "claude")->findChild<QCheckBox*>("permission-networkAccess")->isChecked());
    page.setCapability(AgentSource::claude, IntegrationCapability::quota, false);
    instance = claude(page);
    EXPECT_FALSE(instance.hasEnabled(IntegrationCapability::quota));
    EXPECT_FALSE(instance.grantedPermissions.contains(IntegrationPermission::networkAccess));

    page.setPermission(AgentSource::claude, IntegrationPermission::networkAccess, true);
    EXPECT_TRUE(claude(page).grantedPermissions.contains(IntegrationPermission::networkAccess));
}

TEST_F(IntegrationsPageTest, PresetsSwitchEveryDetectedAgent) {
    IntegrationsPage page(*host);
    SignalLog changed(&page, &IntegrationsPage::changed);
    page.applyPreset(IntegrationBulkPreset::disabled);
    EXPECT_FALSE(claude(page).isEnabled());
    ASSERT_EQ(changed.count(), 1);
    EXPECT_EQ(changed[0][0].toString(), "Preset applied: 1 agent(s) changed.");
    page.applyPreset(IntegrationBulkPreset::allIncludingNetwork);
    const auto instance = claude(page);
    EXPECT_TRUE(instance.isEnabled());
    EXPECT_TRUE(instance.hasEnabled(IntegrationCapability::quota));
    // A preset never installs hooks.
    EXPECT_EQ(claudeSettings().find("ks-hook"), std::string::npos);
}

TEST_F(IntegrationsPageTest, InstallsAndRemovesAnAgentsHooks) {
    IntegrationsPage page(*host);
    SignalLog finished(&page, &IntegrationsPage::hookFinished);
    page.setHooks(HookAgent::claude, true);
    ASSERT_EQ(finished.count(), 1);
    EXPECT_TRUE(finished[0][0].toBool()) << finished[0][1].toString().toStdString();
    EXPECT_EQ(host->backgroundRuns, 1);
    EXPECT_NE(claudeSettings().find("ks-hook"), std::string::npos);
    const auto status = nlohmann::json::parse(kestrel({"hooks", "status", "--json"}).out);
    for (const auto& row : status) {
        if (row.at("agent") == "claude") {
            EXPECT_TRUE(row.at("installed").get<bool>());
        }
    }
    auto* health = card(page, "claude")->findChild<QLabel*>("hookHealth");
    ASSERT_NE(health, nullptr);
    EXPECT_FALSE(health->text().contains(host->text()("hooks.status.health.notConfigured")));

    page.setHooks(HookAgent::claude, false);
    ASSERT_EQ(finished.count(), 2);
    EXPECT_TRUE(finished[1][0].toBool());
    EXPECT_EQ(claudeSettings().find("ks-hook"), std::string::npos);

    // Without the hook script among the resources the install fails and says where.
    page.setHookResources(support / "no-resources");
    page.setHooks(HookAgent::claude, true);
    ASSERT_EQ(finished.count(), 3);
    EXPECT_FALSE(finished[2][0].toBool());
    EXPECT_TRUE(finished[2][1].toString().contains("no-resources"));
}

TEST_F(IntegrationsPageTest, PicturesInBothLanguages) {
    for (auto language : {AppLanguage::en, AppLanguage::zhHans}) {
        host->mutableText().setLanguage(language);
        IntegrationsPage page(*host);
        savePicture(page, page.pageId(), host->text());
    }
}

}  // namespace
}  // namespace kestrel::desktop::test
