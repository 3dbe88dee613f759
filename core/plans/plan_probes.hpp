#pragma once
// Probes of API coding plans (GLM, MiniMax) and of prepaid balances (DeepSeek, OpenRouter),
// all with an API key the user gave. The key travels only in the request's header.

#include <chrono>
#include <expected>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "core/model/account_snapshot.hpp"
#include "core/plans/probe_error.hpp"
#include "core/plans/provider_hosts.hpp"

namespace kestrel {

enum class PlanFamily { glm, kimi, minimax, ark, alibaba, mimo };
enum class PlanRegion { cn, global };

std::string_view rawValue(PlanFamily family);
std::string_view rawValue(PlanRegion region);

// What every key probe needs besides the key.
struct KeyProbeContext {
    EnvironmentLookup env;
    std::chrono::milliseconds timeout{15000};
};

using PlanProbeResult = std::expected<AccountSnapshot, ProbeError>;

namespace GlmPlan {

std::string quotaURL(PlanRegion region, const EnvironmentLookup& env);
// The key goes bare in Authorization first; these statuses retry it as a bearer token.
bool shouldRetryBearer(long status);
// The service answers 200 with its error in the body ("code", "success"); that status wins.
long effectiveStatus(long http, const nlohmann::json& body);
PlanProbeResult parse(std::string_view body, double now);
PlanProbeResult probe(const std::string& apiKey, PlanRegion region, const std::string& accountID,
                      const KeyProbeContext& context, double now);

}  // namespace GlmPlan

namespace MiniMaxPlan {

std::string remainsURL(PlanRegion region, const EnvironmentLookup& env);
// base_resp.status_code other than 0 as a ProbeError; absent when the body reports success.
std::optional<ProbeError> mapBodyError(const nlohmann::json& body);
PlanProbeResult parse(std::string_view body, double now);
PlanProbeResult probe(const std::string& apiKey, PlanRegion region, const std::string& accountID,
                      const KeyProbeContext& context, double now);

}  // namespace MiniMaxPlan

namespace ApiBalance {

// One apiPrepaid window per currency; a CNY balance stays in CNY.
PlanProbeResult parseDeepSeek(std::string_view payload, double now);
PlanProbeResult parseOpenRouter(std::string_view key, std::string_view credits, double now);
PlanProbeResult deepSeek(const std::string& apiKey, const KeyProbeContext& context, double now);
PlanProbeResult openRouter(const std::string& apiKey, const KeyProbeContext& context, double now);

}  // namespace ApiBalance
}  // namespace kestrel
