#include "core/pricing/price_table.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "core/ledger/usage_store.hpp"
#include "core/pricing/decimal.hpp"
#include "core/pricing/price_fingerprint.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

const Calendar kUTC = Calendar::utc();

// Noon UTC of a "yyyy-MM-dd" day.
double noon(const std::string& day) {
    return kUTC.startOfDay(day).value() + 12 * 3600;
}

// An open-ended row of `version` with the five standard rates (input, cache read, cache write,
// output, reasoning).
PriceRow ratesRow(std::string match, int64_t version, std::string in, std::string read,
                  std::string write, std::string out, std::string reasoning) {
    PriceRow r;
    r.match = std::move(match);
    r.effectiveFrom = "2025-01-01";
    r.version = version;
    r.inputUncachedPerMTokUSD = std::move(in);
    r.cacheReadPerMTokUSD = std::move(read);
    r.cacheWritePerMTokUSD = std::move(write);
    r.outputVisiblePerMTokUSD = std::move(out);
    r.reasoningPerMTokUSD = std::move(reasoning);
    return r;
}

// A row charging `price` dollars per million tokens in every bucket.
PriceRow rowOf(std::string match, std::string from, std::optional<std::string> to = {},
               std::string price = "1", int64_t version = 1) {
    PriceRow r = ratesRow(std::move(match), version, price, price, price, price, price);
    r.effectiveFrom = std::move(from);
    r.effectiveTo = std::move(to);
    return r;
}

// Standard rates 3 / 0.30 / 3.75 / 15 / 15 with a long tier at 200K.
PriceRow tiered(std::optional<bool> inclusive = {}) {
    PriceRow r = ratesRow("tiered", 4, "3", "0.30", "3.75", "15", "15");
    r.longContextThresholdTokens = 200000;
    r.longContextInclusive = inclusive;
    r.inputUncachedPerMTokUSDLong = "6";
    r.cacheReadPerMTokUSDLong = "0.60";
    r.cacheWritePerMTokUSDLong = "7.50";
    r.outputVisiblePerMTokUSDLong = "22.50";
    r.reasoningPerMTokUSDLong = "22.50";
    return r;
}

PriceTable tableOf(std::vector<PriceRow> rows) {
    PriceTable t;
    t.version = 7;
    t.rows = std::move(rows);
    return t;
}

// --- Row matching ------------------------------------------------------------------------

TEST(PriceTableRow, ChoosesByPatternLengthThenStartThenOrder) {
    struct Case {
        const char* what;
        std::vector<PriceRow> rows;
        std::string model;
        std::string day;
        int expected;  // index into rows, -1 for no row
    };
    const std::string y25 = "2025-01-01", jun = "2025-06-01";
    // clang-format off
    const Case cases[] = {
        {"longer pattern after", {rowOf("sonnet", y25), rowOf("claude-sonnet-4-5", y25)},
         "claude-sonnet-4-5-20250929", "2025-10-01", 1},
        {"longer pattern before", {rowOf("claude-sonnet-4-5", y25), rowOf("sonnet", jun)},
         "claude-sonnet-4-5-20250929", "2025-10-01", 0},
        {"same length, later after", {rowOf("abcd", y25), rowOf("bcde", jun)}, "abcde", jun, 1},
        {"same length, later before", {rowOf("bcde", jun), rowOf("abcd", y25)}, "abcde", jun, 0},
        {"full tie keeps the earlier row",
         {rowOf("m", y25, {}, "1", 1), rowOf("m", y25, {}, "2", 2)}, "m", jun, 0},
        {"later start not yet in force", {rowOf("m", y25), rowOf("m", jun)}, "m", "2025-05-31", 0},
        {"effectiveFrom is inclusive", {rowOf("m", y25)}, "m", y25, 0},
        {"before effectiveFrom", {rowOf("m", y25)}, "m", "2024-12-31", -1},
        {"day before effectiveTo", {rowOf("m", y25, jun)}, "m", "2025-05-31", 0},
        {"effectiveTo is exclusive", {rowOf("m", y25, jun)}, "m", jun, -1},
        {"upper-case model", {rowOf("gpt-5", y25)}, "GPT-5", jun, 0},
        {"upper-case pattern", {rowOf("GPT-5", y25)}, "gpt-5-mini", jun, 0},
        {"no pattern contained", {rowOf("gpt-5", y25)}, "gpt-4o", jun, -1},
        {"empty table", {}, "gpt-5", jun, -1},
        {"Bedrock id", {rowOf("claude-sonnet-4-5", y25)},
         "us.anthropic.claude-sonnet-4-5-20250929-v1:0", jun, 0},
        {"dated pattern, Bedrock id", {rowOf("claude-opus-4-2025", y25)},
         "us.anthropic.claude-opus-4-20250514-v1:0", jun, 0},
        {"bare id decides first", {rowOf("claude-x-20250101", y25), rowOf("claude-x", y25)},
         "claude-x-20250101", jun, 1},
    };
    // clang-format on
    for (const auto& c : cases) {
        const auto table = tableOf(c.rows);
        const PriceRow* found = table.row(c.model, noon(c.day), kUTC);
        EXPECT_EQ(found, c.expected < 0 ? nullptr : &table.rows[c.expected]) << c.what;
    }
}

TEST(PriceTableRow, DayFollowsTheCalendar) {
    const auto table = tableOf({rowOf("m", "2025-01-01", "2025-06-01")});
    const double lateMay31UTC = noon("2025-05-31") + 11 * 3600;  // 23:00 UTC
    EXPECT_NE(table.row("m", lateMay31UTC, kUTC), nullptr);
    // Two hours east it is already June 1st, when the row has ended.
    EXPECT_EQ(table.row("m", lateMay31UTC, Calendar::fixedOffset(2 * 3600)), nullptr);
}

// --- Cost --------------------------------------------------------------------------------

TEST(PriceTableCost, PricesEachBucketExactlyAndTruncatesBeforeSumming) {
    struct Case {
        const char* what;
        PriceRow row;
        ExclusiveTokens tokens;
        int64_t expected;
    };
    PriceRow badPrices = rowOf("m", "2025-01-01", {}, "2");
    badPrices.inputUncachedPerMTokUSD = "abc";
    badPrices.cacheReadPerMTokUSD = "";
    const int64_t M = 1'000'000;
    // clang-format off
    const Case cases[] = {
        {"1 token at $3", rowOf("m", "2025-01-01", {}, "3"), {1, 0, 0, 0, 0}, 3},
        {"1 token at $0.30", rowOf("m", "2025-01-01", {}, "0.30"), {1, 0, 0, 0, 0}, 0},
        {"halves truncated per bucket", rowOf("m", "2025-01-01", {}, "0.5"), {1, 1, 1, 1, 1}, 0},
        {"fractional micros", rowOf("m", "2025-01-01", {}, "0.000001"), {999'999, 0, 0, 0, 0}, 0},
        {"each bucket at its own rate", ratesRow("m", 1, "1", "0.1", "1.25", "5", "10"),
         {M, 2 * M, 3 * M, 4 * M, 5 * M}, M + 200'000 + 3'750'000 + 20 * M + 50 * M},
        {"unparsable and empty prices count as 0", badPrices, {M, M, 0, M, 0}, 2 * M},
    };
    // clang-format on
    for (const auto& c : cases) {
        const auto cost = tableOf({c.row}).costMicros(c.tokens, true, "m", noon("2025-07-01"),
                                                      BillingMode::apiEquivalent, 0, kUTC);
        EXPECT_EQ(cost,
                  (CostEstimate{c.expected, CostCompleteness::complete, 1, ContextBand::none}))
            << c.what;
    }
}

TEST(PriceTableCost, LongContextRatesFromThePromptSize) {
    const ExclusiveTokens all{1'000'000, 1'000'000, 1'000'000, 1'000'000, 1'000'000};
    const int64_t standard = 3'000'000 + 300'000 + 3'750'000 + 15'000'000 + 15'000'000;
    const int64_t long_ = 6'000'000 + 600'000 + 7'500'000 + 22'500'000 + 22'500'000;
    const auto S = ContextBand::shortContext, L = ContextBand::longContext;
    const std::tuple<std::optional<bool>, int64_t, ContextBand> cases[] = {
        {std::nullopt, 200000, S}, {std::nullopt, 200001, L}, {false, 200000, S},
        {false, 200001, L},        {true, 199999, S},         {true, 200000, L},
    };
    for (const auto& [inclusive, prompt, band] : cases) {
        const auto cost = tableOf({tiered(inclusive)})
                              .costMicros(all, true, "tiered", noon("2025-07-01"),
                                          BillingMode::apiEquivalent, prompt, kUTC);
        const int64_t expected = band == ContextBand::longContext ? long_ : standard;
        EXPECT_EQ(cost, (CostEstimate{expected, CostCompleteness::complete, 4, band}))
            << "inclusive " << inclusive.value_or(false) << " prompt " << prompt;
    }

    // Only the long input rate given: the other buckets keep their standard rates.
    PriceRow onlyInput = ratesRow("m", 1, "3", "0.30", "3.75", "15", "15");
    onlyInput.longContextThresholdTokens = 200000;
    onlyInput.inputUncachedPerMTokUSDLong = "6";
    auto cost = tableOf({onlyInput})
                    .costMicros(all, true, "m", noon("2025-07-01"), BillingMode::apiEquivalent,
                                300000, kUTC);
    EXPECT_EQ(cost.micros, standard + 3'000'000);
    EXPECT_EQ(cost.band, ContextBand::longContext);

    // Without a long input rate, or with a threshold below 1, there is no tier at all.
    PriceRow noLongInput = tiered();
    noLongInput.inputUncachedPerMTokUSDLong.reset();
    PriceRow zeroThreshold = tiered();
    zeroThreshold.longContextThresholdTokens = 0;
    for (const auto& row : {noLongInput, zeroThreshold}) {
        cost = tableOf({row}).costMicros(all, true, "tiered", noon("2025-07-01"),
                                         BillingMode::apiEquivalent, 300000, kUTC);
        EXPECT_EQ(cost.micros, standard);
        EXPECT_EQ(cost.band, ContextBand::none);
    }
}

TEST(PriceTableCost, UntrustedUnknownAndLocal) {
    const auto table = tableOf({rowOf("m", "2025-01-01", {}, "3", 5)});
    const ExclusiveTokens tokens{1000, 0, 0, 0, 0};
    const double at = noon("2025-07-01");
    const CostEstimate nothing{};
    EXPECT_EQ(table.costMicros(tokens, false, "m", at, BillingMode::apiEquivalent, 0, kUTC),
              nothing);
    EXPECT_EQ(table.costMicros(tokens, true, "other", at, BillingMode::apiEquivalent, 0, kUTC),
              nothing);
    // localZero needs no row and records the table's version.
    for (const char* model : {"m", "other"}) {
        EXPECT_EQ(table.costMicros(tokens, true, model, at, BillingMode::localZero, 0, kUTC),
                  (CostEstimate{0, CostCompleteness::complete, 7, ContextBand::none}));
    }
    EXPECT_EQ(table.costMicros(tokens, false, "m", at, BillingMode::localZero, 0, kUTC), nothing);
    EXPECT_EQ(table.costMicros(tokens, true, "m", at, BillingMode::tokensOnly, 0, kUTC).micros,
              3000);
}

// The largest count a reader lets through, at a high price: exact, with no overflow on the way.
TEST(PriceTableCost, LargestReadableCountsArePricedExactly) {
    const auto table = tableOf({rowOf("m", "2025-01-01", {}, "120.000001")});
    const int64_t tokens = 1'000'000'000'000 - 1;
    const auto cost = table.costMicros({tokens, 0, 0, 0, 0}, true, "m", noon("2025-07-01"),
                                       BillingMode::apiEquivalent, 0, kUTC);
    // (10^12 - 1) × 120,000,001 µ$ / 10^6, truncated.
    EXPECT_EQ(cost.micros, 120'000'000'999'879);
}

using PriceTableDeathTest = testing::Test;

TEST_F(PriceTableDeathTest, MoneyOverflowAborts) {
    const auto table = tableOf({rowOf("m", "2025-01-01", {}, "3")});
    EXPECT_DEATH((void)table.costMicros({INT64_MAX / 2, 0, 0, 0, 0}, true, "m", noon("2025-07-01"),
                                        BillingMode::apiEquivalent, 0, kUTC),
                 "overflow");
    UsageEvent e;
    e.model = "m";
    e.exclusive = {INT64_MAX, 1, 0, 0, 0};
    EXPECT_DEATH((void)table.applied(e, BillingMode::apiEquivalent, kUTC), "overflow");
}

// --- Applying prices to events ------------------------------------------------------------

// The fields applied() fills, compared in one go.
using Filled =
    std::tuple<std::optional<int64_t>, CostCompleteness, CostSource, std::optional<int64_t>,
               std::optional<ContextBand>, BillingMode, std::optional<int64_t>>;

Filled filled(const UsageEvent& e) {
    return {e.estimatedCostUSDMicros,
            e.costCompleteness,
            e.costSource,
            e.priceVersion,
            e.contextBand,
            e.billingMode,
            e.promptTokens};
}

TEST(PriceTableApplied, FillsCostFieldsInOrderOfPrecedence) {
    const auto table = tableOf({tiered()});  // version 4 in a table of version 7
    // Every event starts with stale cost fields that must not leak through.
    auto event = [](std::string model, int64_t input, auto edit) {
        UsageEvent e;
        e.model = std::move(model);
        e.occurredAt = noon("2025-07-01");
        e.exclusive = {input, 0, 0, 0, 0};
        e.estimatedCostUSDMicros = 5;
        e.costCompleteness = CostCompleteness::complete;
        e.costSource = CostSource::priceTable;
        e.priceVersion = 3;
        e.contextBand = ContextBand::longContext;
        e.billingMode = BillingMode::localZero;
        edit(e);
        return e;
    };
    auto same = [](UsageEvent&) {};
    auto untrusted = [](UsageEvent& e) { e.breakdownTrusted = false; };
    auto reported = [](std::optional<ContextBand> band) {
        return [band](UsageEvent& e) {
            e.costSource = CostSource::vendorReported;
            e.estimatedCostUSDMicros = 777;
            e.costCompleteness = CostCompleteness::partial;
            e.priceVersion = 99;
            e.contextBand = band;
        };
    };
    auto extras = [](const char* json) {
        return [json](UsageEvent& e) {
            e.breakdownTrusted = false;
            e.rawExtras = json;
        };
    };
    const auto api = BillingMode::apiEquivalent, local = BillingMode::localZero;
    const auto complete = CostCompleteness::complete, none = CostCompleteness::none;
    const auto table_ = CostSource::priceTable, vendor = CostSource::vendorReported,
               unknown = CostSource::unknown;
    const auto S = ContextBand::shortContext, L = ContextBand::longContext, N = ContextBand::none;
    const std::nullopt_t absent = std::nullopt;

    // clang-format off
    const std::tuple<const char*, UsageEvent, BillingMode, Filled> cases[] = {
        {"tokensOnly prices as apiEquivalent",
         event("tiered", 1'000'000, same), BillingMode::tokensOnly,
         {6'000'000, complete, table_, 4, L, api, 1'000'000}},
        {"a known prompt size decides the band",
         event("tiered", 1'000'000, [](UsageEvent& e) { e.promptTokens = 100; }), api,
         {3'000'000, complete, table_, 4, S, api, 100}},
        {"localZero outranks vendor cost and trust",
         event("tiered", 300'000, extras(R"({"costUSD":1})")), local,
         {0, complete, table_, 7, L, local, 300'000}},
        {"localZero without a row", event("unknown", 1000, same), local,
         {0, complete, table_, 7, N, local, 1000}},
        {"vendor-reported cost kept, band from the row",
         event("tiered", 1000, reported(absent)), api,
         {777, CostCompleteness::partial, vendor, 99, S, api, 1000}},
        {"vendor-reported band kept", event("tiered", 1000, reported(L)), api,
         {777, CostCompleteness::partial, vendor, 99, L, api, 1000}},
        {"vendor-reported without an amount is priced",
         event("tiered", 1000, [&](UsageEvent& e) {
             reported(absent)(e);
             e.estimatedCostUSDMicros.reset();
         }), api,
         {3000, complete, table_, 4, S, api, 1000}},
        {"rawExtras cost despite an untrusted breakdown",
         event("tiered", 1000, extras(R"({"costUsdTicks":123456789})")), api,
         {12345, complete, vendor, 4, S, api, 1000}},
        {"rawExtras cost without a row",
         event("unknown", 1000, extras(R"({"costUSD":0.25})")), api,
         {250000, complete, vendor, absent, N, api, 1000}},
        {"untrusted", event("tiered", 1000, untrusted), api,
         {absent, none, unknown, absent, N, api, 1000}},
        {"no row", event("unknown", 1000, same), api,
         {absent, none, unknown, absent, N, api, 1000}},
        {"zero vendor cost, no row", event("unknown", 1000, extras(R"({"costUSD":0})")), api,
         {absent, none, unknown, absent, N, api, 1000}},
    };
    // clang-format on
    for (const auto& [what, e, billing, expected] : cases) {
        EXPECT_EQ(filled(table.applied(e, billing, kUTC)), expected) << what;
    }
}

// --- Overrides and the prices screen -----------------------------------------------------

TEST(PriceTableApplying, ReplacesBySameDatesOrAppends) {
    auto base = tableOf({rowOf("a", "2025-01-01"), rowOf("a", "2025-01-01", "2025-06-01"),
                         rowOf("b", "2025-01-01")});
    base.cnyPerUsdE4 = 71234;
    const auto aOpen = rowOf("a", "2025-01-01", {}, "9");
    const auto aClosed = rowOf("a", "2025-01-01", "2025-06-01", "8");
    const auto aLater = rowOf("a", "2025-03-01", {}, "7");
    const auto aOpenAgain = rowOf("a", "2025-01-01", {}, "6");
    const auto out = base.applying({aOpen, aClosed, aLater, aOpenAgain});
    EXPECT_EQ(out.version, 7);
    EXPECT_EQ(out.cnyPerUsdE4, 71234);
    EXPECT_EQ(out.rows, (std::vector<PriceRow>{aOpenAgain, aClosed, base.rows[2], aLater}));
}

TEST(PriceTableCurrentRows, OnePerPatternInTableOrder) {
    const auto table = tableOf({
        rowOf("x", "2025-01-01", "2025-03-01"),  // ended
        rowOf("a", "2025-01-01", "2025-08-01"),
        rowOf("b", "2025-01-01"),
        rowOf("a", "2025-06-01"),
        rowOf("c", "2026-01-01"),  // not yet in force
        rowOf("a", "2025-03-01"),
        rowOf("x", "2025-03-01"),
    });
    const auto rows = table.currentRows(noon("2025-07-01"), kUTC);
    EXPECT_EQ(rows, (std::vector<PriceRow>{table.rows[6], table.rows[3], table.rows[2]}));
    for (const auto& r : rows) {
        EXPECT_EQ(table.row(r.match, noon("2025-07-01"), kUTC)->id(), r.id());
    }
    EXPECT_TRUE(table.currentRows(noon("2024-07-01"), kUTC).empty());
}

// --- Rows as JSON, fingerprint ------------------------------------------------------------

TEST(PriceRowJson, SixteenKeysAbsentOnesOmitted) {
    PriceRow full = tiered(true);
    full.effectiveTo = "2026-01-01";
    const nlohmann::json j = full;
    EXPECT_EQ(j.size(), 16u);
    EXPECT_EQ(j["cacheReadPerMTokUSD"], "0.30");  // the text as written
    EXPECT_EQ(j["longContextThresholdTokens"], 200000);
    EXPECT_EQ(nlohmann::json::parse(j.dump()).get<PriceRow>(), full);

    const auto plain = rowOf("m", "2025-01-01");
    const nlohmann::json p = plain;
    EXPECT_EQ(p.size(), 8u);
    EXPECT_FALSE(p.contains("effectiveTo"));
    EXPECT_EQ(p.get<PriceRow>(), plain);
    auto missingOutput = p;
    missingOutput.erase("outputVisiblePerMTokUSD");
    EXPECT_THROW(missingOutput.get<PriceRow>(), nlohmann::json::exception);

    // Hand-written numbers are kept as their decimal text.
    auto numeric = p;
    numeric["cacheReadPerMTokUSD"] = 0.3;
    numeric["reasoningPerMTokUSD"] = 1e-6;
    const auto read = numeric.get<PriceRow>();
    EXPECT_EQ(read.cacheReadPerMTokUSD, "0.3");
    EXPECT_EQ(parseDecimalScaled(read.reasoningPerMTokUSD, 6), 1);

    EXPECT_EQ(plain.id(), "m|2025-01-01||1");
    EXPECT_EQ(full.id(), "tiered|2025-01-01|2026-01-01|4");
}

TEST(PriceFingerprint, MovesWithWhatDecidesCosts) {
    const auto table = tableOf({rowOf("m", "2025-01-01")});
    const auto override1 = rowOf("m", "2025-01-01", {}, "2");
    const auto base = PriceFingerprint::make(table, BillingMode::apiEquivalent, {override1}, {});
    EXPECT_EQ(base.rfind("v7|apiEquivalent|", 0), 0u) << base;

    EXPECT_EQ(PriceFingerprint::make(table, BillingMode::tokensOnly, {override1}, {}), base);

    auto cheaper = override1;
    cheaper.cacheWritePerMTokUSD = "1.5";
    auto ended = override1;
    ended.effectiveTo = "2026-01-01";
    auto tiny = override1;
    tiny.longContextInclusive = false;
    auto newer = table;
    newer.version = 8;
    const std::vector<std::string> changed = {
        PriceFingerprint::make(table, BillingMode::localZero, {override1}, {}),
        PriceFingerprint::make(table, BillingMode::apiEquivalent, {cheaper}, {}),
        PriceFingerprint::make(table, BillingMode::apiEquivalent, {ended}, {}),
        PriceFingerprint::make(table, BillingMode::apiEquivalent, {tiny}, {}),
        PriceFingerprint::make(table, BillingMode::apiEquivalent, {}, {}),
        PriceFingerprint::make(table, BillingMode::apiEquivalent, {override1, override1}, {}),
        PriceFingerprint::make(table, BillingMode::apiEquivalent, {override1}, {override1}),
        PriceFingerprint::make(newer, BillingMode::apiEquivalent, {override1}, {}),
    };
    for (std::size_t i = 0; i < changed.size(); ++i) {
        EXPECT_NE(changed[i], base) << i;
        for (std::size_t k = 0; k < i; ++k) {
            EXPECT_NE(changed[i], changed[k]) << i << " vs " << k;
        }
    }
}

// --- Table files --------------------------------------------------------------------------

TEST(PriceTableFile, MalformedTextFallsBackToTheEmptyTable) {
    const char* row = R"({"match":"m","effectiveFrom":"2025-01-01","version":3,
        "inputUncachedPerMTokUSD":"1","cacheReadPerMTokUSD":"1","cacheWritePerMTokUSD":"1",
        "outputVisiblePerMTokUSD":"1","reasoningPerMTokUSD":"1"})";
    const auto good = PriceTable::fromFileText(
        std::string(R"({"version":5,"fxCNYPerUSD":"7.25","entries":[)") + row + "]}");
    EXPECT_EQ(good.version, 5);
    EXPECT_EQ(good.cnyPerUsdE4, 72500);
    ASSERT_EQ(good.rows.size(), 1u);
    EXPECT_EQ(good.rows[0].version, 3);

    EXPECT_EQ(
        PriceTable::fromFileText(R"({"version":5,"fxCNYPerUSD":"seven","entries":[]})").cnyPerUsdE4,
        0);
    EXPECT_EQ(
        PriceTable::fromFileText(R"({"version":5,"fxCNYPerUSD":7.2,"entries":[]})").cnyPerUsdE4,
        72000);

    // clang-format off
    const std::string broken[] = {
        "", "not json", "[]", R"({"version":5,"fxCNYPerUSD":"7.2","entries":[)",
        R"({"fxCNYPerUSD":"7.2","entries":[]})",
        R"({"version":"5","fxCNYPerUSD":"7.2","entries":[]})",
        R"({"version":5.5,"fxCNYPerUSD":"7.2","entries":[]})", R"({"version":5,"entries":[]})",
        R"({"version":5,"fxCNYPerUSD":"7.2"})", R"({"version":5,"fxCNYPerUSD":"7.2","entries":{}})",
        R"({"version":5,"fxCNYPerUSD":"7.2","entries":[{"match":"m"}]})",
    };
    // clang-format on
    for (const auto& text : broken) {
        const auto table = PriceTable::fromFileText(text);
        EXPECT_EQ(table, PriceTable::empty()) << text;
    }
}

TEST(PriceTableResolved, UserOverridesReplaceOrExtendTheBuiltInRows) {
    test_support::TempDir dir;
    UsageStore store(dir.path());
    const auto& builtIn = PriceTable::bundled();
    ASSERT_FALSE(builtIn.rows.empty());
    EXPECT_EQ(PriceTable::resolved(store), builtIn);

    auto replacement = builtIn.rows.front();
    replacement.outputVisiblePerMTokUSD = "999";
    const auto extra = rowOf("acme-model", "1970-01-01", {}, "2");
    store.savePriceOverride(replacement);
    store.savePriceOverride(extra);
    const auto resolved = PriceTable::resolved(store);
    EXPECT_EQ(resolved.rows.size(), builtIn.rows.size() + 1);
    EXPECT_EQ(resolved.rows.front(), replacement);
    EXPECT_NE(std::find(resolved.rows.begin(), resolved.rows.end(), extra), resolved.rows.end());

    store.close();  // an unreadable override list leaves the built-in table
    EXPECT_EQ(PriceTable::resolved(store), builtIn);
}

// --- The shipped resources/pricing.json ---------------------------------------------------

std::string shippedPricingText() {
    std::ifstream in(std::string(KESTREL_SOURCE_DIR) + "/resources/pricing.json");
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(BundledPrices, ShippedFileIsCompiledInAndWellFormed) {
    const auto text = shippedPricingText();
    ASSERT_FALSE(text.empty());
    const auto& table = PriceTable::bundled();
    EXPECT_EQ(table, PriceTable::fromFileText(text));
    EXPECT_NE(table, PriceTable::empty());
    EXPECT_EQ(table.cnyPerUsdE4, 72000);

    // Every row must decode exactly as the file wrote it; a silent 0 would under-price.
    for (const auto& row : table.rows) {
        SCOPED_TRACE(row.id());
        for (const auto& price :
             {row.inputUncachedPerMTokUSD, row.cacheReadPerMTokUSD, row.cacheWritePerMTokUSD,
              row.outputVisiblePerMTokUSD, row.reasoningPerMTokUSD}) {
            const auto micros = parseDecimalScaled(price, 6);
            ASSERT_TRUE(micros) << price;
            EXPECT_GT(*micros, 0);
        }
        for (const auto& price : {row.inputUncachedPerMTokUSDLong, row.cacheReadPerMTokUSDLong,
                                  row.cacheWritePerMTokUSDLong, row.outputVisiblePerMTokUSDLong,
                                  row.reasoningPerMTokUSDLong}) {
            EXPECT_TRUE(!price || parseDecimalScaled(*price, 6).value_or(0) > 0) << *price;
        }
        // Reasoning is billed as output by every vendor.
        EXPECT_EQ(row.reasoningPerMTokUSD, row.outputVisiblePerMTokUSD);
        EXPECT_EQ(row.reasoningPerMTokUSDLong, row.outputVisiblePerMTokUSDLong);
        EXPECT_TRUE(kUTC.startOfDay(row.effectiveFrom)) << row.effectiveFrom;
        if (row.effectiveTo) {
            EXPECT_TRUE(kUTC.startOfDay(*row.effectiveTo)) << *row.effectiveTo;
            EXPECT_LT(row.effectiveFrom, *row.effectiveTo);
        }
        EXPECT_EQ(row.longContextThresholdTokens.has_value(), row.hasLongContextRates());
        EXPECT_LE(row.version, table.version);
    }
}

TEST(BundledPrices, RealModelIdsGetTheirOwnRows) {
    struct Case {
        std::string model;
        std::string day;
        std::string match;  // empty: unpriced
        std::string input;
        std::string output;
    };
    // clang-format off
    const Case cases[] = {
        {"claude-sonnet-4-5-20250929", "2025-10-01", "claude-sonnet-4-5", "3", "15"},
        {"us.anthropic.claude-sonnet-4-5-20250929-v1:0", "2025-10-01", "claude-sonnet-4-5",
         "3", "15"},
        {"claude-sonnet-4-5@20250929", "2025-10-01", "claude-sonnet-4-5", "3", "15"},
        {"claude-sonnet-4-20250514", "2025-07-01", "claude-sonnet-4-2025", "3", "15"},
        {"claude-opus-4-1-20250805", "2025-09-01", "claude-opus-4-1", "15", "75"},
        {"claude-opus-4-5-20251101", "2025-12-01", "claude-opus-4-5", "5", "25"},
        {"claude-opus-4-6", "2026-03-01", "claude-opus-4-6", "5", "25"},
        {"claude-opus-4-20250514", "2025-06-01", "claude-opus-4-2025", "15", "75"},
        {"claude-opus-4@20250514", "2025-06-01", "claude-opus-4@", "15", "75"},
        {"claude-haiku-4-5-20251001", "2025-11-01", "claude-haiku-4-5", "1", "5"},
        {"claude-3-5-haiku-20241022", "2025-03-01", "claude-3-5-haiku", "0.80", "4"},
        {"claude-3-5-haiku-20241022", "2024-11-10", "claude-3-5-haiku", "1", "5"},
        {"gpt-5-codex", "2025-10-01", "gpt-5-codex", "1.25", "10"},
        {"gpt-5", "2025-10-01", "gpt-5", "1.25", "10"},
        {"gpt-5.2", "2026-01-10", "gpt-5.2", "1.75", "14"},
        {"gpt-5.1-codex-mini", "2025-12-01", "gpt-5.1-codex-mini", "0.25", "2"},
        {"o3", "2025-05-01", "o3", "10", "40"},
        {"o3", "2025-07-01", "o3", "2", "8"},
        {"gemini-2.5-pro", "2026-01-10", "gemini-2.5-pro", "1.25", "10"},
        {"gemini-2.5-flash-lite", "2026-01-10", "gemini-2.5-flash-lite", "0.10", "0.40"},
        {"deepseek-chat", "2025-09-04", "deepseek-chat", "0.27", "1.10"},
        {"deepseek-chat", "2025-09-05", "deepseek-chat", "0.56", "1.68"},
        {"deepseek-reasoner", "2025-10-01", "deepseek-reasoner", "0.28", "0.42"},
        {"kimi-k2-thinking-turbo", "2025-12-01", "kimi-k2-thinking-turbo", "1.15", "8"},
        {"MiniMax-M2", "2025-11-01", "minimax-m2", "0.30", "1.20"},
        {"kimi-for-coding", "2025-12-01", "", "", ""},
    };
    // clang-format on
    const auto& table = PriceTable::bundled();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.model + " on " + c.day);
        const PriceRow* row = table.row(c.model, noon(c.day), kUTC);
        if (c.match.empty()) {
            EXPECT_EQ(row, nullptr);
            continue;
        }
        ASSERT_NE(row, nullptr);
        EXPECT_EQ(row->match, c.match);
        EXPECT_EQ(row->inputUncachedPerMTokUSD, c.input);
        EXPECT_EQ(row->outputVisiblePerMTokUSD, c.output);
    }

    // Sonnet 4.5's long tier: a 250K prompt costs $6 per million input tokens, not $3.
    const auto cost =
        table.costMicros({250'000, 0, 0, 0, 0}, true, "claude-sonnet-4-5-20250929",
                         noon("2025-10-01"), BillingMode::apiEquivalent, 250'000, kUTC);
    EXPECT_EQ(cost.micros, 1'500'000);
    EXPECT_EQ(cost.band, ContextBand::longContext);
}

}  // namespace
}  // namespace kestrel
