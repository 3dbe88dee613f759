#include "cli/heatmap_command.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <numeric>

#include "cli/cli.hpp"
#include "cli/text_table.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/pricing/money_format.hpp"
#include "tests/cli/ledger_home.hpp"

namespace kestrel {
namespace {

using Outcome = test_support::CommandOutcome;
using ReportFixture = test_support::LedgerHomeTest;

// A line split into terminal columns: one entry per column, a wide character followed by an
// empty entry for the column it covers.
std::vector<std::string> terminalColumns(const std::string& line) {
    std::vector<std::string> columns;
    for (std::size_t i = 0; i < line.size();) {
        const auto c = static_cast<unsigned char>(line[i]);
        const std::size_t n = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
        const std::string character = line.substr(i, n);
        columns.push_back(character);
        if (cli::displayWidth(character) == 2) {
            columns.emplace_back();
        }
        i += n;
    }
    return columns;
}

std::string at(const std::string& line, std::size_t column) {
    const auto columns = terminalColumns(line);
    return column < columns.size() ? columns[column] : " ";  // trimmed: blank
}

std::string text(std::string_view key, AppLanguage language) {
    return Messages::bundled().text(key, language);
}

// `weeks` columns of idle days from `firstDay` (UTC), rows named the way the grid names them.
HeatmapModel handMade(int weeks, const std::string& firstDay, std::vector<int> labeledRows) {
    const Calendar utc = Calendar::utc();
    const double first = *utc.startOfDay(firstDay);
    HeatmapModel model;
    model.weeks = weeks;
    for (int column = 0; column < weeks; ++column) {
        std::vector<HeatmapCell> cells;
        for (int row = 0; row < 7; ++row) {
            HeatmapCell cell;
            cell.day = utc.addingDays(first, column * 7 + row);
            cells.push_back(cell);
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

// Where the first week's squares start: after the widest weekday name and a space.
std::size_t gridStart(AppLanguage language) {
    std::size_t width = 0;
    for (const char* key : {"weekday.short.mon", "weekday.short.wed", "weekday.short.fri"}) {
        width = std::max(width, cli::displayWidth(text(key, language)));
    }
    return width + 1;
}

TEST(RenderHeatmap, DrawsEachLevelInItsCellAndLeavesFutureDaysBlank) {
    auto model = handMade(3, "2026-03-02", {0, 2, 4});
    model.cells[0][1].level = 1;
    model.cells[0][2].level = 2;
    model.cells[0][3].level = 3;
    model.cells[0][4].level = 4;
    model.cells[1][6].level = 4;
    for (int row = 3; row < 7; ++row) {
        model.cells[2][static_cast<std::size_t>(row)].isFuture = true;
    }
    const auto lines = renderHeatmap(model, reportIn(AppLanguage::en), false);
    ASSERT_EQ(lines.size(), 9u);  // months, seven weekdays, legend

    const std::size_t start = gridStart(AppLanguage::en);
    const struct {
        std::size_t column;
        std::size_t row;
        const char* glyph;
    } cases[] = {
        {0, 0, "·"}, {0, 1, "░"}, {0, 2, "▒"}, {0, 3, "▓"}, {0, 4, "█"},
        {1, 6, "█"}, {1, 0, "·"}, {2, 2, "·"}, {2, 3, " "}, {2, 6, " "},
    };
    for (const auto& c : cases) {
        const auto& line = lines[1 + c.row];
        EXPECT_EQ(at(line, start + 2 * c.column), c.glyph)
            << "week " << c.column << ", row " << c.row << ": " << line;
        EXPECT_EQ(at(line, start + 2 * c.column + 1), " ") << "a space after each week";
    }
    for (const auto& line : lines) {
        EXPECT_EQ(line.find('\x1b'), std::string::npos) << "no escapes without colour";
        EXPECT_FALSE(!line.empty() && line.back() == ' ') << "no trailing blanks: " << line;
    }
}

TEST(RenderHeatmap, WeekdayNamesFollowTheDaysAndAlignTheRowsInEitherLanguage) {
    const struct {
        AppLanguage language;
        const char* firstDay;  // a Monday, or a Sunday for weeks that start on Sunday
        std::vector<int> labeledRows;
    } cases[] = {
        {AppLanguage::en, "2026-03-02", {0, 2, 4}},
        {AppLanguage::zhHans, "2026-03-02", {0, 2, 4}},
        {AppLanguage::en, "2026-03-01", {1, 3, 5}},
        {AppLanguage::zhHans, "2026-03-01", {1, 3, 5}},
    };
    const char* const names[] = {"weekday.short.mon", "weekday.short.wed", "weekday.short.fri"};
    for (const auto& c : cases) {
        const auto lines =
            renderHeatmap(handMade(4, c.firstDay, c.labeledRows), reportIn(c.language), false);
        ASSERT_EQ(lines.size(), 9u);
        const std::size_t start = gridStart(c.language);
        for (std::size_t row = 0; row < 7; ++row) {
            const auto& line = lines[1 + row];
            const auto found = std::ranges::find(c.labeledRows, static_cast<int>(row));
            const std::string name = found == c.labeledRows.end()
                                         ? ""
                                         : text(names[found - c.labeledRows.begin()], c.language);
            EXPECT_EQ(line.rfind(name + " ", 0), 0u)
                << c.firstDay << " row " << row << ": " << line;
            const auto columns = terminalColumns(line);
            ASSERT_GT(columns.size(), start) << line;
            for (std::size_t i = cli::displayWidth(name); i < start; ++i) {
                EXPECT_EQ(columns[i], " ") << "padding before the grid: " << line;
            }
            EXPECT_EQ(columns[start], "·")
                << "first week at the same column on every row: " << line;
        }
    }
}

TEST(RenderHeatmap, MonthNamesSitAtTheirColumnsAndNeverTouch) {
    const struct {
        AppLanguage language;
        std::vector<HeatmapMonthLabel> labels;
        std::vector<HeatmapMonthLabel> shown;
    } cases[] = {
        {AppLanguage::en, {{0, 3}, {4, 4}}, {{0, 3}, {4, 4}}},
        // "Mar" ends a column before "Apr" starts: both fit.
        {AppLanguage::en, {{0, 3}, {2, 4}}, {{0, 3}, {2, 4}}},
        // "12月" is four columns wide and would touch "1月": the later month stays.
        {AppLanguage::zhHans, {{0, 12}, {2, 1}, {6, 2}}, {{2, 1}, {6, 2}}},
        {AppLanguage::zhHans, {{0, 3}, {4, 4}}, {{0, 3}, {4, 4}}},
    };
    const char* const months[] = {"month.short.jan", "month.short.feb", "month.short.mar",
                                  "month.short.apr", "month.short.may", "month.short.jun",
                                  "month.short.jul", "month.short.aug", "month.short.sep",
                                  "month.short.oct", "month.short.nov", "month.short.dec"};
    for (const auto& c : cases) {
        auto model = handMade(8, "2026-03-02", {0, 2, 4});
        model.monthLabels = c.labels;
        const auto lines = renderHeatmap(model, reportIn(c.language), false);
        ASSERT_FALSE(lines.empty());
        const std::string& line = lines.front();
        const std::size_t start = gridStart(c.language);
        std::string expected;
        for (const auto& label : c.shown) {
            const std::string name = text(months[label.month - 1], c.language);
            expected.append(
                start + 2 * static_cast<std::size_t>(label.weekIndex) - cli::displayWidth(expected),
                ' ');
            expected += name;
        }
        EXPECT_EQ(line, expected);
    }
}

TEST(RenderHeatmap, ColourPaintsASquarePerPastDayAndALegendOfFiveShades) {
    auto model = handMade(2, "2026-03-02", {0, 2, 4});
    model.cells[0][0].level = 4;
    model.cells[1][5].isFuture = true;
    model.cells[1][6].isFuture = true;
    const auto lines = renderHeatmap(model, reportIn(AppLanguage::en), true);
    ASSERT_EQ(lines.size(), 9u);
    const auto count = [](const std::string& s, std::string_view what) {
        std::size_t n = 0;
        for (auto at = s.find(what); at != std::string::npos; at = s.find(what, at + 1)) {
            ++n;
        }
        return n;
    };
    std::size_t squares = 0;
    for (std::size_t row = 1; row <= 7; ++row) {
        squares += count(lines[row], "■");
        EXPECT_EQ(count(lines[row], "■"), count(lines[row], "\x1b[38;5;"))
            << "every square has its colour";
        EXPECT_EQ(count(lines[row], "■"), count(lines[row], "\x1b[0m")) << "and resets it";
    }
    EXPECT_EQ(squares, 12u) << "14 days, two of them after today";
    // The busiest day (first square of row 0) and an idle one (row 1) are painted differently.
    const auto shade = [](const std::string& line) {
        const auto from = line.find("\x1b[38;5;");
        return line.substr(from, line.find('m', from) - from);
    };
    EXPECT_NE(shade(lines[1]), shade(lines[2]));

    const std::string& legend = lines.back();
    const auto less = legend.find(text("heatmap.less", AppLanguage::en));
    const auto more = legend.find(text("heatmap.more", AppLanguage::en));
    ASSERT_NE(less, std::string::npos) << legend;
    ASSERT_NE(more, std::string::npos) << legend;
    EXPECT_LT(less, legend.find("■"));
    EXPECT_GT(more, legend.rfind("■"));
    EXPECT_EQ(count(legend, "■"), 5u);
    std::map<std::string, int> shades;
    for (auto at = legend.find("\x1b[38;5;"); at != std::string::npos;
         at = legend.find("\x1b[38;5;", at + 1)) {
        ++shades[legend.substr(at, legend.find('m', at) - at)];
    }
    EXPECT_EQ(shades.size(), 5u) << "five distinct shades";
}

TEST(RenderHeatmap, AnEmptyModelDrawsNothing) {
    EXPECT_TRUE(renderHeatmap(HeatmapModel{}, reportIn(AppLanguage::en), false).empty());
}

class HeatmapCommandTest : public ReportFixture {
  protected:
    nlohmann::json heatmapJSON(int weeks) {
        const auto o = call([&](cli::CommandContext& ctx) {
            return cli::runHeatmap(ctx, cli::ReportOptions{}, weeks, true);
        });
        EXPECT_EQ(o.code, cli::kExitOK) << o.err;
        return nlohmann::json::parse(o.out);
    }
};

TEST_F(HeatmapCommandTest, CellsCarryTheLedgersDailyTotalsForTheGridsDays) {
    usage("a", "t1", "claude-sonnet-4-5-20250929", 1000, 200, localTime(0, 0, 1));
    usage("a", "t2", "claude-sonnet-4-5-20250929", 30, 4, localTime(2, 12, 0));
    usage("a", "t3", "claude-sonnet-4-5-20250929", 500, 0, localTime(10, 9, 0));
    usage("b", "t4", "mystery-model-x", 7, 0, localTime(10, 18, 0));
    usage("b", "t5", "mystery-model-x", 9, 1, localTime(13, 18, 0));  // priced nowhere
    usage("b", "t6", "claude-sonnet-4-5-20250929", 123456, 0, localTime(400, 12, 0));
    const auto doc = heatmapJSON(26);

    EXPECT_EQ(doc["weeks"], 26);
    const auto& cells = doc["cells"];
    ASSERT_EQ(cells.size(), 26u * 7u);
    const Calendar calendar = Calendar::current();
    const double firstDay = *calendar.startOfDay(cells.front()["day"].get<std::string>());
    const std::string today = calendar.dayKey(epochNow());

    // Consecutive days, today among them and only the days after it marked future.
    bool pastToday = false;
    std::vector<int64_t> tokens;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        EXPECT_EQ(cells[i]["day"],
                  calendar.dayKey(calendar.addingDays(firstDay, static_cast<int>(i))));
        EXPECT_EQ(cells[i]["future"].get<bool>(), pastToday) << cells[i]["day"];
        pastToday = pastToday || cells[i]["day"] == today;
        tokens.push_back(cells[i]["tokens"].get<int64_t>());
    }
    EXPECT_TRUE(pastToday);

    UsageStore store(support.path());
    const double end = calendar.addingDays(firstDay, static_cast<int>(cells.size()));
    const auto daily = store.ledgerDailyTotals(firstDay, end);
    ASSERT_EQ(daily.size(), 4u) << "four days with usage inside the grid";
    std::map<std::string, const nlohmann::json*> byDay;
    for (const auto& cell : cells) {
        byDay[cell["day"].get<std::string>()] = &cell;
    }
    int64_t gridTokens = 0;
    for (const auto& total : daily) {
        const auto key = fmt::format("{:04}-{:02}-{:02}", total.year, total.month, total.day);
        ASSERT_TRUE(byDay.count(key)) << key;
        const auto& cell = *byDay[key];
        EXPECT_EQ(cell["tokens"], total.tokens) << key;
        if (total.costUSDMicros) {
            EXPECT_EQ(cell["costUSDMicros"], *total.costUSDMicros) << key;
        } else {
            EXPECT_TRUE(cell["costUSDMicros"].is_null()) << key;
        }
        gridTokens += total.tokens;
    }
    EXPECT_EQ(std::accumulate(tokens.begin(), tokens.end(), int64_t{0}), gridTokens);
    EXPECT_EQ(gridTokens, 1200 + 34 + 500 + 7 + 10) << "the old message is outside the grid";
    EXPECT_TRUE((*byDay[calendar.dayKey(localTime(13, 18, 0))])["costUSDMicros"].is_null());
    EXPECT_GT((*byDay[today])["costUSDMicros"].get<int64_t>(), 0);

    // Levels are cut at the quartiles of the grid's own totals.
    const auto thresholds = doc["thresholds"].get<std::vector<int64_t>>();
    EXPECT_EQ(thresholds, HeatmapGrid::quartileThresholds(tokens));
    for (const auto& cell : cells) {
        EXPECT_EQ(cell["level"], HeatmapGrid::level(cell["tokens"].get<int64_t>(), thresholds))
            << cell["day"];
    }
    EXPECT_EQ((*byDay[today])["level"], 4) << "the busiest day";

    int previous = -1;
    for (const auto& label : doc["monthLabels"]) {
        EXPECT_GT(label["week"].get<int>(), previous);
        previous = label["week"].get<int>();
        const auto& top = cells[static_cast<std::size_t>(previous) * 7]["day"].get<std::string>();
        EXPECT_EQ(std::stoi(top.substr(5, 2)), label["month"].get<int>()) << top;
    }
}

TEST_F(HeatmapCommandTest, WeeksAreClampedToAYear) {
    const struct {
        int asked;
        int drawn;
    } cases[] = {{-3, 1}, {0, 1}, {1, 1}, {26, 26}, {53, 53}, {80, 53}};
    for (const auto& c : cases) {
        const auto doc = heatmapJSON(c.asked);
        EXPECT_EQ(doc["weeks"], c.drawn) << c.asked;
        EXPECT_EQ(doc["cells"].size(), static_cast<std::size_t>(c.drawn) * 7) << c.asked;
    }
}

TEST_F(HeatmapCommandTest, TextEndsWithTheGridsTotalInTheChosenCurrency) {
    usage("a", "t1", "claude-sonnet-4-5-20250929", 1'000'000, 234'567, localTime(1, 12, 0));
    int64_t cost = 0;
    const auto doc = heatmapJSON(12);  // kept: a loop over a temporary's member would dangle
    for (const auto& cell : doc["cells"]) {
        cost += cell["costUSDMicros"].is_null() ? 0 : cell["costUSDMicros"].get<int64_t>();
    }
    ASSERT_GT(cost, 0);
    const struct {
        const char* language;
        const char* currency;
        AppLanguage lang;
        ResolvedCurrency shown;
        const char* locale;
    } cases[] = {{"en", "usd", AppLanguage::en, ResolvedCurrency::usd, "en_US"},
                 {"zh-Hans", "cny", AppLanguage::zhHans, ResolvedCurrency::cny, "zh_CN"},
                 {"en", "cny", AppLanguage::en, ResolvedCurrency::cny, "en_US"}};
    for (const auto& c : cases) {
        cli::ReportOptions options;
        options.language = c.language;
        options.currency = c.currency;
        const auto o = call(
            [&](cli::CommandContext& ctx) { return cli::runHeatmap(ctx, options, 12, false); });
        ASSERT_EQ(o.code, cli::kExitOK) << o.err;
        std::vector<std::string> lines;
        std::istringstream in(o.out);
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line);
        }
        ASSERT_EQ(lines.size(), 10u) << o.out;  // months, seven weekdays, legend, total
        EXPECT_NE(lines[8].find(text("heatmap.more", c.lang)), std::string::npos) << lines[8];
        EXPECT_EQ(lines[9],
                  Messages::bundled().text(
                      "heatmap.total", c.lang,
                      {{"tokens", "1,234,567"},
                       {"weeks", "12"},
                       {"cost", format(cost, c.shown, AppSettings{}.cnyPerUsdE4, c.locale)}}));
        EXPECT_NE(lines[9].find(c.shown == ResolvedCurrency::cny ? "¥" : "$"), std::string::npos)
            << lines[9];
    }
}

}  // namespace
}  // namespace kestrel
