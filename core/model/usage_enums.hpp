#pragma once
// The small enumerations of the usage model. Each persists as its case name.

#include "core/model/enum_cases.hpp"

namespace kestrel {

// State of one source as last scanned; set by the ingestor after each scan.
enum class SourceStatus {
    notInstalled,
    unauthorized,
    authorizedEmpty,
    healthy,
    formatChanged,
    readError,
    paused,
};

enum class BillingMode {
    apiEquivalent,  // priced as if bought through the provider's API
    tokensOnly,     // tokens counted, no money
    localZero,      // a local model: cost zero
};

enum class CostCompleteness { complete, partial, none };

enum class CostSource {
    priceTable,      // priced from the price table
    vendorReported,  // the agent's own cost figure
    unknown,
};

// Which price band of a model with context-length tiers applied.
enum class ContextBand { shortContext, longContext, none };

// How exact an event's time is: read from the record, inferred (e.g. from a file time), or absent.
enum class ObservationTimeQuality { trusted, inferred, missing };

// How exact the token numbers are; only the first two are eligible for the ledger.
enum class UsagePrecision { nativeExact, derivedExact, estimateOnly, unsupported };

// What one observation covers.
enum class UsageGranularity { request, sessionAggregate, aggregate, unknown };

template <>
struct EnumCases<SourceStatus> {
    using E = SourceStatus;
    static constexpr std::array<std::pair<E, std::string_view>, 7> cases{{
        KESTREL_ENUM_CASE(E, notInstalled),
        KESTREL_ENUM_CASE(E, unauthorized),
        KESTREL_ENUM_CASE(E, authorizedEmpty),
        KESTREL_ENUM_CASE(E, healthy),
        KESTREL_ENUM_CASE(E, formatChanged),
        KESTREL_ENUM_CASE(E, readError),
        KESTREL_ENUM_CASE(E, paused),
    }};
};

template <>
struct EnumCases<BillingMode> {
    using E = BillingMode;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        KESTREL_ENUM_CASE(E, apiEquivalent),
        KESTREL_ENUM_CASE(E, tokensOnly),
        KESTREL_ENUM_CASE(E, localZero),
    }};
};

template <>
struct EnumCases<CostCompleteness> {
    using E = CostCompleteness;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        KESTREL_ENUM_CASE(E, complete),
        KESTREL_ENUM_CASE(E, partial),
        KESTREL_ENUM_CASE(E, none),
    }};
};

template <>
struct EnumCases<CostSource> {
    using E = CostSource;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        KESTREL_ENUM_CASE(E, priceTable),
        KESTREL_ENUM_CASE(E, vendorReported),
        KESTREL_ENUM_CASE(E, unknown),
    }};
};

// `short` and `long` are C++ keywords, so the cases carry a suffix; the stored names do not.
template <>
struct EnumCases<ContextBand> {
    using E = ContextBand;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        {E::shortContext, "short"},
        {E::longContext, "long"},
        {E::none, "none"},
    }};
};

template <>
struct EnumCases<ObservationTimeQuality> {
    using E = ObservationTimeQuality;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        KESTREL_ENUM_CASE(E, trusted),
        KESTREL_ENUM_CASE(E, inferred),
        KESTREL_ENUM_CASE(E, missing),
    }};
};

template <>
struct EnumCases<UsagePrecision> {
    using E = UsagePrecision;
    static constexpr std::array<std::pair<E, std::string_view>, 4> cases{{
        KESTREL_ENUM_CASE(E, nativeExact),
        KESTREL_ENUM_CASE(E, derivedExact),
        KESTREL_ENUM_CASE(E, estimateOnly),
        KESTREL_ENUM_CASE(E, unsupported),
    }};
};

template <>
struct EnumCases<UsageGranularity> {
    using E = UsageGranularity;
    static constexpr std::array<std::pair<E, std::string_view>, 4> cases{{
        KESTREL_ENUM_CASE(E, request),
        KESTREL_ENUM_CASE(E, sessionAggregate),
        KESTREL_ENUM_CASE(E, aggregate),
        KESTREL_ENUM_CASE(E, unknown),
    }};
};

// True for the precisions whose observations may become ledger events.
constexpr bool isEligibleForLedger(UsagePrecision p) {
    return p == UsagePrecision::nativeExact || p == UsagePrecision::derivedExact;
}

}  // namespace kestrel
