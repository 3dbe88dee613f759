#pragma once
// The ledger's records: what the store keeps of each usage record (observation), what it accepts
// (event and cost), what it doubts (coverage issue), and the runs and checkpoints of adapters.

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "core/model/integration_id.hpp"
#include "core/model/agent_source.hpp"
#include "core/model/usage_enums.hpp"
#include "core/model/account_snapshot.hpp"

namespace kestrel {

enum class CoverageIssueCode {
    estimatedUsage,
    unsupportedPrecision,
    missingTrustedTime,
    missingTokenUsage,
    invalidTokenInvariant,
    invalidCost,
    unknownCost,
    incompleteRange,
    permissionDenied,
    formatChanged,
    adapterFailure,
};

enum class CoverageIssueSeverity { info, warning, error };

// Raised by the validator for one observation, or by an adapter run for a source or range.
enum class CoverageIssueOrigin { validation, adapter };

enum class SubscriptionAccountState { candidate, confirmed, missing, archived };

enum class AccountBindingState { candidate, confirmed, rejected, archived };

template <>
struct EnumCases<CoverageIssueCode> {
    using E = CoverageIssueCode;
    static constexpr std::array<std::pair<E, std::string_view>, 11> cases{{
        KESTREL_ENUM_CASE(E, estimatedUsage),
        KESTREL_ENUM_CASE(E, unsupportedPrecision),
        KESTREL_ENUM_CASE(E, missingTrustedTime),
        KESTREL_ENUM_CASE(E, missingTokenUsage),
        KESTREL_ENUM_CASE(E, invalidTokenInvariant),
        KESTREL_ENUM_CASE(E, invalidCost),
        KESTREL_ENUM_CASE(E, unknownCost),
        KESTREL_ENUM_CASE(E, incompleteRange),
        KESTREL_ENUM_CASE(E, permissionDenied),
        KESTREL_ENUM_CASE(E, formatChanged),
        KESTREL_ENUM_CASE(E, adapterFailure),
    }};
};

template <>
struct EnumCases<CoverageIssueSeverity> {
    using E = CoverageIssueSeverity;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        KESTREL_ENUM_CASE(E, info),
        KESTREL_ENUM_CASE(E, warning),
        KESTREL_ENUM_CASE(E, error),
    }};
};

template <>
struct EnumCases<CoverageIssueOrigin> {
    using E = CoverageIssueOrigin;
    static constexpr std::array<std::pair<E, std::string_view>, 2> cases{{
        KESTREL_ENUM_CASE(E, validation),
        KESTREL_ENUM_CASE(E, adapter),
    }};
};

template <>
struct EnumCases<SubscriptionAccountState> {
    using E = SubscriptionAccountState;
    static constexpr std::array<std::pair<E, std::string_view>, 4> cases{{
        KESTREL_ENUM_CASE(E, candidate),
        KESTREL_ENUM_CASE(E, confirmed),
        KESTREL_ENUM_CASE(E, missing),
        KESTREL_ENUM_CASE(E, archived),
    }};
};

template <>
struct EnumCases<AccountBindingState> {
    using E = AccountBindingState;
    static constexpr std::array<std::pair<E, std::string_view>, 4> cases{{
        KESTREL_ENUM_CASE(E, candidate),
        KESTREL_ENUM_CASE(E, confirmed),
        KESTREL_ENUM_CASE(E, rejected),
        KESTREL_ENUM_CASE(E, archived),
    }};
};

// The token breakdown of one observation. Absent means not reported, which is not zero.
struct ObservedTokenUsage {
    std::optional<int64_t> inputUncached;
    std::optional<int64_t> cacheRead;
    std::optional<int64_t> cacheWrite;
    std::optional<int64_t> outputVisible;
    std::optional<int64_t> reasoning;
    std::optional<int64_t> providerInputTotal;
    std::optional<int64_t> providerOutputTotal;
    std::optional<int64_t> providerTotal;
    bool breakdownTrusted = true;

    // True when at least one of the eight counts is present.
    bool hasAnyKnownValue() const;

    bool operator==(const ObservedTokenUsage&) const = default;
};

struct ObservedCost {
    std::optional<int64_t> amountUSDMicros;  // absent: not priced
    CostCompleteness completeness = CostCompleteness::none;
    CostSource source = CostSource::unknown;
    std::optional<int64_t> priceVersion;
    std::optional<int64_t> fxVersion;
    BillingMode billingMode = BillingMode::apiEquivalent;

    bool operator==(const ObservedCost&) const = default;
};

struct UsageObservation {
    std::string id;
    std::optional<IntegrationInstanceID> integrationInstanceID;
    std::optional<SubscriptionAccountID> accountID;
    AgentSource source = AgentSource::claude;
    std::string provider;
    std::string model;
    std::optional<double> occurredAt;
    double observedAt = 0;
    ObservationTimeQuality timeQuality = ObservationTimeQuality::missing;
    UsagePrecision precision = UsagePrecision::nativeExact;
    UsageGranularity granularity = UsageGranularity::unknown;
    std::optional<std::string> sessionKey;
    std::optional<std::string> projectDisplayName;
    std::optional<std::string> evidenceFingerprint;
    ObservedTokenUsage tokens;
    ObservedCost cost;
    int64_t usageSemanticsVersion = 1;

    bool operator==(const UsageObservation&) const = default;
};

struct AdapterCheckpoint {
    std::optional<IntegrationInstanceID> integrationInstanceID;
    std::string adapterID;
    std::optional<std::string> opaqueCursor;  // only the adapter interprets it
    int64_t parserVersion = 0;
    double updatedAt = 0;

    bool operator==(const AdapterCheckpoint&) const = default;
};

struct CoverageIssue {
    std::string id;
    std::optional<std::string> runID;
    std::optional<std::string> observationID;
    std::optional<IntegrationInstanceID> integrationInstanceID;
    std::optional<AgentSource> source;
    CoverageIssueCode code = CoverageIssueCode::adapterFailure;
    CoverageIssueSeverity severity = CoverageIssueSeverity::warning;
    CoverageIssueOrigin origin = CoverageIssueOrigin::adapter;
    std::optional<std::string> diagnosticCode;
    double detectedAt = 0;
    std::optional<double> resolvedAt;  // absent: open

    bool operator==(const CoverageIssue&) const = default;
};

// What one adapter run hands to the store.
struct UsageBatch {
    std::string id;  // the run id
    std::optional<IntegrationInstanceID> integrationInstanceID;
    std::string adapterID;
    AgentSource source = AgentSource::claude;
    double startedAt = 0;
    double completedAt = 0;
    std::vector<UsageObservation> observations;
    std::optional<AdapterCheckpoint> checkpoint;
    std::vector<CoverageIssue> coverageIssues;  // raised by the adapter itself

    bool operator==(const UsageBatch&) const = default;
};

struct SubscriptionAccount {
    SubscriptionAccountID id;
    std::string provider;
    std::optional<std::string> family;
    std::optional<std::string> region;
    std::optional<std::string> displayLabel;
    std::optional<std::string> identityFingerprint;
    std::optional<CredentialHandleID> credentialHandle;  // a reference, never the secret
    SubscriptionAccountState state = SubscriptionAccountState::candidate;
    double createdAt = 0;
    double lastSeenAt = 0;
    std::optional<double> archivedAt;

    bool operator==(const SubscriptionAccount&) const = default;
};

struct AccountBinding {
    AccountBindingID id;
    IntegrationInstanceID integrationInstanceID;
    SubscriptionAccountID accountID;
    std::string bindingKey;
    AccountBindingState state = AccountBindingState::candidate;
    double firstSeenAt = 0;
    double lastSeenAt = 0;
    std::optional<double> archivedAt;

    bool operator==(const AccountBinding&) const = default;
};

struct LedgerQuotaSnapshot {
    std::string id;
    SubscriptionAccountID accountID;
    std::optional<std::string> windowLabel;
    std::optional<std::string> windowKey;
    QuotaWindowKind kind = QuotaWindowKind::session5h;
    double capturedAt = 0;
    std::optional<double> usedValue;
    std::optional<double> limitValue;
    std::optional<double> usedPercent;
    std::optional<double> resetsAt;
    std::optional<std::string> remainingLabel;
    std::optional<std::string> currency;
    QuotaProvenance provenance = QuotaProvenance::localSession;
    bool isStale = false;

    bool operator==(const LedgerQuotaSnapshot&) const = default;
};

// An accepted, de-duplicated usage event.
struct LedgerEvent {
    std::string id;
    std::string observationID;
    std::optional<IntegrationInstanceID> integrationInstanceID;
    std::optional<SubscriptionAccountID> accountID;
    double occurredAt = 0;
    AgentSource source = AgentSource::claude;
    std::string provider;
    std::string model;
    std::optional<std::string> sessionKey;
    std::optional<std::string> projectDisplayName;
    ObservedTokenUsage tokens;  // breakdownTrusted is not stored on the event row
    int64_t usageSemanticsVersion = 1;

    bool operator==(const LedgerEvent&) const = default;
};

struct LedgerCost {
    std::string ledgerEventID;
    std::optional<int64_t> amountUSDMicros;
    CostCompleteness completeness = CostCompleteness::none;
    CostSource source = CostSource::unknown;
    std::optional<int64_t> priceVersion;
    std::optional<int64_t> fxVersion;
    BillingMode billingMode = BillingMode::apiEquivalent;

    bool operator==(const LedgerCost&) const = default;
};

struct LedgerEntry {
    LedgerEvent event;
    LedgerCost cost;

    bool operator==(const LedgerEntry&) const = default;
};

struct CoverageIssueCount {
    CoverageIssueCode code = CoverageIssueCode::adapterFailure;
    int64_t count = 0;

    bool operator==(const CoverageIssueCount&) const = default;
};

struct CoverageIssueGroup {
    CoverageIssueCode code = CoverageIssueCode::adapterFailure;
    std::optional<AgentSource> source;
    CoverageIssueOrigin origin = CoverageIssueOrigin::validation;
    int64_t count = 0;

    bool operator==(const CoverageIssueGroup&) const = default;
};

struct LedgerIngestOutcome {
    bool duplicateRun = false;  // the run id had been committed before; nothing was written
    int64_t observationCount = 0;
    int64_t ledgerEventCount = 0;
    int64_t coverageIssueCount = 0;

    bool operator==(const LedgerIngestOutcome&) const = default;
};

struct LedgerValidationFinding {
    CoverageIssueCode code = CoverageIssueCode::adapterFailure;
    CoverageIssueSeverity severity = CoverageIssueSeverity::warning;

    bool operator==(const LedgerValidationFinding&) const = default;
};

struct LedgerValidationResult {
    bool isLedgerEligible = false;
    ObservedCost normalizedCost;
    std::vector<LedgerValidationFinding> findings;  // no repeats, in the order first raised

    bool operator==(const LedgerValidationResult&) const = default;
};

// JSON under the field names, for diagnostics and the legacy blob tables.
void to_json(nlohmann::json& j, const ObservedTokenUsage& v);
void from_json(const nlohmann::json& j, ObservedTokenUsage& v);
void to_json(nlohmann::json& j, const ObservedCost& v);
void from_json(const nlohmann::json& j, ObservedCost& v);
void to_json(nlohmann::json& j, const UsageObservation& v);
void from_json(const nlohmann::json& j, UsageObservation& v);
void to_json(nlohmann::json& j, const CoverageIssue& v);
void from_json(const nlohmann::json& j, CoverageIssue& v);
void to_json(nlohmann::json& j, const AdapterCheckpoint& v);
void from_json(const nlohmann::json& j, AdapterCheckpoint& v);
void to_json(nlohmann::json& j, const UsageBatch& v);
void from_json(const nlohmann::json& j, UsageBatch& v);
void to_json(nlohmann::json& j, const LedgerEvent& v);
void to_json(nlohmann::json& j, const LedgerCost& v);

}  // namespace kestrel
