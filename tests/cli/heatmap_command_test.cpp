#include "cli/heatmap_command.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <numeric>
#include <regex>
#include <set>

#include "cli/cli.hpp"
#include "tests/cli/ledger_home.hpp"

namespace kestrel {
namespace {

// `weeks` columns of idle days from `firstDay` (UTC), rows named the way the grid names them.
HeatmapModel handMade(int weeks, const std::string& firstDay, std::vector<int> labeledRows) {
    const Calendar utc = Calendar::utc();
    const double first = *utc.startOfDay(firstDay);
    HeatmapModel model;
    model.weeks = weeks;
    for (int column = 0; column < weeks; ++column) {
        std::vector<HeatmapCell> cells(7);
        for (int row = 0; row < 7; ++row) {
            cells[static_cast<std::size_t>(row)].day = utc.addingDays(first, column * 7 + row);
        }
        model.cells.push_back(cells);
    }
    model.labeledRows = std::move(labeledRows);
    return model;
}

cli::Report reportIn(AppLanguage language) {
    cli::Report report;
    report.language = language;
    report.calendar = Calendar::utc();
    return report;
}

TEST(RenderHeatmap, DrawsEachDayUnderItsWeekdayAndMonthInEitherLanguage) {
    const struct {
        AppLanguage language;
        const char* firstDay;  // a Monday, or a Sunday for weeks that start on Sunday
        std::vector<int> labeledRows;
        std::vector<HeatmapMonthLabel> months;
        std::vector<std::string> lines;
    } cases[] = {// Weeks from a Monday, so row 0 is "Mon"; "Mar" ends a column before "Apr" starts.
                 {AppLanguage::en,
                  "2026-03-02",
                  {0, 2, 4},
                  {{0, 3}, {2, 4}},
                  {"    Mar Apr", "Mon · · ·", "    ░ · ·", "Wed ▒ · ·", "    ▓ ·", "Fri █ ·",
                   "    · ·", "    · █", "    Less · ░ ▒ ▓ █ More"}},
                 // Weeks from a Sunday, so "周一" is on row 1; "12月" would touch "1月": the later
                 // one stays.
                 {AppLanguage::zhHans,
                  "2026-03-01",
                  {1, 3, 5},
                  {{0, 12}, {2, 1}},
                  {"         1月", "     · · ·", "周一 ░ · ·", "     ▒ · ·", "周三 ▓ ·", "     █ ·",
                   "周五 · ·", "     · █", "     少 · ░ ▒ ▓ █ 多"}}};
    for (const auto& c : cases) {
        auto model = handMade(3, c.firstDay, c.labeledRows);
        model.monthLabels = c.months;
        for (int level = 1; level <= 4; ++level) {
            model.cells[0][static_cast<std::size_t>(level)].level = level;
        }
        model.cells[1][6].level = 4;
        for (std::size_t row = 3; row < 7; ++row) {
            model.cells[2][row].isFuture = true;  // drawn blank, and trailing blanks trimmed
        }
        EXPECT_EQ(renderHeatmap(model, reportIn(c.language), false), c.lines);
    }
    EXPECT_TRUE(renderHeatmap(HeatmapModel{}, reportIn(AppLanguage::en), false).empty());
}

TEST(RenderHeatmap, ColourPaintsASquarePerPastDayAndALegendOfFiveShades) {
    auto model = handMade(2, "2026-03-02", {0, 2, 4});
    model.cells[0][0].level = 4;
    model.cells[1][5].isFuture = true;
    model.cells[1][6].isFuture = true;
    const auto lines = renderHeatmap(model, reportIn(AppLanguage::en), true);
    ASSERT_EQ(lines.size(), 9u);
    // Every match of `pattern` in `s`.
    const auto all = [](const std::string& s, const char* pattern) {
        const std::regex re(pattern);
        return std::vector<std::string>(std::sregex_token_iterator(s.begin(), s.end(), re), {});
    };
    const char* shade = "\x1b\\[38;5;[0-9]+m";
    const std::string grid = std::accumulate(lines.begin() + 1, lines.end() - 1, std::string());
    EXPECT_EQ(all(grid, "■").size(), 12u) << "14 days, two of them after today";
    EXPECT_EQ(all(grid, shade).size(), 12u) << "every square has a colour";
    EXPECT_EQ(all(grid, "\x1b\\[0m").size(), 12u) << "and resets it";
    // The busiest day (first square of row 0) and an idle one (row 1) are painted differently.
    EXPECT_NE(all(lines[1], shade).at(0), all(lines[2], shade).at(0));

    const std::string& legend = lines.back();
    EXPECT_EQ(legend.rfind("    Less \x1b", 0), 0u) << legend;
    EXPECT_TRUE(legend.ends_with("\x1b[0m More")) << legend;
    const auto shades = all(legend, shade);
    EXPECT_EQ(all(legend, "■").size(), 5u);
    EXPECT_EQ(std::set<std::string>(shades.begin(), shades.end()).size(), 5u) << "five shades";
}

using HeatmapCommandTest = test_support::LedgerHomeTest;
constexpr const char* kSonnet = "claude-sonnet-4-5-20250929";

TEST_F(HeatmapCommandTest, CellsCarryEachLocalDaysTotalsAndOnlyDaysAfterTodayAreFuture) {
    usage("a", "t1", kSonnet, 1000, 200, localTime(0, 0, 1));
    usage("a", "t2", kSonnet, 30, 4, localTime(2, 12, 0));
    usage("a", "t3", kSonnet, 500, 0, localTime(10, 9, 0));
    usage("b", "t4", "mystery-model-x", 7, 0, localTime(10, 18, 0));
    usage("b", "t5", "mystery-model-x", 9, 1, localTime(13, 18, 0));  // priced nowhere
    usage("b", "t6", kSonnet, 123456, 0, localTime(400, 12, 0));      // outside the grid
    const auto o = call([](auto& ctx) { return cli::runHeatmap(ctx, {}, 26, true); });
    ASSERT_EQ(o.code, cli::kExitOK) << o.err;
    const auto doc = nlohmann::json::parse(o.out);
    const auto& cells = doc["cells"];
    ASSERT_EQ(cells.size(), 26u * 7u);
    const Calendar calendar = Calendar::current();
    const double firstDay = *calendar.startOfDay(cells.front()["day"].get<std::string>());
    const std::string today = calendar.dayKey(epochNow());

    // Consecutive days, today among them and only the days after it marked future.
    bool pastToday = false;
    int64_t tokens = 0;
    std::map<std::string, nlohmann::json> byDay;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        EXPECT_EQ(cells[i]["day"],
                  calendar.dayKey(calendar.addingDays(firstDay, static_cast<int>(i))));
        EXPECT_EQ(cells[i]["future"].get<bool>(), pastToday) << cells[i]["day"];
        pastToday = pastToday || cells[i]["day"] == today;
        tokens += cells[i]["tokens"].get<int64_t>();
        byDay[cells[i]["day"].get<std::string>()] = cells[i];
    }
    EXPECT_TRUE(pastToday);
    EXPECT_EQ(tokens, 1200 + 34 + 507 + 10) << "the old message is outside the grid";

    // Sonnet at $3 in and $15 out per million; a day with no priced event has no cost.
    const struct {
        int daysBack;
        int64_t tokens;
        nlohmann::json cost;
    } days[] = {{0, 1200, 6000}, {2, 34, 150}, {10, 507, 1500}, {13, 10, nullptr}};
    for (const auto& d : days) {
        const auto& cell = byDay[calendar.dayKey(localTime(d.daysBack, 12, 0))];
        EXPECT_EQ(cell["tokens"], d.tokens) << d.daysBack;
        EXPECT_EQ(cell["costUSDMicros"], d.cost) << d.daysBack;
    }
    EXPECT_EQ(byDay[today]["level"], 4) << "the busiest day";
    EXPECT_EQ(byDay[calendar.dayKey(localTime(1, 12, 0))]["level"], 0) << "an idle day";
}

TEST_F(HeatmapCommandTest, TextEndsWithTheGridsTotalInTheChosenCurrency) {
    // $0.103701 of input and $18 of output; yuan at the default 7.2 per dollar, to the fen.
    usage("a", "t1", kSonnet, 34'567, 1'200'000, localTime(1, 12, 0));
    const struct {
        const char *language, *currency, *total;
    } cases[] = {{"en", "usd", "1,234,567 tokens in the last 12 weeks, $18.1037"},
                 {"zh-Hans", "cny", "近 12 周共 1,234,567 个 Token，¥130.34"},
                 {"en", "cny", "1,234,567 tokens in the last 12 weeks, CN¥130.34"}};
    for (const auto& c : cases) {
        cli::ReportOptions options;
        options.language = c.language;
        options.currency = c.currency;
        const auto o = call(
            [&](cli::CommandContext& ctx) { return cli::runHeatmap(ctx, options, 12, false); });
        ASSERT_EQ(o.code, cli::kExitOK) << o.err;
        EXPECT_EQ(std::count(o.out.begin(), o.out.end(), '\n'), 10) << o.out;
        EXPECT_TRUE(o.out.ends_with(std::string("\n") + c.total + "\n")) << o.out;
    }
}

}  // namespace
}  // namespace kestrel
