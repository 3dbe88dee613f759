#include "core/app/app_paths.hpp"

#include <gtest/gtest.h>

#include <map>

#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;

EnvironmentLookup environment(std::map<std::string, std::string> values) {
    return [values = std::move(values)](std::string_view name) -> std::optional<std::string> {
        auto it = values.find(std::string(name));
        return it == values.end() ? std::nullopt : std::optional(it->second);
    };
}

TEST(AppPaths, HomeAndLedgerFolderComeFromTheChoiceThenTheVariables) {
    TempDir real, demo;
    const auto r = real.path().string(), d = demo.path().string();
    const struct {
        std::string homeChoice, supportChoice;
        std::map<std::string, std::string> env;
        std::string home, support;
        bool agentVariables;  // CLAUDE_CONFIG_DIR and the like reach the readers
    } cases[] = {
        {"", "", {{"HOME", r}}, r, r + "/.local/share/kestrel", true},
        {"", "", {{"HOME", r}, {"XDG_DATA_HOME", "/data"}}, r, "/data/kestrel", true},
        {"", "", {{"HOME", r}, {"XDG_DATA_HOME", "relative"}}, r, r + "/.local/share/kestrel", true},
        {"", "", {{"HOME", r}, {"KESTREL_HOME", d}}, d, r + "/.local/share/kestrel", false},
        {d, "", {{"HOME", r}, {"KESTREL_HOME", r}}, d, r + "/.local/share/kestrel", false},
        {r, "", {{"HOME", r}}, r, r + "/.local/share/kestrel", true},
        {d, "", {{"HOME", r}, {"KESTREL_SUPPORT_DIR", "/ledger"}}, d, "/ledger", false},
        {d, "/mine/./here/", {{"KESTREL_SUPPORT_DIR", "/ledger"}}, d, "/mine/here/", false},
        {d, "", {}, d, d + "/.local/share/kestrel", false},  // no HOME: beside the home read
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.homeChoice + " | " + c.supportChoice);
        auto env = c.env;
        env["CLAUDE_CONFIG_DIR"] = "/agent";
        const auto paths = resolveAppPaths(c.homeChoice, c.supportChoice, environment(env));
        ASSERT_TRUE(paths);
        EXPECT_EQ(paths->home, c.home);
        EXPECT_EQ(paths->supportDir, c.support);
        EXPECT_EQ(paths->env("CLAUDE_CONFIG_DIR").has_value(), c.agentVariables);
    }
}

TEST(AppPaths, AHomeThatIsNoFolderIsRefused) {
    TempDir dir;
    const auto file = dir.write("file", "x").string();
    const auto none = resolveAppPaths("", "", environment({}));
    ASSERT_FALSE(none);
    EXPECT_EQ(none.error().kind, AppPathsError::Kind::noHome);
    for (const auto& home : {file, dir.path().string() + "/missing"}) {
        const auto paths = resolveAppPaths(home, "", environment({{"HOME", "/"}}));
        ASSERT_FALSE(paths) << home;
        EXPECT_EQ(paths.error().kind, AppPathsError::Kind::homeNotAFolder);
        EXPECT_EQ(paths.error().home, home);
    }
}

}  // namespace
}  // namespace kestrel
