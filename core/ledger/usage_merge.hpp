#pragma once
// How records of one usage identity combine, wherever they meet: lines of one file, files of one
// scan, and a new scan against the ledger's stored row. Agents write one usage several times: a
// streaming line before the complete one, a resumed session replaying earlier lines hours or days
// later, a sub-agent transcript holding the complete line of a message its parent logged early.
// The usage happened when it was first seen, and streaming counts only grow, so the merged record
// takes its time from the earliest record and its counts from the one with the largest output
// (the later one on a tie). Ties aside, the result does not depend on the order of reading.

#include <cstdint>
#include <optional>
#include <string>

#include "core/ledger/ledger_records.hpp"
#include "core/model/usage_event.hpp"

namespace kestrel::UsageMerge {

// The count that only grows while a reply streams: the provider's output total, or the visible
// output plus reasoning where that is larger.
int64_t outputOf(const UsageEvent& e);
int64_t outputOf(const ObservedTokenUsage& t);

// Folds `later` (read after `held`) into `held`. The time (with the session and project it was
// seen in) is the earlier record's, a record's own timestamp first and a file's time only when no
// record has its own; the counts (with the model, precision and cost) are those of the larger
// output; what describes the reading itself (when, by which run) is the later one's.
void merge(UsageEvent& held, UsageEvent&& later);
void merge(UsageObservation& held, const UsageObservation& later);

}  // namespace kestrel::UsageMerge
