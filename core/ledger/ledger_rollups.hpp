#pragma once
// Totals of the ledger kept per quarter hour, hour and UTC day, so that views over long ranges
// add up thousands of rows instead of a million events. Quarter hours are the unit: every time
// zone in use today is offset from UTC by whole quarter hours, so local days and hours are whole
// runs of them. Triggers mark the quarter hours whose events or costs change; refresh() rebuilds
// those from the events and the coarser levels from the finer ones. The results of a view are
// the same as one pass over the events.

#include <sqlite3.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/ledger/ledger_query.hpp"

namespace kestrel::LedgerRollups {

inline constexpr double kQuarterSeconds = 900;
inline constexpr int64_t kQuartersPerHour = 4;
inline constexpr int64_t kQuartersPerDay = 96;

// The quarter hour holding `t` (exactly as the triggers compute it), and its first instant.
int64_t quarterOf(double t);
inline double quarterStart(int64_t quarter) {
    return static_cast<double>(quarter) * kQuarterSeconds;
}

// The same as an SQL expression over the instant expression `t`.
std::string quarterSQL(const std::string& t);

// The thirteen summary columns over rollup rows `r`, in the order the queries read them.
std::string summaryColumns();

// Brings every level up to date with the events; a no-op when nothing is marked. Few marked
// quarter hours are rebuilt one by one; many (a first scan, an import, a repricing) are rebuilt
// in one pass over the events, which reads them in order and is the faster way then.
void refresh(sqlite3* db);

// The marked quarter hours, ascending: what a reader that cannot rebuild them must take from the
// events. Absent when everything is marked or more than `limit` are (the events are then the
// faster way anyway).
std::optional<std::vector<int64_t>> markedQuarters(sqlite3* db, int64_t limit);

// Marks every quarter hour: for writes that change totals without writing their events (the
// costs of a repricing).
void markAll(sqlite3* db);

// Whether the rollups keep every dimension `query` filters on (not project, session or search).
bool answers(const LedgerQuery& query);

enum class Level { quarter, hour, day };

// A run of rows of one level: buckets [first, end) in that level's units.
struct Run {
    Level level = Level::quarter;
    int64_t first = 0;
    int64_t end = 0;
};

// The table of a level ("ledger_rollups", ...).
const char* table(Level level);
// Quarter hours per bucket of a level.
int64_t quartersPer(Level level);

// The quarter hours [first, end) as the fewest runs: days where whole UTC days fit, hours where
// whole hours fit, quarter hours at the ends.
std::vector<Run> cover(int64_t firstQuarter, int64_t endQuarter);
// The same with no level coarser than hours (for grouping by local hour or day).
std::vector<Run> coverByHours(int64_t firstQuarter, int64_t endQuarter);

// The conditions of `query` (its kept dimensions) on rows `r` of `run`.
LedgerFilter filter(const LedgerQuery& query, const Run& run);

}  // namespace kestrel::LedgerRollups
