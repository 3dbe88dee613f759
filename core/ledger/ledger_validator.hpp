#pragma once
// Decides whether an observation may enter the ledger, and what is doubtful about it. Pure: no
// state, no clock, no I/O.

#include "core/ledger/ledger_records.hpp"

namespace kestrel::LedgerValidator {

LedgerValidationResult validate(const UsageObservation& observation);

// The cost check alone (it never affects eligibility): the cost to store and, when the cost is
// unknown or invalid, its finding. Repricing uses it to refresh cost findings.
struct CostCheck {
    ObservedCost normalized;
    std::optional<LedgerValidationFinding> finding;
};
CostCheck checkCost(const ObservedCost& cost);

// The token invariant of one observation's source; an overflow in any sum makes it fail.
bool tokenInvariantHolds(AgentSource source, const ObservedTokenUsage& tokens);

}  // namespace kestrel::LedgerValidator
