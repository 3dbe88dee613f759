#include "core/plans/plan_quota.hpp"

namespace kestrel::PlanQuota {

bool supportsLiveProbe(const PlanAccount& account) {
    return account.family == PlanFamily::glm || account.family == PlanFamily::minimax;
}

PlanProbeResult probe(const PlanAccount& account, const std::string& apiKey,
                      const KeyProbeContext& context, double now) {
    switch (account.family) {
        case PlanFamily::glm:
            return GlmPlan::probe(apiKey, account.region, account.id, context, now);
        case PlanFamily::minimax:
            return MiniMaxPlan::probe(apiKey, account.region, account.id, context, now);
        default:
            break;
    }
    return std::unexpected(ProbeErrors::unexpected("no usage endpoint for this plan"));
}

std::string cardID(const PlanAccount& account) {
    return std::string(rawValue(account.family)) + ":" + std::string(rawValue(account.region));
}

PlanRefreshOutcome refresh(const PlanAccount& account, UsageStore& store, const PlanKeyLookup& keys,
                           QuotaRefresher& refresher, const KeyProbeContext& context, double now) {
    if (!supportsLiveProbe(account)) {
        return {account.id, QuotaRefreshOutcome::Status::unsupported, {}, {}, false};
    }
    const QuotaSlot slot{
        [&] { return store.planQuota(account.id); },
        [&](const AccountSnapshot& s) { return store.savePlanQuota(account.id, s); }};
    return refresher.refresh(
        account.id, slot,
        [&] {
            ProbeAnswer answer;
            answer.absentStatus = QuotaRefreshOutcome::Status::noKey;
            const auto key = keys ? keys(account.id) : std::nullopt;
            if (!key || key->empty()) {
                return answer;
            }
            auto result = probe(account, *key, context, now);
            if (result) {
                if (!account.label.empty()) {
                    result->identity.displayName = account.label;
                }
                answer.snapshot = std::move(*result);
            } else {
                answer.error = result.error();
            }
            return answer;
        },
        now);
}

std::vector<PlanRefreshOutcome> refresh(const std::string& card,
                                        const std::vector<PlanAccount>& accounts, UsageStore& store,
                                        const PlanKeyLookup& keys, QuotaRefresher& refresher,
                                        const KeyProbeContext& context, double now) {
    std::vector<PlanRefreshOutcome> out;
    for (const auto& account : accounts) {
        if (cardID(account) == card) {
            out.push_back(refresh(account, store, keys, refresher, context, now));
        }
    }
    return out;
}

}  // namespace kestrel::PlanQuota
