// `kestrel live`: hooks installed into a fixture home, every written command run through sh with
// the agent's own payload, and what `kestrel live` makes of the pulses.
#include "cli/live_command.hpp"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <toml++/toml.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "cli/cli.hpp"
#include "core/integrations/live_agent_hub.hpp"
#include "core/model/timestamp.hpp"
#include "tests/support/command_run.hpp"
#include "tests/support/file_text.hpp"
#include "tests/support/shell_run.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using test_support::readFile;
using test_support::runKestrel;
using test_support::runShell;
using test_support::TempDir;

// event name -> the command of ours written for it (Notification rows left out: they depend on
// a matcher the agent applies, not on the event alone).
std::map<std::string, std::string> ourCommands(const std::string& agent, const fs::path& config) {
    std::map<std::string, std::string> out;
    auto keep = [&](const std::string& event, const std::string& command) {
        if (command.find("ks-hook.") != std::string::npos && event != "Notification") {
            out[event] = command;
        }
    };
    if (agent == "kimi") {
        const auto table = toml::parse_file(config.string());
        for (const auto& node : *table["hooks"].as_array()) {
            const auto& t = *node.as_table();
            keep(t["event"].value<std::string>().value_or(""),
                 t["command"].value<std::string>().value_or(""));
        }
        return out;
    }
    const Json root = Json::parse(readFile(config));
    for (const auto& [event, list] : root["hooks"].items()) {
        for (const auto& group : list) {
            if (group.contains("command")) {
                keep(event, group["command"]);
            }
            for (const auto& hook : group.value("hooks", Json::array())) {
                keep(event, hook["command"]);
            }
        }
    }
    return out;
}

std::string payload(const std::string& agent, const std::string& event, const std::string& session,
                    const std::string& cwd) {
    if (agent == "cursor") {
        return Json{{"conversation_id", session},
                    {"hook_event_name", event},
                    {"workspace_roots", Json::array({cwd})}}
            .dump();
    }
    return Json{{"session_id", session},
                {"hook_event_name", event},
                {"cwd", cwd},
                {"transcript_path", cwd + "/t.jsonl"}}
        .dump();
}

struct Step {
    std::string event;
    std::string state;  // of the session in `kestrel live --json` after the event
};

struct AgentRun {
    std::string agent;
    std::string config;
    std::vector<Step> steps;
};

const std::vector<Step> kClaudeStyle = {
    {"SessionStart", "completed"}, {"UserPromptSubmit", "working"},
    {"PreToolUse", "working"},     {"PermissionRequest", "waitingForUser"},
    {"PostToolUse", "working"},    {"Stop", "completed"}};

const std::vector<AgentRun> kAgents = {
    {"claude", ".claude/settings.json", kClaudeStyle},
    {"codex", ".codex/hooks.json", kClaudeStyle},
    {"grok", ".grok/hooks/kestrel.json", kClaudeStyle},
    {"kimi", ".kimi-code/config.toml", kClaudeStyle},
    {"cursor",
     ".cursor/hooks.json",
     {{"sessionStart", "completed"},
      {"beforeSubmitPrompt", "working"},
      {"preToolUse", "working"},
      {"postToolUse", "working"},
      {"stop", "completed"}}},
};

Json liveJSON(const fs::path& home, const fs::path& support) {
    const auto live = runKestrel({"live", "--json"}, home, support);
    EXPECT_EQ(live.code, cli::kExitOK) << live.err;
    return Json::parse(live.out);
}

const Json* sessionOf(const Json& live, const std::string& agent) {
    for (const auto& s : live["sessions"]) {
        if (s["agent"] == agent) {
            return &s;
        }
    }
    return nullptr;
}

TEST(LiveCommand, HookedAgentsShowInLiveWithTheStateOfTheirLastEvent) {
    for (const auto& a : kAgents) {
        SCOPED_TRACE(a.agent);
        TempDir dir;
        const auto home = dir / "home dir";
        const auto support = dir / "support 'k'";
        const std::string cwd = (home / "work/my project").string();
        fs::create_directories(cwd);
        ASSERT_EQ(runKestrel({"hooks", "install", a.agent}, home, support).code, cli::kExitOK);
        const auto commands = ourCommands(a.agent, home / a.config);
        const auto salt = LiveAgentHub::loadSessionSalt(support);
        ASSERT_TRUE(salt);
        const std::string raw = "raw-" + a.agent + "-9d1e";
        const auto source = *fromRawValue<AgentSource>(a.agent);

        for (const auto& step : a.steps) {
            SCOPED_TRACE(step.event);
            ASSERT_TRUE(commands.contains(step.event));
            ASSERT_EQ(runShell(commands.at(step.event), payload(a.agent, step.event, raw, cwd)), 0);
            const auto live = liveJSON(home, support);
            const auto* s = sessionOf(live, a.agent);
            ASSERT_TRUE(s) << live.dump();
            EXPECT_EQ((*s)["state"], step.state);
            EXPECT_EQ((*s)["sessionKey"], LiveAgentHub::sessionKey(raw, source, *salt));
            EXPECT_EQ((*s)["project"], "my project");
            EXPECT_EQ((*s)["precision"], "exact");
            EXPECT_EQ(live["processing"].size(), step.state == "working" ? 1u : 0u);
        }

        // The table says the same in words.
        const auto table = runKestrel({"live"}, home, support);
        EXPECT_NE(table.out.find("finished"), std::string::npos) << table.out;
        EXPECT_NE(table.out.find("my project"), std::string::npos) << table.out;

        // Gate removed: the agent's configuration is untouched but nothing new is reported.
        fs::remove(support / "hooks/enabled" / a.agent);
        ASSERT_EQ(runShell(commands.at(a.steps[1].event),
                           payload(a.agent, a.steps[1].event, "raw-other", cwd)),
                  0);
        const auto after = liveJSON(home, support);
        ASSERT_EQ(after["sessions"].size(), 1u) << after.dump();
        EXPECT_EQ(after["sessions"][0]["state"], "completed");
    }
}

TEST(LiveCommand, WithoutStoreProjectNeitherRawIdsNorProjectNamesReachDisk) {
    TempDir dir;
    const auto home = dir / "home";
    const auto support = dir / "support";
    const std::string cwd = (home / "zebra-secret-project").string();
    fs::create_directories(cwd);
    ASSERT_EQ(runKestrel({"settings", "set", "storeProject", "false"}, home, support).code,
              cli::kExitOK);
    ASSERT_EQ(runKestrel({"hooks", "install", "claude"}, home, support).code, cli::kExitOK);
    const auto commands = ourCommands("claude", home / ".claude/settings.json");
    const std::string raw = "quokka-raw-session-77";
    for (const auto& step : kClaudeStyle) {
        ASSERT_EQ(runShell(commands.at(step.event), payload("claude", step.event, raw, cwd)), 0);
    }
    const auto live = runKestrel({"live", "--json"}, home, support);
    ASSERT_EQ(live.code, cli::kExitOK);
    const auto doc = Json::parse(live.out);
    ASSERT_EQ(doc["sessions"].size(), 1u);
    EXPECT_FALSE(doc["sessions"][0].contains("project"));
    EXPECT_EQ(live.out.find("zebra"), std::string::npos);
    const auto table = runKestrel({"live"}, home, support);
    EXPECT_EQ(table.out.find("Project"), std::string::npos) << table.out;

    for (const auto& entry : fs::recursive_directory_iterator(support)) {
        if (!entry.is_regular_file()) {
            continue;
        }
        const auto bytes = readFile(entry.path());
        EXPECT_EQ(bytes.find(raw), std::string::npos) << entry.path();
        EXPECT_EQ(bytes.find("zebra-secret"), std::string::npos) << entry.path();
    }
}

// Rewrites one field of every pulse file, as if the hook had written it at another time.
void redate(const fs::path& live, const std::string& field, double value) {
    for (const auto& entry : fs::directory_iterator(live)) {
        auto j = Json::parse(readFile(entry.path()));
        j[field] = static_cast<int64_t>(value);
        std::ofstream(entry.path()) << j.dump();
    }
}

TEST(LiveCommand, SessionsAgeOutAndSilencedHooksAddNothing) {
    TempDir dir;
    const auto home = dir / "home";
    const auto support = dir / "support";
    fs::create_directories(home);
    ASSERT_EQ(runKestrel({"hooks", "install", "codex"}, home, support).code, cli::kExitOK);
    const auto commands = ourCommands("codex", home / ".codex/hooks.json");
    const auto live = support / "live";
    struct Case {
        std::string lastEvent;
        double age;  // seconds since the last pulse
        bool listed;
    };
    const std::vector<Case> cases = {
        {"PreToolUse", 60, true},
        {"PreToolUse", 25 * 60, true},
        {"PreToolUse", 40 * 60, false},
        {"Stop", 5 * 60, true},
        {"Stop", 12 * 60, false},
        {"PermissionRequest", 20 * 60, true},
        {"PermissionRequest", 3 * 3600, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.lastEvent + " " + std::to_string(c.age));
        fs::remove_all(live);
        ASSERT_EQ(runShell(commands.at("UserPromptSubmit"),
                           payload("codex", "UserPromptSubmit", "s", "/w")),
                  0);
        ASSERT_EQ(runShell(commands.at(c.lastEvent), payload("codex", c.lastEvent, "s", "/w")), 0);
        redate(live, "at", epochNow() - c.age);
        redate(live, "started_at", epochNow() - c.age - 10);
        EXPECT_EQ(liveJSON(home, support)["sessions"].size(), c.listed ? 1u : 0u);
    }
}

TEST(LiveCommand, AgentsWithoutHooksShowAsInferredWhileTheirFilesChange) {
    TempDir dir;
    const auto home = dir / "home";
    const auto support = dir / "support";
    const auto transcript = home / ".claude/projects/-w-app/3b7e.jsonl";
    fs::create_directories(transcript.parent_path());
    std::ofstream(transcript) << "{}\n";
    const auto old = home / ".codex/sessions/2026/01/01/rollout-old.jsonl";
    fs::create_directories(old.parent_path());
    std::ofstream(old) << "{}\n";
    fs::last_write_time(old, fs::last_write_time(old) - std::chrono::hours(3));

    const auto live = liveJSON(home, support);
    ASSERT_EQ(live["sessions"].size(), 1u) << live.dump();
    const auto& s = live["sessions"][0];
    EXPECT_EQ(s["agent"], "claude");
    EXPECT_EQ(s["state"], "inferredWorking");
    EXPECT_EQ(s["precision"], "inferred");
    EXPECT_EQ(s["evidence"], Json::array({"filesystem"}));
    EXPECT_EQ(live.dump().find("3b7e"), std::string::npos);  // the file name stays out
    EXPECT_TRUE(live["processing"].empty());  // only hooks say an agent is processing

    // Once Claude's hook speaks, it alone tells about Claude.
    ASSERT_EQ(runKestrel({"hooks", "install", "claude"}, home, support).code, cli::kExitOK);
    const auto commands = ourCommands("claude", home / ".claude/settings.json");
    ASSERT_EQ(runShell(commands.at("UserPromptSubmit"),
                       payload("claude", "UserPromptSubmit", "c-1", (home / "w").string())),
              0);
    const auto hooked = liveJSON(home, support);
    ASSERT_EQ(hooked["sessions"].size(), 1u) << hooked.dump();
    EXPECT_EQ(hooked["sessions"][0]["precision"], "exact");
    EXPECT_EQ(hooked["sessions"][0]["state"], "working");
}

// `kestrel live --follow --json` in this process, stopped through its stop token.
TEST(LiveCommand, FollowPrintsOneApprovalAndOneFinishedNoticePerRun) {
    TempDir dir;
    const auto home = dir / "home";
    const auto support = dir / "support";
    const std::string cwd = (home / "app").string();
    fs::create_directories(cwd);
    ASSERT_EQ(runKestrel({"hooks", "install", "claude"}, home, support).code, cli::kExitOK);
    const auto commands = ourCommands("claude", home / ".claude/settings.json");

    std::ostringstream out, err;
    cli::CommandContext ctx{out, err};
    ctx.home = home;
    ctx.supportDir = support;
    ctx.env = emptyEnvironment();
    std::stop_source stop;
    std::atomic<bool> ready{false};
    int code = -1;
    std::thread follower(
        [&] { code = cli::runLiveFollow(ctx, {}, true, stop.get_token(), [&] { ready = true; }); });
    while (!ready && code == -1) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(ready) << err.str();

    auto run = [&](const std::string& event) {
        ASSERT_EQ(runShell(commands.at(event), payload("claude", event, "f-1", cwd)), 0);
        // Slower than the follower's polling, so that it sees every step.
        std::this_thread::sleep_for(std::chrono::milliseconds(700));
    };
    run("UserPromptSubmit");
    // The run began a minute ago: long enough to be worth a "finished" notice.
    redate(support / "live", "started_at", epochNow() - 60);
    for (const char* event :
         {"PreToolUse", "PermissionRequest", "PostToolUse", "Stop", "SessionEnd"}) {
        run(event);
    }
    stop.request_stop();
    follower.join();
    EXPECT_EQ(code, cli::kExitOK) << err.str();

    std::vector<std::string> kinds;
    std::istringstream lines(out.str());
    for (std::string line; std::getline(lines, line);) {
        const auto j = Json::parse(line);
        kinds.push_back(j["kind"]);
        EXPECT_EQ(j["agent"], "claude");
        EXPECT_EQ(j["project"], "app");
        EXPECT_FALSE(j["message"].get<std::string>().empty());
    }
    EXPECT_EQ(kinds, (std::vector<std::string>{"needsApproval", "completed"})) << out.str();
}

TEST(LiveCommand, FollowStopsWithStatusZeroOnSigtermAndSigint) {
    for (int signal : {SIGTERM, SIGINT}) {
        TempDir dir;
        fs::create_directories(dir / "home");
        int fds[2];
        ASSERT_EQ(::pipe(fds), 0);
        const pid_t child = ::fork();
        ASSERT_NE(child, -1);
        if (child == 0) {
            ::close(fds[0]);
            ::dup2(fds[1], STDERR_FILENO);
            std::ostringstream out;
            const int code =
                cli::run({"live", "--follow", "--json", "--lang", "en", "--home",
                          (dir / "home").string(), "--support-dir", (dir / "support").string()},
                         out, std::cerr);
            std::cerr.flush();
            ::_exit(code);
        }
        ::close(fds[1]);
        // Wait for the line that says it follows.
        std::string said;
        char buffer[256];
        while (said.find("Ctrl-C") == std::string::npos) {
            const auto n = ::read(fds[0], buffer, sizeof buffer);
            if (n <= 0) {
                break;
            }
            said.append(buffer, static_cast<std::size_t>(n));
        }
        ::kill(child, signal);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ::close(fds[0]);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << strsignal(signal) << ": " << status << " " << said;
    }
}

}  // namespace
}  // namespace kestrel
