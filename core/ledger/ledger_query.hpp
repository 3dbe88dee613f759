#pragma once
// The one filter every view of the ledger shares, and the totals it selects. A filter means the
// same thing everywhere because one builder turns it into SQL.

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "core/model/agent_source.hpp"

namespace kestrel {

// Which subscription account's events: one account, all, or only those without an account.
struct LedgerAccountScope {
    enum class Kind { account, all, unassigned };
    Kind kind = Kind::all;
    std::string accountID;  // Kind::account only

    static LedgerAccountScope account(std::string id) { return {Kind::account, std::move(id)}; }
    static LedgerAccountScope all() { return {}; }
    static LedgerAccountScope unassigned() { return {Kind::unassigned, {}}; }
    bool operator==(const LedgerAccountScope&) const = default;
};

// Every field is optional; an absent one does not restrict.
struct LedgerQuery {
    std::optional<double> from;  // inclusive, epoch seconds
    std::optional<double> to;    // exclusive
    std::optional<AgentSource> source;
    std::optional<std::string> integrationInstanceID;
    std::optional<LedgerAccountScope> accountScope;
    std::optional<std::string> provider;
    std::optional<std::string> model;
    std::optional<std::string> projectDisplayName;
    // Case-insensitive substring of model, project name, provider or source.
    std::optional<std::string> search;

    bool operator==(const LedgerQuery&) const = default;
};

struct LedgerSummary {
    int64_t eventCount = 0;
    // Sums; absent when no event contributed a value.
    std::optional<int64_t> inputUncached;
    std::optional<int64_t> cacheRead;
    std::optional<int64_t> cacheWrite;
    std::optional<int64_t> outputVisible;
    std::optional<int64_t> reasoning;
    std::optional<int64_t> fullyKnownTokenTotal;     // events whose five buckets are all known
    std::optional<int64_t> knownProviderTokenTotal;  // the providers' own totals
    std::optional<int64_t> knownCostUSDMicros;
    int64_t pricedEventCount = 0;
    int64_t unknownCostEventCount = 0;
    int64_t tokenKnownEventCount = 0;
    int64_t unknownTokenEventCount = 0;

    bool operator==(const LedgerSummary&) const = default;
};

// The SQL condition of a query over `ledger_events` aliased `e` ("1" when nothing restricts),
// with its parameters in order.
struct LedgerFilter {
    std::string sql;
    std::vector<std::variant<std::string, double>> parameters;
};
LedgerFilter ledgerFilter(const LedgerQuery& query);

}  // namespace kestrel
