#include "core/pricing/decimal.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <optional>
#include <string>

#include "core/pricing/model_name.hpp"
#include "core/pricing/vendor_cost.hpp"

namespace kestrel {
namespace {

struct DecimalCase {
    std::string text;
    int scale;
    std::optional<int64_t> truncated;
    std::optional<int64_t> rounded;  // half away from zero
};

TEST(Decimal, ScalesExactlyAndRoundsAsAsked) {
    const DecimalCase cases[] = {
        {"0.30", 6, 300000, 300000},
        {"3", 6, 3000000, 3000000},
        {"18.75", 6, 18750000, 18750000},
        {"7.2", 4, 72000, 72000},
        {".5", 6, 500000, 500000},
        {"5.", 6, 5000000, 5000000},
        {" 1.5\t", 6, 1500000, 1500000},
        {"000123.4500", 2, 12345, 12345},
        // Digits below the scale.
        {"0.0000019", 6, 1, 2},
        {"-0.0000019", 6, -1, -2},
        {"0.0000005", 6, 0, 1},
        {"0.00000049", 6, 0, 0},
        {"-0.0000005", 6, 0, -1},
        {"0.9999995", 6, 999999, 1000000},
        {"0.0001245", 6, 124, 125},  // a double gives 124.49999999999999
        // Exponents shift exactly.
        {"1e-3", 6, 1000, 1000},
        {"2.5E+3", 0, 2500, 2500},
        {"3e-06", 6, 3, 3},
        {"1e-7", 6, 0, 0},
        {"5e-7", 6, 0, 1},
        {"1e-400", 6, 0, 0},
        // The edge of 64 bits.
        {"9223372036854.775807", 6, INT64_MAX, INT64_MAX},
        {"-9223372036854.775807", 6, -INT64_MAX, -INT64_MAX},
        {"9223372036854.775808", 6, std::nullopt, std::nullopt},
        {"9223372036854.7758069", 6, INT64_MAX - 1, INT64_MAX},
        {"9223372036854.7758075", 6, INT64_MAX, std::nullopt},
        {"1e400", 6, std::nullopt, std::nullopt},
        // Not decimals.
        {"", 6, std::nullopt, std::nullopt},
        {".", 6, std::nullopt, std::nullopt},
        {"-", 6, std::nullopt, std::nullopt},
        {"abc", 6, std::nullopt, std::nullopt},
        {"1.2.3", 6, std::nullopt, std::nullopt},
        {"1,5", 6, std::nullopt, std::nullopt},
        {"1e", 6, std::nullopt, std::nullopt},
        {"0x10", 6, std::nullopt, std::nullopt},
        {"nan", 6, std::nullopt, std::nullopt},
        {"3 USD", 6, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(parseDecimalScaled(c.text, c.scale), c.truncated) << '"' << c.text << '"';
        EXPECT_EQ(parseDecimalScaled(c.text, c.scale, DecimalRounding::halfAwayFromZero), c.rounded)
            << '"' << c.text << '"';
    }
}

TEST(Decimal, RejectsScalesOutsideSixtyFourBits) {
    EXPECT_EQ(parseDecimalScaled("1", 18), 1'000'000'000'000'000'000);
    EXPECT_EQ(parseDecimalScaled("1", 19), std::nullopt);
    EXPECT_EQ(parseDecimalScaled("1", -1), std::nullopt);
}

TEST(VendorCost, TicksThenDollars) {
    const std::pair<std::optional<std::string>, std::optional<int64_t>> cases[] = {
        {R"({"costUsdTicks":123456789})", 12345},
        {R"({"costUsdTicks":9999})", 0},
        {R"({"costUsdTicks":18446744073709551615})", 1844674407370955},
        {R"({"costUSD":0.25})", 250000},
        {R"({"costUSD":0.0123})", 12300},
        {R"({"costUSD":0.0001245})", 125},  // decimal half-up, not 124 from binary
        {R"({"costUSD":1e-06})", 1},
        {R"({"costUSD":1e-9})", 0},  // positive, rounds to nothing
        // Ticks win over dollars; unusable ticks fall through to dollars.
        {R"({"costUsdTicks":50000,"costUSD":9})", 5},
        {R"({"costUsdTicks":0,"costUSD":0.5})", 500000},
        {R"({"costUsdTicks":-5,"costUSD":0.5})", 500000},
        {R"({"costUsdTicks":12345.0,"costUSD":0.5})", 500000},
        // Nothing usable.
        {R"({"costUSD":0})", std::nullopt},
        {R"({"costUSD":-0.25})", std::nullopt},
        {R"({"costUSD":"0.25"})", std::nullopt},
        {R"({"costUSD":1e300})", std::nullopt},
        {R"({"costUsdTicks":12345.0})", std::nullopt},
        {R"({"other":1})", std::nullopt},
        {R"([{"costUSD":1}])", std::nullopt},
        {"not json", std::nullopt},
        {std::nullopt, std::nullopt},
    };
    for (const auto& [extras, expected] : cases) {
        EXPECT_EQ(VendorCost::micros(extras), expected) << extras.value_or("<absent>");
    }
}

TEST(ModelName, StripsCloudDecorations) {
    const std::pair<std::string, std::string> cases[] = {
        {"us.anthropic.claude-sonnet-4-5-20250929-v1:0", "claude-sonnet-4-5"},
        {"anthropic.claude-3-haiku-20240307-v1:0", "claude-3-haiku"},
        {"eu.anthropic.claude-x-v2", "claude-x"},
        {"apac.us.model.v1", "model"},
        {"amazon.nova-pro-v1:0", "nova-pro"},
        {"model.v1:0", "model"},
        {"US.Anthropic.Claude-X-V1", "Claude-X"},
        {"claude-sonnet-4-5-20250929", "claude-sonnet-4-5"},
        {"a-20250101-20250202", "a-20250101"},  // one suffix only
        {"-v1", ""},
        // Left alone.
        {"claude-sonnet-4-5", "claude-sonnet-4-5"},
        {"claude-sonnet-4-5@20250929", "claude-sonnet-4-5@20250929"},
        {"gpt-4o-2024-05-13", "gpt-4o-2024-05-13"},
        {"model-123456789", "model-123456789"},
        {"model:0", "model:0"},
        {"claude-x-20250929:0", "claude-x-20250929:0"},
        {"global.anthropic.claude-x", "global.anthropic.claude-x"},
        {"model-v", "model-v"},
    };
    for (const auto& [id, expected] : cases) {
        EXPECT_EQ(ModelName::normalizedForPricing(id), expected) << id;
    }
}

}  // namespace
}  // namespace kestrel
