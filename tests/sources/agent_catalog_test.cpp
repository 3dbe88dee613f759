#include "core/sources/agent_catalog.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>

#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;

class AgentCatalogTest : public ::testing::Test {
  protected:
    void writeFile(const fs::path& relative, const std::string& text) {
        dir_.write(relative, text);
    }

    std::vector<fs::path> roots(AgentSource source,
                                const EnvironmentLookup& env = emptyEnvironment()) {
        auto entry = AgentCatalog::spec(source, home_, env);
        return entry ? entry->roots : std::vector<fs::path>{};
    }

    test_support::TempDir dir_;
    const fs::path home_ = dir_.path();
};

EnvironmentLookup envOf(std::map<std::string, std::string> vars) {
    return [vars = std::move(vars)](std::string_view name) -> std::optional<std::string> {
        auto it = vars.find(std::string(name));
        return it == vars.end() ? std::nullopt : std::optional(it->second);
    };
}

bool contains(const std::vector<fs::path>& paths, const fs::path& path) {
    return std::find(paths.begin(), paths.end(), path) != paths.end();
}

bool isBelow(const fs::path& path, const fs::path& base) {
    const auto rel = path.lexically_relative(base);
    return !rel.empty() && *rel.begin() != "..";
}

TEST_F(AgentCatalogTest, KnownLocationsAreRootsOfTheirSource) {
    // The macOS locations and their Linux counterparts, both expected in the same entry.
    const std::vector<std::pair<AgentSource, std::vector<std::string>>> table{
        {AgentSource::claude, {".claude", ".config/claude"}},
        {AgentSource::codex, {".codex"}},
        {AgentSource::cursor,
         {".cursor", "Library/Application Support/Cursor/User/globalStorage",
          ".config/Cursor/User/globalStorage"}},
        {AgentSource::gemini, {".gemini"}},
        {AgentSource::antigravity,
         {".gemini/antigravity", ".gemini/antigravity-ide", ".gemini/antigravity-cli"}},
        {AgentSource::kiro,
         {".kiro", "kiro-cli", "Library/Application Support/Kiro/User/globalStorage/kiro.kiroagent",
          ".config/Kiro/User/globalStorage/kiro.kiroagent", ".local/share/kiro-cli"}},
        {AgentSource::opencode, {".local/share/opencode", ".config/opencode"}},
        {AgentSource::openclaw, {".openclaw"}},
        {AgentSource::everyCode, {".code"}},
        {AgentSource::hermes, {".hermes"}},
        {AgentSource::copilot, {".copilot"}},
        {AgentSource::kimi, {".kimi", ".kimi-code"}},
        {AgentSource::codebuddy, {".codebuddy"}},
        {AgentSource::workbuddy, {".workbuddy"}},
        {AgentSource::grok, {".grok"}},
        {AgentSource::omp, {".omp"}},
        {AgentSource::pi, {".pi/agent"}},
        {AgentSource::primeAgent, {".prime"}},
        {AgentSource::craft, {".craft-agent"}},
        {AgentSource::reasonix, {".reasonix", ".config/reasonix"}},
        {AgentSource::kiloCLI, {".local/share/kilo"}},
        {AgentSource::kiloCode, {".config/Code/User/globalStorage/kilocode.kilo-code"}},
        {AgentSource::rooCode,
         {".config/Code/User/globalStorage/rooveterinaryinc.roo-cline",
          "Library/Application Support/Code/User/globalStorage/rooveterinaryinc.roo-cline"}},
        {AgentSource::zed, {"Library/Application Support/Zed/threads", ".local/share/zed/threads"}},
        {AgentSource::goose, {".local/share/goose", ".local/share/Block/goose"}},
        {AgentSource::droid, {".factory"}},
        {AgentSource::mimo, {".local/share/mimocode"}},
        {AgentSource::zcode, {".zcode"}},
        {AgentSource::qoder,
         {"Library/Application Support/Qoder/SharedClientCache/cache/db",
          ".config/Qoder/SharedClientCache/cache/db"}},
        {AgentSource::qoderCN,
         {"Library/Application Support/QoderCN/SharedClientCache/cache/db",
          ".config/QoderCN/SharedClientCache/cache/db"}},
        {AgentSource::anythingLLM,
         {"Library/Application Support/anythingllm-desktop/storage",
          ".config/anythingllm-desktop/storage"}},
        {AgentSource::claudeScience, {".claude-science"}},
        {AgentSource::deepseekHarness, {".dsh"}},
        {AgentSource::traeWorkCN,
         {"Library/Application Support/TRAE SOLO CN", ".config/TRAE SOLO CN"}},
    };
    for (const auto& [source, expected] : table) {
        const auto actual = roots(source);
        for (const auto& relative : expected) {
            EXPECT_TRUE(contains(actual, home_ / relative))
                << rawValue(source) << " lacks " << relative;
        }
    }
}

TEST_F(AgentCatalogTest, EveryUsageSourceHasAnEntryBelowHome) {
    const auto usage = usageSources();
    for (auto source : allCases<AgentSource>()) {
        const auto entry = AgentCatalog::spec(source, home_);
        const bool producesUsage = std::find(usage.begin(), usage.end(), source) != usage.end();
        ASSERT_EQ(entry.has_value(), producesUsage) << rawValue(source);
        if (!entry) {
            EXPECT_TRUE(AgentCatalog::installedRoots(source, home_).empty());
            continue;
        }
        EXPECT_EQ(entry->source, source);
        EXPECT_FALSE(entry->roots.empty()) << rawValue(source);
        const std::set<fs::path> distinct(entry->roots.begin(), entry->roots.end());
        EXPECT_EQ(distinct.size(), entry->roots.size()) << rawValue(source) << " repeats a root";
        for (const auto& root : entry->roots) {
            EXPECT_TRUE(root.is_absolute()) << root;
            EXPECT_TRUE(isBelow(root, home_)) << root;
        }
        // Nothing exists in a fresh home.
        EXPECT_TRUE(AgentCatalog::installedRoots(source, home_).empty()) << rawValue(source);
    }
    EXPECT_FALSE(AgentCatalog::spec(AgentSource::openrouter, home_));
    EXPECT_FALSE(AgentCatalog::spec(AgentSource::deepseek, home_));
}

TEST_F(AgentCatalogTest, InstalledRootsKeepsOnlyWhatExists) {
    fs::create_directories(home_ / ".codex");
    fs::create_directories(home_ / ".config/Cursor/User/globalStorage");
    writeFile(".cursor", "a file is a root too");
    fs::create_directories(home_ / ".gemini/antigravity");
    // Data roots below a file cannot exist; asking must not throw.
    writeFile(".local", "not a folder");

    EXPECT_EQ(AgentCatalog::installedRoots(AgentSource::codex, home_),
              std::vector<fs::path>{home_ / ".codex"});
    EXPECT_EQ(
        AgentCatalog::installedRoots(AgentSource::cursor, home_),
        (std::vector<fs::path>{home_ / ".cursor", home_ / ".config/Cursor/User/globalStorage"}));
    EXPECT_EQ(AgentCatalog::installedRoots(AgentSource::antigravity, home_),
              std::vector<fs::path>{home_ / ".gemini/antigravity"});
    EXPECT_EQ(AgentCatalog::installedRoots(AgentSource::gemini, home_),
              std::vector<fs::path>{home_ / ".gemini"});
    EXPECT_TRUE(AgentCatalog::installedRoots(AgentSource::opencode, home_).empty());
    EXPECT_TRUE(AgentCatalog::installedRoots(AgentSource::claude, home_).empty());
}

TEST_F(AgentCatalogTest, ClaudeConfigDirAddsOneRoot) {
    const auto base = roots(AgentSource::claude);
    const std::vector<std::pair<std::string, std::optional<fs::path>>> cases{
        {"/opt/claude-config", fs::path("/opt/claude-config")},
        {"/opt/./claude-config/", fs::path("/opt/claude-config")},
        {"~/cfg", home_ / "cfg"},
        {"~", home_},
        {"relative/dir", home_ / "relative/dir"},
        {"", std::nullopt},
        {(home_ / ".claude").string(), std::nullopt},  // already a root
    };
    for (const auto& [value, extra] : cases) {
        const auto actual = roots(AgentSource::claude, envOf({{"CLAUDE_CONFIG_DIR", value}}));
        auto expected = base;
        if (extra) {
            expected.push_back(*extra);
        }
        EXPECT_EQ(actual, expected) << "CLAUDE_CONFIG_DIR=" << value;
    }
}

TEST_F(AgentCatalogTest, XdgFoldersAddToTheDefaults) {
    const auto env = envOf({{"XDG_CONFIG_HOME", "/xdg/config"}, {"XDG_DATA_HOME", "/xdg/data/"}});
    const auto claude = roots(AgentSource::claude, env);
    EXPECT_TRUE(contains(claude, "/xdg/config/claude"));
    EXPECT_TRUE(contains(claude, home_ / ".config/claude"));
    const auto zed = roots(AgentSource::zed, env);
    EXPECT_TRUE(contains(zed, "/xdg/data/zed/threads"));
    EXPECT_TRUE(contains(zed, home_ / ".local/share/zed/threads"));

    // Relative XDG values are invalid and ignored.
    EXPECT_EQ(roots(AgentSource::claude, envOf({{"XDG_CONFIG_HOME", "cfg"}})),
              roots(AgentSource::claude));
}

TEST_F(AgentCatalogTest, OtherOverridesAreHonoured) {
    const auto env = envOf({{"CODEX_HOME", "/srv/codex"}, {"DSH_HOME", "~/dsh-data"}});
    EXPECT_TRUE(contains(roots(AgentSource::codex, env), "/srv/codex"));
    EXPECT_TRUE(contains(roots(AgentSource::deepseekHarness, env), home_ / "dsh-data"));
}

TEST_F(AgentCatalogTest, CraftWorkspacesBecomeRoots) {
    writeFile(".craft-agent/config.json", R"({"activeWorkspaceId":"a","workspaces":[
        {"id":"a","rootPath":"~/work"},
        {"id":"b","rootPath":"~"},
        {"id":"c","rootPath":"/abs/workspace"},
        {"id":"d","rootPath":"projects/p"},
        {"id":"e","rootPath":"~/work/"},
        {"id":"f"},
        {"id":"g","rootPath":7},
        42]})");
    EXPECT_EQ(roots(AgentSource::craft),
              (std::vector<fs::path>{home_ / ".craft-agent", home_ / "work", home_,
                                     "/abs/workspace", home_ / "projects/p"}));
}

TEST_F(AgentCatalogTest, MalformedCraftConfigLeavesTheBaseRoot) {
    const std::vector<std::string> configs{
        "",
        "not json",
        R"({"workspaces":[{"rootPath":"~/w"})",  // truncated
        R"({"workspaces":{"rootPath":"~/w"}})",
        R"([{"rootPath":"~/w"}])",
        // Valid, but larger than any real settings file (trailing blanks keep any prefix
        // valid, so only the size can reject it).
        R"({"workspaces":[{"rootPath":"~/w"}]})" + std::string(1 << 20, ' '),
    };
    const std::vector<fs::path> base{home_ / ".craft-agent"};
    for (const auto& config : configs) {
        writeFile(".craft-agent/config.json", config);
        EXPECT_EQ(roots(AgentSource::craft), base) << config.substr(0, 40);
    }
    fs::remove(home_ / ".craft-agent/config.json");
    fs::create_directories(home_ / ".craft-agent/config.json");
    EXPECT_EQ(roots(AgentSource::craft), base);
}

TEST_F(AgentCatalogTest, WatchPathsCoverEveryRootOnce) {
    // CODEX_HOME pointing at Claude's folder makes one path a root of two sources.
    const auto env = envOf({{"CODEX_HOME", (home_ / ".claude").string()}});
    const auto paths = AgentCatalog::watchPaths(home_, env);

    const std::set<std::string> distinct(paths.begin(), paths.end());
    EXPECT_EQ(distinct.size(), paths.size());
    ASSERT_FALSE(paths.empty());
    EXPECT_EQ(paths.front(), (home_ / ".claude").string());

    std::set<std::string> expected;
    for (auto source : allCases<AgentSource>()) {
        if (auto entry = AgentCatalog::spec(source, home_, env)) {
            for (const auto& root : entry->roots) {
                expected.insert(root.string());
            }
        }
    }
    EXPECT_EQ(distinct, expected);
}

}  // namespace
}  // namespace kestrel
