#include "core/ledger/ledger_validator.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace kestrel {
namespace {

using Code = CoverageIssueCode;
using Count = std::optional<int64_t>;
using Severity = CoverageIssueSeverity;
using Findings = std::vector<LedgerValidationFinding>;
using LedgerValidator::checkCost;
using LedgerValidator::tokenInvariantHolds;
using LedgerValidator::validate;

constexpr int64_t kMax = INT64_MAX;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

ObservedTokenUsage tokens(Count in, Count read, Count write, Count out, Count reasoning,
                          Count pin = {}, Count pout = {}, Count ptotal = {}) {
    return {in, read, write, out, reasoning, pin, pout, ptotal, true};
}

// Clean in every respect, so each case below shows what its one change causes.
UsageObservation validObservation() {
    UsageObservation o;
    o.id = "obs-1";
    o.source = AgentSource::claude;
    o.provider = "anthropic";
    o.model = "m";
    o.occurredAt = 1'700'000'000.5;
    o.observedAt = 1'700'000'100;
    o.timeQuality = ObservationTimeQuality::trusted;
    o.precision = UsagePrecision::nativeExact;
    o.tokens = tokens(100, 20, 5, 40, 10, 100, 40, 140);
    o.cost = {1234, CostCompleteness::complete, CostSource::priceTable, 3,
              2,    BillingMode::tokensOnly};
    return o;
}

struct ValidateCase {
    std::string name;
    std::function<void(UsageObservation&)> change;
    bool eligible;
    Findings findings;
};

TEST(LedgerValidator, ValidateFindingsAndEligibility) {
    const LedgerValidationFinding estimated{Code::estimatedUsage, Severity::warning};
    const LedgerValidationFinding noTime{Code::missingTrustedTime, Severity::warning};
    const LedgerValidationFinding noTokens{Code::missingTokenUsage, Severity::warning};
    const LedgerValidationFinding badTokens{Code::invalidTokenInvariant, Severity::error};
    const LedgerValidationFinding unknownCost{Code::unknownCost, Severity::info};
    const LedgerValidationFinding badCost{Code::invalidCost, Severity::error};

    using TQ = ObservationTimeQuality;
    using P = UsagePrecision;
    // clang-format off
    const std::vector<ValidateCase> cases = {
        {"clean", [](auto&) {}, true, {}},
        {"derivedExact", [](auto& o) { o.precision = P::derivedExact; }, true, {}},
        {"estimateOnly", [](auto& o) { o.precision = P::estimateOnly; }, false, {estimated}},
        {"unsupported", [](auto& o) { o.precision = P::unsupported; }, false,
         {{Code::unsupportedPrecision, Severity::warning}}},
        {"inferred time", [](auto& o) { o.timeQuality = TQ::inferred; }, false, {noTime}},
        {"missing time", [](auto& o) { o.timeQuality = TQ::missing; }, false, {noTime}},
        {"trusted without time", [](auto& o) { o.occurredAt.reset(); }, false, {noTime}},
        {"trusted NaN", [](auto& o) { o.occurredAt = kNaN; }, false, {noTime}},
        {"trusted +inf", [](auto& o) { o.occurredAt = kInf; }, false, {noTime}},
        {"trusted at epoch", [](auto& o) { o.occurredAt = 0.0; }, true, {}},
        {"no counts", [](auto& o) { o.tokens = ObservedTokenUsage{}; }, false, {noTokens}},
        // Without counts there is nothing for the invariant to reject: one token finding only.
        {"no counts, untrusted",
         [](auto& o) { o.tokens = ObservedTokenUsage{}; o.tokens.breakdownTrusted = false; },
         false, {noTokens}},
        {"untrusted breakdown", [](auto& o) { o.tokens.breakdownTrusted = false; }, false,
         {badTokens}},
        {"overflowing totals", [](auto& o) { o.tokens = tokens({}, {}, {}, {}, {}, kMax, 1, kMax); },
         false, {badTokens}},
        {"negative cost keeps eligibility", [](auto& o) { o.cost.amountUSDMicros = -1; }, true,
         {badCost}},
        {"absent cost", [](auto& o) { o.cost.amountUSDMicros.reset(); }, true, {unknownCost}},
        {"zero priced cost", [](auto& o) { o.cost.amountUSDMicros = 0; }, true, {}},
        {"estimate, inferred time, absent cost",
         [](auto& o) {
             o.precision = P::estimateOnly;
             o.timeQuality = TQ::inferred;
             o.cost.amountUSDMicros.reset();
         },
         false, {estimated, noTime, unknownCost}},
        {"every check fails",
         [](auto& o) {
             o.precision = P::estimateOnly;
             o.occurredAt = kNaN;
             o.tokens.reasoning = -5;
             o.cost.amountUSDMicros = -5;
         },
         false, {estimated, noTime, badTokens, badCost}},
    };
    // clang-format on

    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto o = validObservation();
        c.change(o);
        const auto result = validate(o);
        EXPECT_EQ(result.isLedgerEligible, c.eligible);
        EXPECT_EQ(result.findings, c.findings);
        EXPECT_EQ(result.normalizedCost, checkCost(o.cost).normalized);
    }
}

struct CostCase {
    std::string name;
    ObservedCost cost;
    ObservedCost normalized;
    std::optional<LedgerValidationFinding> finding;
};

TEST(LedgerValidator, CheckCost) {
    using CC = CostCompleteness;
    using CS = CostSource;
    using BM = BillingMode;
    const std::nullopt_t none = std::nullopt;
    const ObservedCost unknownKeepMode{none, CC::none, CS::unknown, none, none, BM::localZero};
    const ObservedCost invalid{none, CC::none, CS::unknown, none, none, BM::apiEquivalent};
    const LedgerValidationFinding unknownCost{Code::unknownCost, Severity::info};
    const LedgerValidationFinding badCost{Code::invalidCost, Severity::error};

    // clang-format off
    const std::vector<CostCase> cases = {
        {"zero from price table", {0, CC::complete, CS::priceTable, 4, none, BM::localZero},
         {0, CC::complete, CS::priceTable, 4, none, BM::localZero}, none},
        {"vendor figure", {kMax, CC::partial, CS::vendorReported, none, 9, BM::tokensOnly},
         {kMax, CC::partial, CS::vendorReported, none, 9, BM::tokensOnly}, none},
        {"absent amount", {none, CC::partial, CS::priceTable, 4, 5, BM::localZero},
         unknownKeepMode, unknownCost},
        {"amount from unknown source", {10, CC::complete, CS::unknown, 4, 5, BM::localZero},
         unknownKeepMode, unknownCost},
        // A negative figure of unknown origin is an unknown cost, not an invalid one.
        {"negative from unknown source", {-10, CC::complete, CS::unknown, 4, 5, BM::localZero},
         unknownKeepMode, unknownCost},
        // The billing mode is dropped with the amount: tokensOnly/localZero become apiEquivalent.
        {"negative from price table", {-1, CC::complete, CS::priceTable, 4, 5, BM::localZero},
         invalid, badCost},
        {"minimum from vendor", {INT64_MIN, CC::partial, CS::vendorReported, 4, 5, BM::tokensOnly},
         invalid, badCost},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto check = checkCost(c.cost);
        EXPECT_EQ(check.normalized, c.normalized);
        EXPECT_EQ(check.finding, c.finding);
    }
}

TEST(ObservedTokenUsage, AnyPresentCountIsKnownEvenZero) {
    EXPECT_FALSE(ObservedTokenUsage{}.hasAnyKnownValue());
    for (auto member :
         {&ObservedTokenUsage::inputUncached, &ObservedTokenUsage::cacheRead,
          &ObservedTokenUsage::cacheWrite, &ObservedTokenUsage::outputVisible,
          &ObservedTokenUsage::reasoning, &ObservedTokenUsage::providerInputTotal,
          &ObservedTokenUsage::providerOutputTotal, &ObservedTokenUsage::providerTotal}) {
        ObservedTokenUsage t;
        t.*member = 0;
        EXPECT_TRUE(t.hasAnyKnownValue());
    }
}

struct InvariantCase {
    std::string name;
    std::vector<AgentSource> sources;
    ObservedTokenUsage tokens;
    bool holds;
};

TEST(LedgerValidator, TokenInvariant) {
    using S = AgentSource;
    const std::vector<S> cacheAdditive = {S::cursor, S::kimi, S::workbuddy, S::grok, S::traeWorkCN};
    const std::vector<S> sixSpecial = {S::codex,     S::cursor, S::kimi,
                                       S::workbuddy, S::grok,   S::traeWorkCN};
    const std::vector<S> plain = {S::claude, S::gemini, S::opencode, S::everyCode};
    std::vector<S> every = sixSpecial;
    every.insert(every.end(), plain.begin(), plain.end());

    auto untrusted = tokens(0, 0, 0, 0, 0, 0, 0, 0);
    untrusted.breakdownTrusted = false;

    const std::vector<InvariantCase> cases = {
        {"all zero", every, tokens(0, 0, 0, 0, 0, 0, 0, 0), true},
        {"all zero, untrusted", every, untrusted, false},
        {"one count only", every, tokens({}, {}, {}, {}, 7), true},
        {"negative count", every, tokens({}, {}, {}, {}, {}, {}, {}, -1), false},
        {"negative in breakdown", every, tokens(5, -1, {}, {}, {}), false},
        {"provider totals add up", every, tokens({}, {}, {}, {}, {}, 100, 50, 150), true},
        {"provider totals disagree", every, tokens({}, {}, {}, {}, {}, 100, 50, 151), false},
        {"provider grand total alone", every, tokens({}, {}, {}, {}, {}, 100, {}, 7), true},
        {"provider totals overflow", every, tokens({}, {}, {}, {}, {}, kMax, 1, kMax), false},

        {"codex excludes cache writes", {S::codex}, tokens(100, 50, 7, {}, {}, 150), true},
        {"codex with writes counted", {S::codex}, tokens(100, 50, 7, {}, {}, 157), false},
        {"cache writes counted", cacheAdditive, tokens(100, 50, 7, {}, {}, 157), true},
        {"cache writes missing from total", cacheAdditive, tokens(100, 50, 7, {}, {}, 150), false},
        // The cache-aware input rules need cache writes present even when they do not add them.
        {"no cache write: input rule skipped", sixSpecial, tokens(100, 50, {}, {}, {}, 999), true},
        {"codex input overflow", {S::codex}, tokens(kMax, 1, 0, {}, {}, kMax), false},
        // Wrapping arithmetic would land exactly on the total here.
        {"input sum wraps to total", cacheAdditive, tokens(kMax, kMax, 2, {}, {}, 0), false},
        {"output with reasoning", sixSpecial, tokens({}, {}, {}, 40, 10, {}, 50), true},
        {"output without reasoning", sixSpecial, tokens({}, {}, {}, 40, 10, {}, 40), false},
        {"no reasoning: output rule skipped", sixSpecial, tokens({}, {}, {}, 40, {}, {}, 99), true},
        {"output overflow", sixSpecial, tokens({}, {}, {}, kMax, 1, {}, kMax), false},

        {"plain input equals total", plain, tokens(100, 50, 7, {}, {}, 100), true},
        {"plain input with cache", plain, tokens(100, 50, 7, {}, {}, 150), false},
        {"plain output equals total", plain, tokens({}, {}, {}, 40, 10, {}, 40), true},
        {"plain output with reasoning", plain, tokens({}, {}, {}, 40, 10, {}, 50), false},
        {"plain input needs its total", plain, tokens(100, 50, 7, 40, 10), true},
    };
    for (const auto& c : cases) {
        for (S source : c.sources) {
            SCOPED_TRACE(c.name + " / " + std::string(rawValue(source)));
            EXPECT_EQ(tokenInvariantHolds(source, c.tokens), c.holds);
        }
    }
}

}  // namespace
}  // namespace kestrel
