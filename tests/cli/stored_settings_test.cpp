// Every command that writes the ledger reads the stored settings first: what `scan`, `watch`
// and the reports' own scan add follows the billing mode and the privacy choices the user saved
// with `kestrel settings set`, and so does the repricing after `prices set`.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "cli/cli.hpp"
#include "cli/watch_command.hpp"
#include "core/ledger/usage_store.hpp"
#include "tests/support/command_run.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using namespace std::chrono_literals;
using test_support::runKestrel;
using test_support::TempDir;

const char* const kTranscript = ".claude/projects/-w-app/s1.jsonl";

std::string claudeLine(const std::string& id) {
    return R"({"type":"assistant","sessionId":"s1","cwd":"/w/app","timestamp":"2026-03-02T10:00:00Z",)"
           R"("message":{"id":")" +
           id +
           R"(","model":"claude-sonnet-4-5-20250929","usage":{"input_tokens":1000,)"
           R"("output_tokens":500}}})"
           "\n";
}

// The ledger's events as `kestrel events --json` lists them.
nlohmann::json ledgerEntries(const TempDir& home, const TempDir& support) {
    const auto o = runKestrel({"events", "--no-scan", "--json"}, home.path(), support.path());
    EXPECT_EQ(o.code, cli::kExitOK) << o.err;
    return nlohmann::json::parse(o.out)["entries"];
}

bool ledgerReaches(const TempDir& support, int64_t count) {
    const auto until = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < until) {
        if (UsageStore(support.path()).ledgerEventCount() >= count) {
            return true;
        }
        std::this_thread::sleep_for(20ms);
    }
    return false;
}

// The three ways usage reaches the ledger; each leaves two events of one session in it.
using Writer = std::function<void(const TempDir& home, const TempDir& support)>;

void scanCommand(const TempDir& home, const TempDir& support) {
    home.append(kTranscript, claudeLine("m2"));
    const auto o = runKestrel({"scan"}, home.path(), support.path());
    ASSERT_EQ(o.code, cli::kExitOK) << o.err;
}

void reportPreScan(const TempDir& home, const TempDir& support) {
    home.append(kTranscript, claudeLine("m2"));
    const auto o = runKestrel({"daily", "--json"}, home.path(), support.path());
    ASSERT_EQ(o.code, cli::kExitOK) << o.err;
}

// The first event comes with the watch's first scan, the second with a change it follows.
void watchCommand(const TempDir& home, const TempDir& support) {
    std::ostringstream out, err;
    cli::CommandContext ctx{out, err};
    ctx.home = home.path();
    ctx.supportDir = support.path();
    ctx.env = emptyEnvironment();
    std::stop_source stopper;
    std::promise<void> ready;
    auto isReady = ready.get_future();
    int code = -1;
    std::thread runner([&] {
        code = cli::runWatch(ctx, {}, false, stopper.get_token(), [&] { ready.set_value(); });
    });
    ASSERT_EQ(isReady.wait_for(20s), std::future_status::ready) << err.str();
    home.append(kTranscript, claudeLine("m2"));
    const bool reached = ledgerReaches(support, 2);
    stopper.request_stop();
    runner.join();
    ASSERT_TRUE(reached) << out.str() << err.str();
    EXPECT_EQ(code, cli::kExitOK) << err.str();
}

TEST(StoredSettings, EveryWritingCommandFollowsTheBillingModeAndPrivacyChoices) {
    const struct {
        const char* name;
        Writer write;
    } writers[] = {{"scan", scanCommand}, {"report", reportPreScan}, {"watch", watchCommand}};
    const struct {
        const char* field;  // nullptr: the defaults, which keep everything and price in dollars
        const char* value;
        bool projects, sessions, priced;
    } settings[] = {
        {nullptr, nullptr, true, true, true},
        {"billingMode", "localZero", true, true, false},
        {"storeProject", "false", false, true, true},
        {"storeSession", "false", true, false, true},
    };
    for (const auto& writer : writers) {
        for (const auto& s : settings) {
            SCOPED_TRACE(std::string(writer.name) + " with " + (s.field ? s.field : "defaults"));
            TempDir home, support;
            home.write(kTranscript, claudeLine("m1"));
            if (s.field) {
                const auto set =
                    runKestrel({"settings", "set", s.field, s.value}, home.path(), support.path());
                ASSERT_EQ(set.code, cli::kExitOK) << set.err;
            }
            writer.write(home, support);
            const auto entries = ledgerEntries(home, support);
            ASSERT_EQ(entries.size(), 2u);
            for (const auto& e : entries) {
                EXPECT_EQ(!e["project"].is_null(), s.projects) << e.dump();
                EXPECT_EQ(!e["sessionKey"].is_null(), s.sessions) << e.dump();
                EXPECT_EQ(e["costUSDMicros"].get<int64_t>() > 0, s.priced) << e.dump();
            }
        }
    }
}

TEST(StoredSettings, APriceOverrideRepricesUnderTheStoredBillingMode) {
    TempDir home, support;
    home.write(kTranscript, claudeLine("m1"));
    ASSERT_EQ(runKestrel({"scan"}, home.path(), support.path()).code, cli::kExitOK);
    ASSERT_GT(ledgerEntries(home, support)[0]["costUSDMicros"].get<int64_t>(), 0);

    const auto local =
        runKestrel({"settings", "set", "billingMode", "localZero"}, home.path(), support.path());
    ASSERT_EQ(local.code, cli::kExitOK) << local.err;
    EXPECT_NE(local.out.find("repriced: 1 stored"), std::string::npos) << local.out;
    EXPECT_EQ(ledgerEntries(home, support)[0]["costUSDMicros"], 0);

    // A new price moves the fingerprint; the ledger is priced again, still as a local model, so
    // no cost changes.
    const auto set = runKestrel({"prices", "set", "claude-sonnet-4-5", "--input", "30", "--output",
                                 "60"},
                                home.path(), support.path());
    ASSERT_EQ(set.code, cli::kExitOK) << set.err;
    EXPECT_NE(set.out.find("Repriced 0 stored observations"), std::string::npos) << set.out;
    EXPECT_EQ(ledgerEntries(home, support)[0]["costUSDMicros"], 0);

    // Back to API prices: the override's rates apply (1000 × $30 + 500 × $60 per million).
    ASSERT_EQ(runKestrel({"settings", "set", "billingMode", "apiEquivalent"}, home.path(),
                         support.path())
                  .code,
              cli::kExitOK);
    EXPECT_EQ(ledgerEntries(home, support)[0]["costUSDMicros"], 60'000);
}

}  // namespace
}  // namespace kestrel
