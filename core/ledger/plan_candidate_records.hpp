#pragma once
// Plan discovery candidates as the ledger keeps them (table plan_discovery_candidates), the
// subscription accounts a committed review creates, and why a review commit was refused.
// Enumerations are held as their stored case names; core/plans gives them their types.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestrel {

struct PlanCandidateRecord {
    std::string id;
    std::string revision;    // changes whenever the finding's content changes
    std::string bindingKey;  // the place the credential was found
    std::string family;
    std::string region;
    std::optional<std::string> endpointBaseURL;  // sanitised: no user info, query or fragment
    std::string toolID;                          // the agent whose configuration holds it
    std::string sourceDisplayName;
    std::string sourceEntryID;
    bool isCurrent = false;
    std::optional<std::string> credentialOrigin;
    std::optional<std::string> credentialLocator;  // where to read the key again, never the key
    std::optional<std::string> credentialFingerprint;
    std::string credentialResolution = "available";
    int64_t scanGeneration = 0;
    std::string decision = "pending";
    std::string validationState = "unverified";
    std::optional<std::string> validationReportJSON;
    std::string proposedAccountID;
    std::string adapterVersion;
    double firstSeenAt = 0;
    double lastSeenAt = 0;
    std::optional<double> decidedAt;
    bool isPresent = true;

    bool operator==(const PlanCandidateRecord&) const = default;
};

struct PlanCandidateStoreError {
    enum class Kind {
        missingCandidate,
        invalidRevision,
        candidateNotValidated,
        invalidValidationReport,
        invalidCredentialHandle,
        missingIntegrationInstance,
        staleBatch,
    };
    Kind kind = Kind::staleBatch;
    std::string candidateID;  // empty for staleBatch

    bool operator==(const PlanCandidateStoreError&) const = default;
};

// One decided candidate of a review batch.
struct PlanReviewDecision {
    std::string candidateID;
    std::string revision;  // the revision the user saw
    bool keep = false;
    // Kept candidates only: the fingerprint the credential has now, read just before the
    // commit; the integration instance the account is bound to; the account's label.
    std::optional<std::string> currentFingerprint;
    std::string integrationInstanceID;
    std::string displayLabel;

    bool operator==(const PlanReviewDecision&) const = default;
};

struct PlanCandidateReviewCommitResult {
    std::vector<std::string> acceptedAccountIDs;  // "plan:" + the proposed account id
    std::vector<std::string> rejectedCandidateIDs;

    bool operator==(const PlanCandidateReviewCommitResult&) const = default;
};

// A confirmed API plan account (subscription_accounts, id "plan:..."), for quota refreshes.
struct PlanAccountRecord {
    std::string id;  // without the "plan:" prefix
    std::string family;
    std::string region;
    std::string displayLabel;
    std::optional<std::string> credentialHandle;  // the locator of its key
    std::optional<std::string> identityFingerprint;
    std::vector<std::string> integrationInstanceIDs;  // of its live bindings

    bool operator==(const PlanAccountRecord&) const = default;
};

}  // namespace kestrel
