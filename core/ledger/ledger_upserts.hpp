#pragma once
// The upserts of the ledger commit, for any number of rows per statement: a scan commits
// hundreds of thousands of rows, and one statement per row spends most of its time on statement
// overhead rather than on the rows.

#include <string>

namespace kestrel::LedgerUpserts {

inline constexpr int kObservationColumns = 31;
inline constexpr int kEventColumns = 21;
inline constexpr int kCostColumns = 8;

// INSERT ... VALUES (…)×rows ON CONFLICT(id) DO UPDATE SET every column but id.
std::string observations(int rows);
// The same for ledger_events: every column but id and created_at (the first insertion stands).
std::string events(int rows);
// The same for ledger_costs, keyed by ledger_event_id.
std::string costs(int rows);
// DELETE ... WHERE observation_id IN (?×rows): validation findings, or ledger events.
std::string deleteFindings(int rows);
std::string deleteEvents(int rows);
// DELETE FROM ledger_costs of the events of those observations: what the cascade from
// deleteEvents removes, for a commit that writes with foreign keys off.
std::string deleteEventCosts(int rows);
// SELECT id, then the columns UsageMerge weighs (the time and what goes with it, the counts and
// what goes with them), of the stored observations WHERE id IN (?×rows).
std::string storedObservations(int rows);

}  // namespace kestrel::LedgerUpserts
