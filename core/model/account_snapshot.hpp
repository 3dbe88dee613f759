#pragma once
// A quota reading of one subscription account: who it is, its windows and its plans.

#include <optional>
#include <string>
#include <vector>

#include "core/model/agent_source.hpp"
#include "core/model/usage_enums.hpp"

namespace kestrel {

enum class QuotaWindowKind {
    session5h,
    weekly,
    weeklyModelScoped,
    monthly,
    extraCredits,
    apiPrepaid
};

enum class QuotaProvenance { localSession, localCache, liveOAuth, liveAPIKey, relay };

enum class PurchasedPlanKind { subscription, extraCredits, prepaid };

template <>
struct EnumCases<QuotaWindowKind> {
    using E = QuotaWindowKind;
    static constexpr std::array<std::pair<E, std::string_view>, 6> cases{{
        KESTREL_ENUM_CASE(E, session5h),
        KESTREL_ENUM_CASE(E, weekly),
        KESTREL_ENUM_CASE(E, weeklyModelScoped),
        KESTREL_ENUM_CASE(E, monthly),
        KESTREL_ENUM_CASE(E, extraCredits),
        KESTREL_ENUM_CASE(E, apiPrepaid),
    }};
};

template <>
struct EnumCases<QuotaProvenance> {
    using E = QuotaProvenance;
    static constexpr std::array<std::pair<E, std::string_view>, 5> cases{{
        KESTREL_ENUM_CASE(E, localSession),
        KESTREL_ENUM_CASE(E, localCache),
        KESTREL_ENUM_CASE(E, liveOAuth),
        KESTREL_ENUM_CASE(E, liveAPIKey),
        KESTREL_ENUM_CASE(E, relay),
    }};
};

template <>
struct EnumCases<PurchasedPlanKind> {
    using E = PurchasedPlanKind;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        KESTREL_ENUM_CASE(E, subscription),
        KESTREL_ENUM_CASE(E, extraCredits),
        KESTREL_ENUM_CASE(E, prepaid),
    }};
};

struct PurchasedPlan {
    std::string id;
    std::string name;
    PurchasedPlanKind kind = PurchasedPlanKind::subscription;
    std::optional<std::string> status;
    std::optional<double> expiresAt;
    std::optional<std::string> detail;
    std::optional<double> priceAmount;
    std::optional<std::string> priceCurrency;

    bool operator==(const PurchasedPlan&) const = default;
};

struct QuotaWindow {
    std::optional<std::string> scopeKey;  // what a scoped window applies to (a model family)
    QuotaWindowKind kind = QuotaWindowKind::session5h;
    std::optional<double> usedPercent;  // 0-100
    std::optional<double> resetsAt;
    std::optional<std::string> label;
    std::optional<std::string> remainingLabel;  // e.g. a balance already formatted by the provider
    std::optional<double> usedValue;
    std::optional<double> limitValue;
    std::optional<std::string> currency;

    bool operator==(const QuotaWindow&) const = default;
};

struct AccountIdentity {
    AgentSource source = AgentSource::claude;
    std::string planLabel;
    std::optional<std::string> displayName;
    std::optional<std::string> emailMasked;  // only ever kept masked (Privacy::maskEmail)
    std::optional<std::string> organizationName;

    bool operator==(const AccountIdentity&) const = default;
};

struct AccountSnapshot {
    AccountIdentity identity;
    std::vector<QuotaWindow> windows;
    double fetchedAt = 0;
    QuotaProvenance provenance = QuotaProvenance::localCache;
    bool stale = false;
    CostCompleteness completeness = CostCompleteness::none;
    std::vector<PurchasedPlan> plans;

    bool operator==(const AccountSnapshot&) const = default;
};

}  // namespace kestrel
