// The plug-in agents (opencode, pi, omp): our file installed, checked, repaired and removed, and
// the opencode plug-in run under node with a stand-in of opencode's plug-in context.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "core/integrations/hook_command.hpp"
#include "core/integrations/hook_installer.hpp"
#include "core/integrations/live_agent_hub.hpp"
#include "core/model/timestamp.hpp"
#include "tests/support/file_text.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
using test_support::readFile;
using test_support::TempDir;
using test_support::writeFile;

struct Fixture {
    TempDir dir;
    fs::path home = dir / "home of O'Brien";
    // Quotes and a backslash: the plug-in holds these paths inside JavaScript strings.
    fs::path support = dir / "sup \"q\" \\ 数据";

    Fixture() { fs::create_directories(home); }
    HookInstaller installer(bool projects = true) const {
        return HookInstaller(home, support, projects, fs::path(KESTREL_SOURCE_DIR) / "resources",
                             [](std::string_view) { return std::optional<std::string>(); });
    }
};

struct PluginCase {
    HookAgent agent;
    const char* file;  // relative to the home
};

const std::vector<PluginCase> kPlugins = {
    {HookAgent::opencode, ".config/opencode/plugins/kestrel.js"},
    {HookAgent::pi, ".pi/agent/extensions/kestrel.ts"},
    {HookAgent::omp, ".omp/agent/extensions/kestrel.ts"},
};

TEST(HookPlugins, InstallRepairAndUninstallOurFileOnly) {
    for (const auto& c : kPlugins) {
        SCOPED_TRACE(std::string(rawValue(c.agent)));
        Fixture f;
        const auto installer = f.installer();
        const auto path = f.home / c.file;

        const auto report = installer.install(c.agent);
        ASSERT_TRUE(report) << report.error().detail;
        ASSERT_EQ(report->files.size(), 1u);
        EXPECT_EQ(report->files[0].path, path);
        const auto text = readFile(path);
        EXPECT_EQ(text.find("__KS_"), std::string::npos);  // every placeholder filled
        EXPECT_NE(text.find("const SOURCE = \"" + std::string(rawValue(c.agent)) + "\""),
                  std::string::npos);
        EXPECT_NE(text.find("sup \\\"q\\\" \\\\ 数据"), std::string::npos);
        EXPECT_NE(text.find("CAPTURE_PROJECT = \"1\" === \"1\""), std::string::npos);
        EXPECT_TRUE(installer.isAuthorized(c.agent));
        EXPECT_EQ(installer.status(c.agent), true);
        EXPECT_TRUE(installer.installed().contains(c.agent));
        EXPECT_EQ(installer.health(c.agent, {}, epochNow(), 1800).state,
                  HookHealthState::configured);

        // An older form of the file is a version mismatch that repair rewrites.
        writeFile(path, text + "// an older Kestrel\n");
        EXPECT_EQ(installer.health(c.agent, {}, epochNow(), 1800).state,
                  HookHealthState::versionMismatch);
        const auto repaired = installer.repair(std::set{c.agent});
        ASSERT_TRUE(repaired);
        ASSERT_EQ(repaired->size(), 1u);
        EXPECT_EQ(readFile(path), text);
        // Project capture switched off: the installed file no longer matches.
        EXPECT_EQ(f.installer(false).differsFromCurrent(c.agent), true);

        const auto removed = installer.uninstall(c.agent);
        ASSERT_TRUE(removed);
        EXPECT_FALSE(fs::exists(path));
        EXPECT_FALSE(installer.isAuthorized(c.agent));
        EXPECT_EQ(installer.status(c.agent), false);

        // A file of the user's at our place is neither overwritten nor removed.
        writeFile(path, "export default function mine() {}\n");
        const auto refused = installer.install(c.agent);
        ASSERT_FALSE(refused);
        EXPECT_EQ(refused.error().code, HookInstallErrorCode::configUnreadable);
        ASSERT_TRUE(installer.uninstall(c.agent));
        EXPECT_EQ(readFile(path), "export default function mine() {}\n");
        EXPECT_EQ(installer.status(c.agent), false);
    }
}

std::optional<std::string> nodeBinary() {
    for (const char* candidate : {"/usr/bin/node", "/usr/local/bin/node", "/usr/bin/nodejs"}) {
        if (fs::exists(candidate)) {
            return candidate;
        }
    }
    return std::nullopt;
}

// Loads the installed plug-in as opencode does (a module whose exports are plug-in functions),
// calls it with a stand-in context, and delivers one step to the hooks it returns.
constexpr const char* kHarness = R"JS(
const [plugin, step, sessionID, directory] = process.argv.slice(2);
const module = await import(plugin);
const hooks = {};
for (const make of Object.values(module)) {
  Object.assign(hooks, await make({ project: { id: "p" }, client: {}, $: () => {}, directory, worktree: directory }));
}
const event = (type, properties) => hooks.event({ event: { type, properties } });
const steps = {
  created: () => event("session.created", { info: { id: sessionID } }),
  prompt: () => hooks["chat.message"]({ sessionID, messageID: "m1", agent: "build" }, { message: {}, parts: [] }),
  busy: () => event("session.status", { sessionID, status: { type: "busy" } }),
  tool: () => hooks["tool.execute.before"]({ tool: "bash", sessionID, callID: "c1" }, { args: {} }),
  permission: () => event("permission.updated", { id: "perm1", sessionID, type: "bash", title: "run" }),
  toolDone: () => hooks["tool.execute.after"]({ tool: "bash", sessionID, callID: "c1" }, { title: "", output: "", metadata: {} }),
  idle: () => event("session.idle", { sessionID }),
  error: () => event("session.error", { sessionID, error: { name: "UnknownError" } }),
};
await steps[step]();
)JS";

TEST(HookPlugins, OpencodePluginUnderNodeWritesPulsesLiveReads) {
    const auto node = nodeBinary();
    if (!node) {
        GTEST_SKIP() << "node is not installed (scripts/install-deps installs nodejs)";
    }
    Fixture f;
    const auto installer = f.installer();
    ASSERT_TRUE(installer.install(HookAgent::opencode));
    // opencode loads the file as a module; node needs the .mjs name to do the same.
    const auto plugin = f.dir / "kestrel.mjs";
    fs::copy_file(f.home / ".config/opencode/plugins/kestrel.js", plugin);
    const auto harness = f.dir / "harness.mjs";
    writeFile(harness, kHarness);
    const auto project = f.home / "src/web app";
    fs::create_directories(project);
    const auto salt = LiveAgentHub::loadSessionSalt(f.support);
    ASSERT_TRUE(salt);

    auto step = [&](const std::string& name, const std::string& session) {
        const std::string command = *node + " " + shellQuote(harness.string()) + " " +
                                    shellQuote(plugin.string()) + " " + name + " " + session + " " +
                                    shellQuote(project.string());
        std::FILE* pipe = ::popen(command.c_str(), "r");
        std::string output;
        char buffer[512];
        while (pipe && std::fgets(buffer, sizeof buffer, pipe)) {
            output += buffer;
        }
        const int status = pipe ? ::pclose(pipe) : -1;
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << name << ": " << output;
    };
    auto newest = [&]() -> std::optional<LiveAgentPulse> {
        const auto reading = LiveAgentHub::readActive(installer.liveDirectory(), epochNow(), 600);
        EXPECT_EQ(reading.skipped, 0u);
        if (reading.pulses.empty()) {
            return std::nullopt;
        }
        return reading.pulses.front();
    };

    struct Expect {
        const char* step;
        LiveAgentState state;
        std::optional<ActivityPulseNotice> notice;
    };
    using L = LiveAgentState;
    const std::vector<Expect> sequence = {
        {"created", L::idle, std::nullopt},
        {"prompt", L::processing, std::nullopt},
        {"busy", L::processing, std::nullopt},
        {"tool", L::processing, std::nullopt},
        {"permission", L::awaiting, ActivityPulseNotice::permission},
        {"toolDone", L::processing, std::nullopt},
        {"idle", L::idle, ActivityPulseNotice::completed},
        {"error", L::idle, ActivityPulseNotice::failed},
    };
    for (const auto& e : sequence) {
        SCOPED_TRACE(e.step);
        step(e.step, "ses_raw42");
        const auto p = newest();
        ASSERT_TRUE(p);
        EXPECT_EQ(p->source, AgentSource::opencode);
        EXPECT_EQ(p->state, e.state);
        EXPECT_EQ(p->notice, e.notice);
        EXPECT_EQ(p->sessionID,
                  LiveAgentHub::sessionKey("ses_raw42", AgentSource::opencode, *salt));
        EXPECT_EQ(p->projectDisplayName, "web app");
        EXPECT_GT(p->pid, 0);
    }
    for (const auto& entry : fs::directory_iterator(installer.liveDirectory())) {
        EXPECT_EQ(readFile(entry.path()).find("ses_raw42"), std::string::npos);
    }

    // Gate closed: a new session writes nothing, and the plug-in still never fails opencode.
    installer.deauthorize(HookAgent::opencode);
    step("prompt", "ses_other");
    EXPECT_EQ(std::distance(fs::directory_iterator(installer.liveDirectory()), {}), 1);
    ASSERT_TRUE(installer.authorize(HookAgent::opencode));
    fs::remove(installer.sessionSaltFile());
    step("prompt", "ses_other");
    EXPECT_EQ(std::distance(fs::directory_iterator(installer.liveDirectory()), {}), 1);
}

}  // namespace
}  // namespace kestrel
