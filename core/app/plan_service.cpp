#include "core/app/plan_service.hpp"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>

#include "core/integrations/plugin_registry.hpp"
#include "core/ledger/plan_candidate_store.hpp"
#include "core/model/timestamp.hpp"
#include "core/plans/plan_discovery.hpp"
#include "core/plans/plan_salt.hpp"
#include "core/plans/quota_state_store.hpp"

namespace kestrel {
namespace {

// The user's choices between `plans keep|reject` and `plans commit`, by candidate, each with the
// revision it was made for.
constexpr const char* kDraftKey = "plan_review_draft";

struct DraftChoice {
    bool keep = false;
    std::string revision;
};
using Draft = std::map<std::string, DraftChoice>;

Draft loadDraft(UsageStore& store) {
    Draft draft;
    const auto text = store.setting(kDraftKey);
    if (!text) {
        return draft;
    }
    const auto doc = nlohmann::json::parse(*text, nullptr, false);
    if (doc.is_discarded() || !doc.is_object()) {
        return draft;
    }
    for (const auto& [id, choice] : doc.items()) {
        if (choice.is_object()) {
            draft[id] = {choice.value("keep", false), choice.value("revision", "")};
        }
    }
    return draft;
}

void saveDraft(UsageStore& store, const Draft& draft) {
    nlohmann::json doc = nlohmann::json::object();
    for (const auto& [id, choice] : draft) {
        doc[id] = {{"keep", choice.keep}, {"revision", choice.revision}};
    }
    store.setSetting(kDraftKey, doc.dump());
}

std::expected<PlanDiscoveryInputs, std::string> inputsFor(AppSession& session,
                                                          const PlanServiceOptions& options) {
    auto salt = PlanSalt::loadOrCreate(session.paths().supportDir);
    if (!salt) {
        return std::unexpected(salt.error());
    }
    return PlanDiscoveryInputs{session.paths().home, session.paths().env, *salt, options.keys};
}

PlanReviewState reviewState(UsageStore& store, const std::string& salt) {
    PlanReviewState state;
    const Draft draft = loadDraft(store);
    std::vector<PlanCandidateRecord> pending;
    for (auto& c : PlanCandidateStore::planDiscoveryCandidates(store, false)) {
        if (c.decision == rawValue(PlanCandidateDecision::pending)) {
            pending.push_back(std::move(c));
        }
    }
    if (!pending.empty()) {
        state.batchID = PlanReview::batchID(pending, salt);
    }
    for (auto& c : pending) {
        PlanReviewRow row;
        if (const auto it = draft.find(c.id);
            it != draft.end() && it->second.revision == c.revision) {
            row.keep = it->second.keep;
        }
        row.candidate = std::move(c);
        state.rows.push_back(std::move(row));
    }
    return state;
}

PlanReviewState discover(AppSession& session, const PlanDiscoveryInputs& inputs) {
    const double now = epochNow();
    auto found = PlanDiscovery::candidates(PlanDiscovery::findAll(inputs), inputs.salt, now);
    // Two places may name the same entry (a switcher row mirrored in the tool's settings); one
    // candidate each.
    std::ranges::sort(found, {}, &PlanCandidateRecord::id);
    found.erase(std::unique(found.begin(), found.end(),
                            [](const auto& a, const auto& b) { return a.id == b.id; }),
                found.end());
    PlanCandidateStore::upsertPlanDiscoveryCandidates(session.store(), found, now);
    return reviewState(session.store(), inputs.salt);
}

// The inputs and a fresh review: what showing, choosing and committing start from.
struct Reviewed {
    PlanDiscoveryInputs inputs;
    PlanReviewState state;
};

std::expected<Reviewed, std::string> reviewed(AppSession& session,
                                              const PlanServiceOptions& options) {
    auto inputs = inputsFor(session, options);
    if (!inputs) {
        return std::unexpected(inputs.error());
    }
    auto state = discover(session, *inputs);
    return Reviewed{std::move(*inputs), std::move(state)};
}

std::optional<IntegrationInstanceID> instanceFor(AppSession& session, AgentSource tool) {
    const auto plugin = PluginRegistry::stableID(tool);
    if (!plugin) {
        return std::nullopt;
    }
    const auto instance = session.store().activeInstance(*plugin);
    return instance ? std::optional(instance->id) : std::nullopt;
}

// A stored validation still counts when it is valid for the key as it is now.
bool stillValid(const PlanCandidateRecord& c) {
    if (c.validationState != rawValue(CandidateValidationState::valid) || !c.validationReportJSON) {
        return false;
    }
    const auto doc = nlohmann::json::parse(*c.validationReportJSON, nullptr, false);
    return !doc.is_discarded() && doc.is_object() &&
           doc.value("credentialFingerprint", "") == c.credentialFingerprint.value_or("-");
}

}  // namespace

std::expected<PlanReviewState, std::string> discoverPlans(AppSession& session,
                                                          const PlanServiceOptions& options) {
    auto review = reviewed(session, options);
    if (!review) {
        return std::unexpected(review.error());
    }
    return std::move(review->state);
}

std::expected<std::vector<PlanChoiceOutcome>, std::string> choosePlans(
    AppSession& session, const std::vector<std::string>& candidateIDs, bool keep,
    const PlanServiceOptions& options) {
    const auto review = reviewed(session, options);
    if (!review) {
        return std::unexpected(review.error());
    }
    const auto& [inputs, state] = *review;
    auto& store = session.store();
    Draft draft = loadDraft(store);
    std::vector<PlanChoiceOutcome> out;
    const KeyProbeContext context{session.paths().env, options.timeout};
    // A sign-in's validation may refresh its token: that token is kept with the quota state,
    // as a refresh by `kestrel quota` would keep it, and the agent's file stays untouched.
    QuotaRefresher refresher;
    TokenCache tokens;
    QuotaStateStore::load(session.paths().supportDir, refresher, tokens, epochNow());
    bool validatedSignIn = false;
    for (const auto& id : candidateIDs) {
        PlanChoiceOutcome outcome;
        outcome.candidateID = id;
        const auto row = std::ranges::find(state.rows, id,
                                           [](const PlanReviewRow& r) { return r.candidate.id; });
        if (row == state.rows.end()) {
            out.push_back(std::move(outcome));
            continue;
        }
        const auto& candidate = row->candidate;
        outcome.tool = agentSourceNamed(candidate.toolID);
        if (keep && !stillValid(candidate)) {
            if (!outcome.tool ||
                !session.integrations().canRun(IntegrationCapability::quota, *outcome.tool)) {
                outcome.status = PlanChoiceOutcome::Status::quotaOff;
                out.push_back(std::move(outcome));
                continue;
            }
            auto result = PlanReview::validate(candidate, inputs, context, epochNow(), &tokens);
            validatedSignIn = validatedSignIn || candidate.family == PlanDiscovery::kOAuthFamily;
            PlanCandidateStore::recordPlanValidation(
                store, candidate.id, result.revision, std::string(rawValue(result.state)),
                result.reportJSON, std::string(rawValue(result.credentialResolution)), epochNow());
            const bool valid = result.state == CandidateValidationState::valid;
            outcome.validation = std::move(result);
            if (!valid) {
                outcome.status = PlanChoiceOutcome::Status::notValid;
                draft.erase(id);
                out.push_back(std::move(outcome));
                continue;
            }
        }
        outcome.status =
            keep ? PlanChoiceOutcome::Status::kept : PlanChoiceOutcome::Status::rejected;
        draft[id] = {keep, candidate.revision};
        out.push_back(std::move(outcome));
    }
    saveDraft(store, draft);
    if (validatedSignIn) {
        QuotaStateStore::save(session.paths().supportDir, refresher, tokens, epochNow());
    }
    return out;
}

std::expected<PlanCommitOutcome, std::string> commitPlans(AppSession& session,
                                                          const PlanServiceOptions& options) {
    const auto review = reviewed(session, options);
    if (!review) {
        return std::unexpected(review.error());
    }
    const auto& [inputs, state] = *review;
    auto& store = session.store();
    const Draft draft = loadDraft(store);
    PlanCommitOutcome outcome;
    for (const auto& row : state.rows) {
        if (!draft.contains(row.candidate.id)) {
            outcome.refusal =
                PlanReviewMessage{std::string(PlanReview::kUndecided), row.candidate.id};
            return outcome;
        }
    }
    if (draft.empty()) {
        outcome.committed = PlanCandidateReviewCommitResult{};
        return outcome;
    }
    // Instances exist for every plug-in once reconciled; a kept candidate is bound to its tool's.
    session.integrations().reconcileInstallations(session.paths().home, epochNow(),
                                                  session.paths().env);
    std::vector<std::string> batch;
    std::vector<PlanReviewDecision> decisions;
    for (const auto& [id, choice] : draft) {
        batch.push_back(id);
        PlanReviewDecision decision;
        decision.candidateID = id;
        decision.revision = choice.revision;
        decision.keep = choice.keep;
        if (choice.keep) {
            if (const auto stored = PlanCandidateStore::planDiscoveryCandidate(store, id)) {
                if (stored->credentialLocator) {
                    const auto now = PlanDiscovery::resolve(*stored->credentialLocator, inputs);
                    if (now.secret) {
                        decision.currentFingerprint =
                            credentialFingerprint(inputs.salt, *now.secret);
                    }
                }
                if (const auto tool = agentSourceNamed(stored->toolID)) {
                    if (const auto instance = instanceFor(session, *tool)) {
                        decision.integrationInstanceID = instance->rawValue;
                    }
                    decision.displayLabel =
                        stored->family == PlanDiscovery::kOAuthFamily
                            ? std::string(displayName(*tool)) + " sign-in · " +
                                  stored->sourceDisplayName
                            : stored->family + " (" + stored->region + ") · " +
                                  stored->sourceDisplayName;
                }
            }
        }
        decisions.push_back(std::move(decision));
    }
    try {
        auto result = PlanCandidateStore::commitPlanReview(store, batch, decisions, epochNow());
        if (!result) {
            outcome.refusal =
                PlanReviewMessage{std::string(PlanReview::messageKey(result.error().kind)),
                                  result.error().candidateID};
            // The refusal reloads the review: a choice about a candidate that is gone or has
            // changed is dropped (that candidate is decided again), so the next commit can pass.
            Draft kept = draft;
            std::erase_if(kept, [&](const auto& entry) {
                const auto row = std::ranges::find(
                    state.rows, entry.first, [](const PlanReviewRow& r) { return r.candidate.id; });
                return row == state.rows.end() || row->candidate.revision != entry.second.revision;
            });
            saveDraft(store, kept);
            return outcome;
        }
        outcome.committed = std::move(*result);
    } catch (const std::exception&) {
        outcome.refusal = PlanReviewMessage{std::string(PlanReview::kSaveFailed), {}};
        return outcome;
    }
    store.setSetting(kDraftKey, "{}");
    return outcome;
}

int64_t resetPlanAccount(AppSession& session, const std::string& account) {
    const std::string id = account.starts_with("plan:") ? account.substr(5) : account;
    return PlanCandidateStore::resetPlanReview(session.store(), id);
}

}  // namespace kestrel
