#include "core/ledger/ledger_records.hpp"

#include <nlohmann/json.hpp>

#include "core/model/json_enum.hpp"

namespace kestrel {

using jsonenum::decode;
using jsonenum::encode;
using jsonenum::optional;
using jsonenum::readOptional;
using nlohmann::json;

bool ObservedTokenUsage::hasAnyKnownValue() const {
    return inputUncached || cacheRead || cacheWrite || outputVisible || reasoning ||
           providerInputTotal || providerOutputTotal || providerTotal;
}

namespace {

// Typed identifiers travel as their bare text; the domain exists only at compile time.
template <class Domain>
json idText(const std::optional<IntegrationID<Domain>>& id) {
    return id ? json(id->rawValue) : json(nullptr);
}

template <class Domain>
void readID(const json& j, const char* key, std::optional<IntegrationID<Domain>>& out) {
    auto text = readOptional<std::string>(j, key);
    out = text ? std::optional(IntegrationID<Domain>(std::move(*text))) : std::nullopt;
}

// A list key may be missing in hand-written or older blobs; treat that as empty.
template <class T>
std::vector<T> readList(const json& j, const char* key) {
    auto it = j.find(key);
    if (it == j.end() || it->is_null()) {
        return {};
    }
    return it->template get<std::vector<T>>();
}

}  // namespace

void to_json(json& j, const ObservedTokenUsage& v) {
    j = json::object();
    j["inputUncached"] = optional(v.inputUncached);
    j["cacheRead"] = optional(v.cacheRead);
    j["cacheWrite"] = optional(v.cacheWrite);
    j["outputVisible"] = optional(v.outputVisible);
    j["reasoning"] = optional(v.reasoning);
    j["providerInputTotal"] = optional(v.providerInputTotal);
    j["providerOutputTotal"] = optional(v.providerOutputTotal);
    j["providerTotal"] = optional(v.providerTotal);
    j["breakdownTrusted"] = v.breakdownTrusted;
}

void from_json(const json& j, ObservedTokenUsage& v) {
    v.inputUncached = readOptional<int64_t>(j, "inputUncached");
    v.cacheRead = readOptional<int64_t>(j, "cacheRead");
    v.cacheWrite = readOptional<int64_t>(j, "cacheWrite");
    v.outputVisible = readOptional<int64_t>(j, "outputVisible");
    v.reasoning = readOptional<int64_t>(j, "reasoning");
    v.providerInputTotal = readOptional<int64_t>(j, "providerInputTotal");
    v.providerOutputTotal = readOptional<int64_t>(j, "providerOutputTotal");
    v.providerTotal = readOptional<int64_t>(j, "providerTotal");
    v.breakdownTrusted = j.at("breakdownTrusted").get<bool>();
}

void to_json(json& j, const ObservedCost& v) {
    j = json::object();
    j["amountUSDMicros"] = optional(v.amountUSDMicros);
    j["completeness"] = encode(v.completeness);
    j["source"] = encode(v.source);
    j["priceVersion"] = optional(v.priceVersion);
    j["fxVersion"] = optional(v.fxVersion);
    j["billingMode"] = encode(v.billingMode);
}

void from_json(const json& j, ObservedCost& v) {
    v.amountUSDMicros = readOptional<int64_t>(j, "amountUSDMicros");
    v.completeness = decode<CostCompleteness>(j.at("completeness"));
    v.source = decode<CostSource>(j.at("source"));
    v.priceVersion = readOptional<int64_t>(j, "priceVersion");
    v.fxVersion = readOptional<int64_t>(j, "fxVersion");
    v.billingMode = decode<BillingMode>(j.at("billingMode"));
}

void to_json(json& j, const UsageObservation& v) {
    j = json::object();
    j["id"] = v.id;
    j["integrationInstanceID"] = idText(v.integrationInstanceID);
    j["accountID"] = idText(v.accountID);
    j["source"] = encode(v.source);
    j["provider"] = v.provider;
    j["model"] = v.model;
    j["occurredAt"] = optional(v.occurredAt);
    j["observedAt"] = v.observedAt;
    j["timeQuality"] = encode(v.timeQuality);
    j["precision"] = encode(v.precision);
    j["granularity"] = encode(v.granularity);
    j["sessionKey"] = optional(v.sessionKey);
    j["projectDisplayName"] = optional(v.projectDisplayName);
    j["evidenceFingerprint"] = optional(v.evidenceFingerprint);
    j["tokens"] = v.tokens;
    j["cost"] = v.cost;
    j["usageSemanticsVersion"] = v.usageSemanticsVersion;
}

void from_json(const json& j, UsageObservation& v) {
    v.id = j.at("id").get<std::string>();
    readID(j, "integrationInstanceID", v.integrationInstanceID);
    readID(j, "accountID", v.accountID);
    v.source = decode<AgentSource>(j.at("source"));
    v.provider = j.at("provider").get<std::string>();
    v.model = j.at("model").get<std::string>();
    v.occurredAt = readOptional<double>(j, "occurredAt");
    v.observedAt = j.at("observedAt").get<double>();
    v.timeQuality = decode<ObservationTimeQuality>(j.at("timeQuality"));
    v.precision = decode<UsagePrecision>(j.at("precision"));
    // The column defaults to "unknown"; a blob written before the field existed reads the same.
    v.granularity =
        readOptional<UsageGranularity>(j, "granularity").value_or(UsageGranularity::unknown);
    v.sessionKey = readOptional<std::string>(j, "sessionKey");
    v.projectDisplayName = readOptional<std::string>(j, "projectDisplayName");
    v.evidenceFingerprint = readOptional<std::string>(j, "evidenceFingerprint");
    v.tokens = j.at("tokens").get<ObservedTokenUsage>();
    v.cost = j.at("cost").get<ObservedCost>();
    v.usageSemanticsVersion = j.at("usageSemanticsVersion").get<int64_t>();
}

void to_json(json& j, const CoverageIssue& v) {
    j = json::object();
    j["id"] = v.id;
    j["runID"] = optional(v.runID);
    j["observationID"] = optional(v.observationID);
    j["integrationInstanceID"] = idText(v.integrationInstanceID);
    j["source"] = optional(v.source);
    j["code"] = encode(v.code);
    j["severity"] = encode(v.severity);
    j["origin"] = encode(v.origin);
    j["diagnosticCode"] = optional(v.diagnosticCode);
    j["detectedAt"] = v.detectedAt;
    j["resolvedAt"] = optional(v.resolvedAt);
}

void from_json(const json& j, CoverageIssue& v) {
    v.id = j.at("id").get<std::string>();
    v.runID = readOptional<std::string>(j, "runID");
    v.observationID = readOptional<std::string>(j, "observationID");
    readID(j, "integrationInstanceID", v.integrationInstanceID);
    v.source = readOptional<AgentSource>(j, "source");
    v.code = decode<CoverageIssueCode>(j.at("code"));
    v.severity = decode<CoverageIssueSeverity>(j.at("severity"));
    v.origin = decode<CoverageIssueOrigin>(j.at("origin"));
    v.diagnosticCode = readOptional<std::string>(j, "diagnosticCode");
    v.detectedAt = j.at("detectedAt").get<double>();
    v.resolvedAt = readOptional<double>(j, "resolvedAt");
}

void to_json(json& j, const AdapterCheckpoint& v) {
    j = json::object();
    j["integrationInstanceID"] = idText(v.integrationInstanceID);
    j["adapterID"] = v.adapterID;
    j["opaqueCursor"] = optional(v.opaqueCursor);
    j["parserVersion"] = v.parserVersion;
    j["updatedAt"] = v.updatedAt;
}

void from_json(const json& j, AdapterCheckpoint& v) {
    readID(j, "integrationInstanceID", v.integrationInstanceID);
    v.adapterID = j.at("adapterID").get<std::string>();
    v.opaqueCursor = readOptional<std::string>(j, "opaqueCursor");
    v.parserVersion = j.at("parserVersion").get<int64_t>();
    v.updatedAt = j.at("updatedAt").get<double>();
}

void to_json(json& j, const UsageBatch& v) {
    j = json::object();
    j["id"] = v.id;
    j["integrationInstanceID"] = idText(v.integrationInstanceID);
    j["adapterID"] = v.adapterID;
    j["source"] = encode(v.source);
    j["startedAt"] = v.startedAt;
    j["completedAt"] = v.completedAt;
    j["observations"] = v.observations;
    j["checkpoint"] = v.checkpoint ? json(*v.checkpoint) : json(nullptr);
    j["coverageIssues"] = v.coverageIssues;
}

void from_json(const json& j, UsageBatch& v) {
    v.id = j.at("id").get<std::string>();
    readID(j, "integrationInstanceID", v.integrationInstanceID);
    v.adapterID = j.at("adapterID").get<std::string>();
    v.source = decode<AgentSource>(j.at("source"));
    v.startedAt = j.at("startedAt").get<double>();
    v.completedAt = j.at("completedAt").get<double>();
    v.observations = readList<UsageObservation>(j, "observations");
    v.checkpoint = readOptional<AdapterCheckpoint>(j, "checkpoint");
    v.coverageIssues = readList<CoverageIssue>(j, "coverageIssues");
}

void to_json(json& j, const LedgerEvent& v) {
    j = json::object();
    j["id"] = v.id;
    j["observationID"] = v.observationID;
    j["integrationInstanceID"] = idText(v.integrationInstanceID);
    j["accountID"] = idText(v.accountID);
    j["occurredAt"] = v.occurredAt;
    j["source"] = encode(v.source);
    j["provider"] = v.provider;
    j["model"] = v.model;
    j["sessionKey"] = optional(v.sessionKey);
    j["projectDisplayName"] = optional(v.projectDisplayName);
    j["tokens"] = v.tokens;
    j["usageSemanticsVersion"] = v.usageSemanticsVersion;
}

void to_json(json& j, const LedgerCost& v) {
    j = json::object();
    j["ledgerEventID"] = v.ledgerEventID;
    j["amountUSDMicros"] = optional(v.amountUSDMicros);
    j["completeness"] = encode(v.completeness);
    j["source"] = encode(v.source);
    j["priceVersion"] = optional(v.priceVersion);
    j["fxVersion"] = optional(v.fxVersion);
    j["billingMode"] = encode(v.billingMode);
}

}  // namespace kestrel
