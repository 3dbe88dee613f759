// `kestrel hooks`: the whole command line over a fixture home, reading back what it says it did.
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <tuple>

#include "cli/text_table.hpp"

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

TEST(HooksCommand, StatusIsAnAlignedTableInBothLanguages) {
    TempDir dir;
    const auto home = dir / "home";
    fs::create_directories(home);
    ASSERT_EQ(runKestrel({"hooks", "install", "kimi", "opencode"}, home, dir / "s").code,
              cli::kExitOK);
    for (const auto& [lang, installed, yes] :
         {std::tuple{"en", "Installed", "yes"}, std::tuple{"zh-Hans", "已安装", "是"}}) {
        SCOPED_TRACE(lang);
        const auto status = runKestrel({"hooks", "status", "--lang", lang}, home, dir / "s");
        ASSERT_EQ(status.code, cli::kExitOK) << status.err;
        std::vector<std::string> lines;
        std::istringstream in(status.out);
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line);
        }
        ASSERT_GE(lines.size(), 9u) << status.out;  // a header and one row per agent
        // Cells are parted by two or more blanks; the third (installed) starts in the same
        // display column on every line, its title's.
        auto thirdCell = [](const std::string& line) {
            std::size_t at = 0;
            for (int gap = 0; gap < 2 && at != std::string::npos; ++gap) {
                at = line.find("  ", at);
                at = at == std::string::npos ? at : line.find_first_not_of(' ', at);
            }
            return at;
        };
        ASSERT_NE(thirdCell(lines[0]), std::string::npos);
        EXPECT_TRUE(lines[0].substr(thirdCell(lines[0])).starts_with(installed)) << lines[0];
        const auto column = cli::displayWidth(lines[0].substr(0, thirdCell(lines[0])));
        int yesRows = 0;
        for (std::size_t i = 1; i < lines.size(); ++i) {
            const auto at = thirdCell(lines[i]);
            ASSERT_NE(at, std::string::npos) << lines[i];
            EXPECT_EQ(cli::displayWidth(lines[i].substr(0, at)), column) << lines[i];
            if (lines[i].substr(at).starts_with(yes)) {
                ++yesRows;
                EXPECT_TRUE(lines[i].starts_with("Kimi Code") || lines[i].starts_with("opencode"))
                    << lines[i];
            }
        }
        EXPECT_EQ(yesRows, 2) << status.out;
    }
}

TEST(HooksCommand, MissingCliWarningNamesThisComputerOffTheMac) {
    TempDir dir;
    fs::create_directories(dir / "home");
    const auto out = runKestrel({"hooks", "install", "grok"}, dir / "home", dir / "s");
    ASSERT_EQ(out.code, cli::kExitOK) << out.err;
#ifdef __APPLE__
    EXPECT_NE(out.err.find("on this Mac"), std::string::npos) << out.err;
#else
    EXPECT_NE(out.err.find("on this computer"), std::string::npos) << out.err;
    EXPECT_EQ(out.err.find("Mac"), std::string::npos) << out.err;
#endif
}

}  // namespace
}  // namespace kestrel
