#pragma once
// Plan discovery candidates (table plan_discovery_candidates), the review commit that turns kept
// ones into subscription accounts and bindings, and the confirmed plan accounts. Each call is one
// compound operation on the store's connection, under its lock; each throws StoreError(sql) when
// the database fails, with its transaction rolled back.

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <vector>

#include "core/ledger/plan_candidate_records.hpp"
#include "core/ledger/usage_store.hpp"

namespace kestrel::PlanCandidateStore {

// Stores one discovery scan's findings under a new scan generation, which it returns. A known
// candidate whose revision changed goes back to review (pending, unverified, no report); one with
// the same revision keeps its decision and validation. Candidates not among `found` are marked
// no longer present.
int64_t upsertPlanDiscoveryCandidates(UsageStore& store,
                                      const std::vector<PlanCandidateRecord>& found, double now);

// Present candidates whose proposed account was not removed by the user, the tools' current
// entries first, then by source name, entry and id; rejected ones only when asked.
std::vector<PlanCandidateRecord> planDiscoveryCandidates(UsageStore& store, bool includeRejected);
std::optional<PlanCandidateRecord> planDiscoveryCandidate(UsageStore& store, const std::string& id);

// Stores a validation only while the candidate still has `revision`, is present and pending;
// false when the result was discarded.
bool recordPlanValidation(UsageStore& store, const std::string& id, const std::string& revision,
                          const std::string& state, const std::optional<std::string>& reportJSON,
                          const std::string& resolution, double now);

// Commits a review batch in one transaction, or changes nothing. `batchCandidateIDs` are all the
// candidates the user was shown; each must be decided in `decisions`.
std::expected<PlanCandidateReviewCommitResult, PlanCandidateStoreError> commitPlanReview(
    UsageStore& store, const std::vector<std::string>& batchCandidateIDs,
    const std::vector<PlanReviewDecision>& decisions, double now);

// Returns every present accepted candidate of the account to review; the number returned.
int64_t resetPlanReview(UsageStore& store, const std::string& proposedAccountID);

// Confirmed plan accounts shown as subscriptions: not archived, not removed, and without a
// present pending candidate of their own.
std::vector<PlanAccountRecord> confirmedPlanAccounts(UsageStore& store);

}  // namespace kestrel::PlanCandidateStore
