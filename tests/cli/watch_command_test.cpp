#include "cli/watch_command.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "cli/cli.hpp"
#include "core/ledger/usage_store.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using namespace std::chrono_literals;
using test_support::TempDir;

std::string claudeLine(const std::string& id) {
    return R"({"type":"assistant","sessionId":"s","timestamp":"2026-03-02T10:00:00Z",)"
           R"("message":{"id":")" +
           id +
           R"(","model":"claude-sonnet-4-5-20250929","usage":{"input_tokens":10,)"
           R"("output_tokens":5}}})"
           "\n";
}

std::string codexLine(const std::string& ts, const std::string& type,
                      const nlohmann::json& payload) {
    return nlohmann::json{{"timestamp", ts}, {"type", type}, {"payload", payload}}.dump() + "\n";
}

std::string codexReport(const std::string& ts, int64_t input) {
    const nlohmann::json usage{{"input_tokens", input},
                               {"cached_input_tokens", 0},
                               {"output_tokens", 1},
                               {"reasoning_output_tokens", 0},
                               {"total_tokens", input + 1}};
    return codexLine(ts, "event_msg",
                     {{"type", "token_count"}, {"info", {{"total_token_usage", usage}}}});
}

// `kestrel watch` on a thread of its own, stopped the way Ctrl-C stops it.
class WatchCommandTest : public ::testing::Test {
  protected:
    void start(bool json = false) {
        ctx.home = home.path();
        ctx.supportDir = support.path();
        ctx.env = emptyEnvironment();
        std::promise<void> ready;
        auto isReady = ready.get_future();
        runner = std::thread([this, json, promise = std::move(ready)]() mutable {
            exitCode =
                cli::runWatch(ctx, {}, json, stopper.get_token(), [&] { promise.set_value(); });
        });
        ASSERT_EQ(isReady.wait_for(20s), std::future_status::ready) << err.str();
    }

    int stop() {
        stopper.request_stop();
        runner.join();
        return exitCode;
    }

    // Waits until the ledger holds `count` events or the time is up.
    bool ledgerReaches(int64_t count, std::chrono::milliseconds limit = 5s) {
        const auto until = std::chrono::steady_clock::now() + limit;
        for (;;) {
            UsageStore store(support.path());
            if (store.ledgerEventCount({}) >= count) {
                return true;
            }
            if (std::chrono::steady_clock::now() > until) {
                return false;
            }
            std::this_thread::sleep_for(20ms);
        }
    }

    TempDir home, support;
    std::ostringstream out, err;
    cli::CommandContext ctx{out, err};
    std::stop_source stopper;
    std::thread runner;
    int exitCode = -1;
};

TEST_F(WatchCommandTest, CommitsWhatAgentsWriteAndPrintsOneLinePerCommit) {
    home.write(".claude/projects/p/a.jsonl", claudeLine("m1"));
    const std::string rollout =
        ".codex/sessions/2026/03/02/rollout-2026-03-02T10-00-00-0198c1a2-1111-7222-8333-"
        "444455556666.jsonl";
    home.write(rollout, codexLine("2026-03-02T10:00:00Z", "session_meta",
                                  {{"id", "0198c1a2-1111-7222-8333-444455556666"}}) +
                            codexReport("2026-03-02T10:00:05Z", 100));
    start();
    EXPECT_TRUE(ledgerReaches(2)) << "the first scan commits what is there";

    const auto started = std::chrono::steady_clock::now();
    home.append(".claude/projects/p/a.jsonl", claudeLine("m2"));
    ASSERT_TRUE(ledgerReaches(3)) << out.str() << err.str();
    EXPECT_LT(std::chrono::steady_clock::now() - started, 3s);

    // A project folder made after the start, and the next report of a running Codex session.
    home.write(".claude/projects/new/b.jsonl", claudeLine("m3"));
    home.append(rollout, codexReport("2026-03-02T10:01:00Z", 250));
    ASSERT_TRUE(ledgerReaches(5)) << out.str() << err.str();

    EXPECT_EQ(stop(), cli::kExitOK) << err.str();
    const auto text = out.str();
    EXPECT_NE(text.find("Watching"), std::string::npos) << text;
    EXPECT_NE(text.find("Claude Code  +1 event  today"), std::string::npos) << text;
    EXPECT_NE(text.find("Codex  +1 event  today"), std::string::npos) << text;

    // Stopped cleanly: the ledger opens and holds each usage once.
    UsageStore store(support.path());
    EXPECT_EQ(store.ledgerEventCount({}), 5);
}

TEST_F(WatchCommandTest, AnAgentFolderThatAppearsLaterIsFollowed) {
    std::filesystem::create_directories(home / ".claude/projects");
    start();
    home.write(
        ".codex/sessions/2026/03/02/rollout-2026-03-02T11-00-00-0198c1a2-2222-7222-8333-"
        "444455556666.jsonl",
        codexLine("2026-03-02T11:00:00Z", "session_meta",
                  {{"id", "0198c1a2-2222-7222-8333-444455556666"}}) +
            codexReport("2026-03-02T11:00:05Z", 100));
    EXPECT_TRUE(ledgerReaches(1)) << out.str() << err.str();
    EXPECT_EQ(stop(), cli::kExitOK);
}

// An agent that rewrites a transcript (compaction) makes it be read from its start again; the
// line printed counts what the ledger gained, not what was read.
TEST_F(WatchCommandTest, ARewrittenFileCountsOnlyItsNewUsage) {
    home.write(".claude/projects/p/a.jsonl", claudeLine("m1") + claudeLine("m2"));
    start();
    ASSERT_TRUE(ledgerReaches(2));
    std::filesystem::remove(home / ".claude/projects/p/a.jsonl");
    home.write(".claude/projects/p/a.jsonl",
               claudeLine("m1") + claudeLine("m2") + claudeLine("m3"));
    ASSERT_TRUE(ledgerReaches(3)) << out.str() << err.str();
    EXPECT_EQ(stop(), cli::kExitOK);
    EXPECT_NE(out.str().find("Claude Code  +1 event  today"), std::string::npos) << out.str();
    EXPECT_EQ(out.str().find("+3 events"), std::string::npos) << out.str();
}

TEST_F(WatchCommandTest, JsonOutputIsOneObjectPerCommit) {
    home.write(".claude/projects/p/a.jsonl", claudeLine("m1"));
    start(true);
    home.append(".claude/projects/p/a.jsonl", claudeLine("m2"));
    ASSERT_TRUE(ledgerReaches(2)) << err.str();
    EXPECT_EQ(stop(), cli::kExitOK);
    std::istringstream lines(out.str());
    std::string text;
    int commits = 0;
    while (std::getline(lines, text)) {
        const auto j = nlohmann::json::parse(text);  // throws on anything that is not JSON
        EXPECT_EQ(j["source"], "claude");
        commits += j["events"].get<int>();
    }
    EXPECT_EQ(commits, 2);  // the first scan's and the watcher's
    EXPECT_NE(err.str().find("Watching"), std::string::npos);
}

TEST_F(WatchCommandTest, AnUnknownSourceIsAUsageError) {
    ctx.home = home.path();
    ctx.supportDir = support.path();
    cli::WatchOptions options;
    options.sources = {"nope"};
    EXPECT_EQ(cli::runWatch(ctx, options, false, stopper.get_token()), cli::kExitUsage);
    EXPECT_NE(err.str().find("unknown source \"nope\""), std::string::npos) << err.str();
}

}  // namespace
}  // namespace kestrel
