#include "core/model/usage_event.hpp"

#include <nlohmann/json.hpp>

#include "core/model/json_enum.hpp"

namespace kestrel {

using jsonenum::encode;
using jsonenum::optional;
using jsonenum::readOptional;

namespace {

template <class J>
void fill(J& j, const UsageEvent& e) {
    j = J::object();
    j["id"] = e.id;
    j["occurredAt"] = e.occurredAt;
    j["timeQuality"] = optional(e.timeQuality);
    j["usagePrecision"] = optional(e.usagePrecision);
    j["granularity"] = optional(e.granularity);
    j["source"] = encode(e.source);
    j["provider"] = e.provider;
    j["model"] = e.model;
    j["projectDisplayName"] = optional(e.projectDisplayName);
    j["cwdHash"] = optional(e.cwdHash);
    j["sessionID"] = e.sessionID;
    j["raw"] = J(e.raw);
    j["exclusive"] = J(e.exclusive);
    j["providerInputTotal"] = e.providerInputTotal;
    j["providerOutputTotal"] = e.providerOutputTotal;
    j["providerTotal"] = e.providerTotal;
    j["breakdownTrusted"] = e.breakdownTrusted;
    j["usageSemanticsVersion"] = e.usageSemanticsVersion;
    j["estimatedCostUSDMicros"] = optional(e.estimatedCostUSDMicros);
    j["costCompleteness"] = encode(e.costCompleteness);
    j["priceVersion"] = optional(e.priceVersion);
    j["fxVersion"] = optional(e.fxVersion);
    j["costSource"] = encode(e.costSource);
    j["billingMode"] = encode(e.billingMode);
    j["rawExtras"] = optional(e.rawExtras);
    j["promptTokens"] = optional(e.promptTokens);
    j["contextBand"] = optional(e.contextBand);
}

}  // namespace

void to_json(nlohmann::json& j, const UsageEvent& e) {
    fill(j, e);
}

void to_json(nlohmann::ordered_json& j, const UsageEvent& e) {
    fill(j, e);
}

void from_json(const nlohmann::json& j, UsageEvent& e) {
    e.id = j.at("id").get<std::string>();
    e.occurredAt = j.at("occurredAt").get<double>();
    e.timeQuality = readOptional<ObservationTimeQuality>(j, "timeQuality");
    e.usagePrecision = readOptional<UsagePrecision>(j, "usagePrecision");
    e.granularity = readOptional<UsageGranularity>(j, "granularity");
    e.source = jsonenum::decode<AgentSource>(j.at("source"));
    e.provider = j.at("provider").get<std::string>();
    e.model = j.at("model").get<std::string>();
    e.projectDisplayName = readOptional<std::string>(j, "projectDisplayName");
    e.cwdHash = readOptional<std::string>(j, "cwdHash");
    e.sessionID = j.at("sessionID").get<std::string>();
    e.raw = j.at("raw").get<TokenSnapshot>();
    e.exclusive = j.at("exclusive").get<ExclusiveTokens>();
    e.providerInputTotal = j.at("providerInputTotal").get<int64_t>();
    e.providerOutputTotal = j.at("providerOutputTotal").get<int64_t>();
    e.providerTotal = j.at("providerTotal").get<int64_t>();
    e.breakdownTrusted = j.at("breakdownTrusted").get<bool>();
    e.usageSemanticsVersion = j.at("usageSemanticsVersion").get<int64_t>();
    e.estimatedCostUSDMicros = readOptional<int64_t>(j, "estimatedCostUSDMicros");
    e.costCompleteness = jsonenum::decode<CostCompleteness>(j.at("costCompleteness"));
    e.priceVersion = readOptional<int64_t>(j, "priceVersion");
    e.fxVersion = readOptional<int64_t>(j, "fxVersion");
    e.costSource = jsonenum::decode<CostSource>(j.at("costSource"));
    e.billingMode = jsonenum::decode<BillingMode>(j.at("billingMode"));
    e.rawExtras = readOptional<std::string>(j, "rawExtras");
    e.promptTokens = readOptional<int64_t>(j, "promptTokens");
    e.contextBand = readOptional<ContextBand>(j, "contextBand");
}

}  // namespace kestrel
