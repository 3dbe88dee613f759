#include "core/plans/plan_review.hpp"

#include <array>
#include <nlohmann/json.hpp>

#include "core/model/account_snapshot_json.hpp"
#include "core/plans/plan_quota.hpp"
#include "core/plans/plan_salt.hpp"

namespace kestrel {
namespace {

constexpr std::array<std::pair<CandidateValidationState, std::string_view>, 12> kStates = {{
    {CandidateValidationState::unverified, "unverified"},
    {CandidateValidationState::resolvingCredential, "resolvingCredential"},
    {CandidateValidationState::validating, "validating"},
    {CandidateValidationState::valid, "valid"},
    {CandidateValidationState::credentialRejected, "credentialRejected"},
    {CandidateValidationState::authenticationRejected, "authenticationRejected"},
    {CandidateValidationState::planInvalid, "planInvalid"},
    {CandidateValidationState::localPermissionDenied, "localPermissionDenied"},
    {CandidateValidationState::providerPermissionDenied, "providerPermissionDenied"},
    {CandidateValidationState::temporaryFailure, "temporaryFailure"},
    {CandidateValidationState::unsupported, "unsupported"},
    {CandidateValidationState::malformedResponse, "malformedResponse"},
}};

CandidateValidationState stateFor(const ProbeError& error) {
    switch (error.kind) {
        case ProbeError::Kind::unauthorized:
            return CandidateValidationState::authenticationRejected;
        case ProbeError::Kind::expired:
            return CandidateValidationState::credentialRejected;
        case ProbeError::Kind::rateLimited:
        case ProbeError::Kind::unreachable:
            return CandidateValidationState::temporaryFailure;
        case ProbeError::Kind::unexpected:
            return CandidateValidationState::malformedResponse;
    }
    return CandidateValidationState::malformedResponse;
}

}  // namespace

std::string_view rawValue(PlanCandidateDecision decision) {
    switch (decision) {
        case PlanCandidateDecision::pending:
            return "pending";
        case PlanCandidateDecision::accepted:
            return "accepted";
        case PlanCandidateDecision::rejected:
            return "rejected";
    }
    return "pending";
}

std::string_view rawValue(CandidateValidationState state) {
    for (const auto& [s, name] : kStates) {
        if (s == state) {
            return name;
        }
    }
    return "unverified";
}

std::optional<CandidateValidationState> validationStateFromRaw(std::string_view raw) {
    for (const auto& [s, name] : kStates) {
        if (name == raw) {
            return s;
        }
    }
    return std::nullopt;
}

namespace PlanReview {

CandidateValidationResult validate(const PlanCandidateRecord& candidate,
                                   const PlanDiscoveryInputs& inputs,
                                   const KeyProbeContext& context, double now) {
    CandidateValidationResult result;
    result.revision = candidate.revision;
    const auto family = planFamilyFromRaw(candidate.family);
    const auto region = planRegionFromRaw(candidate.region);
    // A family without a usage endpoint is said so before any key is read.
    PlanAccount account;
    account.id = candidate.proposedAccountID;
    if (family)
        account.family = *family;
    if (region)
        account.region = *region;
    if (!family || !region || !PlanQuota::supportsLiveProbe(account)) {
        result.state = CandidateValidationState::unsupported;
        result.diagnosticCode = "noUsageEndpoint";
        return result;
    }
    if (!candidate.credentialLocator) {
        result.state = CandidateValidationState::credentialRejected;
        result.diagnosticCode = "noCredential";
        return result;
    }
    auto credential = PlanDiscovery::resolve(*candidate.credentialLocator, inputs);
    result.credentialResolution = credential.resolution;
    if (credential.resolution != CredentialResolution::available) {
        result.state = credential.resolution == CredentialResolution::permissionDenied
                           ? CandidateValidationState::localPermissionDenied
                           : CandidateValidationState::credentialRejected;
        result.diagnosticCode = std::string(rawValue(credential.resolution));
        return result;
    }
    const std::string fingerprint = credentialFingerprint(inputs.salt, *credential.secret);
    if (fingerprint != candidate.credentialFingerprint) {
        // The key changed after discovery: a new scan makes a new revision to validate.
        result.credentialResolution = CredentialResolution::sourceChanged;
        result.state = CandidateValidationState::credentialRejected;
        result.diagnosticCode = "sourceChanged";
        return result;
    }
    const auto probed = PlanQuota::probe(account, *credential.secret, context, now);
    if (!probed) {
        result.state = stateFor(probed.error());
        result.diagnosticCode = std::string(ProbeErrors::kindName(probed.error().kind));
        return result;
    }
    if (probed->windows.empty()) {
        // The key works but no plan answers for it: a pay-as-you-go key on a plan endpoint.
        result.state = CandidateValidationState::planInvalid;
        result.diagnosticCode = "noQuotaWindow";
        return result;
    }
    nlohmann::json report = {
        {"credentialFingerprint", fingerprint},
        {"validatedAt", now},
        {"adapterVersion", candidate.adapterVersion},
        {"planEvidence",
         {{"recognizedPlanID", nullptr},
          {"activeSubscriptionName", probed->identity.planLabel.empty()
                                         ? nlohmann::json(nullptr)
                                         : nlohmann::json(probed->identity.planLabel)},
          {"quotaWindowCount", probed->windows.size()}}},
        {"quotaPreview", *probed},
    };
    result.state = CandidateValidationState::valid;
    result.reportJSON = report.dump();
    return result;
}

std::string batchID(const std::vector<PlanCandidateRecord>& candidates, std::string_view salt) {
    std::string text;
    for (const auto& c : candidates) {
        text += c.id + ":" + c.revision + ";";
    }
    return "batch-" + saltedDigest(salt, text).substr(0, 10);
}

std::string_view messageKey(PlanCandidateStoreError::Kind kind) {
    using K = PlanCandidateStoreError::Kind;
    switch (kind) {
        case K::missingCandidate:
            return kSourceGone;
        case K::invalidRevision:
        case K::staleBatch:
            return kConfigurationChanged;
        case K::candidateNotValidated:
        case K::invalidValidationReport:
        case K::invalidCredentialHandle:
            return kCredentialChanged;
        case K::missingIntegrationInstance:
            return kSaveFailed;
    }
    return kSaveFailed;
}

}  // namespace PlanReview
}  // namespace kestrel
