#pragma once
// The calendar heatmap: one square per day for the last weeks, in week columns and weekday rows,
// coloured in five levels by the day's token total. This is the model and the drawing numbers;
// the shell paints them.

#include <cstdint>
#include <optional>
#include <vector>

#include "core/model/calendar.hpp"

namespace kestrel {

// One calendar day that has usage, as the ledger's daily totals give it.
struct HeatmapDay {
    double day = 0;  // any instant of the day; matched by its start of day
    int64_t tokens = 0;
    std::optional<int64_t> costUSDMicros;

    bool operator==(const HeatmapDay&) const = default;
};

struct HeatmapCell {
    double day = 0;      // start of the day
    int64_t tokens = 0;  // 0 for a day without data
    std::optional<int64_t> costUSDMicros;
    int level = 0;          // 0 (nothing) ... 4 (busiest quarter)
    bool isFuture = false;  // after today: drawn empty, always level 0

    bool operator==(const HeatmapCell&) const = default;
};

struct HeatmapMonthLabel {
    int weekIndex = 0;  // the column the label is drawn at
    int month = 1;      // 1-12

    bool operator==(const HeatmapMonthLabel&) const = default;
};

struct HeatmapModel {
    int weeks = 0;  // number of columns
    // Oldest week first; each column holds 7 cells, row 0 being the calendar's first weekday.
    std::vector<std::vector<HeatmapCell>> cells;
    std::vector<HeatmapMonthLabel> monthLabels;  // left to right, never in adjacent columns
    std::vector<int> labeledRows;                // rows that carry a weekday name, ascending

    bool operator==(const HeatmapModel&) const = default;
};

// Lengths in points.
struct HeatmapMetrics {
    int weeks = 1;
    double pitch = 0;       // step from one column (or row) to the next
    double cell = 0;        // side of a square
    double gap = 0;         // space between squares
    double weekdayCol = 0;  // width of the weekday-name column
    double monthH = 0;      // height of the month-name band
    double plotHeight = 0;  // month band plus seven rows

    bool operator==(const HeatmapMetrics&) const = default;
};

namespace HeatmapGrid {

// The grid of the `weeks` (clamped to 1...53) weeks ending with the week of `now` in `calendar`,
// today in the last column. Input days sharing a start of day are added together; days outside
// the grid are ignored. Levels come from the quartiles of the grid's own totals.
HeatmapModel make(const std::vector<HeatmapDay>& days, double now, const Calendar& calendar,
                  int weeks);

// The upper bounds of levels 1, 2 and 3: the lower quartile, median and upper quartile of the
// totals above 0, each taken as an element (no interpolation). Empty when no total is above 0.
std::vector<int64_t> quartileThresholds(std::vector<int64_t> totals);

// 0 below one token; 1 when `thresholds` has fewer than three entries; otherwise the first
// level whose threshold the total does not exceed, 4 above them all.
int level(int64_t tokens, const std::vector<int64_t>& thresholds);

// The row of `weekday` when weeks start on `firstWeekday`, both numbered 1 = Sunday ... 7 =
// Saturday (one more than `Calendar::Parts::weekday` and `Calendar::firstWeekday`). Always 0-6.
int weekdayRow(int weekday, int firstWeekday);

// How many weeks fit in `width` and at what size. `weeks`, when given and at least 1, fixes the
// number of columns (at most 53); otherwise a positive `maxPitch` caps the step and decides the
// count, and without either the step is at least 9. Compact drops the weekday and month labels.
// Aborts when the column count before clamping leaves the 64-bit range (an infinite width or a
// vanishing `maxPitch`).
HeatmapMetrics metrics(double width, bool compact, std::optional<double> maxPitch,
                       std::optional<int> weeks);

}  // namespace HeatmapGrid

}  // namespace kestrel
