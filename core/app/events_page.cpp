#include "core/app/events_page.hpp"

#include "core/model/checked_math.hpp"

namespace kestrel {

EventsPage eventsPage(UsageStore& store, const LedgerQuery& query, LedgerSortOrder order,
                      const std::optional<LedgerCursor>& after, int limit) {
    EventsPage out;
    // One event more than shown says whether a next page exists, so the last page never offers
    // a cursor that leads to nothing.
    auto page = store.ledgerEvents(query, order, after, limit + 1);
    out.entries = std::move(page.entries);
    out.ledgerEmpty = out.entries.empty() && !after && store.ledgerEventCount() == 0;
    if (out.entries.size() > static_cast<std::size_t>(limit)) {
        out.entries.resize(static_cast<std::size_t>(limit));
        const auto& last = out.entries.back().event;
        out.next = LedgerCursor{last.occurredAt, last.id};
    }
    return out;
}

std::optional<int64_t> eventTokenTotal(const ObservedTokenUsage& t) {
    const std::optional<int64_t> buckets[] = {t.inputUncached, t.cacheRead, t.cacheWrite,
                                              t.outputVisible, t.reasoning};
    std::optional<int64_t> sum;
    for (const auto& v : buckets) {
        if (v) {
            sum = checkedAdd(sum.value_or(0), *v, "event token total");
        }
    }
    return sum;
}

std::optional<int64_t> eventOutputTokens(const ObservedTokenUsage& t) {
    if (!t.outputVisible && !t.reasoning) {
        return std::nullopt;
    }
    return checkedAdd(t.outputVisible.value_or(0), t.reasoning.value_or(0), "event output");
}

}  // namespace kestrel
