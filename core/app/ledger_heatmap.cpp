#include "core/app/ledger_heatmap.hpp"

#include <fmt/format.h>

#include "core/model/checked_math.hpp"

namespace kestrel {

HeatmapModel ledgerHeatmap(UsageStore& store, const Calendar& calendar, int weeks, double now) {
    // An empty grid tells which days the real one spans, so the ledger is asked for just those.
    const HeatmapModel frame = HeatmapGrid::make({}, now, calendar, weeks);
    const double first = frame.cells.front().front().day;
    const double end = calendar.addingDays(frame.cells.back().back().day, 1);

    std::vector<HeatmapDay> days;
    for (const auto& total : store.ledgerDailyTotals(first, end)) {
        const auto midnight = calendar.startOfDay(
            fmt::format("{:04}-{:02}-{:02}", total.year, total.month, total.day));
        if (midnight) {
            days.push_back({*midnight, total.tokens, total.costUSDMicros});
        }
    }
    return HeatmapGrid::make(days, now, calendar, weeks);
}

HeatmapTotals heatmapTotals(const HeatmapModel& model) {
    HeatmapTotals out;
    for (const auto& column : model.cells) {
        for (const auto& cell : column) {
            out.tokens = checkedAdd(out.tokens, cell.tokens, "heatmap tokens");
            out.costUSDMicros =
                checkedAdd(out.costUSDMicros, cell.costUSDMicros.value_or(0), "heatmap cost");
        }
    }
    return out;
}

std::vector<int64_t> heatmapThresholds(const HeatmapModel& model) {
    std::vector<int64_t> totals;
    for (const auto& column : model.cells) {
        for (const auto& cell : column) {
            totals.push_back(cell.tokens);
        }
    }
    return HeatmapGrid::quartileThresholds(std::move(totals));
}

}  // namespace kestrel
