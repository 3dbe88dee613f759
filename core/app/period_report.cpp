#include "core/app/period_report.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <map>

namespace kestrel {

std::string periodOf(const Calendar& calendar, double day, PeriodUnit unit) {
    switch (unit) {
        case PeriodUnit::day:
            return calendar.dayKey(day);
        case PeriodUnit::week: {
            const int back = (calendar.parts(day).weekday - calendar.firstWeekday + 7) % 7;
            return calendar.dayKey(calendar.addingDays(day, -back));
        }
        case PeriodUnit::month: {
            const auto p = calendar.parts(day);
            return fmt::format("{:04}-{:02}", p.year, p.month);
        }
    }
    return {};
}

UsageRows<PeriodUsage> periodReport(UsageStore& store, const LedgerQuery& query,
                                    const Calendar& calendar, PeriodUnit unit, bool newestFirst) {
    struct Gathered {
        PeriodUsage usage;
        std::map<std::string, PeriodModelUsage> byModel;
    };
    std::map<std::string, Gathered> periods;
    UsageRows<PeriodUsage> out;
    for (const auto& b : store.ledgerModelTimeBuckets(query, LedgerBucketUnit::day)) {
        auto& p = periods[periodOf(calendar, b.start, unit)];
        p.usage.total += b.summary;
        p.usage.models.insert(b.model);
        p.usage.sources.insert(b.source);
        auto& m = p.byModel[b.model];
        m.model = b.model;
        m.summary += b.summary;
        m.sources.insert(b.source);
        out.total += b.summary;
    }
    for (auto& [name, p] : periods) {
        p.usage.period = name;
        for (auto& [model, usage] : p.byModel) {
            p.usage.byModel.push_back(std::move(usage));
        }
        // Heaviest model first; models of equal weight keep their name order.
        std::ranges::stable_sort(p.usage.byModel, [](const auto& a, const auto& b) {
            return totalTokens(a.summary) > totalTokens(b.summary);
        });
        out.rows.push_back(std::move(p.usage));
    }
    if (newestFirst) {
        std::ranges::reverse(out.rows);
    }
    return out;
}

}  // namespace kestrel
