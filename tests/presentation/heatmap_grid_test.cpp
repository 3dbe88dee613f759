#include "core/presentation/heatmap_grid.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "core/model/timestamp.hpp"
#include "tests/support/time_zone.hpp"

namespace kestrel {
namespace {

using HeatmapGrid::make;

double at(const char* iso) {
    return parseISO8601(iso).value();
}

Calendar startingOn(int firstWeekday) {
    Calendar c = Calendar::utc();
    c.firstWeekday = firstWeekday;
    return c;
}

std::map<std::string, HeatmapCell> cellsByDay(const HeatmapModel& model, const Calendar& cal) {
    std::map<std::string, HeatmapCell> byDay;
    for (const auto& column : model.cells) {
        for (const HeatmapCell& cell : column) {
            byDay[cal.dayKey(cell.day)] = cell;
        }
    }
    return byDay;
}

TEST(HeatmapGridTest, WeekdayRowCountsFromTheFirstWeekday) {
    // {weekday, first weekday, row}, 1 = Sunday ... 7 = Saturday; 0 and 8 still land on a row.
    const int cases[][3] = {{1, 2, 6}, {2, 2, 0}, {7, 2, 5}, {1, 1, 0}, {7, 1, 6},
                            {1, 7, 1}, {7, 7, 0}, {0, 1, 6}, {8, 1, 0}};
    for (const auto& c : cases) {
        EXPECT_EQ(HeatmapGrid::weekdayRow(c[0], c[1]), c[2]) << c[0] << "/" << c[1];
    }
}

TEST(HeatmapGridTest, QuartilesPickElementsAndLevelsTakeTheLowerBand) {
    using V = std::vector<int64_t>;
    EXPECT_EQ(HeatmapGrid::quartileThresholds({0, -3, 0}), V{});
    EXPECT_EQ(HeatmapGrid::quartileThresholds({7, 0}), (V{7, 7, 7}));
    EXPECT_EQ(HeatmapGrid::quartileThresholds({50, 0, 30, 10, 40, 20}), (V{20, 30, 40}));
    EXPECT_EQ(HeatmapGrid::quartileThresholds({4, 3, 2, 1}), (V{1, 2, 3}));

    const std::pair<int64_t, int> cases[] = {{INT64_MIN, 0}, {0, 0},        {1, 1},  {20, 1},
                                             {21, 2},        {30, 2},       {31, 3}, {40, 3},
                                             {41, 4},        {INT64_MAX, 4}};
    for (const auto& [tokens, expected] : cases) {
        EXPECT_EQ(HeatmapGrid::level(tokens, {20, 30, 40}), expected) << tokens;
    }
    EXPECT_EQ(HeatmapGrid::level(1000, {}), 1);
    EXPECT_EQ(HeatmapGrid::level(1000, {5, 5}), 1);
}

TEST(HeatmapGridTest, LastColumnHoldsTodayAndRowsFollowTheFirstWeekday) {
    const double now = at("2025-03-12T15:00:00Z");  // a Wednesday
    const double today = at("2025-03-12T00:00:00Z");
    for (const int first : {0, 1, 3, 6}) {
        const Calendar calendar = startingOn(first);
        for (const auto& [asked, columns] : {std::pair{-5, 1}, {0, 1}, {9, 9}, {60, 53}}) {
            SCOPED_TRACE(testing::Message() << "first " << first << " weeks " << asked);
            const HeatmapModel model = make({}, now, calendar, asked);
            ASSERT_EQ(model.weeks, columns);
            ASSERT_EQ(model.cells.size(), static_cast<size_t>(columns));
            const int todayRow = (3 - first + 7) % 7;  // Wednesday is 3 days after Sunday
            EXPECT_EQ(model.cells.back()[todayRow].day, today);
            double expected = today - (todayRow + (columns - 1) * 7) * 86400.0;
            for (const auto& column : model.cells) {
                ASSERT_EQ(column.size(), 7u);
                for (const HeatmapCell& cell : column) {
                    EXPECT_EQ(cell.day, expected);
                    EXPECT_EQ(cell.isFuture, cell.day > today);
                    EXPECT_EQ(cell.level, 0);
                    expected += 86400;
                }
            }
            // Monday, Wednesday and Friday, whichever rows they fall on, top to bottom.
            std::vector<int> labeled;
            for (const int row : model.labeledRows) {
                labeled.push_back(calendar.parts(model.cells[0][row].day).weekday);
            }
            std::ranges::sort(labeled);
            EXPECT_EQ(labeled, (std::vector<int>{1, 3, 5}));
            EXPECT_TRUE(std::ranges::is_sorted(model.labeledRows));
        }
    }
}

TEST(HeatmapGridTest, DaysMatchByStartOfDayAndFutureCellsStayBlank) {
    const Calendar plus2 = Calendar::fixedOffset(2 * 3600);
    const std::vector<HeatmapDay> days{
        {at("2025-03-03T23:30:00Z"), 10, 1'000},  // already the 4th in UTC+2
        {at("2025-03-05T09:00:00Z"), 20, std::nullopt},
        {at("2025-03-06T12:00:00Z"), 25, 500},
        {at("2025-03-06T20:00:00Z"), 5, std::nullopt},  // same local day: added
        {at("2025-03-10T12:00:00Z"), 40, std::nullopt},
        {at("2025-03-11T12:00:00Z"), 50, std::nullopt},
        {at("2025-03-13T12:00:00Z"), 9'000, 9},  // tomorrow: a skewed clock
        // Long before the grid: ignored, so their sum cannot overflow.
        {at("2024-01-01T12:00:00Z"), INT64_MAX, INT64_MAX},
        {at("2024-01-01T13:00:00Z"), INT64_MAX, INT64_MAX},
    };
    auto byDay = cellsByDay(make(days, at("2025-03-12T08:00:00Z"), plus2, 2), plus2);
    ASSERT_EQ(byDay.size(), 14u);
    EXPECT_EQ(byDay["2025-03-04"], (HeatmapCell{at("2025-03-03T22:00:00Z"), 10, 1'000, 1, false}));
    EXPECT_EQ(byDay["2025-03-03"], (HeatmapCell{at("2025-03-02T22:00:00Z"), 0, {}, 0, false}));
    EXPECT_EQ(byDay["2025-03-06"].tokens, 30);
    EXPECT_EQ(byDay["2025-03-06"].costUSDMicros, 500);
    // The grid's totals 10, 20, 30, 40, 50, 9000 give quartiles 20, 30, 40.
    const std::pair<const char*, int> levels[] = {{"2025-03-05", 1}, {"2025-03-06", 2},
                                                  {"2025-03-10", 3}, {"2025-03-11", 4},
                                                  {"2025-03-12", 0}, {"2025-03-13", 0}};
    for (const auto& [day, level] : levels) {
        EXPECT_EQ(byDay[day].level, level) << day;
    }
    EXPECT_EQ(byDay["2025-03-13"].tokens, 9'000);
    EXPECT_TRUE(byDay["2025-03-13"].isFuture);
}

TEST(HeatmapGridTest, MonthLabelsStartWhereATopDayChangesMonthAndNeverTouch) {
    const double now = at("2025-03-12T12:00:00Z");
    // Twelve weeks: tops Dec 23, Dec 30, Jan 6 ... Mar 10; December keeps two columns.
    EXPECT_EQ(make({}, now, startingOn(1), 12).monthLabels,
              (std::vector<HeatmapMonthLabel>{{0, 12}, {2, 1}, {6, 2}, {10, 3}}));
    // Eleven: December has only the first column, so January's label takes over from it.
    EXPECT_EQ(make({}, now, startingOn(1), 11).monthLabels,
              (std::vector<HeatmapMonthLabel>{{1, 1}, {5, 2}, {9, 3}}));

    for (const int first : {0, 1, 6}) {
        const Calendar calendar = startingOn(first);
        for (int day = 0; day < 400; day += 3) {
            const HeatmapModel model = make({}, now + day * 86400.0, calendar, 53);
            SCOPED_TRACE(testing::Message() << "first " << first << " day " << day);
            ASSERT_GE(model.monthLabels.size(), 12u);
            EXPECT_LE(model.monthLabels.front().weekIndex, 1);
            for (size_t i = 0; i < model.monthLabels.size(); ++i) {
                const HeatmapMonthLabel& label = model.monthLabels[i];
                const double top = model.cells[static_cast<size_t>(label.weekIndex)][0].day;
                EXPECT_EQ(calendar.parts(top).month, label.month);
                if (i > 0) {
                    EXPECT_GE(label.weekIndex - model.monthLabels[i - 1].weekIndex, 2);
                }
            }
        }
    }
}

TEST(HeatmapGridTest, DaysAcrossADaylightSavingChangeStayWholeDays) {
    std::optional<test_support::ScopedTimeZone> zone;
    zone.emplace("America/New_York");  // clocks went forward on Sunday 2025-03-09
    Calendar local = Calendar::current();
    local.firstWeekday = 1;
    const HeatmapModel model =
        make({{at("2025-03-10T03:30:00Z"), 7, std::nullopt}}, at("2025-03-12T12:00:00Z"), local, 3);
    std::vector<std::string> keys;
    for (const auto& column : model.cells) {
        for (const HeatmapCell& cell : column) {
            EXPECT_EQ(local.parts(cell.day).hour, 0);
            keys.push_back(local.dayKey(cell.day));
            EXPECT_EQ(cell.tokens, keys.back() == "2025-03-09" ? 7 : 0) << keys.back();
        }
    }
    zone.reset();
    ASSERT_EQ(keys.size(), 21u);
    EXPECT_EQ(keys.front(), "2025-02-24");
    EXPECT_EQ(keys.back(), "2025-03-16");
}

TEST(HeatmapGridTest, MetricsFitTheWidth) {
    struct Case {
        double width;
        bool compact;
        std::optional<double> maxPitch;
        std::optional<int> weeks;
        int columns;
        double pitch, gap, cell;
    };
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const Case cases[] = {
        {100, true, std::nullopt, std::nullopt, 11, 100.0 / 11, 2.0, 100.0 / 11 - 2},
        {100, true, 0, 0, 11, 100.0 / 11, 2.0, 100.0 / 11 - 2},     // zero cap and weeks ignored
        {10, false, std::nullopt, std::nullopt, 1, 9, 1.98, 7.02},  // narrower than the labels
        {nan, true, std::nullopt, std::nullopt, 1, 9, 1.98, 7.02},
        {1000, false, std::nullopt, 60, 53, 982.0 / 53, 2.0, 982.0 / 53 - 2},
        {500, true, 5, 10, 10, 5, 1.1, 3.9},
        {500, true, 12, std::nullopt, 41, 12, 2.0, 10},
        {2000, true, 12, std::nullopt, 53, 12, 2.0, 10},
        {20, true, std::nullopt, 53, 53, 20.0 / 53, 0.5, 1.0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "width " << c.width << " weeks " << c.weeks.value_or(0));
        const HeatmapMetrics m = HeatmapGrid::metrics(c.width, c.compact, c.maxPitch, c.weeks);
        EXPECT_EQ(m.weeks, c.columns);
        EXPECT_DOUBLE_EQ(m.pitch, c.pitch);
        EXPECT_DOUBLE_EQ(m.gap, c.gap);
        EXPECT_DOUBLE_EQ(m.cell, c.cell);
        EXPECT_EQ(m.weekdayCol, c.compact ? 0 : 18);
        EXPECT_DOUBLE_EQ(m.plotHeight, c.pitch * 7 + (c.compact ? 0 : 14));
    }
    EXPECT_DEATH(HeatmapGrid::metrics(INFINITY, true, std::nullopt, std::nullopt),
                 "heatmap column count");
}

}  // namespace
}  // namespace kestrel
