#pragma once
// The ledger's events a page at a time, in (time, id) order either way, and what one event's
// token columns add up to as the reports count them.

#include <cstdint>
#include <optional>
#include <vector>

#include "core/ledger/usage_store.hpp"

namespace kestrel {

inline constexpr int kMaxEventsPerPage = 1000;

struct EventsPage {
    std::vector<LedgerEntry> entries;
    std::optional<LedgerCursor> next;  // absent on the last page
    bool ledgerEmpty = false;          // nothing at all in the ledger (first page only)

    bool operator==(const EventsPage&) const = default;
};

// Up to `limit` (1 ... kMaxEventsPerPage) events after `after`. Throws StoreError.
EventsPage eventsPage(UsageStore& store, const LedgerQuery& query, LedgerSortOrder order,
                      const std::optional<LedgerCursor>& after, int limit);

// The five buckets added up, as the reports count tokens, so that a page adds up to the report;
// absent when the event reports none of them.
std::optional<int64_t> eventTokenTotal(const ObservedTokenUsage& tokens);

// Visible output and reasoning together (reasoning is billed as output); absent when neither is
// known.
std::optional<int64_t> eventOutputTokens(const ObservedTokenUsage& tokens);

}  // namespace kestrel
