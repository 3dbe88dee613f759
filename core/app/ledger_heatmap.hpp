#pragma once
// The calendar heatmap of the last weeks, filled from the ledger's daily totals.

#include <cstdint>
#include <vector>

#include "core/ledger/usage_store.hpp"
#include "core/model/calendar.hpp"
#include "core/presentation/heatmap_grid.hpp"

namespace kestrel {

// `weeks` columns ending with the week of `now` (clamped as the grid clamps them), each day's
// tokens and cost from the ledger (every source). Throws StoreError.
HeatmapModel ledgerHeatmap(UsageStore& store, const Calendar& calendar, int weeks, double now);

struct HeatmapTotals {
    int64_t tokens = 0;
    int64_t costUSDMicros = 0;

    bool operator==(const HeatmapTotals&) const = default;
};

// What the grid's days add up to.
HeatmapTotals heatmapTotals(const HeatmapModel& model);

// The token totals the grid's levels are cut at (quartiles over the days with usage).
std::vector<int64_t> heatmapThresholds(const HeatmapModel& model);

}  // namespace kestrel
