// `kestrel hooks`: the whole command line over a fixture home, reading back what it says it did.
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "tests/support/command_run.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
using test_support::runKestrel;
using test_support::TempDir;

TEST(HooksCommand, InstallStatusUninstallNameTheFilesAndBackups) {
    TempDir dir;
    const auto home = dir / "home";
    const auto support = dir / "support";
    fs::create_directories(home / ".claude");
    std::ofstream(home / ".claude/settings.json") << R"({"model": "opus"})";

    const auto installed =
        runKestrel({"hooks", "install", "claude", "codex", "--json"}, home, support);
    ASSERT_EQ(installed.code, cli::kExitOK) << installed.err;
    const auto doc = nlohmann::json::parse(installed.out);
    ASSERT_EQ(doc["installed"].size(), 2u);
    const auto& claudeFile = doc["installed"][0]["files"][0];
    EXPECT_EQ(claudeFile["path"], (home / ".claude/settings.json").string());
    ASSERT_TRUE(claudeFile["backup"].is_string());
    std::ifstream backup(claudeFile["backup"].get<std::string>());
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(backup), {}), R"({"model": "opus"})");
    // Codex's files did not exist: nothing to back up.
    EXPECT_TRUE(doc["installed"][1]["files"][0]["backup"].is_null());

    const auto status = runKestrel({"hooks", "status", "--json"}, home, support);
    ASSERT_EQ(status.code, cli::kExitOK) << status.err;
    for (const auto& row : nlohmann::json::parse(status.out)) {
        const bool ours = row["agent"] == "claude" || row["agent"] == "codex";
        EXPECT_EQ(row["installed"], ours) << row.dump();
        EXPECT_EQ(row["gateOpen"], ours) << row.dump();
        EXPECT_EQ(row["health"], ours ? "configured" : "notConfigured") << row.dump();
    }

    const auto removed = runKestrel({"hooks", "uninstall", "--all"}, home, support);
    ASSERT_EQ(removed.code, cli::kExitOK) << removed.err;
    EXPECT_NE(removed.out.find("claude: wrote " + (home / ".claude/settings.json").string()),
              std::string::npos)
        << removed.out;
    EXPECT_FALSE(fs::exists(home / ".codex/hooks.json"));
    EXPECT_EQ(nlohmann::json::parse(std::ifstream(home / ".claude/settings.json")),
              nlohmann::json::parse(R"({"model": "opus"})"));
}

TEST(HooksCommand, MessagesInChineseAndUnknownAgentsRefused) {
    TempDir dir;
    fs::create_directories(dir / "home");
    const auto zh =
        runKestrel({"hooks", "install", "kimi", "--lang", "zh-Hans"}, dir / "home", dir / "s");
    ASSERT_EQ(zh.code, cli::kExitOK) << zh.err;
    EXPECT_NE(zh.out.find("已为 Kimi Code 安装 Hooks"), std::string::npos) << zh.out;
    const auto bad = runKestrel({"hooks", "install", "vim"}, dir / "home", dir / "s");
    EXPECT_EQ(bad.code, cli::kExitUsage);
    EXPECT_NE(bad.err.find("\"vim\""), std::string::npos);
    EXPECT_EQ(runKestrel({"hooks", "install"}, dir / "home", dir / "s").code, cli::kExitUsage);
}

}  // namespace
}  // namespace kestrel
