#include "core/plans/plan_review.hpp"

#include <array>
#include <nlohmann/json.hpp>

#include "core/model/account_snapshot_json.hpp"
#include "core/plans/live_quota.hpp"
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

namespace {

// The credential behind the candidate's locator, read again and held to the fingerprint taken
// at discovery; absent when it can be used, else the result that says why not.
std::optional<CandidateValidationResult> checkCredential(const PlanCandidateRecord& candidate,
                                                         const PlanDiscoveryInputs& inputs,
                                                         CandidateValidationResult& result,
                                                         ResolvedCredential& credential) {
    if (!candidate.credentialLocator) {
        result.state = CandidateValidationState::credentialRejected;
        result.diagnosticCode = "noCredential";
        return result;
    }
    credential = PlanDiscovery::resolve(*candidate.credentialLocator, inputs);
    result.credentialResolution = credential.resolution;
    if (credential.resolution != CredentialResolution::available) {
        result.state = credential.resolution == CredentialResolution::permissionDenied
                           ? CandidateValidationState::localPermissionDenied
                           : CandidateValidationState::credentialRejected;
        result.diagnosticCode = std::string(rawValue(credential.resolution));
        return result;
    }
    if (credentialFingerprint(inputs.salt, *credential.secret) != candidate.credentialFingerprint) {
        // The key changed after discovery: a new scan makes a new revision to validate.
        result.credentialResolution = CredentialResolution::sourceChanged;
        result.state = CandidateValidationState::credentialRejected;
        result.diagnosticCode = "sourceChanged";
        return result;
    }
    return std::nullopt;
}

// Turns the provider's answer into the result: valid with its report when a plan answered.
CandidateValidationResult fromProbe(const PlanCandidateRecord& candidate,
                                    const std::expected<AccountSnapshot, ProbeError>& probed,
                                    CandidateValidationResult result, double now) {
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
        {"credentialFingerprint", *candidate.credentialFingerprint},
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

}  // namespace

namespace PlanReview {

CandidateValidationResult validate(const PlanCandidateRecord& candidate,
                                   const PlanDiscoveryInputs& inputs,
                                   const KeyProbeContext& context, double now, TokenCache* tokens) {
    CandidateValidationResult result;
    result.revision = candidate.revision;
    ResolvedCredential credential;

    // A sign-in is validated by the agent's own live probe, under its own tokens.
    if (const auto agent = candidate.credentialLocator
                               ? PlanDiscovery::signInAgent(*candidate.credentialLocator)
                               : std::nullopt) {
        if (auto refused = checkCredential(candidate, inputs, result, credential)) {
            return *refused;
        }
        const ProbeContext probeContext{inputs.home, context.env, context.timeout, tokens};
        auto probed = LiveQuota::probeFor(*agent)(probeContext, now);
        if (probed && !*probed) {
            // The file lost its sign-in between the two reads.
            result.state = CandidateValidationState::credentialRejected;
            result.credentialResolution = CredentialResolution::missing;
            result.diagnosticCode = "notSignedIn";
            return result;
        }
        return fromProbe(candidate,
                         probed ? std::expected<AccountSnapshot, ProbeError>(std::move(**probed))
                                : std::unexpected(probed.error()),
                         std::move(result), now);
    }

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
    if (auto refused = checkCredential(candidate, inputs, result, credential)) {
        return *refused;
    }
    return fromProbe(candidate, PlanQuota::probe(account, *credential.secret, context, now),
                     std::move(result), now);
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
