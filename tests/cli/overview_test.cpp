#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>

#include "cli/cli.hpp"
#include "cli/summary_command.hpp"
#include "core/pricing/money_format.hpp"
#include "tests/support/command_run.hpp"
#include "tests/support/time_zone.hpp"
#include "tests/cli/ledger_home.hpp"

namespace kestrel {
namespace {

using Outcome = test_support::CommandOutcome;
using ReportFixture = test_support::LedgerHomeTest;

constexpr const char* kSonnet = "claude-sonnet-4-5-20250929";
constexpr const char* kHaiku = "claude-haiku-4-5-20251001";

// Nine hours east of UTC without summer time: local midnight is 15:00 UTC, so a day split on
// UTC puts the first hours of today into yesterday.
class OverviewTest : public ReportFixture {
  protected:
    Outcome overview(cli::ReportOptions options, bool json) {
        return call([&](cli::CommandContext& ctx) { return cli::runSummary(ctx, options, json); });
    }

    nlohmann::json overviewJSON() {
        const auto o = overview({}, true);
        EXPECT_EQ(o.code, cli::kExitOK) << o.err;
        return nlohmann::json::parse(o.out);
    }

    // Token totals in distinct decimal places, so a sum shows which days it took in.
    void writeWeek() {
        usage("a", "today1", kSonnet, 15, 5, localTime(0, 0, 30));
        usage("a", "today2", kHaiku, 250, 50, localTime(0, 0, 45));
        usage("a", "yesterday", kSonnet, 4000, 0, localTime(1, 23, 30));
        usage("b", "days3", kSonnet, 50'000, 0, localTime(3, 12, 0));
        usage("b", "days20", kSonnet, 600'000, 0, localTime(20, 12, 0));
        usage("b", "days40", kSonnet, 7'000'000, 0, localTime(40, 12, 0));
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
    } cases[] = {
        {"today", 2, 320},
        {"yesterday", 1, 4000},
        {"last7Days", 4, 54'320},
        {"last30Days", 5, 654'320},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(doc[c.period]["events"], c.events) << c.period;
        EXPECT_EQ(doc[c.period]["totalTokens"], c.tokens) << c.period;
    }
    EXPECT_EQ(doc["scan"]["files"], 2);
    EXPECT_EQ(doc["home"], home.path().string());

    const auto& models = doc["topModelsToday"];
    ASSERT_EQ(models.size(), 2u);
    EXPECT_EQ(models[0]["model"], kHaiku);  // heaviest first
    EXPECT_EQ(models[0]["totalTokens"], 300);
    EXPECT_EQ(models[1]["model"], kSonnet);
    EXPECT_EQ(models[1]["events"], 1);
    ASSERT_EQ(doc["topSourcesToday"].size(), 1u);
    EXPECT_EQ(doc["topSourcesToday"][0]["source"], "claude");
    EXPECT_EQ(doc["topSourcesToday"][0]["totalTokens"], 320);
    EXPECT_EQ(doc["topSourcesToday"][0]["costUSDMicros"], doc["today"]["costUSDMicros"]);

    // The heatmap's days are the same local days.
    const Calendar calendar = Calendar::current();
    const auto& cells = doc["heatmap"]["cells"];
    EXPECT_EQ(doc["heatmap"]["weeks"], 26);
    EXPECT_EQ(cells.size(), 26u * 7u);
    std::map<std::string, int64_t> tokens;
    for (const auto& cell : cells) {
        tokens[cell["day"].get<std::string>()] = cell["tokens"].get<int64_t>();
    }
    EXPECT_EQ(tokens[calendar.dayKey(localTime(0, 12, 0))], 320);
    EXPECT_EQ(tokens[calendar.dayKey(localTime(1, 12, 0))], 4000);
    EXPECT_EQ(tokens[calendar.dayKey(localTime(40, 12, 0))], 7'000'000);
}

TEST_F(OverviewTest, TextIsInTheChosenLanguageAndCurrency) {
    writeWeek();
    const auto doc = overviewJSON();
    const struct {
        const char* language;
        const char* currency;
        AppLanguage lang;
        AppLanguage other;
        ResolvedCurrency shown;
        const char* locale;
    } cases[] = {
        {"en", "usd", AppLanguage::en, AppLanguage::zhHans, ResolvedCurrency::usd, "en_US"},
        {"zh-Hans", "cny", AppLanguage::zhHans, AppLanguage::en, ResolvedCurrency::cny, "zh_CN"},
    };
    for (const auto& c : cases) {
        cli::ReportOptions options;
        options.noScan = true;
        options.language = c.language;
        options.currency = c.currency;
        const auto o = overview(options, false);
        ASSERT_EQ(o.code, cli::kExitOK) << o.err;
        const auto text = [&](std::string_view key) {
            return Messages::bundled().text(key, c.lang);
        };
        for (const char* key :
             {"column.period", "period.today", "period.yesterday", "period.last7Days",
              "period.last30Days", "overview.topModelsToday", "overview.topSourcesToday",
              "weekday.short.mon", "heatmap.less", "heatmap.more"}) {
            EXPECT_NE(o.out.find(text(key)), std::string::npos) << key << "\n" << o.out;
        }
        EXPECT_EQ(o.out.find(Messages::bundled().text("period.yesterday", c.other)),
                  std::string::npos)
            << o.out;
        EXPECT_NE(o.out.find(Messages::bundled().text("overview.title", c.lang,
                                                      {{"home", home.path().string()}})),
                  std::string::npos);

        // Today's row: its label, events, tokens and cost in the chosen currency.
        const std::string todayCost = format(doc["today"]["costUSDMicros"].get<int64_t>(), c.shown,
                                             AppSettings{}.cnyPerUsdE4, c.locale);
        std::istringstream lines(o.out);
        std::string todayRow;
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind(text("period.today") + " ", 0) == 0) {
                todayRow = line;
                break;
            }
        }
        EXPECT_NE(todayRow.find(" 320 "), std::string::npos) << todayRow;
        EXPECT_TRUE(todayRow.ends_with(todayCost)) << todayRow << " vs " << todayCost;
        EXPECT_EQ(o.out.find(c.shown == ResolvedCurrency::cny ? "$" : "¥"), std::string::npos);
        EXPECT_NE(o.out.find(kHaiku), std::string::npos);
        EXPECT_NE(o.out.find("Claude Code"), std::string::npos);
        EXPECT_EQ(o.out.find('\x1b'), std::string::npos);
    }
}

TEST_F(OverviewTest, WithoutUsageTodayOneLineStandsForTheTopTables) {
    usage("a", "old", "mystery-model-x", 4000, 0, localTime(1, 23, 30));
    const auto o = overview({}, false);
    ASSERT_EQ(o.code, cli::kExitOK) << o.err;
    const auto text = [](std::string_view key) {
        return Messages::bundled().text(key, AppLanguage::en);
    };
    EXPECT_NE(o.out.find(text("overview.noUsageToday")), std::string::npos) << o.out;
    EXPECT_EQ(o.out.find(text("overview.topModelsToday")), std::string::npos) << o.out;
    EXPECT_NE(o.out.find(text("heatmap.less")), std::string::npos) << "the heatmap still shows";
    // A cost that leaves out unpriced events is starred and the star explained.
    EXPECT_NE(o.out.find("*\n"), std::string::npos) << o.out;
    EXPECT_NE(o.out.find(text("overview.unpricedNote")), std::string::npos) << o.out;

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
    const std::string expected = Messages::bundled().text(
        "report.emptyLedger", AppLanguage::en, {{"home", home.path().string()}, {"looked", ""}});
    EXPECT_EQ(o.out.rfind(expected.substr(0, expected.find(". ")), 0), 0u) << o.out;
    EXPECT_NE(o.out.find(".claude"), std::string::npos) << "names where it looked";
    EXPECT_EQ(o.out.find(Messages::bundled().text("heatmap.less", AppLanguage::en)),
              std::string::npos)
        << "no empty grid";

    const auto json = overview(noScan, true);
    ASSERT_EQ(json.code, cli::kExitOK) << json.err;
    const auto doc = nlohmann::json::parse(json.out);
    EXPECT_EQ(doc["last30Days"]["events"], 0);
    EXPECT_EQ(doc["scan"]["files"], 0);
    EXPECT_TRUE(doc["heatmap"]["thresholds"].empty());
    for (const auto& cell : doc["heatmap"]["cells"]) {
        EXPECT_EQ(cell["level"], 0);
        EXPECT_TRUE(cell["costUSDMicros"].is_null());
    }
}

}  // namespace
}  // namespace kestrel
