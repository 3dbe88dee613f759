#include "core/presentation/heatmap_grid.hpp"

#include <algorithm>
#include <map>

#include "core/model/checked_math.hpp"

namespace kestrel::HeatmapGrid {

namespace {

constexpr int kDaysPerWeek = 7;
constexpr int kMaxWeeks = 53;    // a year and a bit, whatever weekday it starts on
constexpr double kMinPitch = 9;  // a 7-point square and a 2-point gap

// 1 = Sunday ... 7 = Saturday, the numbering `weekdayRow` takes.
constexpr int kMonday = 2;
constexpr int kWednesday = 4;
constexpr int kFriday = 6;

struct MonthKey {
    int year = 0;
    int month = 0;

    bool operator==(const MonthKey&) const = default;
};

struct DayTotal {
    int64_t tokens = 0;
    std::optional<int64_t> costUSDMicros;
};

// The calendar numbers weekdays 0 = Sunday ... 6 and lets callers set any first weekday; the
// grid wants 1 = Sunday ... 7, so reduce into 0...6 before adding one.
int oneBasedWeekday(int calendarWeekday) {
    return (calendarWeekday % kDaysPerWeek + kDaysPerWeek) % kDaysPerWeek + 1;
}

int clampColumns(int64_t columns) {
    return static_cast<int>(std::clamp<int64_t>(columns, 1, kMaxWeeks));
}

// The days a caller passed, keyed by their start of day in `calendar`, keeping only
// [first, last]. Days sharing a start are added; a cost stays absent only when none was known.
std::map<double, DayTotal> totalsByDay(const std::vector<HeatmapDay>& days,
                                       const Calendar& calendar, double first, double last) {
    std::map<double, DayTotal> totals;
    for (const HeatmapDay& d : days) {
        const double start = calendar.startOfDay(d.day);
        if (start < first || start > last) {
            continue;
        }
        DayTotal& total = totals[start];
        total.tokens = checkedAdd(total.tokens, d.tokens, "heatmap day tokens");
        if (d.costUSDMicros) {
            total.costUSDMicros =
                checkedAdd(total.costUSDMicros.value_or(0), *d.costUSDMicros, "heatmap day cost");
        }
    }
    return totals;
}

// A label where the top day of a column starts a new month. The leftmost column always starts
// one, so its month may show for only a few days; when the next label would sit in the very
// next column, that later month takes the place instead of crowding it. Months span at least
// four columns, so that is the only place two labels can meet.
std::vector<HeatmapMonthLabel> monthLabels(const std::vector<std::vector<HeatmapCell>>& columns,
                                           const Calendar& calendar) {
    std::vector<HeatmapMonthLabel> labels;
    std::optional<MonthKey> previous;
    for (size_t index = 0; index < columns.size(); ++index) {
        const Calendar::Parts top = calendar.parts(columns[index].front().day);
        const MonthKey key{top.year, top.month};
        if (previous == key) {
            continue;
        }
        previous = key;
        const HeatmapMonthLabel label{static_cast<int>(index), key.month};
        if (!labels.empty() && label.weekIndex - labels.back().weekIndex <= 1) {
            labels.back() = label;
        } else {
            labels.push_back(label);
        }
    }
    return labels;
}

}  // namespace

HeatmapModel make(const std::vector<HeatmapDay>& days, double now, const Calendar& calendar,
                  int weeks) {
    HeatmapModel model;
    model.weeks = std::clamp(weeks, 1, kMaxWeeks);

    const int firstWeekday = oneBasedWeekday(calendar.firstWeekday);
    const double today = calendar.startOfDay(now);
    const int todayRow = weekdayRow(oneBasedWeekday(calendar.parts(today).weekday), firstWeekday);
    const int dayCount = model.weeks * kDaysPerWeek;
    // Walk by calendar days rather than by 86400 s so a daylight-saving change shifts nothing.
    const double firstDay =
        calendar.addingDays(today, -(todayRow + (model.weeks - 1) * kDaysPerWeek));
    const double lastDay = calendar.addingDays(firstDay, dayCount - 1);
    const std::map<double, DayTotal> totals = totalsByDay(days, calendar, firstDay, lastDay);

    std::vector<int64_t> gridTotals;
    gridTotals.reserve(static_cast<size_t>(dayCount));
    model.cells.reserve(static_cast<size_t>(model.weeks));
    for (int column = 0; column < model.weeks; ++column) {
        std::vector<HeatmapCell> cells;
        cells.reserve(kDaysPerWeek);
        for (int row = 0; row < kDaysPerWeek; ++row) {
            HeatmapCell cell;
            cell.day = calendar.addingDays(firstDay, column * kDaysPerWeek + row);
            cell.isFuture = cell.day > today;
            if (const auto found = totals.find(cell.day); found != totals.end()) {
                cell.tokens = found->second.tokens;
                cell.costUSDMicros = found->second.costUSDMicros;
            }
            gridTotals.push_back(cell.tokens);
            cells.push_back(cell);
        }
        model.cells.push_back(std::move(cells));
    }

    const std::vector<int64_t> thresholds = quartileThresholds(std::move(gridTotals));
    for (auto& column : model.cells) {
        for (HeatmapCell& cell : column) {
            cell.level = cell.isFuture ? 0 : level(cell.tokens, thresholds);
        }
    }

    model.monthLabels = monthLabels(model.cells, calendar);
    for (const int weekday : {kMonday, kWednesday, kFriday}) {
        model.labeledRows.push_back(weekdayRow(weekday, firstWeekday));
    }
    std::ranges::sort(model.labeledRows);
    return model;
}

std::vector<int64_t> quartileThresholds(std::vector<int64_t> totals) {
    std::erase_if(totals, [](int64_t t) { return t <= 0; });
    if (totals.empty()) {
        return {};
    }
    std::ranges::sort(totals);
    // trunc((n - 1) * p) for p = 1/4, 1/2, 3/4, in integers; never past the last element.
    const size_t last = totals.size() - 1;
    return {totals[last / 4], totals[last / 2], totals[last * 3 / 4]};
}

int level(int64_t tokens, const std::vector<int64_t>& thresholds) {
    if (tokens < 1) {
        return 0;
    }
    if (thresholds.size() < 3) {
        return 1;
    }
    for (int i = 0; i < 3; ++i) {
        if (tokens <= thresholds[static_cast<size_t>(i)]) {
            return i + 1;
        }
    }
    return 4;
}

int weekdayRow(int weekday, int firstWeekday) {
    const int64_t offset =
        checkedAdd(checkedSub(weekday, firstWeekday, "weekday row"), kDaysPerWeek, "weekday row");
    // Floored, so numbers outside 1...7 still land on a row instead of a negative index.
    return static_cast<int>((offset % kDaysPerWeek + kDaysPerWeek) % kDaysPerWeek);
}

HeatmapMetrics metrics(double width, bool compact, std::optional<double> maxPitch,
                       std::optional<int> weeks) {
    HeatmapMetrics m;
    m.weekdayCol = compact ? 0 : 18;
    m.monthH = compact ? 0 : 14;
    // At least one minimum column, also for a NaN width (max keeps its first argument then).
    const double available = std::max(kMinPitch, width - m.weekdayCol);
    const bool capped = maxPitch && *maxPitch > 0;

    double pitch = 0;
    if (weeks && *weeks >= 1) {
        m.weeks = std::min(*weeks, kMaxWeeks);
        pitch = available / m.weeks;
        if (capped) {
            pitch = std::min(pitch, *maxPitch);
        }
    } else if (capped) {
        m.weeks = clampColumns(checkedTruncate(available / *maxPitch, "heatmap column count"));
        pitch = std::min(available / m.weeks, *maxPitch);
    } else {
        m.weeks = clampColumns(checkedTruncate(available / kMinPitch, "heatmap column count"));
        pitch = available / m.weeks;
    }

    m.pitch = pitch;
    m.gap = std::clamp(pitch * 0.22, 0.5, 2.0);
    m.cell = std::max(pitch - m.gap, 1.0);
    m.plotHeight = pitch * kDaysPerWeek + m.monthH;
    return m;
}

}  // namespace kestrel::HeatmapGrid
