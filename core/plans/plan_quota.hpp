#pragma once
// API plan accounts: which can be probed, the probe for each family, and refreshing one account
// or every account of a quota card into the store.

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/ledger/usage_store.hpp"
#include "core/plans/plan_probes.hpp"
#include "core/plans/quota_refresher.hpp"

namespace kestrel {

struct PlanAccount {
    std::string id;  // the subscription account id; plan readings are stored under it
    PlanFamily family = PlanFamily::glm;
    PlanRegion region = PlanRegion::cn;
    std::string label;

    bool operator==(const PlanAccount&) const = default;
};

// The API key of an account, read for one request only; absent when none is stored.
using PlanKeyLookup = std::function<std::optional<std::string>(const std::string& accountID)>;

using PlanRefreshOutcome = QuotaRefreshOutcome;

namespace PlanQuota {

bool supportsLiveProbe(const PlanAccount& account);

PlanProbeResult probe(const PlanAccount& account, const std::string& apiKey,
                      const KeyProbeContext& context, double now);

// The quota card an account is drawn on: one per family and region.
std::string cardID(const PlanAccount& account);

PlanRefreshOutcome refresh(const PlanAccount& account, UsageStore& store, const PlanKeyLookup& keys,
                           QuotaRefresher& refresher, const KeyProbeContext& context, double now);

// Every account of `cardID` among `accounts`, in their order.
std::vector<PlanRefreshOutcome> refresh(const std::string& cardID,
                                        const std::vector<PlanAccount>& accounts, UsageStore& store,
                                        const PlanKeyLookup& keys, QuotaRefresher& refresher,
                                        const KeyProbeContext& context, double now);

}  // namespace PlanQuota
}  // namespace kestrel
