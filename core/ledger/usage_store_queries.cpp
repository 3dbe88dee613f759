// The views of the ledger: pages of entries, totals, breakdowns by source, model, session,
// project and time, bounds, facets and coverage. All aggregation happens in SQLite; totals over
// whole quarter hours, hours and days come from the rollups when the filter allows it.

#include <algorithm>
#include <cmath>
#include <iterator>
#include <map>
#include <set>
#include <variant>

#include "core/ledger/ledger_query.hpp"
#include "core/ledger/ledger_rollups.hpp"
#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/ledger/usage_store_internals.hpp"
#include "core/model/calendar.hpp"

namespace kestrel {
namespace {

using sqlite::Statement;

constexpr std::string_view kFullyKnown =
    "CASE WHEN e.input_uncached IS NOT NULL\n"
    "           AND e.cache_read IS NOT NULL\n"
    "           AND e.cache_write IS NOT NULL\n"
    "           AND e.output_visible IS NOT NULL\n"
    "           AND e.reasoning IS NOT NULL\n"
    "     THEN e.input_uncached + e.cache_read + e.cache_write\n"
    "        + e.output_visible + e.reasoning\n"
    "     ELSE NULL END";

std::string knownProviderTotal() {
    return "CASE WHEN e.provider_total IS NOT NULL THEN e.provider_total\n     ELSE " +
           std::string(kFullyKnown) + " END";
}

constexpr std::string_view kJoin =
    " FROM ledger_events e LEFT JOIN ledger_costs c ON c.ledger_event_id=e.id WHERE 1=1";

// The thirteen summary columns over events `e` joined with costs `c`, in the order readSummary
// reads them.
std::string rawSummaryColumns() {
    const std::string known(kFullyKnown);
    const std::string provider = knownProviderTotal();
    return "COUNT(*), SUM(e.input_uncached), SUM(e.cache_read), SUM(e.cache_write), "
           "SUM(e.output_visible), SUM(e.reasoning), SUM(" +
           known + "), SUM(" + provider +
           "), SUM(c.amount_usd_micros), COUNT(c.amount_usd_micros), COUNT(*) - "
           "COUNT(c.amount_usd_micros), COUNT(" +
           provider + "), COUNT(*) - COUNT(" + provider + ")";
}

constexpr int kSummaryColumns = 13;

LedgerSummary readSummary(const Statement& s, int first) {
    LedgerSummary out;
    out.eventCount = s.optionalInt64(first).value_or(0);
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

void bindFilter(Statement& statement, const LedgerFilter& filter, int first = 1) {
    int index = first;
    for (const auto& p : filter.parameters) {
        std::visit([&](const auto& v) { statement.bind(index, v); }, p);
        ++index;
    }
}

using Freshness = RollupFreshness;

// How a query is answered: runs of whole quarter hours [first, end) from the rollups, and the
// parts of the range outside them from the events: its partial ends, and the quarter hours a
// writer marked that a reader could not rebuild. Without rollups the query is one piece.
struct Plan {
    std::vector<std::pair<int64_t, int64_t>> rollupRuns;
    std::vector<LedgerQuery> rawPieces;
};

Plan plan(const LedgerQuery& q, const Freshness& fresh) {
    Plan p;
    if (!fresh.usable || !LedgerRollups::answers(q)) {
        p.rawPieces.push_back(q);
        return p;
    }
    // An open end reaches past every stored event (times are kept far inside these bounds).
    int64_t first = -(int64_t{1} << 40);
    int64_t end = int64_t{1} << 40;
    if (q.from) {
        first = LedgerRollups::quarterOf(*q.from);
        if (LedgerRollups::quarterStart(first) < *q.from) {
            ++first;  // only partly inside: read from the events
        }
    }
    if (q.to) {
        end = LedgerRollups::quarterOf(*q.to);  // the quarter holding `to` is at most partly in
    }
    if (first >= end) {
        p.rawPieces.push_back(q);
        return p;
    }
    if (q.from && *q.from < LedgerRollups::quarterStart(first)) {
        LedgerQuery head = q;
        head.to = LedgerRollups::quarterStart(first);
        p.rawPieces.push_back(head);
    }
    if (q.to && LedgerRollups::quarterStart(end) < *q.to) {
        LedgerQuery tail = q;
        tail.from = LedgerRollups::quarterStart(end);
        p.rawPieces.push_back(tail);
    }
    // Marked quarter hours inside the range split it: each run of them is read from the events.
    const auto& marked = fresh.markedQuarters;
    int64_t at = first;
    for (auto it = std::ranges::lower_bound(marked, first); it != marked.end() && *it < end;) {
        const int64_t runFirst = *it;
        int64_t runEnd = runFirst + 1;
        for (++it; it != marked.end() && *it == runEnd && runEnd < end; ++it) {
            ++runEnd;
        }
        if (at < runFirst) {
            p.rollupRuns.emplace_back(at, runFirst);
        }
        LedgerQuery piece = q;
        piece.from = LedgerRollups::quarterStart(runFirst);
        piece.to = LedgerRollups::quarterStart(runEnd);
        p.rawPieces.push_back(piece);
        at = runEnd;
    }
    if (at < end) {
        p.rollupRuns.emplace_back(at, end);
    }
    return p;
}

// Totals per `key` (an SQL expression over events `e`, and the same column of rollup rows `r`).
template <class Key, class ReadKey>
std::map<Key, LedgerSummary> groupedTotals(sqlite3* db, const Freshness& fresh,
                                           const LedgerQuery& query,
                                           const std::string& eventKey,
                                           const std::string& rollupKey, ReadKey&& readKey) {
    std::map<Key, LedgerSummary> out;
    const Plan p = plan(query, fresh);
    for (const auto& [first, end] : p.rollupRuns) {
        for (const auto& run : LedgerRollups::cover(first, end)) {
            const auto f = LedgerRollups::filter(query, run);
            Statement s(db, "SELECT " + rollupKey + ", " + LedgerRollups::summaryColumns() +
                                " FROM " + LedgerRollups::table(run.level) + " r WHERE 1=1" +
                                f.sql + " GROUP BY 1;");
            bindFilter(s, f);
            while (s.step()) {
                out[readKey(s)] += readSummary(s, 1);
            }
        }
    }
    for (const auto& piece : p.rawPieces) {
        const auto f = ledgerFilter(piece);
        Statement s(db, "SELECT " + eventKey + ", " + rawSummaryColumns() + std::string(kJoin) +
                            f.sql + " GROUP BY 1;");
        bindFilter(s, f);
        while (s.step()) {
            out[readKey(s)] += readSummary(s, 1);
        }
    }
    return out;
}

// The local start of the day or hour holding each of a rising series of instants. Quarter hours
// never straddle either. Days are cached as [start, next start), so that a year of quarter
// hours costs a few hundred calendar conversions rather than tens of thousands.
class LocalStarts {
  public:
    LocalStarts(LedgerBucketUnit unit) : unit_(unit), calendar_(Calendar::current()) {}

    double operator()(double t) {
        if (unit_ == LedgerBucketUnit::hour) {
            const auto parts = calendar_.parts(t);
            return t - parts.minute * 60.0 - parts.second - (t - std::floor(t));
        }
        if (!(t >= dayStart_ && t < nextDay_)) {
            dayStart_ = calendar_.startOfDay(t);
            nextDay_ = calendar_.addingDays(dayStart_, 1);
        }
        return dayStart_;
    }

    const Calendar& calendar() const { return calendar_; }

  private:
    LedgerBucketUnit unit_;
    Calendar calendar_;
    double dayStart_ = 1;
    double nextDay_ = 0;  // empty: the first instant computes its day
};

// Totals per (local start of the day or hour, key). Rollup hours that a local day or hour
// boundary cuts (time zones offset by half or quarter hours) are taken by their quarter hours.
template <class Key, class ReadKey>
std::map<std::pair<double, Key>, LedgerSummary> localTotals(sqlite3* db, const Freshness& fresh,
                                                            const LedgerQuery& query,
                                                            LedgerBucketUnit unit,
                                                            const std::string& eventKey,
                                                            const std::string& rollupKey,
                                                            ReadKey&& readKey) {
    std::map<std::pair<double, Key>, LedgerSummary> out;
    LocalStarts localStart(unit);
    const auto addQuarter = [&](int64_t quarter, Statement& s) {
        out[{localStart(LedgerRollups::quarterStart(quarter)), readKey(s)}] += readSummary(s, 2);
    };
    const Plan p = plan(query, fresh);
    std::vector<LedgerRollups::Run> runs;
    for (const auto& [first, end] : p.rollupRuns) {
        std::ranges::move(LedgerRollups::coverByHours(first, end), std::back_inserter(runs));
    }
    if (!runs.empty()) {
        std::vector<int64_t> cutHours;
        for (const auto& run : runs) {
            const auto f = LedgerRollups::filter(query, run);
            Statement s(db, "SELECT r.bucket, " + rollupKey + ", " +
                                LedgerRollups::summaryColumns() + " FROM " +
                                LedgerRollups::table(run.level) + " r WHERE 1=1" + f.sql +
                                " GROUP BY 1, 2;");
            bindFilter(s, f);
            while (s.step()) {
                const int64_t bucket = s.int64(0);
                if (run.level == LedgerRollups::Level::quarter) {
                    addQuarter(bucket, s);
                    continue;
                }
                const double first = LedgerRollups::quarterStart(bucket * 4);
                const double start = localStart(first);
                if (localStart(first + 3 * LedgerRollups::kQuarterSeconds) != start) {
                    cutHours.push_back(bucket);
                    continue;
                }
                out[{start, readKey(s)}] += readSummary(s, 2);
            }
        }
        if (!cutHours.empty()) {
            std::ranges::sort(cutHours);
            cutHours.erase(std::unique(cutHours.begin(), cutHours.end()), cutHours.end());
            std::string hours = "[";
            for (auto h : cutHours) {
                hours += (hours.size() > 1 ? "," : "") + std::to_string(h);
            }
            hours += "]";
            const LedgerRollups::Run quarters{LedgerRollups::Level::quarter, cutHours.front() * 4,
                                              (cutHours.back() + 1) * 4};
            const auto f = LedgerRollups::filter(query, quarters);
            Statement s(db, "SELECT r.bucket, " + rollupKey + ", " +
                                LedgerRollups::summaryColumns() +
                                " FROM ledger_rollups r WHERE 1=1" + f.sql +
                                " AND ((r.bucket - ((r.bucket % 4) + 4) % 4) / 4) IN (SELECT "
                                "value FROM json_each(?)) GROUP BY 1, 2;");
            bindFilter(s, f);
            s.bind(static_cast<int>(f.parameters.size()) + 1, hours);
            while (s.step()) {
                addQuarter(s.int64(0), s);
            }
        }
    }
    for (const auto& piece : p.rawPieces) {
        const auto f = ledgerFilter(piece);
        Statement s(db, "SELECT " + LedgerRollups::quarterSQL("e.occurred_at") + ", " + eventKey +
                            ", " + rawSummaryColumns() + std::string(kJoin) + f.sql +
                            " GROUP BY 1, 2;");
        bindFilter(s, f);
        while (s.step()) {
            addQuarter(s.int64(0), s);
        }
    }
    return out;
}

std::vector<AgentSource> sourcesFrom(const std::string& keys) {
    std::vector<AgentSource> out;
    std::size_t at = 0;
    while (at <= keys.size()) {
        auto comma = keys.find(',', at);
        if (comma == std::string::npos) {
            comma = keys.size();
        }
        if (auto s = fromRawValue<AgentSource>(std::string_view(keys).substr(at, comma - at))) {
            out.push_back(*s);
        }
        at = comma + 1;
    }
    std::ranges::sort(out);
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

std::optional<AgentSource> sourceAt(const Statement& s, int column) {
    return fromRawValue<AgentSource>(s.text(column));
}

}  // namespace

// --- Freshness of the rollups -----------------------------------------------------------------

namespace {
// Past this many marked quarter hours (four days of continuous use) a reader's queries would be
// split into more pieces than reading the events whole costs.
constexpr int64_t kReaderMarkedLimit = 384;
}  // namespace

void UsageStore::refreshRollups() {
    std::lock_guard guard(state_->lock);
    // During a first import the triggers are gone, so marks would be missed: the rollups are
    // rebuilt once at its end and every total comes from the events until then.
    if (firstImportPending()) {
        state_->rollups = {.usable = false, .markedQuarters = {}};
        return;
    }
    if (state_->readOnly) {
        // A reader cannot rebuild them: it reads the events of the quarter hours that are behind
        // (a scan's commit marks a few), or every event when too many are.
        auto marked = LedgerRollups::markedQuarters(state_->connection(), kReaderMarkedLimit);
        state_->rollups.usable = marked.has_value();
        state_->rollups.markedQuarters = std::move(marked).value_or(std::vector<int64_t>{});
        return;
    }
    LedgerRollups::refresh(state_->connection());
    state_->rollups = {};
}

// --- Entries ----------------------------------------------------------------------------------

LedgerPage UsageStore::ledgerEvents(const LedgerQuery& query, LedgerSortOrder order,
                                    const std::optional<LedgerCursor>& after, int limit) {
    std::lock_guard guard(state_->lock);
    const auto f = ledgerFilter(query);
    const bool ascending = order == LedgerSortOrder::ascending;
    const std::string op = ascending ? ">" : "<";
    const std::string dir = ascending ? "ASC" : "DESC";
    std::string sql =
        "SELECT e.id, e.observation_id, e.integration_instance_id, e.account_id, e.occurred_at,\n"
        "  e.source, e.provider, e.model, e.session_key, e.project_display_name,\n"
        "  e.input_uncached, e.cache_read, e.cache_write, e.output_visible, e.reasoning,\n"
        "  e.provider_input_total, e.provider_output_total, e.provider_total,\n"
        "  e.usage_semantics_version, c.amount_usd_micros, c.completeness, c.cost_source,\n"
        "  c.price_version, c.fx_version, c.billing_mode" +
        std::string(kJoin) + f.sql;
    if (after) {
        sql += " AND (e.occurred_at" + op + "? OR (e.occurred_at=? AND e.id" + op + "?))";
    }
    sql += "\nORDER BY e.occurred_at " + dir + ",\n         e.id " + dir + " LIMIT ?;";
    Statement s(state_->connection(), sql);
    bindFilter(s, f);
    int next = static_cast<int>(f.parameters.size()) + 1;
    if (after) {
        s.bind(next, after->occurredAt);
        s.bind(next + 1, after->occurredAt);
        s.bind(next + 2, after->eventID);
        next += 3;
    }
    s.bind(next, static_cast<int64_t>(std::max(limit, 0)));

    LedgerPage page;
    while (s.step()) {
        LedgerEntry entry;
        auto& e = entry.event;
        e.id = s.text(0);
        e.observationID = s.text(1);
        if (auto v = s.optionalText(2)) {
            e.integrationInstanceID = IntegrationInstanceID(*v);
        }
        if (auto v = s.optionalText(3)) {
            e.accountID = SubscriptionAccountID(*v);
        }
        e.occurredAt = s.real(4);
        e.source = sourceAt(s, 5).value_or(AgentSource::claude);
        e.provider = s.text(6);
        e.model = s.text(7);
        e.sessionKey = s.optionalText(8);
        e.projectDisplayName = s.optionalText(9);
        e.tokens.inputUncached = s.optionalInt64(10);
        e.tokens.cacheRead = s.optionalInt64(11);
        e.tokens.cacheWrite = s.optionalInt64(12);
        e.tokens.outputVisible = s.optionalInt64(13);
        e.tokens.reasoning = s.optionalInt64(14);
        e.tokens.providerInputTotal = s.optionalInt64(15);
        e.tokens.providerOutputTotal = s.optionalInt64(16);
        e.tokens.providerTotal = s.optionalInt64(17);
        e.usageSemanticsVersion = s.int64(18);
        // An entry without a cost row reads as unpriced.
        auto& c = entry.cost;
        c.ledgerEventID = e.id;
        c.amountUSDMicros = s.optionalInt64(19);
        c.completeness = fromRawValue<CostCompleteness>(s.optionalText(20).value_or(""))
                             .value_or(CostCompleteness::none);
        c.source =
            fromRawValue<CostSource>(s.optionalText(21).value_or("")).value_or(CostSource::unknown);
        c.priceVersion = s.optionalInt64(22);
        c.fxVersion = s.optionalInt64(23);
        c.billingMode = fromRawValue<BillingMode>(s.optionalText(24).value_or(""))
                            .value_or(BillingMode::apiEquivalent);
        page.entries.push_back(std::move(entry));
    }
    if (limit > 0 && static_cast<int>(page.entries.size()) == limit) {
        const auto& last = page.entries.back().event;
        page.nextCursor = LedgerCursor{last.occurredAt, last.id};
    }
    return page;
}

// --- Counts -----------------------------------------------------------------------------------

int64_t UsageStore::ledgerEventCount(const LedgerQuery& query) {
    std::lock_guard guard(state_->lock);
    const auto f = ledgerFilter(query);
    Statement s(state_->connection(),
                "SELECT COUNT(*) FROM ledger_events e WHERE 1=1" + f.sql + ";");
    bindFilter(s, f);
    s.step();
    return s.int64(0);
}

int64_t UsageStore::ledgerEventCount() {
    return ledgerEventCount(LedgerQuery{});
}

int64_t UsageStore::usageObservationCount(const std::optional<std::string>& instance) {
    std::lock_guard guard(state_->lock);
    Statement s(state_->connection(), instance ? "SELECT COUNT(*) FROM usage_observations WHERE "
                                                 "integration_instance_id=?;"
                                               : "SELECT COUNT(*) FROM usage_observations;");
    if (instance) {
        s.bind(1, *instance);
    }
    s.step();
    return s.int64(0);
}

// --- Totals -----------------------------------------------------------------------------------

LedgerSummary UsageStore::ledgerSummary(const LedgerQuery& query) {
    std::lock_guard guard(state_->lock);
    refreshRollups();
    const auto byNothing = groupedTotals<int>(state_->connection(), state_->rollups, query, "0", "0",
                                              [](const Statement&) { return 0; });
    return byNothing.empty() ? LedgerSummary{} : byNothing.begin()->second;
}

std::vector<LedgerSummary> UsageStore::ledgerSummaries(const std::vector<LedgerQuery>& queries) {
    std::lock_guard guard(state_->lock);
    if (!state_->readOnly) {
        refreshRollups();  // a write transaction of its own
    }
    sqlite3* db = state_->connection();
    // One read transaction, so that a commit landing between two queries cannot make them
    // disagree (a session's cost above the day's, say).
    sqlite::exec(db, "BEGIN;");
    std::vector<LedgerSummary> out;
    try {
        if (state_->readOnly) {
            refreshRollups();  // whether they are current in this very snapshot
        }
        for (const auto& query : queries) {
            const auto byNothing = groupedTotals<int>(db, state_->rollups, query, "0", "0",
                                                      [](const Statement&) { return 0; });
            out.push_back(byNothing.empty() ? LedgerSummary{} : byNothing.begin()->second);
        }
    } catch (...) {
        sqlite3_exec(db, "ROLLBACK;", nullptr, nullptr, nullptr);
        throw;
    }
    sqlite::exec(db, "COMMIT;");
    return out;
}

std::map<AgentSource, LedgerSummary> UsageStore::ledgerSummariesBySource(const LedgerQuery& query) {
    std::lock_guard guard(state_->lock);
    refreshRollups();
    const auto bySource =
        groupedTotals<std::string>(state_->connection(), state_->rollups, query, "e.source", "r.source",
                                   [](const Statement& s) { return s.text(0); });
    std::map<AgentSource, LedgerSummary> out;
    for (const auto& [key, summary] : bySource) {
        if (auto source = fromRawValue<AgentSource>(key)) {
            out[*source] += summary;
        }
    }
    return out;
}

std::vector<LedgerModelSummary> UsageStore::ledgerSummariesByModel(const LedgerQuery& query) {
    std::lock_guard guard(state_->lock);
    refreshRollups();
    // Per (model, source); the sources of a model are those that contributed rows.
    const auto rows = groupedTotals<std::pair<std::string, std::string>>(
        state_->connection(), state_->rollups, query, "e.model || char(31) || e.source",
        "r.model || char(31) || r.source", [](const Statement& s) {
            const auto key = s.text(0);
            const auto cut = key.rfind('\x1f');
            return std::pair{key.substr(0, cut), key.substr(cut + 1)};
        });
    std::map<std::string, LedgerModelSummary> models;
    for (const auto& [key, summary] : rows) {
        auto& m = models[key.first];
        m.model = key.first;
        m.summary += summary;
        if (auto source = fromRawValue<AgentSource>(key.second)) {
            m.sources.push_back(*source);
        }
    }
    std::vector<LedgerModelSummary> out;
    for (auto& [name, m] : models) {
        std::ranges::sort(m.sources);
        m.sources.erase(std::unique(m.sources.begin(), m.sources.end()), m.sources.end());
        out.push_back(std::move(m));
    }
    std::ranges::stable_sort(out, [](const LedgerModelSummary& a, const LedgerModelSummary& b) {
        const auto ta = a.summary.knownProviderTokenTotal.value_or(0);
        const auto tb = b.summary.knownProviderTokenTotal.value_or(0);
        if (ta != tb) {
            return ta > tb;
        }
        return a.summary.knownCostUSDMicros.value_or(0) > b.summary.knownCostUSDMicros.value_or(0);
    });
    return out;
}

std::vector<LedgerTimeBucket> UsageStore::ledgerTimeBuckets(const LedgerQuery& query,
                                                            LedgerBucketUnit unit) {
    std::lock_guard guard(state_->lock);
    refreshRollups();
    const auto rows =
        localTotals<std::string>(state_->connection(), state_->rollups, query, unit, "e.source", "r.source",
                                 [](const Statement& s) { return s.text(1); });
    std::map<std::pair<double, AgentSource>, LedgerSummary> grouped;
    for (const auto& [key, summary] : rows) {
        if (auto source = fromRawValue<AgentSource>(key.second)) {
            grouped[{key.first, *source}] += summary;
        }
    }
    std::vector<LedgerTimeBucket> out;
    for (const auto& [key, summary] : grouped) {
        out.push_back({key.first, key.second, summary});
    }
    return out;
}

std::vector<LedgerModelTimeBucket> UsageStore::ledgerModelTimeBuckets(const LedgerQuery& query,
                                                                      LedgerBucketUnit unit) {
    std::lock_guard guard(state_->lock);
    refreshRollups();
    const auto rows = localTotals<std::pair<std::string, std::string>>(
        state_->connection(), state_->rollups, query, unit, "e.model || char(31) || e.source",
        "r.model || char(31) || r.source", [](const Statement& s) {
            const auto key = s.text(1);
            const auto cut = key.rfind('\x1f');
            return std::pair{key.substr(0, cut), key.substr(cut + 1)};
        });
    std::map<std::tuple<double, std::string, AgentSource>, LedgerSummary> grouped;
    for (const auto& [key, summary] : rows) {
        if (auto source = fromRawValue<AgentSource>(key.second.second)) {
            grouped[{key.first, key.second.first, *source}] += summary;
        }
    }
    std::vector<LedgerModelTimeBucket> out;
    for (const auto& [key, summary] : grouped) {
        out.push_back({std::get<0>(key), std::get<1>(key), std::get<2>(key), summary});
    }
    return out;
}

std::vector<LedgerDailyTotal> UsageStore::ledgerDailyTotals(double from, double to) {
    std::lock_guard guard(state_->lock);
    refreshRollups();
    LedgerQuery query;
    query.from = from;
    query.to = to;
    const auto rows = localTotals<int>(state_->connection(), state_->rollups, query, LedgerBucketUnit::day, "0", "0",
                                       [](const Statement&) { return 0; });
    const auto calendar = Calendar::current();
    std::vector<LedgerDailyTotal> out;
    for (const auto& [key, summary] : rows) {
        const auto parts = calendar.parts(key.first);
        out.push_back({parts.year, parts.month, parts.day,
                       summary.knownProviderTokenTotal.value_or(0), summary.knownCostUSDMicros});
    }
    return out;
}

// --- Bounds and facets ------------------------------------------------------------------------

std::optional<LedgerDateBounds> UsageStore::ledgerOccurredAtBounds(const LedgerQuery& query) {
    std::lock_guard guard(state_->lock);
    const auto f = ledgerFilter(query);
    Statement s(state_->connection(),
                "SELECT\n  (SELECT e.occurred_at FROM ledger_events e WHERE 1=1" + f.sql +
                    "\n   ORDER BY e.occurred_at ASC LIMIT 1),\n  (SELECT "
                    "e.occurred_at FROM ledger_events e WHERE 1=1" +
                    f.sql + "\n   ORDER BY e.occurred_at DESC LIMIT 1);");
    bindFilter(s, f);
    bindFilter(s, f, static_cast<int>(f.parameters.size()) + 1);
    s.step();
    const auto earliest = s.optionalReal(0);
    const auto latest = s.optionalReal(1);
    if (!earliest || !latest) {
        return std::nullopt;
    }
    return LedgerDateBounds{*earliest, *latest};
}

LedgerFacets UsageStore::ledgerFacets(const LedgerQuery& query) {
    std::lock_guard guard(state_->lock);
    const auto f = ledgerFilter(query);
    const auto distinct = [&](const std::string& column) {
        Statement s(state_->connection(), "SELECT DISTINCT e." + column +
                                              " FROM ledger_events e\nWHERE 1=1" + f.sql +
                                              " AND e." + column + " IS NOT NULL AND e." + column +
                                              "<>''\nORDER BY e." + column + " COLLATE NOCASE;");
        bindFilter(s, f);
        std::vector<std::string> out;
        while (s.step()) {
            out.push_back(s.text(0));
        }
        return out;
    };
    LedgerFacets facets;
    for (const auto& key : distinct("source")) {
        if (auto source = fromRawValue<AgentSource>(key)) {
            facets.sources.push_back(*source);
        }
    }
    facets.integrationInstanceIDs = distinct("integration_instance_id");
    facets.accountIDs = distinct("account_id");
    facets.providers = distinct("provider");
    facets.models = distinct("model");
    facets.projects = distinct("project_display_name");
    Statement unassigned(state_->connection(),
                         "SELECT EXISTS(SELECT 1 FROM ledger_events e WHERE 1=1" + f.sql +
                             " AND e.account_id IS NULL);");
    bindFilter(unassigned, f);
    unassigned.step();
    facets.hasUnassignedAccount = unassigned.int64(0) != 0;
    return facets;
}

// --- Sessions and projects --------------------------------------------------------------------

std::vector<LedgerSessionSummary> UsageStore::ledgerSummariesBySession(const LedgerQuery& query) {
    std::lock_guard guard(state_->lock);
    const auto f = ledgerFilter(query);
    Statement s(state_->connection(),
                "SELECT e.session_key, e.source, MIN(e.occurred_at), MAX(e.occurred_at),\n"
                "  GROUP_CONCAT(DISTINCT e.model), " +
                    rawSummaryColumns() + std::string(kJoin) + f.sql +
                    " AND e.session_key IS NOT NULL\nGROUP BY e.session_key, e.source\n"
                    "ORDER BY MAX(e.occurred_at) DESC, e.session_key;");
    bindFilter(s, f);
    std::vector<LedgerSessionSummary> out;
    std::map<std::pair<std::string, std::string>, std::size_t> index;
    while (s.step()) {
        LedgerSessionSummary row;
        row.sessionKey = s.text(0);
        const auto sourceKey = s.text(1);
        row.source = fromRawValue<AgentSource>(sourceKey).value_or(AgentSource::claude);
        row.firstAt = s.real(2);
        row.lastAt = s.real(3);
        const auto models = s.text(4);
        for (std::size_t at = 0; at <= models.size();) {
            auto comma = models.find(',', at);
            if (comma == std::string::npos) {
                comma = models.size();
            }
            if (comma > at) {
                row.models.push_back(models.substr(at, comma - at));
            }
            at = comma + 1;
        }
        std::ranges::sort(row.models);
        row.summary = readSummary(s, 5);
        index[{row.sessionKey, sourceKey}] = out.size();
        out.push_back(std::move(row));
    }
    // The project of each session is that of its latest event (SQLite takes a bare column from
    // the row that gives the one MAX of the group).
    Statement projects(state_->connection(),
                       "SELECT e.session_key, e.source, e.project_display_name, "
                       "MAX(e.occurred_at) FROM ledger_events e WHERE 1=1" +
                           f.sql + " AND e.session_key IS NOT NULL GROUP BY 1, 2;");
    bindFilter(projects, f);
    while (projects.step()) {
        auto it = index.find({projects.text(0), projects.text(1)});
        if (it != index.end()) {
            out[it->second].projectDisplayName = projects.optionalText(2);
        }
    }
    return out;
}

std::vector<LedgerProjectSummary> UsageStore::ledgerSummariesByProject(const LedgerQuery& query) {
    std::lock_guard guard(state_->lock);
    const auto f = ledgerFilter(query);
    Statement s(state_->connection(),
                "SELECT e.project_display_name, GROUP_CONCAT(DISTINCT e.source), " +
                    rawSummaryColumns() + std::string(kJoin) + f.sql +
                    "\nGROUP BY e.project_display_name\nORDER BY SUM(" + knownProviderTotal() +
                    ") DESC, e.project_display_name;");
    bindFilter(s, f);
    std::vector<LedgerProjectSummary> out;
    while (s.step()) {
        LedgerProjectSummary row;
        row.projectDisplayName = s.optionalText(0);
        row.sources = sourcesFrom(s.optionalText(1).value_or(""));
        row.summary = readSummary(s, 2);
        out.push_back(std::move(row));
    }
    return out;
}

// --- Coverage ---------------------------------------------------------------------------------

std::vector<CoverageIssueGroup> UsageStore::coverageIssueGroups(const LedgerQuery& query) {
    std::lock_guard guard(state_->lock);
    const auto f = coverageFilter(query);
    Statement s(state_->connection(),
                "SELECT ci.code, COALESCE(o.source, ci.source), ci.origin, COUNT(*)\n"
                "FROM coverage_issues ci\n"
                "LEFT JOIN usage_observations o ON o.id=ci.observation_id\n"
                "WHERE ci.resolved_at IS NULL" +
                    f.sql +
                    "\nGROUP BY ci.code, COALESCE(o.source, ci.source), ci.origin\n"
                    "ORDER BY ci.code, COALESCE(o.source, ci.source), ci.origin;");
    bindFilter(s, f);
    std::vector<CoverageIssueGroup> out;
    while (s.step()) {
        auto code = fromRawValue<CoverageIssueCode>(s.text(0));
        auto origin = fromRawValue<CoverageIssueOrigin>(s.text(2));
        if (!code || !origin) {
            continue;  // written by a newer build
        }
        CoverageIssueGroup g;
        g.code = *code;
        if (auto key = s.optionalText(1)) {
            g.source = fromRawValue<AgentSource>(*key);
        }
        g.origin = *origin;
        g.count = s.int64(3);
        out.push_back(g);
    }
    return out;
}

std::vector<CoverageIssueCount> UsageStore::coverageIssueCounts(const LedgerQuery& query) {
    std::lock_guard guard(state_->lock);
    const auto f = coverageFilter(query);
    Statement s(state_->connection(),
                "SELECT ci.code, COUNT(*)\nFROM coverage_issues ci\n"
                "LEFT JOIN usage_observations o ON o.id=ci.observation_id\n"
                "WHERE ci.resolved_at IS NULL" +
                    f.sql + "\nGROUP BY ci.code\nORDER BY ci.code;");
    bindFilter(s, f);
    std::vector<CoverageIssueCount> out;
    while (s.step()) {
        if (auto code = fromRawValue<CoverageIssueCode>(s.text(0))) {
            out.push_back({*code, s.int64(1)});
        }
    }
    return out;
}

}  // namespace kestrel
