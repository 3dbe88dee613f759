#include "core/ledger/ledger_rollups.hpp"

#include "core/ledger/sqlite_statement.hpp"

namespace kestrel::LedgerRollups {
namespace {

constexpr std::string_view kFullyKnown =
    "CASE WHEN e.input_uncached IS NOT NULL AND e.cache_read IS NOT NULL AND e.cache_write IS "
    "NOT NULL AND e.output_visible IS NOT NULL AND e.reasoning IS NOT NULL THEN "
    "e.input_uncached + e.cache_read + e.cache_write + e.output_visible + e.reasoning END";

// floor(a / n) for a bucket number of any sign.
std::string floorDiv(const std::string& a, int64_t n) {
    const auto d = std::to_string(n);
    return "((" + a + " - ((" + a + ") % " + d + " + " + d + ") % " + d + ") / " + d + ")";
}

// Marks "every quarter hour" without listing them.
constexpr int64_t kEverything = -(int64_t{1} << 62);

// Above this many marked quarter hours (about three weeks of continuous use) one pass over all
// events beats looking each quarter hour up.
constexpr int64_t kRebuildAllAbove = 2000;

constexpr std::string_view kDirty = "(SELECT DISTINCT bucket FROM ledger_rollup_dirty)";

std::string sums(std::string_view of) {
    std::string out;
    for (const char* c :
         {"event_count", "input_uncached", "input_uncached_n", "cache_read", "cache_read_n",
          "cache_write", "cache_write_n", "output_visible", "output_visible_n", "reasoning",
          "reasoning_n", "fully_known", "fully_known_n", "provider_known", "provider_known_n",
          "cost_usd_micros", "cost_n"}) {
        out += ", SUM(" + std::string(of) + "." + c + ")";
    }
    return out;
}

// The quarter-hour rows of the events that `where` selects (over `e`, after `from`).
std::string quartersFromEvents(const std::string& bucket, const std::string& from) {
    const std::string known(kFullyKnown);
    const std::string provider =
        "CASE WHEN e.provider_total IS NOT NULL THEN e.provider_total ELSE " + known + " END";
    return "INSERT INTO ledger_rollups\n"
           "SELECT " +
           bucket +
           ", e.source, e.model, e.provider, COALESCE(e.account_id, ''),\n"
           "  COALESCE(e.integration_instance_id, ''), COUNT(*),\n"
           "  SUM(e.input_uncached), COUNT(e.input_uncached),\n"
           "  SUM(e.cache_read), COUNT(e.cache_read),\n"
           "  SUM(e.cache_write), COUNT(e.cache_write),\n"
           "  SUM(e.output_visible), COUNT(e.output_visible),\n"
           "  SUM(e.reasoning), COUNT(e.reasoning),\n"
           "  SUM(" +
           known + "), COUNT(" + known +
           "),\n"
           "  SUM(" +
           provider + "), COUNT(" + provider +
           "),\n"
           "  SUM(c.amount_usd_micros), COUNT(c.amount_usd_micros)\n" +
           from +
           "\nLEFT JOIN ledger_costs c ON c.ledger_event_id = e.id\n"
           "GROUP BY 1, 2, 3, 4, 5, 6;\n";
}

// The rows of `coarse` (each `finePerCoarse` rows of `fine`, of `quartersPerFine` quarters)
// rebuilt from `fine`: all of them, or those holding a marked quarter hour.
std::string rebuildLevel(const char* fine, const char* coarse, int64_t finePerCoarse,
                         int64_t quartersPerFine, bool all) {
    const std::string c(coarse);
    const std::string n = std::to_string(finePerCoarse);
    if (all) {
        return "DELETE FROM " + c + ";\nINSERT INTO " + c + "\nSELECT " +
               floorDiv("f.bucket", finePerCoarse) +
               ", f.source, f.model, f.provider, f.account_id, f.integration_instance_id" +
               sums("f") + "\nFROM " + fine + " f GROUP BY 1, 2, 3, 4, 5, 6;\n";
    }
    const std::string of = floorDiv("d.bucket", quartersPerFine * finePerCoarse);
    return "DELETE FROM " + c + " WHERE bucket IN (SELECT DISTINCT " + of + " FROM " +
           std::string(kDirty) + " d);\nINSERT INTO " + c +
           "\nSELECT k.b, f.source, f.model, f.provider, f.account_id, "
           "f.integration_instance_id" +
           sums("f") + "\nFROM (SELECT DISTINCT " + of + " AS b FROM " + std::string(kDirty) +
           " d) k\nJOIN " + fine + " f ON f.bucket >= k.b * " + n + " AND f.bucket < (k.b + 1) * " +
           n + "\nGROUP BY 1, 2, 3, 4, 5, 6;\n";
}

}  // namespace

std::string quarterSQL(const std::string& t) {
    const std::string b = "CAST((" + t + ") / 900 AS INTEGER)";
    return "(" + b + " - (" + b + " * 900.0 > " + t + ") + ((" + b + " + 1) * 900.0 <= " + t + "))";
}

int64_t quarterOf(double t) {
    auto b = static_cast<int64_t>(t / kQuarterSeconds);
    if (static_cast<double>(b) * kQuarterSeconds > t) {
        --b;
    }
    if (static_cast<double>(b + 1) * kQuarterSeconds <= t) {
        ++b;
    }
    return b;
}

std::string summaryColumns() {
    const auto sum = [](std::string_view c) {
        return "CASE WHEN SUM(r." + std::string(c) + "_n) > 0 THEN SUM(r." + std::string(c) +
               ") END";
    };
    return "SUM(r.event_count), " + sum("input_uncached") + ", " + sum("cache_read") + ", " +
           sum("cache_write") + ", " + sum("output_visible") + ", " + sum("reasoning") + ", " +
           sum("fully_known") + ", " + sum("provider_known") +
           ", CASE WHEN SUM(r.cost_n) > 0 THEN SUM(r.cost_usd_micros) END, SUM(r.cost_n), "
           "SUM(r.event_count) - SUM(r.cost_n), SUM(r.provider_known_n), SUM(r.event_count) - "
           "SUM(r.provider_known_n)";
}

void refresh(sqlite3* db) {
    int64_t marked = 0;
    bool everything = false;
    {
        sqlite::Statement count(
            db, "SELECT COUNT(DISTINCT bucket), MIN(bucket) FROM ledger_rollup_dirty;");
        count.step();
        marked = count.int64(0);
        everything = count.optionalInt64(1) == kEverything;
    }
    if (marked == 0) {
        return;
    }
    const bool all = everything || marked > kRebuildAllAbove;
    std::string sql;
    if (all) {
        sql = "DELETE FROM ledger_rollups;\n" +
              quartersFromEvents(quarterSQL("e.occurred_at"), "FROM ledger_events e");
    } else {
        sql = "DELETE FROM ledger_rollups WHERE bucket IN " + std::string(kDirty) + ";\n" +
              quartersFromEvents("d.bucket", "FROM " + std::string(kDirty) +
                                                 " d\nJOIN ledger_events e ON e.occurred_at >= "
                                                 "d.bucket * 900.0\n  AND e.occurred_at < "
                                                 "(d.bucket + 1) * 900.0");
    }
    sql += rebuildLevel("ledger_rollups", "ledger_rollups_hour", kQuartersPerHour, 1, all) +
           rebuildLevel("ledger_rollups_hour", "ledger_rollups_day", 24, kQuartersPerHour, all) +
           "DELETE FROM ledger_rollup_dirty;";
    sqlite::Transaction transaction(db);
    sqlite::exec(db, sql);
    transaction.commit();
}

std::optional<std::vector<int64_t>> markedQuarters(sqlite3* db, int64_t limit) {
    // Marks repeat (one per written event): count them, cheaply capped, before sorting any.
    {
        sqlite::Statement rows(
            db, "SELECT COUNT(*) FROM (SELECT 1 FROM ledger_rollup_dirty LIMIT ?);");
        rows.bind(1, limit * 64 + 1);
        rows.step();
        if (rows.int64(0) > limit * 64) {
            return std::nullopt;
        }
    }
    sqlite::Statement s(db, "SELECT DISTINCT bucket FROM ledger_rollup_dirty ORDER BY bucket;");
    std::vector<int64_t> out;
    while (s.step()) {
        const int64_t bucket = s.int64(0);
        if (bucket == kEverything || static_cast<int64_t>(out.size()) >= limit) {
            return std::nullopt;
        }
        out.push_back(bucket);
    }
    return out;
}

void markAll(sqlite3* db) {
    sqlite::Statement mark(db, "INSERT INTO ledger_rollup_dirty(bucket) VALUES(?);");
    mark.bind(1, kEverything);
    mark.run();
}

bool answers(const LedgerQuery& q) {
    const bool searching =
        q.search && q.search->find_first_not_of(" \t\r\n\f\v") != std::string::npos;
    return !q.projectDisplayName && !q.sessionKey && !searching;
}

const char* table(Level level) {
    switch (level) {
        case Level::quarter:
            return "ledger_rollups";
        case Level::hour:
            return "ledger_rollups_hour";
        case Level::day:
            return "ledger_rollups_day";
    }
    return "ledger_rollups";
}

int64_t quartersPer(Level level) {
    switch (level) {
        case Level::quarter:
            return 1;
        case Level::hour:
            return kQuartersPerHour;
        case Level::day:
            return kQuartersPerDay;
    }
    return 1;
}

namespace {

int64_t floorDiv(int64_t a, int64_t n) {
    return a / n - (a % n != 0 && (a < 0) != (n < 0));
}
int64_t ceilDiv(int64_t a, int64_t n) {
    return -floorDiv(-a, n);
}

// [first, end) in quarters split at whole units of `level`: the leading and trailing quarter
// runs (recursed into finer levels by the caller) and the whole units.
void split(int64_t first, int64_t end, std::vector<Level> levels, std::vector<Run>& out) {
    if (first >= end) {
        return;
    }
    if (levels.empty()) {
        out.push_back({Level::quarter, first, end});
        return;
    }
    const Level level = levels.front();
    levels.erase(levels.begin());
    const int64_t per = quartersPer(level);
    const int64_t unitFirst = ceilDiv(first, per);
    const int64_t unitEnd = floorDiv(end, per);
    if (unitFirst >= unitEnd) {
        split(first, end, levels, out);
        return;
    }
    split(first, unitFirst * per, levels, out);
    out.push_back({level, unitFirst, unitEnd});
    split(unitEnd * per, end, levels, out);
}

}  // namespace

std::vector<Run> cover(int64_t firstQuarter, int64_t endQuarter) {
    std::vector<Run> out;
    split(firstQuarter, endQuarter, {Level::day, Level::hour}, out);
    return out;
}

std::vector<Run> coverByHours(int64_t firstQuarter, int64_t endQuarter) {
    std::vector<Run> out;
    split(firstQuarter, endQuarter, {Level::hour}, out);
    return out;
}

LedgerFilter filter(const LedgerQuery& q, const Run& run) {
    LedgerFilter f;
    f.sql = " AND r.bucket>=? AND r.bucket<?";
    f.parameters.emplace_back(static_cast<double>(run.first));
    f.parameters.emplace_back(static_cast<double>(run.end));
    const auto add = [&](std::string clause, std::string value) {
        f.sql += " AND " + std::move(clause);
        f.parameters.emplace_back(std::move(value));
    };
    if (q.source) {
        add("r.source=?", std::string(rawValue(*q.source)));
    }
    if (q.integrationInstanceID) {
        add("r.integration_instance_id=?", *q.integrationInstanceID);
    }
    if (q.accountScope) {
        switch (q.accountScope->kind) {
            case LedgerAccountScope::Kind::account:
                add("r.account_id=?", q.accountScope->accountID);
                break;
            case LedgerAccountScope::Kind::unassigned:
                add("r.account_id=?", "");  // a missing account is kept as ''
                break;
            case LedgerAccountScope::Kind::all:
                break;
        }
    }
    if (q.provider) {
        add("r.provider=?", *q.provider);
    }
    if (q.model) {
        add("r.model=?", *q.model);
    }
    return f;
}

}  // namespace kestrel::LedgerRollups
