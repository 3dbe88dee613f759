// The desktop app's use of the application layer, played without a window: one long-lived
// session, scans on a worker thread while the views read the ledger, settings changed while it
// runs, and a watch driven by an event loop rather than a blocking call.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fmt/format.h>
#include <mutex>
#include <thread>

#include "core/app/app_session.hpp"
#include "core/app/group_reports.hpp"
#include "core/app/usage_overview.hpp"
#include "core/app/usage_scan.hpp"
#include "core/app/usage_watch.hpp"
#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using namespace std::chrono_literals;
using test_support::TempDir;

std::string claudeLine(const std::string& id, const std::string& session = "s1") {
    return fmt::format(
        R"({{"type":"assistant","sessionId":"{}","cwd":"/w/app","timestamp":"2026-03-02T10:00:00Z",)"
        R"("message":{{"id":"{}","model":"claude-sonnet-4-5-20250929","usage":{{"input_tokens":100,)"
        R"("output_tokens":50}}}}}})"
        "\n",
        session, id);
}

class AppRoleTest : public ::testing::Test {
  protected:
    std::unique_ptr<AppSession> open() {
        auto session = AppSession::open({home.path(), support.path(), emptyEnvironment()});
        EXPECT_TRUE(session.has_value()) << session.error().message;
        return session ? std::move(*session) : nullptr;
    }

    TempDir home, support;
};

TEST_F(AppRoleTest, ViewsReadTheLedgerWhileAWorkerScansAndSeeEachCommitWhole) {
    constexpr int kFiles = 40, kLinesPerFile = 50;
    for (int f = 0; f < kFiles; ++f) {
        std::string text;
        for (int l = 0; l < kLinesPerFile; ++l) {
            text += claudeLine(fmt::format("m{}-{}", f, l), fmt::format("s{}", f));
        }
        home.write(fmt::format(".claude/projects/p/{}.jsonl", f), text);
    }
    auto session = open();
    ASSERT_TRUE(session);

    std::atomic<bool> done{false};
    std::expected<ScanOutcome, ScanFailure> scanned;
    std::thread worker([&] {
        scanned = scanUsage(*session, {});
        done = true;
    });
    // Claude Code is one source, committed in one transaction: a view sees none of it or all.
    std::set<int64_t> seen;
    const auto calendar = Calendar::utc();
    do {
        const auto overview = usageOverview(session->store(), {}, calendar, epochNow());
        seen.insert(overview.matchingEvents);
        const auto models = modelsReport(session->store(), {});
        EXPECT_EQ(models.total.eventCount, models.rows.empty() ? 0 : models.rows[0].summary.eventCount);
    } while (!done);
    worker.join();
    ASSERT_TRUE(scanned) << scanned.error().message;
    EXPECT_EQ(scanned->totals.events, kFiles * kLinesPerFile);
    seen.insert(usageOverview(session->store(), {}, calendar, epochNow()).matchingEvents);
    for (const auto count : seen) {
        EXPECT_TRUE(count == 0 || count == kFiles * kLinesPerFile) << count;
    }
    EXPECT_TRUE(seen.contains(kFiles * kLinesPerFile));
}

TEST_F(AppRoleTest, AScanCancelledFromItsProgressLosesNothingForTheNextOne) {
    constexpr int kFiles = 20;
    for (int f = 0; f < kFiles; ++f) {
        home.write(fmt::format(".claude/projects/p/{}.jsonl", f), claudeLine(fmt::format("m{}", f)));
    }
    auto session = open();
    ASSERT_TRUE(session);

    // The app's Stop button: the request comes from another thread while files are being read.
    std::stop_source stop;
    std::vector<int64_t> progress;
    ScanCallbacks callbacks;
    callbacks.onFileProgress = [&](int64_t done, int64_t, std::optional<AgentSource>) {
        progress.push_back(done);
        if (done == 1) {
            std::thread([&] { stop.request_stop(); }).join();
        }
    };
    const auto cancelled = scanUsage(*session, {}, callbacks, stop.get_token());
    ASSERT_FALSE(cancelled);
    EXPECT_EQ(cancelled.error().kind, ScanFailure::Kind::cancelled);
    EXPECT_LT(progress.size(), static_cast<std::size_t>(kFiles)) << "the scan went on after the stop";
    EXPECT_EQ(session->store().ledgerEventCount(), 0) << "half a source is never committed";

    const auto again = scanUsage(*session, {});
    ASSERT_TRUE(again) << again.error().message;
    EXPECT_EQ(again->totals.events, kFiles);
    EXPECT_EQ(session->store().ledgerEventCount(), kFiles);
}

TEST_F(AppRoleTest, ASettingsChangeReachesTheListenersTheNextScanAndTheStoredCosts) {
    home.write(".claude/projects/p/a.jsonl", claudeLine("m1"));
    auto session = open();
    ASSERT_TRUE(session);
    ASSERT_TRUE(scanUsage(*session, {}));
    const auto priced = session->store().ledgerSummary({}).knownCostUSDMicros;
    ASSERT_GT(priced.value_or(0), 0);

    std::vector<AppSettings> heard;
    session->onSettingsChanged([&](const AppSettings& s) { heard.push_back(s); });
    AppSettings s = session->settings();
    s.storeProject = false;
    s.billingMode = BillingMode::localZero;
    const auto change = session->updateSettings(s);
    EXPECT_TRUE(change.changed);
    EXPECT_EQ(change.repriced.count, 1) << "the stored event is priced as a local model now";
    EXPECT_EQ(session->store().ledgerSummary({}).knownCostUSDMicros, 0);
    ASSERT_EQ(heard.size(), 1u);
    EXPECT_EQ(heard[0], s);
    EXPECT_FALSE(session->updateSettings(s).changed) << "the same settings again change nothing";
    EXPECT_EQ(heard.size(), 1u);

    home.append(".claude/projects/p/a.jsonl", claudeLine("m2"));
    ASSERT_TRUE(scanUsage(*session, {}));
    const auto page = session->store().ledgerEvents({}, LedgerSortOrder::ascending, {}, 10);
    ASSERT_EQ(page.entries.size(), 2u);
    EXPECT_TRUE(page.entries[0].event.projectDisplayName) << "stored before the change";
    EXPECT_FALSE(page.entries[1].event.projectDisplayName) << "read after it";
    EXPECT_EQ(page.entries[1].cost.amountUSDMicros, 0);

    // A session opened later starts from what was stored.
    session.reset();
    EXPECT_EQ(open()->settings(), s);
}

TEST_F(AppRoleTest, AnEventLoopDrivesTheWatchFromItsPendingSignal) {
    home.write(".claude/projects/p/a.jsonl", claudeLine("m1"));
    auto session = open();
    ASSERT_TRUE(session);

    std::mutex mutex;
    std::condition_variable wake;
    bool pending = false;
    std::vector<CommitNotice> commits;
    WatchCallbacks callbacks;
    callbacks.onPending = [&] {
        std::lock_guard guard(mutex);
        pending = true;
        wake.notify_all();
    };
    callbacks.onCommit = [&](const CommitNotice& c) { commits.push_back(c); };
    auto& watch = session->watch(WatchOptions{std::nullopt, 0ms}, callbacks);
    ASSERT_TRUE(watch.start());
    ASSERT_TRUE(watch.scanNow());
    ASSERT_EQ(commits.size(), 1u);
    EXPECT_EQ(commits[0].eventsAdded, 1);
    EXPECT_FALSE(watch.runPending()) << "nothing waits, and the refresh is off";

    home.append(".claude/projects/p/a.jsonl", claudeLine("m2") + claudeLine("m3"));
    {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(wake.wait_for(lock, 10s, [&] { return pending; }));
        pending = false;
    }
    EXPECT_TRUE(watch.runPending());
    ASSERT_EQ(commits.size(), 2u);
    EXPECT_EQ(commits[1].source, AgentSource::claude);
    EXPECT_EQ(commits[1].eventsAdded, 2);
    EXPECT_EQ(session->store().ledgerEventCount(), 3);
}

TEST_F(AppRoleTest, TheRefreshScansEverySourceWhenItIsDueWithoutANotification) {
    auto session = open();
    ASSERT_TRUE(session);
    std::vector<CommitNotice> commits;
    WatchCallbacks callbacks;
    callbacks.onCommit = [&](const CommitNotice& c) { commits.push_back(c); };
    // Not started: no notification can arrive, only the refresh finds the new transcript.
    auto& watch = session->watch(WatchOptions{std::nullopt, 1ms}, callbacks);
    home.write(".claude/projects/p/a.jsonl", claudeLine("m1"));
    std::this_thread::sleep_for(5ms);
    EXPECT_TRUE(watch.runPending());
    ASSERT_EQ(commits.size(), 1u);
    EXPECT_EQ(commits[0].eventsAdded, 1);
}

TEST_F(AppRoleTest, ALedgerThatCannotBeOpenedIsNamedInTheError) {
    support.write("usage.sqlite", "this is not a database");
    const auto session = AppSession::open({home.path(), support.path(), emptyEnvironment()});
    ASSERT_FALSE(session);
    EXPECT_EQ(session.error().kind, AppOpenError::Kind::ledger);
    EXPECT_NE(session.error().message.find(support.path().string()), std::string::npos)
        << session.error().message;
}

}  // namespace
}  // namespace kestrel
