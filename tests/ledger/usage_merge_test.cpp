#include "core/ledger/usage_merge.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <vector>

namespace kestrel {
namespace {

using Quality = ObservationTimeQuality;

struct Record {
    double at = 0;
    Quality quality = Quality::trusted;
    int64_t output = 0;
    int64_t input = 0;
    const char* session = "";
};

UsageEvent event(const Record& r) {
    UsageEvent e;
    e.id = "claude:msg_01";
    e.occurredAt = r.at;
    e.timeQuality = r.quality;
    e.sessionID = r.session;
    e.exclusive.inputUncached = r.input;
    e.exclusive.outputVisible = r.output;
    e.providerInputTotal = r.input;
    e.providerOutputTotal = r.output;
    e.providerTotal = r.input + r.output;
    return e;
}

UsageObservation observation(const Record& r) {
    UsageObservation o;
    o.id = "claude:msg_01";
    o.occurredAt = r.at;
    o.timeQuality = r.quality;
    o.sessionKey = r.session;
    o.tokens.inputUncached = r.input;
    o.tokens.outputVisible = r.output;
    o.tokens.reasoning = 0;
    o.tokens.providerInputTotal = r.input;
    o.tokens.providerOutputTotal = r.output;
    o.tokens.providerTotal = r.input + r.output;
    return o;
}

struct Case {
    const char* name;
    std::vector<Record> records;
    // What every order of reading gives.
    double at;
    const char* session;
    int64_t output;
    int64_t input;
};

const std::vector<Case> kCases = {
    {"a replay days later keeps the first day",
     {{1000, Quality::trusted, 80, 5, "s1"}, {1000 + 2 * 86400, Quality::trusted, 80, 5, "s1"}},
     1000,
     "s1",
     80,
     5},
    {"the complete line wins over the streaming one logged first",
     {{1000, Quality::trusted, 1, 900, "parent"}, {1003, Quality::trusted, 640, 900, "agent"}},
     1000,
     "parent",
     640,
     900},
    {"a complete line stamped before the placeholder",
     {{1003, Quality::trusted, 1, 900, "parent"}, {1000, Quality::trusted, 640, 900, "agent"}},
     1000,
     "agent",
     640,
     900},
    {"a line's own time beats an earlier file time",
     {{500, Quality::inferred, 10, 1, "a"}, {1000, Quality::trusted, 10, 1, "b"}},
     1000,
     "b",
     10,
     1},
    {"three records: time of one, counts of another",
     {{2000, Quality::trusted, 3, 7, "x"},
      {1500, Quality::trusted, 2, 7, "y"},
      {2500, Quality::trusted, 90, 8, "z"}},
     1500,
     "y",
     90,
     8},
};

TEST(UsageMergeTest, EventsMergeToTheFirstTimeAndTheLargestOutputInEveryOrder) {
    for (const auto& c : kCases) {
        std::vector<std::size_t> order(c.records.size());
        std::iota(order.begin(), order.end(), 0);
        do {
            UsageEvent held = event(c.records[order[0]]);
            for (std::size_t i = 1; i < order.size(); ++i) {
                UsageMerge::merge(held, event(c.records[order[i]]));
            }
            EXPECT_EQ(held.occurredAt, c.at) << c.name;
            EXPECT_EQ(held.sessionID, c.session) << c.name;
            EXPECT_EQ(held.exclusive.outputVisible, c.output) << c.name;
            EXPECT_EQ(held.providerOutputTotal, c.output) << c.name;
            EXPECT_EQ(held.exclusive.inputUncached, c.input) << c.name;
            EXPECT_EQ(held.providerTotal, c.input + c.output) << c.name;
        } while (std::next_permutation(order.begin(), order.end()));
    }
}

TEST(UsageMergeTest, ObservationsMergeLikeEventsInEveryOrder) {
    for (const auto& c : kCases) {
        std::vector<std::size_t> order(c.records.size());
        std::iota(order.begin(), order.end(), 0);
        do {
            UsageObservation held = observation(c.records[order[0]]);
            for (std::size_t i = 1; i < order.size(); ++i) {
                UsageMerge::merge(held, observation(c.records[order[i]]));
            }
            EXPECT_EQ(held.occurredAt, c.at) << c.name;
            EXPECT_EQ(held.timeQuality, Quality::trusted) << c.name;
            EXPECT_EQ(held.sessionKey, c.session) << c.name;
            EXPECT_EQ(held.tokens.outputVisible, c.output) << c.name;
            EXPECT_EQ(held.tokens.inputUncached, c.input) << c.name;
        } while (std::next_permutation(order.begin(), order.end()));
    }
}

TEST(UsageMergeTest, OnEqualOutputTheLaterRecordsCountsHold) {
    UsageEvent held = event({1000, Quality::trusted, 50, 10, "s"});
    UsageMerge::merge(held, event({1200, Quality::trusted, 50, 12, "s"}));
    EXPECT_EQ(held.exclusive.inputUncached, 12);
    EXPECT_EQ(held.occurredAt, 1000);

    UsageObservation o = observation({1000, Quality::trusted, 50, 10, "s"});
    UsageMerge::merge(o, observation({1200, Quality::trusted, 50, 12, "s"}));
    EXPECT_EQ(o.tokens.inputUncached, 12);
    EXPECT_EQ(o.occurredAt, 1000);
}

TEST(UsageMergeTest, AnObservationWithoutTimeTakesTheOtherOnesAndReasoningCountsAsOutput) {
    UsageObservation held = observation({1000, Quality::trusted, 10, 1, "s"});
    held.occurredAt.reset();
    held.timeQuality = Quality::missing;
    auto later = observation({1500, Quality::inferred, 4, 2, "t"});
    later.tokens.reasoning = 20;  // 4 + 20 beats 10
    later.tokens.providerOutputTotal = 24;
    UsageMerge::merge(held, later);
    EXPECT_EQ(held.occurredAt, 1500);
    EXPECT_EQ(held.timeQuality, Quality::inferred);
    EXPECT_EQ(held.tokens.reasoning, 20);
}

}  // namespace
}  // namespace kestrel
