#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/summary_command.hpp"
#include "tests/cli/ledger_home.hpp"
#include "tests/support/time_zone.hpp"

namespace kestrel {
namespace {

constexpr const char* kSonnet = "claude-sonnet-4-5-20250929";
constexpr const char* kHaiku = "claude-haiku-4-5-20251001";

// Nine hours east of UTC without summer time: local midnight is 15:00 UTC, so a day split on
// UTC puts the first hours of today into yesterday.
class OverviewTest : public test_support::LedgerHomeTest {
  protected:
    test_support::CommandOutcome overview(cli::ReportOptions options, bool json,
                                          bool colour = false) {
        return call([&](cli::CommandContext& ctx) { return cli::runSummary(ctx, options, json); },
                    colour);
    }

    nlohmann::json overviewJSON(cli::ReportOptions options = {}) {
        const auto o = overview(options, true);
        EXPECT_EQ(o.code, cli::kExitOK) << o.err;
        return nlohmann::json::parse(o.out);
    }

    // Token totals in distinct decimal places, so a sum shows which days it took in. Each message
    // sits in the first hour of a period or the last hour before one, so a misplaced split shows.
    void writeWeek() {
        usage("a", "today1", kSonnet, 15, 5, localTime(0, 0, 30));
        usage("a", "today2", kHaiku, 250, 50, localTime(0, 0, 45));
        usage("a", "yesterday", kSonnet, 4000, 0, localTime(1, 23, 30));
        usage("b", "days6", kSonnet, 50'000, 0, localTime(6, 0, 30));
        usage("b", "days7", kSonnet, 600'000, 0, localTime(7, 23, 30));
        usage("b", "days30", kSonnet, 7'000'000, 0, localTime(30, 23, 30));
    }

  private:
    test_support::ScopedTimeZone zone_{"XST-9"};
};

TEST_F(OverviewTest, PeriodsFollowTheLocalCalendar) {
    writeWeek();
    const auto doc = overviewJSON();
    const struct {
        const char* period;
        int events;
        int64_t tokens;
    } cases[] = {{"today", 2, 320},
                 {"yesterday", 1, 4000},
                 {"last7Days", 4, 54'320},
                 {"last30Days", 5, 654'320}};
    for (const auto& c : cases) {
        EXPECT_EQ(doc[c.period]["events"], c.events) << c.period;
        EXPECT_EQ(doc[c.period]["totalTokens"], c.tokens) << c.period;
    }
    // Today's top tables count the same local day, heaviest first.
    ASSERT_EQ(doc["topModelsToday"].size(), 2u);
    EXPECT_EQ(doc["topModelsToday"][0]["model"], kHaiku);
    EXPECT_EQ(doc["topModelsToday"][0]["totalTokens"], 300);
    EXPECT_EQ(doc["topSourcesToday"][0]["totalTokens"], 320);

    // The heatmap's days are the same local days.
    const Calendar calendar = Calendar::current();
    EXPECT_EQ(doc["heatmap"]["cells"].size(), 26u * 7u);
    std::map<std::string, int64_t> tokens;
    for (const auto& cell : doc["heatmap"]["cells"]) {
        tokens[cell["day"].get<std::string>()] = cell["tokens"].get<int64_t>();
    }
    EXPECT_EQ(tokens[calendar.dayKey(localTime(0, 12, 0))], 320);
    EXPECT_EQ(tokens[calendar.dayKey(localTime(1, 12, 0))], 4000);
    EXPECT_EQ(tokens[calendar.dayKey(localTime(30, 12, 0))], 7'000'000);
}

TEST_F(OverviewTest, TextIsInTheChosenLanguageAndCurrencyAndColouredOnlyWhenAsked) {
    writeWeek();
    scan();
    // The last 7 days: Sonnet's 54,015 in and 5 out at $3 and $15 per million, Haiku's 250 in and
    // 50 out at $1 and $5; yuan at the default 7.2 per dollar, truncated to the fen.
    const struct {
        const char *language, *currency;
        std::string title, weekRow, cost, otherCurrency;
    } cases[] = {
        {"en", "usd", "Usage below " + home.path().string(), "Last 7 days ", "$0.1626", "¥"},
        {"zh-Hans", "cny", home.path().string() + " 下的用量", "近 7 天 ", "¥1.17", "$"}};
    for (const auto& c : cases) {
        cli::ReportOptions options;
        options.noScan = true;
        options.language = c.language;
        options.currency = c.currency;
        const auto o = overview(options, false);
        ASSERT_EQ(o.code, cli::kExitOK) << o.err;
        EXPECT_EQ(o.out.rfind(c.title + "\n", 0), 0u) << o.out;
        std::istringstream lines(o.out);
        std::string row;
        while (std::getline(lines, row) && row.rfind(c.weekRow, 0) != 0) {
        }
        EXPECT_NE(row.find(" 54,320 "), std::string::npos) << o.out;
        EXPECT_TRUE(row.ends_with(" " + c.cost)) << row;
        EXPECT_EQ(o.out.find(c.otherCurrency), std::string::npos) << o.out;
        EXPECT_EQ(o.out.find('\x1b'), std::string::npos);
    }
    cli::ReportOptions noScan;
    noScan.noScan = true;
    const auto coloured = overview(noScan, false, true);
    EXPECT_EQ(coloured.out.rfind("\x1b[1mUsage below ", 0), 0u) << coloured.out;
    EXPECT_NE(coloured.out.find("\x1b[38;5;"), std::string::npos) << "a coloured heatmap";
}

TEST_F(OverviewTest, WithoutUsageTodayOneLineStandsForTheTopTables) {
    usage("a", "old", "mystery-model-x", 4000, 0, localTime(1, 23, 30));
    const auto o = overview({}, false);
    ASSERT_EQ(o.code, cli::kExitOK) << o.err;
    EXPECT_NE(o.out.find("\nNo usage today.\n"), std::string::npos) << o.out;
    EXPECT_EQ(o.out.find("Top models today"), std::string::npos) << o.out;
    EXPECT_NE(o.out.find("Less"), std::string::npos) << "the heatmap still shows";
    // A cost that leaves out unpriced events is starred and the star explained.
    EXPECT_NE(o.out.find("*\n"), std::string::npos) << o.out;
    EXPECT_TRUE(o.out.ends_with("\n* leaves out events without a price (see kestrel prices).\n"))
        << o.out;

    const auto doc = overviewJSON();
    EXPECT_TRUE(doc["topModelsToday"].empty());
    EXPECT_TRUE(doc["topSourcesToday"].empty());
    EXPECT_EQ(doc["yesterday"]["unpricedEvents"], 1);
}

TEST_F(OverviewTest, AnEmptyLedgerSaysWhereKestrelLooked) {
    // Records exist, but --no-scan leaves the ledger as it was: empty.
    writeWeek();
    cli::ReportOptions noScan;
    noScan.noScan = true;
    const auto o = overview(noScan, false);
    ASSERT_EQ(o.code, cli::kExitOK) << o.err;
    EXPECT_EQ(
        o.out.rfind("No usage found below " + home.path().string() + ". Kestrel looked in ", 0), 0u)
        << o.out;
    EXPECT_NE(o.out.find(".claude"), std::string::npos) << "names where it looked";
    EXPECT_EQ(o.out.find("Less"), std::string::npos) << "no empty grid";

    const auto doc = overviewJSON(noScan);
    EXPECT_EQ(doc["last30Days"]["events"], 0);
    EXPECT_TRUE(doc["heatmap"]["thresholds"].empty());
    EXPECT_EQ(doc["heatmap"]["cells"].size(), 26u * 7u) << "the same keys as a full ledger";
}

}  // namespace
}  // namespace kestrel
