// Progress crossing from a worker: throttled to a few updates a second, the last always passed.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <thread>
#include <vector>

#include "app/progress_relay.hpp"

namespace kestrel::desktop {
namespace {

using std::chrono::milliseconds;

TEST(ProgressThrottle, PassesTheFirstOnePerIntervalAndTheLast) {
    const struct {
        const char* name;
        std::vector<std::tuple<int, int64_t, int64_t>> updates;  // (ms, done, total)
        std::vector<bool> passed;
    } cases[] = {
        {"first always", {{0, 1, 100}}, {true}},
        {"burst within the interval", {{0, 1, 100}, {10, 2, 100}, {49, 3, 100}}, {true, false, false}},
        {"one per interval", {{0, 1, 100}, {50, 2, 100}, {60, 3, 100}, {101, 4, 100}},
         {true, true, false, true}},
        {"the last even within the interval", {{0, 1, 3}, {5, 2, 3}, {6, 3, 3}}, {true, false, true}},
        {"nothing to do counts as no last", {{0, 0, 0}, {1, 0, 0}}, {true, false}},
    };
    for (const auto& c : cases) {
        ProgressThrottle throttle(milliseconds(50));
        const ProgressThrottle::Clock::time_point start{};
        std::vector<bool> passed;
        for (const auto& [ms, done, total] : c.updates) {
            passed.push_back(throttle.pass(start + milliseconds(ms), done, total));
        }
        EXPECT_EQ(passed, c.passed) << c.name;
    }
}

TEST(ProgressRelay, UpdatesFromAWorkerArriveOnTheMainThreadEndingAtTheTotal) {
    QObject receiver;
    std::vector<std::pair<int64_t, int64_t>> shown;
    std::vector<std::thread::id> threads;
    const auto relay = relayProgress(&receiver, [&](int64_t done, int64_t total) {
        shown.emplace_back(done, total);
        threads.push_back(std::this_thread::get_id());
    });
    std::thread worker([relay] {
        for (int64_t i = 1; i <= 10'000; ++i) {
            relay(i, 10'000);
        }
    });
    worker.join();
    QCoreApplication::processEvents();
    ASSERT_FALSE(shown.empty());
    EXPECT_LT(shown.size(), 100u) << "ten thousand updates in a moment were not throttled";
    EXPECT_EQ(shown.back(), (std::pair<int64_t, int64_t>{10'000, 10'000}));
    for (const auto& id : threads) {
        EXPECT_EQ(id, std::this_thread::get_id());
    }
}

}  // namespace
}  // namespace kestrel::desktop
