// The XDG autostart entry behind "launch at login": where it goes, how the program's path is
// quoted in it, and writing, reading and removing it.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>

#include "app/autostart_entry.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel::desktop {
namespace {

EnvironmentLookup environment(std::map<std::string, std::string> values) {
    return [values = std::move(values)](std::string_view name) -> std::optional<std::string> {
        const auto it = values.find(std::string(name));
        return it == values.end() ? std::nullopt : std::optional(it->second);
    };
}

TEST(AutostartEntry, GoesToTheConfigFolderTheBaseDirectoryRulesName) {
    struct Case {
        std::map<std::string, std::string> env;
        std::string expected;
    };
    const Case cases[] = {
        {{{"XDG_CONFIG_HOME", "/x/cfg"}, {"HOME", "/home/u"}}, "/x/cfg/autostart/kestrel.desktop"},
        {{{"HOME", "/home/u"}}, "/home/u/.config/autostart/kestrel.desktop"},
        {{{"XDG_CONFIG_HOME", ""}, {"HOME", "/home/u"}}, "/home/u/.config/autostart/kestrel.desktop"},
        // A relative XDG_CONFIG_HOME is ignored.
        {{{"XDG_CONFIG_HOME", "cfg"}, {"HOME", "/home/u"}},
         "/home/u/.config/autostart/kestrel.desktop"},
        {{}, ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(autostartFile(environment(c.env)).string(), c.expected);
    }
}

TEST(AutostartEntry, QuotesTheProgramAsAnExecArgument) {
    struct Case {
        const char* path;
        const char* exec;
    };
    const Case cases[] = {
        {"/usr/bin/kestrel-app", "/usr/bin/kestrel-app"},
        {"/opt/my apps/kestrel-app", "\"/opt/my apps/kestrel-app\""},
        {"/opt/a\"b", "\"/opt/a\\\\\"b\""},
        {"/opt/$HOME/k", "\"/opt/\\\\$HOME/k\""},
        {"/opt/100%/k", "/opt/100%%/k"},
        {"/opt/a b\\c", "\"/opt/a b\\\\\\\\c\""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(desktopExecArgument(c.path), c.exec) << c.path;
    }
}

TEST(AutostartEntry, WritesReadsAndRemovesTheEntry) {
    test_support::TempDir dir;
    const auto file = dir / "cfg" / "autostart" / "kestrel.desktop";
    EXPECT_FALSE(launchesAtLogin(file));
    ASSERT_TRUE(setLaunchAtLogin(file, true, "/opt/my apps/kestrel-app"));
    EXPECT_TRUE(launchesAtLogin(file));
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_TRUE(text.str().starts_with("[Desktop Entry]\n"));
    EXPECT_NE(text.str().find("\nExec=\"/opt/my apps/kestrel-app\"\n"), std::string::npos);
    EXPECT_NE(text.str().find("\nType=Application\n"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(file.string() + ".tmp"));

    // Writing again replaces it; switching off removes it, twice is fine.
    ASSERT_TRUE(setLaunchAtLogin(file, true, "/usr/bin/kestrel-app"));
    EXPECT_TRUE(launchesAtLogin(file));
    ASSERT_TRUE(setLaunchAtLogin(file, false, {}));
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_TRUE(setLaunchAtLogin(file, false, {}));

    // An entry switched off by the desktop's own settings does not count.
    for (const char* off : {"Hidden=true", "X-GNOME-Autostart-enabled=false"}) {
        dir.write("cfg/autostart/kestrel.desktop",
                  std::string("[Desktop Entry]\nExec=kestrel-app\n") + off + "\n");
        EXPECT_FALSE(launchesAtLogin(file)) << off;
    }
    // Nowhere to write: an error naming the folder.
    dir.write("plain", "x");
    const auto refused = setLaunchAtLogin(dir / "plain" / "kestrel.desktop", true, "/k");
    ASSERT_FALSE(refused);
    EXPECT_NE(refused.error().find("plain"), std::string::npos);
    EXPECT_FALSE(setLaunchAtLogin({}, true, "/k"));
}

}  // namespace
}  // namespace kestrel::desktop
