#include "cli/settings_command.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "core/model/app_settings_json.hpp"
#include "tests/support/command_run.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::runKestrel;
using test_support::TempDir;

class SettingsCommandTest : public ::testing::Test {
  protected:
    test_support::CommandOutcome kestrel(std::vector<std::string> args) {
        return runKestrel(std::move(args), home.path(), support.path());
    }
    TempDir home, support;
};

TEST_F(SettingsCommandTest, ListsEveryFieldAndTheJsonReadsBackAsTheSettings) {
    const auto text = kestrel({"settings"});
    ASSERT_EQ(text.code, cli::kExitOK) << text.err;
    for (const auto& field : appSettingsFields()) {
        EXPECT_NE(text.out.find("\n" + field.name + " "), std::string::npos) << field.name;
    }
    ASSERT_EQ(kestrel({"settings", "set", "retentionDays", "90"}).code, cli::kExitOK);
    const auto json = kestrel({"settings", "--json"});
    ASSERT_EQ(json.code, cli::kExitOK) << json.err;
    const auto decoded = decodeAppSettings(json.out);
    EXPECT_EQ(decoded.settings.retentionDays, 90);
    EXPECT_TRUE(decoded.invalidFields.empty());
    EXPECT_TRUE(decoded.missingFields.empty());
}

TEST_F(SettingsCommandTest, BadInputIsRefusedNamingWhatIsAllowed) {
    const struct {
        std::vector<std::string> args;
        std::string said;
    } cases[] = {
        {{"settings", "set", "colour", "blue"}, "unknown setting \"colour\" (settings: menuBarElements"},
        {{"settings", "set", "billingMode", "free"},
         "\"free\" is not a value of billingMode: one of apiEquivalent, tokensOnly, localZero"},
        {{"settings", "set", "storeSession", "maybe"}, "storeSession: true or false"},
        {{"settings", "set", "fxVersion", "9"}, "fxVersion is kept by Kestrel"},
        {{"settings", "--lang", "zh-Hans", "set", "storeSession", "maybe"}, "true 或 false"},
        {{"--lang", "zh-Hans", "settings", "set", "storeSession", "maybe"}, "true 或 false"},
        {{"settings", "forget", "passwords"}, "passwords"},
    };
    for (const auto& c : cases) {
        const auto o = kestrel(c.args);
        EXPECT_EQ(o.code, cli::kExitUsage) << c.said;
        EXPECT_NE(o.err.find(c.said), std::string::npos) << o.err;
    }
    EXPECT_EQ(decodeAppSettings(kestrel({"settings", "--json"}).out).settings, AppSettings{})
        << "nothing refused was stored";
}

TEST_F(SettingsCommandTest, TurningAPrivacyFlagOffOffersToForgetWhatIsStored) {
    home.write(".claude/projects/p/a.jsonl",
               R"({"type":"assistant","sessionId":"s1","cwd":"/w/app","timestamp":"2026-03-02T10:00:00Z",)"
               R"("message":{"id":"m1","model":"claude-sonnet-4-5-20250929","usage":{"input_tokens":1,)"
               R"("output_tokens":1}}})"
               "\n");
    ASSERT_EQ(kestrel({"scan"}).code, cli::kExitOK);
    const auto off = kestrel({"settings", "set", "storeProject", "false"});
    ASSERT_EQ(off.code, cli::kExitOK) << off.err;
    EXPECT_NE(off.out.find("storeProject: true → false"), std::string::npos) << off.out;
    EXPECT_NE(off.out.find("The 1 events that already have one keep it"), std::string::npos)
        << off.out;
    EXPECT_NE(kestrel({"events", "--no-scan", "--json"}).out.find("\"project\": \"app\""),
              std::string::npos);

    const auto forgot = kestrel({"settings", "forget", "projects"});
    ASSERT_EQ(forgot.code, cli::kExitOK) << forgot.err;
    EXPECT_NE(forgot.out.find("from 1 events"), std::string::npos) << forgot.out;
    const auto entries =
        nlohmann::json::parse(kestrel({"events", "--no-scan", "--json"}).out)["entries"];
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_TRUE(entries[0]["project"].is_null());
    EXPECT_EQ(entries[0]["sessionKey"], "s1") << "only what was asked is forgotten";
    EXPECT_NE(kestrel({"projects", "--no-scan"}).out.find("(no project)"), std::string::npos);

    const auto again = kestrel({"settings", "set", "storeproject", "false"});
    EXPECT_NE(again.out.find("storeProject is already false"), std::string::npos) << again.out;
}

}  // namespace
}  // namespace kestrel
