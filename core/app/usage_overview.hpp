#pragma once
// The first thing a person looks at: today, yesterday, the last 7 and 30 days, today's heaviest
// models and agents, and the heatmap of the last weeks.

#include <cstddef>
#include <vector>

#include "core/app/usage_rows.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/model/calendar.hpp"
#include "core/presentation/heatmap_grid.hpp"

namespace kestrel {

struct UsageOverview {
    // Each period ends with today, so a record stamped ahead of the clock shows in none.
    LedgerSummary today;
    LedgerSummary yesterday;
    LedgerSummary last7Days;
    LedgerSummary last30Days;
    std::vector<LedgerModelSummary> topModelsToday;  // heaviest first
    std::vector<SourceUsage> topSourcesToday;        // by tokens, then cost
    HeatmapModel heatmap;                            // every source, whatever the filter
    int64_t matchingEvents = 0;                      // events the filter selects, at any time

    bool operator==(const UsageOverview&) const = default;
};

struct OverviewShape {
    std::size_t topRows = 5;
    int heatmapWeeks = 26;
};

// The overview at `now` of the events `filter` selects (its time bounds are replaced by each
// period's). Throws StoreError.
UsageOverview usageOverview(UsageStore& store, const LedgerQuery& filter,
                            const Calendar& calendar, double now, OverviewShape shape = {});

// The ledger in one line's worth: today, the last 7 days and all time, every source.
struct LedgerHeadline {
    LedgerSummary today;
    LedgerSummary last7Days;  // today and the six days before, up to now and beyond
    LedgerSummary allTime;

    bool operator==(const LedgerHeadline&) const = default;
};

LedgerHeadline ledgerHeadline(UsageStore& store, const Calendar& calendar, double now);

}  // namespace kestrel
