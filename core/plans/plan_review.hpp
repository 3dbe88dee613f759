#pragma once
// Validating a plan candidate against its provider, and what the review's refusals say. A
// candidate is validated by reading its key again through its locator, checking that it is the
// key that was fingerprinted at discovery, and asking the family's quota endpoint with it.

#include <optional>
#include <string>
#include <string_view>

#include "core/ledger/plan_candidate_records.hpp"
#include "core/plans/plan_discovery.hpp"
#include "core/plans/plan_probes.hpp"

namespace kestrel {

class TokenCache;

enum class PlanCandidateDecision { pending, accepted, rejected };
enum class CandidateValidationState {
    unverified,
    resolvingCredential,
    validating,
    valid,
    credentialRejected,
    authenticationRejected,
    planInvalid,
    localPermissionDenied,
    providerPermissionDenied,
    temporaryFailure,
    unsupported,
    malformedResponse,
};

std::string_view rawValue(PlanCandidateDecision decision);
std::string_view rawValue(CandidateValidationState state);
std::optional<CandidateValidationState> validationStateFromRaw(std::string_view raw);

struct CandidateValidationResult {
    std::string revision;  // the revision validated; the store ignores it for another one
    CandidateValidationState state = CandidateValidationState::unverified;
    CredentialResolution credentialResolution = CredentialResolution::missing;
    std::optional<std::string> reportJSON;  // PlanValidationReport, when valid
    std::optional<std::string> diagnosticCode;

    bool operator==(const CandidateValidationResult&) const = default;
};

// The candidate whose messages a refusal concerns, and the message's catalogue key.
struct PlanReviewMessage {
    std::string key;          // "plans.review.*"
    std::string candidateID;  // empty when it concerns the whole batch
};

namespace PlanReview {

// Reads the key, checks its fingerprint and probes the family's endpoint. Families without a
// usage endpoint are `unsupported`; no request is made for a key that is missing or changed. A
// sign-in ("oauth:AGENT") is checked against the sign-in found at discovery and probed with the
// agent's live quota probe; a token it refreshes goes into `tokens` (Kestrel's own, never the
// agent's file).
CandidateValidationResult validate(const PlanCandidateRecord& candidate,
                                   const PlanDiscoveryInputs& inputs,
                                   const KeyProbeContext& context, double now,
                                   TokenCache* tokens = nullptr);

// The review batch's id: a digest of the candidates and revisions it shows.
std::string batchID(const std::vector<PlanCandidateRecord>& candidates, std::string_view salt);

inline constexpr std::string_view kUndecided = "plans.review.undecided";
inline constexpr std::string_view kSaveFailed = "plans.review.saveFailed";
inline constexpr std::string_view kSourceGone = "plans.review.sourceGone";
inline constexpr std::string_view kCredentialChanged = "plans.review.credentialChanged";
inline constexpr std::string_view kConfigurationChanged = "plans.review.configurationChanged";

// The message a refused commit shows.
std::string_view messageKey(PlanCandidateStoreError::Kind kind);

}  // namespace PlanReview
}  // namespace kestrel
