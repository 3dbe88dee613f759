#include "core/pricing/aggregation.hpp"

#include <algorithm>
#include <set>

#include "core/model/checked_math.hpp"

namespace kestrel {

void UsageSummary::add(const UsageEvent& event) {
    tokens += event.exclusive;
    eventCount = checkedAdd(eventCount, 1, "UsageSummary.eventCount");
    if (event.estimatedCostUSDMicros) {
        pricedCostUSDMicros = checkedAdd(pricedCostUSDMicros, *event.estimatedCostUSDMicros,
                                         "UsageSummary.pricedCostUSDMicros");
        pricedEventCount = checkedAdd(pricedEventCount, 1, "UsageSummary.pricedEventCount");
    } else {
        unpricedEventCount = checkedAdd(unpricedEventCount, 1, "UsageSummary.unpricedEventCount");
    }
    if (!event.breakdownTrusted) {
        untrustedEventCount =
            checkedAdd(untrustedEventCount, 1, "UsageSummary.untrustedEventCount");
    }
}

namespace Aggregation {

UsageSummary summary(const std::vector<UsageEvent>& events) {
    UsageSummary out;
    for (const UsageEvent& e : events) {
        out.add(e);
    }
    return out;
}

std::vector<std::pair<AgentSource, UsageSummary>> bySource(const std::vector<UsageEvent>& events) {
    // Scoped enumerations order by their values, which follow the declaration.
    std::map<AgentSource, UsageSummary> groups;
    for (const UsageEvent& e : events) {
        groups[e.source].add(e);
    }
    return {groups.begin(), groups.end()};
}

std::vector<ModelUsage> byModel(const std::vector<UsageEvent>& events) {
    struct Group {
        std::set<AgentSource> sources;
        UsageSummary summary;
    };
    std::map<std::string, Group> groups;
    for (const UsageEvent& e : events) {
        Group& g = groups[e.model];
        g.sources.insert(e.source);
        g.summary.add(e);
    }

    struct Ranked {
        int64_t total;
        ModelUsage usage;
    };
    std::vector<Ranked> ranked;
    ranked.reserve(groups.size());
    for (auto& [model, g] : groups) {
        const int64_t total = g.summary.tokens.billedTokens();
        ranked.push_back({total, {model, {g.sources.begin(), g.sources.end()}, g.summary}});
    }
    // The map already yields names in order, so a stable sort on the total keeps ties by name.
    std::ranges::stable_sort(ranked,
                             [](const Ranked& a, const Ranked& b) { return a.total > b.total; });

    std::vector<ModelUsage> out;
    out.reserve(ranked.size());
    for (Ranked& r : ranked) {
        out.push_back(std::move(r.usage));
    }
    return out;
}

std::map<int, UsageSummary> hourly(const std::vector<UsageEvent>& events, double day,
                                   const Calendar& calendar) {
    const double start = calendar.startOfDay(day);
    const double end = calendar.addingDays(start, 1);
    std::map<int, UsageSummary> out;
    for (const UsageEvent& e : events) {
        if (e.occurredAt >= start && e.occurredAt < end) {
            out[calendar.parts(e.occurredAt).hour].add(e);
        }
    }
    return out;
}

std::map<std::string, UsageSummary> daily(const std::vector<UsageEvent>& events,
                                          const Calendar& calendar) {
    std::map<std::string, UsageSummary> out;
    for (const UsageEvent& e : events) {
        out[calendar.dayKey(e.occurredAt)].add(e);
    }
    return out;
}

std::vector<std::pair<std::string, UsageSummary>> dailyWindow(const std::vector<UsageEvent>& events,
                                                              double endingBefore, int days,
                                                              const Calendar& calendar) {
    std::vector<std::pair<std::string, UsageSummary>> out;
    if (days < 1) {
        return out;
    }
    // The last day is the one holding endingBefore, unless endingBefore is exactly its start.
    double lastStart = calendar.startOfDay(endingBefore);
    if (lastStart >= endingBefore) {
        lastStart = calendar.addingDays(lastStart, -1);
    }
    const double firstStart = calendar.addingDays(lastStart, -(days - 1));

    std::map<std::string, std::size_t> slot;
    out.reserve(static_cast<std::size_t>(days));
    for (int i = 0; i < days; ++i) {
        std::string key = calendar.dayKey(calendar.addingDays(firstStart, i));
        slot.emplace(key, out.size());
        out.emplace_back(std::move(key), UsageSummary{});
    }
    for (const UsageEvent& e : events) {
        if (e.occurredAt < firstStart || e.occurredAt >= endingBefore) {
            continue;
        }
        if (const auto it = slot.find(calendar.dayKey(e.occurredAt)); it != slot.end()) {
            out[it->second].second.add(e);
        }
    }
    return out;
}

}  // namespace Aggregation

}  // namespace kestrel
