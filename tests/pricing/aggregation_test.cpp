#include "core/pricing/aggregation.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <optional>
#include <string>
#include <vector>

#include "core/model/timestamp.hpp"

namespace kestrel {
namespace {

double at(const char* iso) {
    return parseISO8601(iso).value();
}

UsageEvent event(const char* iso, AgentSource source, std::string model, ExclusiveTokens tokens,
                 std::optional<int64_t> cost, bool trusted = true) {
    UsageEvent e;
    e.id = std::string(iso) + model;
    e.occurredAt = at(iso);
    e.source = source;
    e.model = std::move(model);
    e.exclusive = tokens;
    e.estimatedCostUSDMicros = cost;
    e.breakdownTrusted = trusted;
    return e;
}

// Six events over three UTC days. In UTC+2 the first moves to the 10th and the cursor one to
// the 11th.
class AggregationTest : public testing::Test {
  protected:
    std::vector<UsageEvent> events{
        // Untrusted but vendor-priced; listed before the claude event of the same model.
        event("2025-03-10T23:10:00Z", AgentSource::cursor, "claude-sonnet", {0, 0, 0, 1, 0}, 1000,
              false),
        event("2025-03-09T22:30:00Z", AgentSource::claude, "claude-sonnet", {100, 0, 0, 50, 0},
              300),
        event("2025-03-10T01:15:00Z", AgentSource::codex, "gpt-5", {1000, 200, 30, 300, 40},
              std::nullopt),
        event("2025-03-10T01:45:00Z", AgentSource::claude, "claude-sonnet", {10, 0, 0, 5, 0}, 0),
        event("2025-03-10T12:00:00Z", AgentSource::gemini, "zeta", {100, 0, 0, 66, 0},
              std::nullopt),
        event("2025-03-12T05:00:00Z", AgentSource::codex, "gpt-5", {1, 0, 0, 0, 0}, std::nullopt,
              false),
    };
    const Calendar utc = Calendar::utc();
    const Calendar plus2 = Calendar::fixedOffset(2 * 3600);
};

TEST_F(AggregationTest, SummaryCountsPricedUnpricedAndUntrustedSeparately) {
    const UsageSummary s = Aggregation::summary(events);
    EXPECT_EQ(s.tokens, (ExclusiveTokens{1211, 200, 30, 422, 40}));
    EXPECT_EQ(s.eventCount, 6);
    // A zero cost is still a price; the untrusted cursor event is priced by its own cost.
    EXPECT_EQ(s.pricedEventCount, 3);
    EXPECT_EQ(s.pricedCostUSDMicros, 1300);
    EXPECT_EQ(s.unpricedEventCount, 3);
    EXPECT_EQ(s.untrustedEventCount, 2);

    EXPECT_EQ(Aggregation::summary({}), UsageSummary{});
}

TEST_F(AggregationTest, BySourceFollowsDeclarationOrder) {
    const auto groups = Aggregation::bySource(events);
    ASSERT_EQ(groups.size(), 4u);
    EXPECT_EQ(groups[0].first, AgentSource::claude);
    EXPECT_EQ(groups[1].first, AgentSource::codex);
    EXPECT_EQ(groups[2].first, AgentSource::cursor);
    EXPECT_EQ(groups[3].first, AgentSource::gemini);

    EXPECT_EQ(groups[0].second.eventCount, 2);
    EXPECT_EQ(groups[0].second.pricedCostUSDMicros, 300);
    EXPECT_EQ(groups[1].second.tokens, (ExclusiveTokens{1001, 200, 30, 300, 40}));
    EXPECT_EQ(groups[1].second.unpricedEventCount, 2);
    EXPECT_EQ(groups[1].second.untrustedEventCount, 1);
    EXPECT_EQ(groups[2].second.untrustedEventCount, 1);
    EXPECT_EQ(groups[2].second.pricedEventCount, 1);
}

TEST_F(AggregationTest, ByModelLargestFirstTiesByNameSourcesDeduplicated) {
    const auto models = Aggregation::byModel(events);
    ASSERT_EQ(models.size(), 3u);
    // gpt-5 1571 tokens; claude-sonnet and zeta 166 each, so the name decides.
    EXPECT_EQ(models[0].model, "gpt-5");
    EXPECT_EQ(models[0].sources, std::vector<AgentSource>{AgentSource::codex});
    EXPECT_EQ(models[0].summary.tokens.billedTokens(), 1571);
    EXPECT_EQ(models[0].summary.eventCount, 2);

    EXPECT_EQ(models[1].model, "claude-sonnet");
    EXPECT_EQ(models[1].sources, (std::vector{AgentSource::claude, AgentSource::cursor}));
    EXPECT_EQ(models[1].summary.eventCount, 3);
    EXPECT_EQ(models[1].summary.pricedCostUSDMicros, 1300);

    EXPECT_EQ(models[2].model, "zeta");
    EXPECT_EQ(models[2].sources, std::vector<AgentSource>{AgentSource::gemini});
    EXPECT_EQ(models[2].summary.tokens.billedTokens(), 166);
}

std::vector<int64_t> counts(const std::vector<std::pair<std::string, UsageSummary>>& window) {
    std::vector<int64_t> out;
    for (const auto& [day, s] : window) {
        out.push_back(s.eventCount);
    }
    return out;
}

std::vector<std::string> keys(const std::vector<std::pair<std::string, UsageSummary>>& window) {
    std::vector<std::string> out;
    for (const auto& [day, s] : window) {
        out.push_back(day);
    }
    return out;
}

TEST_F(AggregationTest, DailyGroupsByTheCalendarsDay) {
    const auto inUTC = Aggregation::daily(events, utc);
    ASSERT_EQ(inUTC.size(), 3u);
    EXPECT_EQ(inUTC.at("2025-03-09").eventCount, 1);
    EXPECT_EQ(inUTC.at("2025-03-10").eventCount, 4);
    EXPECT_EQ(inUTC.at("2025-03-10").pricedCostUSDMicros, 1000);
    EXPECT_EQ(inUTC.at("2025-03-12").eventCount, 1);

    const auto inPlus2 = Aggregation::daily(events, plus2);
    ASSERT_EQ(inPlus2.size(), 3u);
    EXPECT_FALSE(inPlus2.contains("2025-03-09"));
    EXPECT_EQ(inPlus2.at("2025-03-10").eventCount, 4);
    EXPECT_EQ(inPlus2.at("2025-03-10").pricedCostUSDMicros, 300);
    EXPECT_EQ(inPlus2.at("2025-03-11").eventCount, 1);
    EXPECT_EQ(inPlus2.at("2025-03-12").eventCount, 1);
}

TEST_F(AggregationTest, HourlyKeepsOnlyTheGivenDay) {
    // Any instant of the day selects it.
    const auto inUTC = Aggregation::hourly(events, at("2025-03-10T15:00:00Z"), utc);
    ASSERT_EQ(inUTC.size(), 3u);
    EXPECT_EQ(inUTC.at(1).eventCount, 2);
    EXPECT_EQ(inUTC.at(1).tokens, (ExclusiveTokens{1010, 200, 30, 305, 40}));
    EXPECT_EQ(inUTC.at(12).eventCount, 1);
    EXPECT_EQ(inUTC.at(23).eventCount, 1);

    const auto inPlus2 = Aggregation::hourly(events, at("2025-03-10T12:00:00+02:00"), plus2);
    ASSERT_EQ(inPlus2.size(), 3u);
    EXPECT_EQ(inPlus2.at(0).pricedCostUSDMicros, 300);  // 22:30 UTC the evening before
    EXPECT_EQ(inPlus2.at(3).eventCount, 2);
    EXPECT_EQ(inPlus2.at(14).eventCount, 1);

    EXPECT_TRUE(Aggregation::hourly(events, at("2025-03-11T08:00:00Z"), utc).empty());
}

TEST_F(AggregationTest, DailyWindowListsEveryDayOldestFirst) {
    const auto five = Aggregation::dailyWindow(events, at("2025-03-13T00:00:00Z"), 5, utc);
    EXPECT_EQ(keys(five), (std::vector<std::string>{"2025-03-08", "2025-03-09", "2025-03-10",
                                                    "2025-03-11", "2025-03-12"}));
    EXPECT_EQ(counts(five), (std::vector<int64_t>{0, 1, 4, 0, 1}));
    EXPECT_EQ(five[0].second, UsageSummary{});

    // A mid-day end keeps its own day but only what happened before it.
    const auto upTo6 = Aggregation::dailyWindow(events, at("2025-03-12T06:00:00Z"), 3, utc);
    EXPECT_EQ(keys(upTo6), (std::vector<std::string>{"2025-03-10", "2025-03-11", "2025-03-12"}));
    EXPECT_EQ(counts(upTo6), (std::vector<int64_t>{4, 0, 1}));
    const auto upTo4 = Aggregation::dailyWindow(events, at("2025-03-12T04:00:00Z"), 3, utc);
    EXPECT_EQ(counts(upTo4), (std::vector<int64_t>{4, 0, 0}));

    const auto shifted =
        Aggregation::dailyWindow(events, at("2025-03-12T00:00:00+02:00"), 3, plus2);
    EXPECT_EQ(keys(shifted), (std::vector<std::string>{"2025-03-09", "2025-03-10", "2025-03-11"}));
    EXPECT_EQ(counts(shifted), (std::vector<int64_t>{0, 4, 1}));

    const auto acrossMonth = Aggregation::dailyWindow({}, at("2024-03-02T00:00:00Z"), 3, utc);
    EXPECT_EQ(keys(acrossMonth),
              (std::vector<std::string>{"2024-02-28", "2024-02-29", "2024-03-01"}));

    EXPECT_TRUE(Aggregation::dailyWindow(events, at("2025-03-13T00:00:00Z"), 0, utc).empty());
}

TEST(AggregationDeathTest, CostSumOverflowAborts) {
    std::vector<UsageEvent> big(2);
    big[0].estimatedCostUSDMicros = INT64_MAX;
    big[1].estimatedCostUSDMicros = 1;
    EXPECT_DEATH((void)Aggregation::summary(big), "overflow");

    std::vector<UsageEvent> tokens(2);
    tokens[0].exclusive.outputVisible = INT64_MAX;
    tokens[1].exclusive.outputVisible = 1;
    EXPECT_DEATH((void)Aggregation::byModel(tokens), "overflow");
}

}  // namespace
}  // namespace kestrel
