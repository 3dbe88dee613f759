#pragma once
// The plan review of a session: discovery into the ledger's candidates, the user's keep/reject
// choices (kept between commands until the commit), validation under the tool's quota switch,
// the all-or-nothing commit, and sending a confirmed account back to review.

#include <chrono>
#include <expected>
#include <optional>
#include <string>
#include <vector>

#include "core/app/app_session.hpp"
#include "core/plans/plan_review.hpp"

namespace kestrel {

class KeyStore;

struct PlanReviewRow {
    PlanCandidateRecord candidate;
    std::optional<bool> keep;  // the choice made so far; absent while undecided

    bool operator==(const PlanReviewRow&) const = default;
};

struct PlanReviewState {
    std::string batchID;  // empty when nothing waits for review
    std::vector<PlanReviewRow> rows;
};

struct PlanServiceOptions {
    KeyStore* keys = nullptr;  // for keys the user entered; discovery itself never needs it
    std::chrono::milliseconds timeout{15000};
};

// Runs plan discovery, stores what it found and returns what awaits review. Fails (with a
// message naming the file) only when the plan salt cannot be read or made.
std::expected<PlanReviewState, std::string> discoverPlans(AppSession& session,
                                                          const PlanServiceOptions& options = {});

struct PlanChoiceOutcome {
    enum class Status {
        kept,
        rejected,
        unknownCandidate,  // not among the candidates awaiting review
        quotaOff,          // validation needs the tool's quota switch; nothing was asked
        notValid,          // validated, and the provider or the key said no (`validation`)
    };
    std::string candidateID;
    Status status = Status::unknownCandidate;
    std::optional<AgentSource> tool;
    std::optional<CandidateValidationResult> validation;  // when this call validated
};

// Records keep (validating first when needed) or reject for each id, after a fresh discovery.
std::expected<std::vector<PlanChoiceOutcome>, std::string> choosePlans(
    AppSession& session, const std::vector<std::string>& candidateIDs, bool keep,
    const PlanServiceOptions& options = {});

struct PlanCommitOutcome {
    std::optional<PlanCandidateReviewCommitResult> committed;
    std::optional<PlanReviewMessage> refusal;  // why nothing was kept
};

// Commits the review: every candidate awaiting review must have been kept or rejected.
std::expected<PlanCommitOutcome, std::string> commitPlans(AppSession& session,
                                                          const PlanServiceOptions& options = {});

// Sends the account's accepted candidates back to review ("plan:" prefix optional); how many.
int64_t resetPlanAccount(AppSession& session, const std::string& account);

}  // namespace kestrel
