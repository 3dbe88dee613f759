#include "core/ledger/ledger_validator.hpp"

#include <algorithm>
#include <cmath>
#include <initializer_list>

namespace kestrel::LedgerValidator {

namespace {

using Code = CoverageIssueCode;
using Severity = CoverageIssueSeverity;
using Count = std::optional<int64_t>;

// How a source's provider input total relates to the breakdown.
enum class InputRule {
    uncachedPlusRead,           // cache writes are billed outside the provider's input total
    uncachedPlusReadPlusWrite,  // every cache count is inside it
    uncachedOnly,               // the provider totals mean exactly uncached input / visible output
};

InputRule inputRule(AgentSource source) {
    switch (source) {
        case AgentSource::codex:
            return InputRule::uncachedPlusRead;
        case AgentSource::cursor:
        case AgentSource::kimi:
        case AgentSource::workbuddy:
        case AgentSource::grok:
        case AgentSource::traeWorkCN:
            return InputRule::uncachedPlusReadPlusWrite;
        default:
            return InputRule::uncachedOnly;
    }
}

bool allPresent(std::initializer_list<Count> counts) {
    return std::all_of(counts.begin(), counts.end(), [](const Count& c) { return c.has_value(); });
}

// True when the present operands sum exactly to `total`. Here an overflow is a verdict on the
// data (no real count comes near it), so it fails the rule instead of aborting the process.
bool sumEquals(std::initializer_list<int64_t> operands, int64_t total) {
    int64_t sum = 0;
    for (int64_t v : operands) {
        if (__builtin_add_overflow(sum, v, &sum)) {
            return false;
        }
    }
    return sum == total;
}

std::optional<LedgerValidationFinding> checkPrecision(UsagePrecision precision) {
    switch (precision) {
        case UsagePrecision::nativeExact:
        case UsagePrecision::derivedExact:
            return std::nullopt;
        case UsagePrecision::estimateOnly:
            return LedgerValidationFinding{Code::estimatedUsage, Severity::warning};
        case UsagePrecision::unsupported:
            return LedgerValidationFinding{Code::unsupportedPrecision, Severity::warning};
    }
    return LedgerValidationFinding{Code::unsupportedPrecision, Severity::warning};
}

std::optional<LedgerValidationFinding> checkTime(const UsageObservation& o) {
    const bool usable = o.timeQuality == ObservationTimeQuality::trusted && o.occurredAt &&
                        std::isfinite(*o.occurredAt);
    if (usable) {
        return std::nullopt;
    }
    return LedgerValidationFinding{Code::missingTrustedTime, Severity::warning};
}

std::optional<LedgerValidationFinding> checkTokens(const UsageObservation& o) {
    if (!o.tokens.hasAnyKnownValue()) {
        return LedgerValidationFinding{Code::missingTokenUsage, Severity::warning};
    }
    if (!tokenInvariantHolds(o.source, o.tokens)) {
        return LedgerValidationFinding{Code::invalidTokenInvariant, Severity::error};
    }
    return std::nullopt;
}

void appendUnique(std::vector<LedgerValidationFinding>& findings,
                  const std::optional<LedgerValidationFinding>& finding) {
    if (finding && std::find(findings.begin(), findings.end(), *finding) == findings.end()) {
        findings.push_back(*finding);
    }
}

}  // namespace

CostCheck checkCost(const ObservedCost& cost) {
    // An amount whose origin is unknown is not a figure we can judge, so the unknown-cost rule is
    // tried first and also takes a negative amount from an unknown source: it becomes unknownCost
    // (info) and keeps its billing mode. Only a negative amount from a known source (price table
    // or vendor) is an invalid cost.
    if (!cost.amountUSDMicros || cost.source == CostSource::unknown) {
        ObservedCost normalized;
        normalized.amountUSDMicros = std::nullopt;
        normalized.completeness = CostCompleteness::none;
        normalized.source = CostSource::unknown;
        normalized.priceVersion = std::nullopt;
        normalized.fxVersion = std::nullopt;
        normalized.billingMode = cost.billingMode;
        return {normalized, LedgerValidationFinding{Code::unknownCost, Severity::info}};
    }
    if (*cost.amountUSDMicros < 0) {
        // A negative charge says the pricing went wrong, including the mode it was priced under,
        // so nothing of it is kept: the mode falls back to the API-equivalent default.
        ObservedCost normalized;
        normalized.amountUSDMicros = std::nullopt;
        normalized.completeness = CostCompleteness::none;
        normalized.source = CostSource::unknown;
        normalized.priceVersion = std::nullopt;
        normalized.fxVersion = std::nullopt;
        normalized.billingMode = BillingMode::apiEquivalent;
        return {normalized, LedgerValidationFinding{Code::invalidCost, Severity::error}};
    }
    return {cost, std::nullopt};
}

bool tokenInvariantHolds(AgentSource source, const ObservedTokenUsage& t) {
    if (!t.breakdownTrusted) {
        return false;
    }
    for (const Count& c : {t.inputUncached, t.cacheRead, t.cacheWrite, t.outputVisible, t.reasoning,
                           t.providerInputTotal, t.providerOutputTotal, t.providerTotal}) {
        if (c && *c < 0) {
            return false;
        }
    }

    if (allPresent({t.providerInputTotal, t.providerOutputTotal, t.providerTotal}) &&
        !sumEquals({*t.providerInputTotal, *t.providerOutputTotal}, *t.providerTotal)) {
        return false;
    }

    const InputRule rule = inputRule(source);
    if (rule == InputRule::uncachedOnly) {
        if (allPresent({t.inputUncached, t.providerInputTotal}) &&
            *t.inputUncached != *t.providerInputTotal) {
            return false;
        }
        if (allPresent({t.outputVisible, t.providerOutputTotal}) &&
            *t.outputVisible != *t.providerOutputTotal) {
            return false;
        }
        return true;
    }

    // Both cache-aware rules need the full input breakdown, cache writes included, even where the
    // writes are not part of the sum.
    if (allPresent({t.inputUncached, t.cacheRead, t.cacheWrite, t.providerInputTotal})) {
        const bool inputOK =
            rule == InputRule::uncachedPlusRead
                ? sumEquals({*t.inputUncached, *t.cacheRead}, *t.providerInputTotal)
                : sumEquals({*t.inputUncached, *t.cacheRead, *t.cacheWrite}, *t.providerInputTotal);
        if (!inputOK) {
            return false;
        }
    }
    if (allPresent({t.outputVisible, t.reasoning, t.providerOutputTotal}) &&
        !sumEquals({*t.outputVisible, *t.reasoning}, *t.providerOutputTotal)) {
        return false;
    }
    return true;
}

LedgerValidationResult validate(const UsageObservation& observation) {
    LedgerValidationResult result;

    appendUnique(result.findings, checkPrecision(observation.precision));
    appendUnique(result.findings, checkTime(observation));
    appendUnique(result.findings, checkTokens(observation));
    // Only the first three checks decide eligibility; cost findings are informational to it.
    result.isLedgerEligible = result.findings.empty();

    CostCheck cost = checkCost(observation.cost);
    result.normalizedCost = cost.normalized;
    appendUnique(result.findings, cost.finding);
    return result;
}

}  // namespace kestrel::LedgerValidator
