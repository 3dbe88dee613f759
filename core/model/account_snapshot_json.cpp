#include "core/model/account_snapshot_json.hpp"

#include <nlohmann/json.hpp>

#include "core/model/json_enum.hpp"

namespace kestrel {

using jsonenum::optional;
using jsonenum::readOptional;

void to_json(nlohmann::json& j, const PurchasedPlan& p) {
    j = nlohmann::json::object();
    j["id"] = p.id;
    j["name"] = p.name;
    j["kind"] = jsonenum::encode(p.kind);
    j["status"] = optional(p.status);
    j["expiresAt"] = optional(p.expiresAt);
    j["detail"] = optional(p.detail);
    j["priceAmount"] = optional(p.priceAmount);
    j["priceCurrency"] = optional(p.priceCurrency);
}

void from_json(const nlohmann::json& j, PurchasedPlan& p) {
    p.id = j.at("id").get<std::string>();
    p.name = j.at("name").get<std::string>();
    p.kind = jsonenum::decode<PurchasedPlanKind>(j.at("kind"));
    p.status = readOptional<std::string>(j, "status");
    p.expiresAt = readOptional<double>(j, "expiresAt");
    p.detail = readOptional<std::string>(j, "detail");
    p.priceAmount = readOptional<double>(j, "priceAmount");
    p.priceCurrency = readOptional<std::string>(j, "priceCurrency");
}

void to_json(nlohmann::json& j, const QuotaWindow& w) {
    j = nlohmann::json::object();
    j["scopeKey"] = optional(w.scopeKey);
    j["kind"] = jsonenum::encode(w.kind);
    j["usedPercent"] = optional(w.usedPercent);
    j["resetsAt"] = optional(w.resetsAt);
    j["label"] = optional(w.label);
    j["remainingLabel"] = optional(w.remainingLabel);
    j["usedValue"] = optional(w.usedValue);
    j["limitValue"] = optional(w.limitValue);
    j["currency"] = optional(w.currency);
}

void from_json(const nlohmann::json& j, QuotaWindow& w) {
    w.scopeKey = readOptional<std::string>(j, "scopeKey");
    w.kind = jsonenum::decode<QuotaWindowKind>(j.at("kind"));
    w.usedPercent = readOptional<double>(j, "usedPercent");
    w.resetsAt = readOptional<double>(j, "resetsAt");
    w.label = readOptional<std::string>(j, "label");
    w.remainingLabel = readOptional<std::string>(j, "remainingLabel");
    w.usedValue = readOptional<double>(j, "usedValue");
    w.limitValue = readOptional<double>(j, "limitValue");
    w.currency = readOptional<std::string>(j, "currency");
}

void to_json(nlohmann::json& j, const AccountIdentity& i) {
    j = nlohmann::json::object();
    j["source"] = jsonenum::encode(i.source);
    j["planLabel"] = i.planLabel;
    j["displayName"] = optional(i.displayName);
    j["emailMasked"] = optional(i.emailMasked);
    j["organizationName"] = optional(i.organizationName);
}

void from_json(const nlohmann::json& j, AccountIdentity& i) {
    i.source = jsonenum::decode<AgentSource>(j.at("source"));
    i.planLabel = j.at("planLabel").get<std::string>();
    i.displayName = readOptional<std::string>(j, "displayName");
    i.emailMasked = readOptional<std::string>(j, "emailMasked");
    i.organizationName = readOptional<std::string>(j, "organizationName");
}

void to_json(nlohmann::json& j, const AccountSnapshot& s) {
    j = nlohmann::json::object();
    j["identity"] = s.identity;
    j["windows"] = s.windows;
    j["fetchedAt"] = s.fetchedAt;
    j["provenance"] = jsonenum::encode(s.provenance);
    j["stale"] = s.stale;
    j["completeness"] = jsonenum::encode(s.completeness);
    j["plans"] = s.plans;
}

void from_json(const nlohmann::json& j, AccountSnapshot& s) {
    s.identity = j.at("identity").get<AccountIdentity>();
    s.windows = j.at("windows").get<std::vector<QuotaWindow>>();
    s.fetchedAt = j.at("fetchedAt").get<double>();
    s.provenance = jsonenum::decode<QuotaProvenance>(j.at("provenance"));
    s.stale = readOptional<bool>(j, "stale").value_or(false);
    s.completeness =
        readOptional<CostCompleteness>(j, "completeness").value_or(CostCompleteness::none);
    s.plans =
        readOptional<std::vector<PurchasedPlan>>(j, "plans").value_or(std::vector<PurchasedPlan>{});
}

}  // namespace kestrel
