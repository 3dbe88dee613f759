#include "core/integrations/hook_installer.hpp"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <toml++/toml.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "core/integrations/hook_command.hpp"
#include "tests/support/file_text.hpp"
#include "tests/support/shell_run.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;
using test_support::readFile;
using test_support::runShell;
using test_support::TempDir;
using test_support::writeFile;

std::string sha256Hex(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
    std::string out;
    char buf[3];
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(buf, sizeof buf, "%02x", digest[i]);
        out += buf;
    }
    return out;
}

std::vector<fs::path> pulseFiles(const fs::path& liveDir) {
    std::vector<fs::path> out;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(liveDir, ec)) {
        if (entry.path().extension() == ".json") {
            out.push_back(entry.path());
        }
    }
    return out;
}

// A home and a support folder whose paths hold a blank, a single quote and non-ASCII text, as
// real ones do (a user called O'Brien, a folder named in Chinese).
struct Fixture {
    TempDir dir;
    fs::path home = dir / "home of O'Brien 用户";
    fs::path support = dir / "support 'kestrel' 数据";
    fs::path resources = fs::path(KESTREL_SOURCE_DIR) / "resources";

    Fixture() {
        fs::create_directories(home);
        fs::create_directories(support);
    }
    HookInstaller installer(bool projects = false) const {
        return HookInstaller(home, support, projects, resources,
                             [](std::string_view) { return std::optional<std::string>(); });
    }
};

// The agent's commands in the order they are written, read back from its configuration with
// a parser of the file's own format.
struct WrittenHook {
    std::string event;
    std::string matcher;
    std::string command;
};

std::vector<WrittenHook> writtenHooks(HookAgent agent, const fs::path& config) {
    std::vector<WrittenHook> out;
    if (agent == HookAgent::kimi) {
        const auto table = toml::parse_file(config.string());
        for (const auto& node : *table["hooks"].as_array()) {
            const auto& t = *node.as_table();
            const auto command = t["command"].value<std::string>().value_or("");
            if (command.find("ks-hook.") != std::string::npos) {
                out.push_back({t["event"].value<std::string>().value_or(""), "", command});
            }
        }
        return out;
    }
    const Json root = Json::parse(readFile(config));
    for (const auto& [event, list] : root["hooks"].items()) {
        for (const auto& group : list) {
            if (agent == HookAgent::cursor) {
                if (group["command"].get<std::string>().find("ks-hook.") != std::string::npos) {
                    out.push_back({event, "", group["command"]});
                }
                continue;
            }
            for (const auto& hook : group["hooks"]) {
                if (hook["command"].get<std::string>().find("ks-hook.") != std::string::npos) {
                    out.push_back({event, group.value("matcher", ""), hook["command"]});
                }
            }
        }
    }
    return out;
}

// Each agent's own payload for one event (field names from the agents' hook documentation).
std::string payload(HookAgent agent, const std::string& event, const std::string& session,
                    const std::string& cwd) {
    Json j;
    switch (agent) {
        case HookAgent::cursor:
            j = {{"conversation_id", session},
                 {"generation_id", "g-1"},
                 {"hook_event_name", event},
                 {"workspace_roots", Json::array({cwd})}};
            break;
        case HookAgent::kimi:
            j = {{"hook_event_name", event}, {"session_id", session}, {"cwd", cwd}};
            break;
        default:
            j = {{"session_id", session},
                 {"transcript_path", "/tmp/t.jsonl"},
                 {"cwd", cwd},
                 {"hook_event_name", event},
                 // a nested id must not be taken for the session's
                 {"tool_input", {{"session_id", "not-this-one"}}}};
    }
    return j.dump();
}

struct AgentCase {
    HookAgent agent;
    std::string config;  // relative to the home
    std::size_t events;
};

const std::vector<AgentCase> kCommandAgents = {
    {HookAgent::claude, ".claude/settings.json", 10},
    {HookAgent::codex, ".codex/hooks.json", 10},
    {HookAgent::grok, ".grok/hooks/kestrel.json", 11},
    {HookAgent::kimi, ".kimi-code/config.toml", 8},
    {HookAgent::cursor, ".cursor/hooks.json", 6},
};

TEST(HookCommandLine, QuotesPathsAndPassesTheProcessIdExceptForClaudeAndGrok) {
    const HookPaths paths{"/s/it's/ks-hook.sh", "/s/salt", "/s/enabled/x", "/s/live dir"};
    const HookEventRow stop{"Stop", "idle", "notice=completed", std::nullopt};
    EXPECT_EQ(hookCommandLine(HookAgent::claude, paths, stop, false),
              "KS_LIVE_DIR='/s/live dir' KS_SESSION_SALT_FILE='/s/salt' KS_HOOK_GATE='/s/enabled/x'"
              " '/s/it'\"'\"'s/ks-hook.sh' claude idle notice=completed 2>/dev/null || :");
    const HookEventRow pre{"PreToolUse", "processing", std::nullopt, std::nullopt};
    EXPECT_EQ(hookCommandLine(HookAgent::codex, paths, pre, true),
              "KS_LIVE_DIR='/s/live dir' KS_SESSION_SALT_FILE='/s/salt' KS_HOOK_GATE='/s/enabled/x'"
              " KS_CAPTURE_PROJECT='1' '/s/it'\"'\"'s/ks-hook.sh' codex processing \"$PPID\" "
              "2>/dev/null || :");
    EXPECT_EQ(hookCommandLine(HookAgent::grok, paths, pre, false).find("PPID"), std::string::npos);
    EXPECT_EQ(hookCommandLine(HookAgent::kimi, paths, pre, false).find("KS_CAPTURE_PROJECT"),
              std::string::npos);
}

TEST(HookCommandLine, EventTablesDifferWhereTheAgentsDo) {
    auto names = [](HookAgent agent) {
        std::vector<std::string> out;
        for (const auto& row : hookEventRows(agent)) {
            out.push_back(std::string(row.event) +
                          (row.matcher ? ":" + std::string(*row.matcher) : ""));
        }
        return out;
    };
    const std::vector<std::string> common = {
        "SessionStart", "UserPromptSubmit", "PreToolUse",        "PostToolUse",
        "Stop",         "SessionEnd",       "PermissionRequest", "StopFailure"};
    auto withNotifications = common;
    withNotifications.push_back("Notification:permission_prompt");
    withNotifications.push_back("Notification:elicitation_dialog");
    EXPECT_EQ(names(HookAgent::kimi), common);
    EXPECT_EQ(names(HookAgent::claude), withNotifications);
    EXPECT_EQ(names(HookAgent::codex), withNotifications);
    withNotifications.push_back("Notification:idle_prompt");
    EXPECT_EQ(names(HookAgent::grok), withNotifications);
    EXPECT_EQ(names(HookAgent::cursor),
              (std::vector<std::string>{"sessionStart", "beforeSubmitPrompt", "preToolUse",
                                        "postToolUse", "stop", "sessionEnd"}));
    EXPECT_TRUE(hookEventRows(HookAgent::opencode).empty());
}

// Install into a fixture home, read the configuration back, run every written command through
// sh with the agent's payload, and check what lands in the live folder.
TEST(HookInstaller, WrittenCommandsWritePulsesForEachAgent) {
    for (const auto& c : kCommandAgents) {
        SCOPED_TRACE(std::string(rawValue(c.agent)));
        Fixture f;
        const auto installer = f.installer(true);
        ASSERT_TRUE(installer.install(c.agent).has_value());
        const auto hooks = writtenHooks(c.agent, f.home / c.config);
        ASSERT_EQ(hooks.size(), c.events);

        const std::string session = "5f1c-raw-session-" + std::string(rawValue(c.agent));
        const std::string cwd = f.home.string() + "/proj 'x' 项目";
        auto salt = readFile(installer.sessionSaltFile());
        salt = salt.substr(0, salt.find('\n'));  // the key is made from the salt's first line
        const auto key = sha256Hex(salt + "\n" + std::string(rawValue(c.agent)) + "\n" + session);
        const auto rows = hookEventRows(c.agent);
        for (std::size_t i = 0; i < hooks.size(); ++i) {
            SCOPED_TRACE(hooks[i].event);
            ASSERT_EQ(runShell(hooks[i].command, payload(c.agent, hooks[i].event, session, cwd)),
                      0);
            const auto files = pulseFiles(installer.liveDirectory());
            ASSERT_EQ(files.size(), 1u);  // one file per session, rewritten in place
            const auto text = readFile(files[0]);
            EXPECT_EQ(text.find(session), std::string::npos);  // the raw id never reaches disk
            const auto pulse = nlohmann::json::parse(text);
            EXPECT_EQ(pulse["source"], rawValue(c.agent));
            EXPECT_EQ(pulse["session_key"], key);
            EXPECT_EQ(pulse["state"], rows[i].state);
            EXPECT_EQ(pulse["cwd"], cwd);
            EXPECT_EQ(pulse["project"], "proj 'x' 项目");
            EXPECT_EQ(pulse["evidence"], "hook");
            EXPECT_EQ(pulse["precision"], "exact");
            const std::string extra(rows[i].extra.value_or(""));
            if (extra.starts_with("notice=")) {
                EXPECT_EQ(pulse.value("notice", ""), extra.substr(7));
            } else {
                EXPECT_FALSE(pulse.contains("notice"));
            }
            const bool hasPid = c.agent != HookAgent::claude && c.agent != HookAgent::grok;
            EXPECT_EQ(pulse.contains("pid"), hasPid);
            EXPECT_LE(pulse["started_at"].get<double>(), pulse["at"].get<double>());
        }

        // The gate silences the hook without touching the configuration.
        installer.deauthorize(c.agent);
        fs::remove_all(installer.liveDirectory());
        ASSERT_EQ(runShell(hooks[0].command, payload(c.agent, hooks[0].event, session, cwd)), 0);
        EXPECT_TRUE(pulseFiles(installer.liveDirectory()).empty());
    }
}

TEST(HookInstaller, WithoutProjectCaptureNoCommandAsksForIt) {
    Fixture f;
    ASSERT_TRUE(f.installer(false).install(HookAgent::claude).has_value());
    for (const auto& hook : writtenHooks(HookAgent::claude, f.home / ".claude/settings.json")) {
        EXPECT_EQ(hook.command.find("KS_CAPTURE_PROJECT"), std::string::npos);
    }
}

// The user's own configuration for each agent, with hooks of theirs on the events we use.
std::string userConfig(HookAgent agent) {
    switch (agent) {
        case HookAgent::kimi:
            return "# my settings\ndefault_model = \"k2\"\n\n[[hooks]]\nevent = \"Stop\"\n"
                   "command = \"notify-send done\"\ntimeout = 5\n\n[loop_control]\nmax_steps = "
                   "80\n";
        case HookAgent::cursor:
            return R"({"hooks": {"stop": [{"command": "./audit.sh"}]}, "zeta": true, "alpha": [1, 2]})";
        default:
            return R"j({"model": "opus", "hooks": {"Stop": [{"hooks": [{"type": "command", "command": "say done"}]}]},
                      "permissions": {"allow": ["Bash(ls)"]}, "aaa": 1})j";
    }
}

TEST(HookInstaller, InstallTwiceThenUninstallGivesTheUserTheirFileBack) {
    for (const auto& c : kCommandAgents) {
        if (c.agent == HookAgent::grok) {
            continue;  // its file is ours alone
        }
        SCOPED_TRACE(std::string(rawValue(c.agent)));
        Fixture f;
        const auto config = f.home / c.config;
        const auto original = userConfig(c.agent);
        writeFile(config, original);
        ::chmod(config.c_str(), 0640);
        const std::string codexToml = "model = \"gpt-5\"\n[profiles.fast]\nmodel = \"mini\"\n";
        if (c.agent == HookAgent::codex) {
            writeFile(f.home / ".codex/config.toml", codexToml);
        }
        const auto installer = f.installer();
        const auto first = installer.install(c.agent);
        ASSERT_TRUE(first.has_value());
        ASSERT_FALSE(first->files.empty());
        ASSERT_TRUE(first->files[0].backup.has_value());
        EXPECT_EQ(readFile(*first->files[0].backup), original);
        const auto once = readFile(config);
        ASSERT_TRUE(installer.install(c.agent).has_value());
        EXPECT_EQ(readFile(config), once);
        EXPECT_EQ(writtenHooks(c.agent, config).size(), c.events);  // one group per event
        EXPECT_EQ(readFile(*first->files[0].backup), original);     // the first original stays

        struct stat st {};
        ::stat(config.c_str(), &st);
        EXPECT_EQ(st.st_mode & 0777, 0640u);
        if (c.agent == HookAgent::codex) {
            EXPECT_EQ(
                toml::parse_file((f.home / ".codex/config.toml").string())["features"]["hooks"]
                    .value<bool>(),
                true);
        }
        if (c.agent != HookAgent::kimi) {
            const Json root = Json::parse(readFile(config));
            EXPECT_TRUE(root.contains("aaa") || root.contains("zeta"));
        }
        ASSERT_TRUE(installer.uninstall(c.agent).has_value());
        if (c.agent == HookAgent::kimi) {
            EXPECT_EQ(readFile(config), original);
        } else {
            // Same value, keys in the user's order.
            EXPECT_EQ(Json::parse(readFile(config)), Json::parse(original));
            EXPECT_EQ(Json::parse(readFile(config)).dump(), Json::parse(original).dump());
        }
        if (c.agent == HookAgent::codex) {
            EXPECT_EQ(readFile(f.home / ".codex/config.toml"), codexToml);
        }
        EXPECT_FALSE(fs::exists(installer.authorizationURL(c.agent)));
    }
}

TEST(HookInstaller, UninstallRemovesFilesThatOnlyInstallCreated) {
    for (const auto& c : kCommandAgents) {
        SCOPED_TRACE(std::string(rawValue(c.agent)));
        Fixture f;
        const auto installer = f.installer();
        ASSERT_TRUE(installer.install(c.agent).has_value());
        EXPECT_TRUE(installer.status(c.agent).value());
        ASSERT_TRUE(installer.uninstall(c.agent).has_value());
        for (const auto& path : installer.configFiles(c.agent)) {
            EXPECT_FALSE(fs::exists(path)) << path;
        }
        EXPECT_FALSE(installer.status(c.agent).value());
    }
}

TEST(HookInstaller, CodexFeatureSwitchIsAddedOnlyWhereMissingAndTakenBack) {
    struct Case {
        std::string original;
        bool added;  // whether install had to switch the feature on
    };
    const std::vector<Case> cases = {
        {"", true},
        {"model = \"gpt-5\"", true},
        {"[features]\nweb_search = true\n\n[tui]\ntheme = \"dark\"\n", true},
        {"[features]\nhooks = true\n", false},
        {"[features]\nhooks = false # not now\n", false},  // the user's choice stands
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.original);
        Fixture f;
        const auto config = f.home / ".codex/config.toml";
        writeFile(config, c.original);
        const auto installer = f.installer();
        ASSERT_TRUE(installer.install(HookAgent::codex).has_value());
        const auto after = readFile(config);
        EXPECT_EQ(after != c.original, c.added);
        if (c.added) {
            EXPECT_EQ(toml::parse(after)["features"]["hooks"].value<bool>(), true);
            const auto before = toml::parse(c.original);
            if (auto theme = before["tui"]["theme"].value<std::string>()) {
                EXPECT_EQ(toml::parse(after)["tui"]["theme"].value<std::string>(), theme);
            }
        }
        ASSERT_TRUE(installer.uninstall(HookAgent::codex).has_value());
        EXPECT_EQ(readFile(config), c.original);
    }
}

TEST(HookInstaller, KimiKeepsUserTablesBetweenOurs) {
    Fixture f;
    const auto config = f.home / ".kimi-code/config.toml";
    writeFile(config, "a = 1");  // no final newline
    const auto installer = f.installer();
    ASSERT_TRUE(installer.install(HookAgent::kimi).has_value());
    std::ofstream(config, std::ios::app) << "\n[[hooks]]\nevent = \"Stop\"\ncommand = \"mine\"\n";
    ASSERT_TRUE(installer.install(HookAgent::kimi).has_value());
    EXPECT_EQ(writtenHooks(HookAgent::kimi, config).size(), 8u);
    ASSERT_TRUE(installer.uninstall(HookAgent::kimi).has_value());
    EXPECT_EQ(readFile(config), "a = 1\n[[hooks]]\nevent = \"Stop\"\ncommand = \"mine\"\n");
}

TEST(HookInstaller, SymlinkedConfigIsEditedAtItsTargetAndStaysALink) {
    Fixture f;
    const auto target = f.dir / "dotfiles" / "claude settings.json";
    writeFile(target, R"({"theme": "dark"})");
    fs::create_directories(f.home / ".claude");
    const auto link = f.home / ".claude/settings.json";
    fs::create_symlink("../../dotfiles/claude settings.json", link);
    const auto installer = f.installer();
    ASSERT_TRUE(installer.install(HookAgent::claude).has_value());
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(writtenHooks(HookAgent::claude, target).size(), 10u);
    ASSERT_TRUE(installer.uninstall(HookAgent::claude).has_value());
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(Json::parse(readFile(target)), Json::parse(R"({"theme": "dark"})"));
}

TEST(HookInstaller, ConfigThatDoesNotParseIsLeftUntouched) {
    struct Broken {
        HookAgent agent;
        std::string file;
        std::string text;
        bool parses;  // as the file's format, but not in the layout we know
    };
    const std::vector<Broken> cases = {
        {HookAgent::claude, ".claude/settings.json", "{\"hooks\": {,}", false},
        {HookAgent::cursor, ".cursor/hooks.json", "[1, 2]", false},
        {HookAgent::claude, ".claude/settings.json", R"({"hooks": ["not", "an", "object"]})", true},
        {HookAgent::kimi, ".kimi-code/config.toml", "[[hooks]\nevent = 1\n", false},
        // The JSON half is fine, the TOML half is not: neither is written.
        {HookAgent::codex, ".codex/config.toml", "model = \n", true},
    };
    for (const auto& b : cases) {
        SCOPED_TRACE(b.text);
        Fixture f;
        writeFile(f.home / b.file, b.text);
        const auto installer = f.installer();
        const auto result = installer.install(b.agent);
        ASSERT_FALSE(result.has_value());
        EXPECT_EQ(result.error().code, HookInstallErrorCode::configUnreadable);
        EXPECT_FALSE(result.error().detail.empty());
        EXPECT_EQ(readFile(f.home / b.file), b.text);
        EXPECT_FALSE(fs::exists(f.home / ".codex/hooks.json"));
        EXPECT_FALSE(fs::exists(installer.authorizationURL(b.agent)));
        EXPECT_EQ(installer.health(b.agent, {}, 0, 60).state,
                  b.parses ? HookHealthState::notConfigured : HookHealthState::failed);
    }
}

TEST(HookInstaller, HealthFollowsConfigurationAndPulses) {
    Fixture f;
    const auto installer = f.installer();
    EXPECT_EQ(installer.health(HookAgent::codex, {}, 1000, 60).state,
              HookHealthState::notConfigured);
    ASSERT_TRUE(installer.install(HookAgent::codex).has_value());
    const auto configured = installer.health(HookAgent::codex, {}, 1000, 60);
    EXPECT_EQ(configured.state, HookHealthState::configured);
    EXPECT_EQ(configured.trust, HookTrustState::unknown);
    const std::vector<HookPulseStamp> pulses = {
        {HookAgent::codex, 900}, {HookAgent::codex, 990}, {HookAgent::claude, 999}};
    const auto emitting = installer.health(HookAgent::codex, pulses, 1000, 60);
    EXPECT_EQ(emitting.state, HookHealthState::emitting);
    EXPECT_EQ(emitting.lastEmissionAt, 990);
    EXPECT_EQ(emitting.trust, HookTrustState::trusted);
    EXPECT_EQ(installer.health(HookAgent::codex, pulses, 1100, 60).state, HookHealthState::stale);
    // The same hooks with project capture on are another form: a repair re-writes them.
    const auto withProjects = f.installer(true);
    EXPECT_EQ(withProjects.health(HookAgent::codex, pulses, 1000, 60).state,
              HookHealthState::versionMismatch);
    const auto repaired = withProjects.repair();
    ASSERT_TRUE(repaired.has_value());
    ASSERT_EQ(repaired->size(), 1u);
    EXPECT_EQ(withProjects.health(HookAgent::codex, pulses, 1000, 60).state,
              HookHealthState::emitting);
    EXPECT_EQ(withProjects.repair()->size(), 0u);
}

TEST(HookInstaller, AnAgentThatWritesRecordsButNoPulsesHasNotTrustedTheHook) {
    Fixture f;
    const auto installer = f.installer();
    ASSERT_TRUE(installer.install(HookAgent::claude).has_value());
    const double now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    EXPECT_EQ(installer.health(HookAgent::claude, {}, now + 5, 1800).trust,
              HookTrustState::unknown);  // the agent has not run since

    const auto transcript = f.home / ".claude/projects/-w/s1.jsonl";
    writeFile(transcript, "{}\n");
    fs::last_write_time(transcript, fs::last_write_time(transcript) + std::chrono::seconds(2));
    const auto ran = installer.health(HookAgent::claude, {}, now + 5, 1800);
    EXPECT_EQ(ran.trust, HookTrustState::untrusted);
    EXPECT_EQ(ran.state, HookHealthState::configured);
    ASSERT_TRUE(ran.detail);

    const std::vector<HookPulseStamp> pulses = {{HookAgent::claude, now + 4}};
    EXPECT_EQ(installer.health(HookAgent::claude, pulses, now + 5, 1800).trust,
              HookTrustState::trusted);
    installer.deauthorize(HookAgent::claude);  // a closed gate explains the silence
    EXPECT_EQ(installer.health(HookAgent::claude, {}, now + 5, 1800).trust,
              HookTrustState::unknown);
}

TEST(HookInstaller, InstallAllSkipsAgentsWithoutTheirCli) {
    Fixture f;
    const auto bin = f.dir / "bin";
    writeFile(bin / "kimi", "#!/bin/sh\n");
    ::chmod((bin / "kimi").c_str(), 0755);
    writeFile(bin / "claude", "not executable");
    const HookInstaller installer(
        f.home, f.support, false, f.resources, [&](std::string_view name) {
            return name == "PATH" ? std::optional<std::string>("/nonexistent:" + bin.string())
                                  : std::nullopt;
        });
    const auto outcome = installer.installAll(false);
    ASSERT_EQ(outcome.installed.size(), 1u);
    EXPECT_EQ(outcome.installed[0].agent, HookAgent::kimi);
    EXPECT_EQ(outcome.skipped,
              (std::vector<HookAgent>{HookAgent::claude, HookAgent::codex, HookAgent::grok,
                                      HookAgent::opencode, HookAgent::cursor, HookAgent::pi,
                                      HookAgent::omp}));
    EXPECT_EQ(installer.installed(), std::set<HookAgent>{HookAgent::kimi});
}

TEST(HookInstaller, MissingHomeOrScriptWritesNothing) {
    TempDir dir;
    const HookInstaller noHome(dir / "gone", dir / "support", false,
                               fs::path(KESTREL_SOURCE_DIR) / "resources");
    EXPECT_EQ(noHome.install(HookAgent::claude).error().code,
              HookInstallErrorCode::homeUnavailable);
    fs::create_directories(dir / "home");
    const HookInstaller noScript(dir / "home", dir / "support", false, dir / "no resources");
    EXPECT_EQ(noScript.install(HookAgent::claude).error().code,
              HookInstallErrorCode::missingResource);
    EXPECT_FALSE(fs::exists(dir / "home/.claude"));
    EXPECT_EQ(noScript.install(HookAgent::opencode).error().code,
              HookInstallErrorCode::missingResource);
}

// The script on its own: odd payloads and missing pieces end in exit 0 and never a raw id.
TEST(HookScript, BadInputNeverFailsTheAgent) {
    Fixture f;
    const auto installer = f.installer();
    ASSERT_TRUE(installer.install(HookAgent::codex).has_value());
    const auto hooks = writtenHooks(HookAgent::codex, f.home / ".codex/hooks.json");
    const auto& command = hooks[0].command;
    EXPECT_EQ(runShell(command, ""), 0);
    EXPECT_EQ(runShell(command, "not json at all \x01\xff"), 0);
    EXPECT_EQ(runShell(command, std::string(300000, '{')), 0);
    // Without an id the process id names the session: one file for all three calls.
    EXPECT_EQ(pulseFiles(installer.liveDirectory()).size(), 1u);

    fs::remove(installer.sessionSaltFile());
    fs::remove_all(installer.liveDirectory());
    EXPECT_EQ(runShell(command, R"({"session_id":"s"})"), 0);
    EXPECT_TRUE(pulseFiles(installer.liveDirectory()).empty());
}

// The script needs nothing beyond POSIX sh and the tools busybox carries: run it with dash, and
// with busybox sh on a PATH of busybox's own applets only.
TEST(HookScript, RunsUnderDashAndBusybox) {
    Fixture f;
    const auto installer = f.installer();
    ASSERT_TRUE(installer.install(HookAgent::kimi).has_value());
    auto salt = readFile(installer.sessionSaltFile());
    salt = salt.substr(0, salt.find('\n'));
    const auto applets = f.dir / "busybox bin";
    fs::create_directories(applets);
    for (const char* tool :
         {"awk", "sed", "tr", "date", "mkdir", "mv", "rm", "find", "sha256sum"}) {
        fs::create_symlink("/usr/bin/busybox", applets / tool);
    }
    const std::vector<std::pair<std::string, std::string>> shells = {
        {"/usr/bin/dash", "/usr/bin:/bin"}, {"/usr/bin/busybox sh", applets.string()}};
    for (const auto& [shell, path] : shells) {
        SCOPED_TRACE(shell);
        if (!fs::exists(shell.substr(0, shell.find(' ')))) {
            ADD_FAILURE() << shell << " is missing (scripts/install-deps installs it)";
            continue;
        }
        fs::remove_all(installer.liveDirectory());
        const auto paths = installer.hookPaths(HookAgent::kimi);
        const std::string command =
            "PATH=" + shellQuote(path) + " KS_LIVE_DIR=" + shellQuote(paths.liveDir.string()) +
            " KS_SESSION_SALT_FILE=" + shellQuote(paths.salt.string()) +
            " KS_HOOK_GATE=" + shellQuote(paths.gate.string()) + " " + shell + " " +
            shellQuote(paths.script.string()) + " kimi awaiting 77 notice=permission";
        ASSERT_EQ(
            runShell(command,
                     R"({"hook_event_name":"PermissionRequest","session_id":"k-1","cwd":"/p"})"),
            0);
        const auto files = pulseFiles(installer.liveDirectory());
        ASSERT_EQ(files.size(), 1u);
        const auto pulse = nlohmann::json::parse(readFile(files[0]));
        EXPECT_EQ(pulse["session_key"], sha256Hex(salt + "\nkimi\nk-1"));
        EXPECT_EQ(pulse["state"], "awaiting");
        EXPECT_EQ(pulse["notice"], "permission");
        EXPECT_EQ(pulse["pid"], 77);
        EXPECT_FALSE(pulse.contains("cwd"));  // without project capture the folder stays out
    }
}

}  // namespace
}  // namespace kestrel
