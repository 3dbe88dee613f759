#include "core/app/usage_overview.hpp"

#include <algorithm>
#include <map>

#include "core/app/ledger_heatmap.hpp"

namespace kestrel {
namespace {

// Agents by tokens, then cost; the map's source order breaks ties. Agents without events are
// left out.
std::vector<SourceUsage> heaviestSources(const std::map<AgentSource, LedgerSummary>& bySource,
                                         std::size_t limit) {
    std::vector<SourceUsage> rows;
    for (const auto& [source, summary] : bySource) {
        if (summary.eventCount > 0) {
            rows.push_back({source, summary});
        }
    }
    std::ranges::stable_sort(rows, [](const SourceUsage& a, const SourceUsage& b) {
        const auto ta = totalTokens(a.summary), tb = totalTokens(b.summary);
        if (ta != tb) {
            return ta > tb;
        }
        return a.summary.knownCostUSDMicros.value_or(0) > b.summary.knownCostUSDMicros.value_or(0);
    });
    if (rows.size() > limit) {
        rows.resize(limit);
    }
    return rows;
}

}  // namespace

UsageOverview usageOverview(UsageStore& store, const LedgerQuery& filter,
                            const Calendar& calendar, double now, OverviewShape shape) {
    const double today = calendar.startOfDay(now);
    const double tomorrow = calendar.addingDays(today, 1);
    const auto between = [&](double from, double to) {
        LedgerQuery q = filter;
        q.from = from;
        q.to = to;
        return q;
    };
    const LedgerQuery todayQuery = between(today, tomorrow);
    UsageOverview out;
    out.today = store.ledgerSummary(todayQuery);
    out.yesterday = store.ledgerSummary(between(calendar.addingDays(today, -1), today));
    out.last7Days = store.ledgerSummary(between(calendar.addingDays(today, -6), tomorrow));
    out.last30Days = store.ledgerSummary(between(calendar.addingDays(today, -29), tomorrow));
    out.topModelsToday = store.ledgerSummariesByModel(todayQuery);
    if (out.topModelsToday.size() > shape.topRows) {
        out.topModelsToday.resize(shape.topRows);
    }
    out.topSourcesToday = heaviestSources(store.ledgerSummariesBySource(todayQuery), shape.topRows);
    out.heatmap = ledgerHeatmap(store, calendar, shape.heatmapWeeks, now);
    out.matchingEvents = store.ledgerSummary(filter).eventCount;
    return out;
}

LedgerHeadline ledgerHeadline(UsageStore& store, const Calendar& calendar, double now) {
    const auto since = [&](std::optional<double> from) {
        LedgerQuery q;
        q.from = from;
        return store.ledgerSummary(q);
    };
    const double today = calendar.startOfDay(now);
    return {since(today), since(calendar.addingDays(today, -6)), since(std::nullopt)};
}

}  // namespace kestrel
