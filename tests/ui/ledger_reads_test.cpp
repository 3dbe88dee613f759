// The figures are read on the reading worker: a slow read leaves the window's event loop
// turning, a scan under way does not hold the reads up, and a burst of reloads costs at most
// two reads per reader.

#include <QTimer>
#include <atomic>
#include <condition_variable>
#include <mutex>

#include "app/main_window.hpp"
#include "app/pages/events_page.hpp"
#include "app/pages/overview_page.hpp"
#include "tests/ui/ui_fixture.hpp"

namespace kestrel {
namespace {

// A latch the worker waits on until the test opens it.
class Gate {
  public:
    void wait() {
        std::unique_lock lock(mutex_);
        ++waiting_;
        opened_.wait(lock, [this] { return open_; });
    }
    void open() {
        {
            std::lock_guard lock(mutex_);
            open_ = true;
        }
        opened_.notify_all();
    }
    int waiting() {
        std::lock_guard lock(mutex_);
        return waiting_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable opened_;
    bool open_ = false;
    int waiting_ = 0;
};

class LedgerReadsTest : public test_support::AppFixture {
  protected:
    desktop::OverviewPage& overview(desktop::AppController& app) {
        return *qobject_cast<desktop::OverviewPage*>(app.window().page(QStringLiteral("overview")));
    }
};

TEST_F(LedgerReadsTest, ASlowReadLeavesTheEventLoopTurningAndShowsTheNewFiguresAfter) {
    usage("a", "one", test_support::kSonnet, 100, 10, earlierToday(5));
    auto app = openApp();
    ASSERT_TRUE(app);
    auto& page = overview(*app);
    ASSERT_EQ(page.overview().today.eventCount, 1);

    usage("a", "two", test_support::kSonnet, 200, 20, earlierToday(4));
    ASSERT_TRUE(scanUsage(app->session(), ScanRequest{}).has_value());
    auto gate = std::make_shared<Gate>();
    app->setReadHook([gate] { gate->wait(); });
    app->reloadNow();
    // reloadNow returned with the read still to come.
    EXPECT_EQ(page.overview().today.eventCount, 1);

    int ticks = 0;
    QTimer ticker;
    QObject::connect(&ticker, &QTimer::timeout, [&] { ++ticks; });
    ticker.start(10);
    EXPECT_TRUE(waitFor([&] { return gate->waiting() > 0 && ticks >= 10; }, 5000))
        << "the timer fired " << ticks << " times while the read was held";
    EXPECT_EQ(page.overview().today.eventCount, 1) << "figures shown before the read finished";
    EXPECT_GT(app->readsInFlight(), 0);

    gate->open();
    EXPECT_TRUE(app->waitForReads());
    EXPECT_EQ(page.overview().today.eventCount, 2);
    EXPECT_EQ(app->trayFigures().headline.today.eventCount, 2);
    app->setReadHook({});
}

TEST_F(LedgerReadsTest, AScanUnderWayDoesNotHoldTheReadsUp) {
    usage("a", "one", test_support::kSonnet, 100, 10, earlierToday(5));
    auto app = openApp();
    ASSERT_TRUE(app);
    usage("a", "two", test_support::kSonnet, 200, 20, earlierToday(4));
    ASSERT_TRUE(scanUsage(app->session(), ScanRequest{}).has_value());

    // The scan worker is busy (as with a long scan) until the reads are done.
    auto gate = std::make_shared<Gate>();
    bool scanDone = false;
    app->runInBackground([gate] { gate->wait(); }, [&] { scanDone = true; });
    ASSERT_TRUE(waitFor([&] { return gate->waiting() > 0; }));
    app->reloadNow();
    EXPECT_TRUE(app->waitForReads(5000)) << "the reads waited on the scan worker";
    EXPECT_EQ(overview(*app).overview().today.eventCount, 2);
    EXPECT_FALSE(scanDone);
    gate->open();
    EXPECT_TRUE(waitFor([&] { return scanDone; }));
}

TEST_F(LedgerReadsTest, ABurstOfReloadsCostsAtMostTwoReadsPerReader) {
    usage("a", "one", test_support::kSonnet, 100, 10, earlierToday(5));
    auto app = openApp();
    ASSERT_TRUE(app);
    std::atomic<int> reads{0};
    app->setReadHook([&reads] { ++reads; });
    app->reloadNow();
    ASSERT_TRUE(app->waitForReads());
    const int perReload = reads.exchange(0);
    ASSERT_EQ(perReload, 2) << "the overview (the page in view) and the tray";

    const struct {
        int reloads;
        int expectedReads;
    } cases[] = {{1, perReload}, {2, 2 * perReload}, {8, 2 * perReload}};
    for (const auto& c : cases) {
        auto gate = std::make_shared<Gate>();
        app->setReadHook([gate, &reads] {
            gate->wait();
            ++reads;
        });
        for (int i = 0; i < c.reloads; ++i) {
            app->reloadNow();
        }
        gate->open();
        ASSERT_TRUE(app->waitForReads());
        EXPECT_EQ(reads.exchange(0), c.expectedReads) << c.reloads << " reloads";
    }
    app->setReadHook({});
}

TEST_F(LedgerReadsTest, APageOutOfViewReadsAgainWhenShown) {
    usage("a", "one", test_support::kSonnet, 100, 10, earlierToday(5));
    auto app = openApp();
    ASSERT_TRUE(app);
    app->window().show();
    auto* events = qobject_cast<desktop::EventsPage*>(app->window().page(QStringLiteral("events")));
    ASSERT_NE(events, nullptr);
    ASSERT_EQ(events->tableModel().entries().size(), 1u);

    usage("a", "two", test_support::kSonnet, 200, 20, earlierToday(4));
    ASSERT_TRUE(scanUsage(app->session(), ScanRequest{}).has_value());
    std::atomic<int> reads{0};
    app->setReadHook([&reads] { ++reads; });
    app->reloadNow();
    ASSERT_TRUE(app->waitForReads());
    EXPECT_EQ(reads.exchange(0), 2) << "the overview and the tray read; the events wait";
    EXPECT_EQ(overview(*app).overview().today.eventCount, 2);
    EXPECT_EQ(events->tableModel().entries().size(), 1u);

    app->window().showPage(QStringLiteral("events"));
    ASSERT_TRUE(app->waitForReads());
    EXPECT_EQ(events->tableModel().entries().size(), 2u);
    EXPECT_EQ(reads.exchange(0), 1);
    app->window().showPage(QStringLiteral("overview"));  // not stale: shown without a read
    ASSERT_TRUE(app->waitForReads());
    EXPECT_EQ(reads.load(), 0);
    app->setReadHook({});
}

TEST_F(LedgerReadsTest, EventsFollowTheFilterChosenWhileAReadWasUnderWay) {
    writeMonth();
    auto app = openApp();
    ASSERT_TRUE(app);
    auto* events = qobject_cast<desktop::EventsPage*>(app->window().page(QStringLiteral("events")));
    ASSERT_NE(events, nullptr);
    const auto all = events->tableModel().entries().size();
    ASSERT_EQ(all, 8u);

    auto gate = std::make_shared<Gate>();
    app->setReadHook([gate] { gate->wait(); });
    events->setPageSize(50);  // a read under way (held)...
    events->setPageSize(3);   // ...and the page size changed again meanwhile
    gate->open();
    ASSERT_TRUE(app->waitForReads());
    EXPECT_EQ(events->tableModel().entries().size(), 3u) << "the later choice was lost";
    EXPECT_TRUE(events->hasNextPage());
    app->setReadHook({});
}

}  // namespace
}  // namespace kestrel
