#pragma once
// The one filter every view of the ledger shares, the results of the queries over it, and the
// builder that turns a filter into SQL. A filter means the same thing everywhere because one
// builder writes every WHERE clause.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "core/ledger/ledger_records.hpp"
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
    // One agent session (its stored session key); only events whose key was kept can match.
    std::optional<std::string> sessionKey;

    bool operator==(const LedgerQuery&) const = default;
};

enum class LedgerSortOrder { ascending, descending };

// The position after which the next page starts.
struct LedgerCursor {
    double occurredAt = 0;
    std::string eventID;

    bool operator==(const LedgerCursor&) const = default;
};

struct LedgerPage {
    std::vector<LedgerEntry> entries;
    // Where the next page starts; absent when this page came back shorter than asked, so that
    // the last page is known without one more query.
    std::optional<LedgerCursor> nextCursor;

    bool operator==(const LedgerPage&) const = default;
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
    std::optional<int64_t> knownProviderTokenTotal;  // the provider's total, else the breakdown
    std::optional<int64_t> knownCostUSDMicros;
    int64_t pricedEventCount = 0;
    int64_t unknownCostEventCount = 0;
    int64_t tokenKnownEventCount = 0;  // events with a known provider token total
    int64_t unknownTokenEventCount = 0;

    // Field-wise sum (absent + absent stays absent); aborts on overflow.
    LedgerSummary& operator+=(const LedgerSummary& other);
    bool operator==(const LedgerSummary&) const = default;
};

struct LedgerModelSummary {
    std::string model;
    std::vector<AgentSource> sources;  // in source order
    LedgerSummary summary;

    bool operator==(const LedgerModelSummary&) const = default;
};

enum class LedgerBucketUnit { hour, day };

struct LedgerTimeBucket {
    double start = 0;  // local midnight of the day, or the local start of the hour
    AgentSource source = AgentSource::claude;
    LedgerSummary summary;

    bool operator==(const LedgerTimeBucket&) const = default;
};

struct LedgerModelTimeBucket {
    double start = 0;  // local midnight of the day, or the local start of the hour
    std::string model;
    AgentSource source = AgentSource::claude;
    LedgerSummary summary;

    bool operator==(const LedgerModelTimeBucket&) const = default;
};

struct LedgerSessionSummary {
    std::string sessionKey;
    AgentSource source = AgentSource::claude;
    std::optional<std::string> projectDisplayName;  // the latest event's
    double firstAt = 0;
    double lastAt = 0;
    std::vector<std::string> models;  // by name
    LedgerSummary summary;

    bool operator==(const LedgerSessionSummary&) const = default;
};

struct LedgerProjectSummary {
    std::optional<std::string> projectDisplayName;
    std::vector<AgentSource> sources;
    LedgerSummary summary;

    bool operator==(const LedgerProjectSummary&) const = default;
};

// One local calendar day's totals.
struct LedgerDailyTotal {
    int year = 1970;
    int month = 1;
    int day = 1;
    int64_t tokens = 0;                    // known provider token total
    std::optional<int64_t> costUSDMicros;  // absent when no event of the day was priced

    bool operator==(const LedgerDailyTotal&) const = default;
};

struct LedgerDateBounds {
    double earliest = 0;
    double latest = 0;

    bool operator==(const LedgerDateBounds&) const = default;
};

struct LedgerFacets {
    std::vector<AgentSource> sources;
    std::vector<std::string> integrationInstanceIDs;
    std::vector<std::string> accountIDs;
    bool hasUnassignedAccount = false;
    std::vector<std::string> providers;
    std::vector<std::string> models;
    std::vector<std::string> projects;

    bool operator==(const LedgerFacets&) const = default;
};

// The text of a query's conditions and their parameters in binding order.
struct LedgerFilter {
    std::string sql;  // " AND ..." clauses, to follow "WHERE 1=1"; empty when nothing restricts
    std::vector<std::variant<std::string, double>> parameters;
};

// The conditions of `query` on the events table under `alias`.
LedgerFilter ledgerFilter(const LedgerQuery& query, std::string_view alias = "e");

// The same conditions for open coverage issues (`ci`) joined with their observations (`o`): an
// issue without an observation filters by its own time, source and instance.
LedgerFilter coverageFilter(const LedgerQuery& query);

// `text` lower-cased, with LIKE's wildcards and the escape character escaped by a backslash,
// between % signs: a pattern that matches `text` as a plain substring.
std::string likeSubstringPattern(std::string_view text);

}  // namespace kestrel
