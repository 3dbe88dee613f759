#pragma once
// Usage per local day, week or month, with each period's models: one query of day buckets per
// model and source, summed into periods. Weeks start on the calendar's first weekday and are
// named by their first day; months as YYYY-MM.

#include <set>
#include <string>
#include <vector>

#include "core/app/usage_rows.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/model/calendar.hpp"

namespace kestrel {

enum class PeriodUnit { day, week, month };

struct PeriodModelUsage {
    std::string model;
    std::set<AgentSource> sources;
    LedgerSummary summary;

    bool operator==(const PeriodModelUsage&) const = default;
};

struct PeriodUsage {
    std::string period;  // "2026-11-24", the week's first day, or "2026-11"
    LedgerSummary total;
    std::set<std::string> models;
    std::set<AgentSource> sources;
    std::vector<PeriodModelUsage> byModel;  // heaviest first

    bool operator==(const PeriodUsage&) const = default;
};

// The period of the local day that starts at `day`.
std::string periodOf(const Calendar& calendar, double day, PeriodUnit unit);

// Periods with usage, oldest first (newest first with `newestFirst`). Throws StoreError.
UsageRows<PeriodUsage> periodReport(UsageStore& store, const LedgerQuery& query,
                                    const Calendar& calendar, PeriodUnit unit,
                                    bool newestFirst = false);

}  // namespace kestrel
