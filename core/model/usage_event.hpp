#pragma once
// One normalised usage record: the unit every reader returns and the ledger stores.

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "core/model/agent_source.hpp"
#include "core/model/tokens.hpp"
#include "core/model/usage_enums.hpp"

namespace kestrel {

struct UsageEvent {
    std::string id;         // identity and de-duplication key (EventID)
    double occurredAt = 0;  // seconds since the Unix epoch
    std::optional<ObservationTimeQuality> timeQuality;
    std::optional<UsagePrecision> usagePrecision;
    std::optional<UsageGranularity> granularity;
    AgentSource source = AgentSource::claude;
    std::string provider;  // model vendor as a lowercase word ("anthropic")
    std::string model;     // as the agent wrote it
    std::optional<std::string> projectDisplayName;  // only when the user allows project names
    std::optional<std::string> cwdHash;             // Privacy::cwdHash of the working directory
    std::string sessionID;
    TokenSnapshot raw;
    ExclusiveTokens exclusive;
    int64_t providerInputTotal = 0;
    int64_t providerOutputTotal = 0;
    int64_t providerTotal = 0;
    bool breakdownTrusted = true;
    int64_t usageSemanticsVersion = 1;
    std::optional<int64_t> estimatedCostUSDMicros;  // absent when not priced
    CostCompleteness costCompleteness = CostCompleteness::none;
    std::optional<int64_t> priceVersion;
    std::optional<int64_t> fxVersion;
    CostSource costSource = CostSource::unknown;
    BillingMode billingMode = BillingMode::apiEquivalent;
    std::optional<std::string> rawExtras;  // compact JSON of source-specific extras, for audit
    std::optional<int64_t> promptTokens;
    std::optional<ContextBand> contextBand;

    bool operator==(const UsageEvent&) const = default;
};

// JSON with the field names as keys, times as epoch seconds, enumerations as raw values and
// absent optionals as null.
void to_json(nlohmann::json& j, const UsageEvent& e);
void to_json(nlohmann::ordered_json& j, const UsageEvent& e);  // keys in declaration order
void from_json(const nlohmann::json& j, UsageEvent& e);

}  // namespace kestrel
