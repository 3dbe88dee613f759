// Totals over the ledger, filtered by a LedgerQuery and aggregated by SQLite.

#include <variant>

#include "core/ledger/ledger_query.hpp"
#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_store.hpp"

namespace kestrel {
namespace {

using sqlite::Statement;

constexpr std::string_view kAllBucketsKnown =
    "e.input_uncached IS NOT NULL AND e.cache_read IS NOT NULL AND e.cache_write IS NOT NULL "
    "AND e.output_visible IS NOT NULL AND e.reasoning IS NOT NULL";

std::string summaryColumns() {
    const std::string known(kAllBucketsKnown);
    return "COUNT(*), SUM(e.input_uncached), SUM(e.cache_read), SUM(e.cache_write), "
           "SUM(e.output_visible), SUM(e.reasoning), "
           "SUM(CASE WHEN " +
           known +
           " THEN e.input_uncached + e.cache_read + e.cache_write + e.output_visible + "
           "e.reasoning END), "
           "SUM(e.provider_total), SUM(c.amount_usd_micros), "
           "SUM(c.amount_usd_micros IS NOT NULL), SUM(c.amount_usd_micros IS NULL), "
           "SUM(CASE WHEN " +
           known +
           " THEN 1 ELSE 0 END), "
           "SUM(CASE WHEN " +
           known + " THEN 0 ELSE 1 END)";
}

void bindFilter(Statement& statement, const LedgerFilter& filter, int first = 1) {
    int index = first;
    for (const auto& p : filter.parameters) {
        std::visit([&](const auto& v) { statement.bind(index, v); }, p);
        ++index;
    }
}

LedgerSummary readSummary(const Statement& s, int first) {
    LedgerSummary out;
    out.eventCount = s.int64(first);
    out.inputUncached = s.optionalInt64(first + 1);
    out.cacheRead = s.optionalInt64(first + 2);
    out.cacheWrite = s.optionalInt64(first + 3);
    out.outputVisible = s.optionalInt64(first + 4);
    out.reasoning = s.optionalInt64(first + 5);
    out.fullyKnownTokenTotal = s.optionalInt64(first + 6);
    out.knownProviderTokenTotal = s.optionalInt64(first + 7);
    out.knownCostUSDMicros = s.optionalInt64(first + 8);
    out.pricedEventCount = s.optionalInt64(first + 9).value_or(0);
    out.unknownCostEventCount = s.optionalInt64(first + 10).value_or(0);
    out.tokenKnownEventCount = s.optionalInt64(first + 11).value_or(0);
    out.unknownTokenEventCount = s.optionalInt64(first + 12).value_or(0);
    return out;
}

}  // namespace

int64_t UsageStore::ledgerEventCount(const LedgerQuery& query) {
    std::lock_guard guard(lock_);
    const auto filter = ledgerFilter(query);
    Statement select(connection(),
                     "SELECT COUNT(*) FROM ledger_events e WHERE " + filter.sql + ";");
    bindFilter(select, filter);
    select.step();
    return select.int64(0);
}

LedgerSummary UsageStore::ledgerSummary(const LedgerQuery& query) {
    std::lock_guard guard(lock_);
    const auto filter = ledgerFilter(query);
    Statement select(connection(), "SELECT " + summaryColumns() +
                                       " FROM ledger_events e LEFT JOIN ledger_costs c ON "
                                       "c.ledger_event_id = e.id WHERE " +
                                       filter.sql + ";");
    bindFilter(select, filter);
    select.step();
    return readSummary(select, 0);
}

std::map<AgentSource, LedgerSummary> UsageStore::ledgerSummariesBySource(const LedgerQuery& query) {
    std::lock_guard guard(lock_);
    const auto filter = ledgerFilter(query);
    Statement select(connection(), "SELECT e.source, " + summaryColumns() +
                                       " FROM ledger_events e LEFT JOIN ledger_costs c ON "
                                       "c.ledger_event_id = e.id WHERE " +
                                       filter.sql + " GROUP BY e.source;");
    bindFilter(select, filter);
    std::map<AgentSource, LedgerSummary> out;
    while (select.step()) {
        if (auto source = fromRawValue<AgentSource>(select.text(0))) {
            out[*source] = readSummary(select, 1);
        }
    }
    return out;
}

std::vector<std::pair<std::string, LedgerSummary>> UsageStore::ledgerSummariesByModel(
    const LedgerQuery& query, int limit) {
    std::lock_guard guard(lock_);
    const auto filter = ledgerFilter(query);
    Statement select(connection(),
                     "SELECT e.model, " + summaryColumns() +
                         " FROM ledger_events e LEFT JOIN ledger_costs c ON "
                         "c.ledger_event_id = e.id WHERE " +
                         filter.sql +
                         " GROUP BY e.model ORDER BY COALESCE(SUM(e.input_uncached), 0) + "
                         "COALESCE(SUM(e.cache_read), 0) + COALESCE(SUM(e.cache_write), 0) + "
                         "COALESCE(SUM(e.output_visible), 0) + COALESCE(SUM(e.reasoning), 0) "
                         "DESC, e.model LIMIT ?;");
    bindFilter(select, filter);
    select.bind(static_cast<int>(filter.parameters.size()) + 1, static_cast<int64_t>(limit));
    std::vector<std::pair<std::string, LedgerSummary>> out;
    while (select.step()) {
        out.emplace_back(select.text(0), readSummary(select, 1));
    }
    return out;
}

}  // namespace kestrel
