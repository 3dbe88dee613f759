#include "core/model/token_semantics.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <optional>
#include <string>

namespace kestrel {
namespace {

using TokenSemantics::Mapped;

constexpr int64_t kMax = INT64_MAX;

struct MapCase {
    std::string name;
    AgentSource source;
    int64_t input, cached, cacheWrite, output, reasoning;
    std::optional<int64_t> providerTotal;
    Mapped expected;  // exclusive, trusted, providerIn, providerOut, providerTotal
};

void PrintTo(const MapCase& c, std::ostream* os) {
    *os << c.name;
}

class TokenSemanticsMap : public testing::TestWithParam<MapCase> {};

TEST_P(TokenSemanticsMap, DerivesBucketsAndProviderTotals) {
    const auto& c = GetParam();
    const auto m = TokenSemantics::map(c.source, c.input, c.cached, c.cacheWrite, c.output,
                                       c.reasoning, c.providerTotal);
    EXPECT_EQ(m.exclusive, c.expected.exclusive);
    EXPECT_EQ(m.trusted, c.expected.trusted);
    EXPECT_EQ(m.providerIn, c.expected.providerIn);
    EXPECT_EQ(m.providerOut, c.expected.providerOut);
    EXPECT_EQ(m.providerTotal, c.expected.providerTotal);
}

const ExclusiveTokens kZero{};

// One row per case: name, source, input, cached, cacheWrite, output, reasoning, given total,
// then the expected buckets, trust flag and provider in / out / total.
// clang-format off
INSTANTIATE_TEST_SUITE_P(Families, TokenSemanticsMap, testing::Values(
    // Additive: input excludes the caches; a consistent record replaces the given total.
    MapCase{"additiveReplacesGivenTotal", AgentSource::cursor, 10, 5, 2, 7, 3, 999,
            {{10, 5, 2, 4, 3}, true, 17, 7, 24}},
    MapCase{"additiveNoTotal", AgentSource::kimi, 1000, 200, 0, 50, 0, std::nullopt,
            {{1000, 200, 0, 50, 0}, true, 1200, 50, 1250}},
    MapCase{"additiveReasoningAboveOutputNoTotal", AgentSource::kimi, 10, 5, 2, 3, 4, std::nullopt,
            {kZero, false, 10, 3, 13}},
    MapCase{"additiveReasoningAboveOutputGivenTotal", AgentSource::traeWorkCN, 10, 5, 2, 3, 4, 50,
            {kZero, false, 10, 3, 50}},
    MapCase{"additiveNegativeCacheUntrusted", AgentSource::cursor, 10, -1, 0, 6, 0, 16,
            {kZero, false, 10, 6, 16}},
    MapCase{"additiveNegativeInputUntrusted", AgentSource::cursor, -3, 0, 0, 6, 0, std::nullopt,
            {kZero, false, -3, 6, 3}},
    // Subset: codex keeps cache writes outside input; grok and workbuddy count them inside.
    MapCase{"codexCacheWriteOutsideInput", AgentSource::codex, 100, 80, 30, 50, 20, std::nullopt,
            {{20, 80, 30, 30, 20}, true, 100, 50, 150}},
    MapCase{"grokSameCountsInconsistent", AgentSource::grok, 100, 80, 30, 50, 20, std::nullopt,
            {kZero, false, 100, 50, 150}},
    MapCase{"workbuddyCacheWriteInsideInput", AgentSource::workbuddy, 100, 60, 30, 50, 20, 777,
            {{10, 60, 30, 30, 20}, true, 100, 50, 777}},
    MapCase{"grokInputExactlyIncluded", AgentSource::grok, 110, 80, 30, 5, 0, std::nullopt,
            {{0, 80, 30, 5, 0}, true, 110, 5, 115}},
    MapCase{"codexCachedAboveInput", AgentSource::codex, 10, 20, 0, 5, 0, std::nullopt,
            {kZero, false, 10, 5, 15}},
    MapCase{"codexReasoningAboveOutput", AgentSource::codex, 10, 0, 0, 5, 6, 40,
            {kZero, false, 10, 5, 40}},
    MapCase{"codexNegativeCacheWrite", AgentSource::codex, 10, 0, -1, 5, 0, std::nullopt,
            {kZero, false, 10, 5, 15}},
    MapCase{"subsetNegativeReasoning", AgentSource::workbuddy, 10, 0, 0, 5, -1, std::nullopt,
            {kZero, false, 10, 5, 15}},
    // Independent: clamp each count at zero, stay trusted, never subtract reasoning.
    MapCase{"claudeNegativeCountsClamped", AgentSource::claude, -5, 3, -2, 40, 15, std::nullopt,
            {{0, 3, 0, 40, 15}, true, -5, 40, 35}},
    MapCase{"claudeGivenTotalKept", AgentSource::claude, 10, 1000, 200, 40, 0, 1250,
            {{10, 1000, 200, 40, 0}, true, 10, 40, 1250}},
    MapCase{"geminiReasoningAboveOutput", AgentSource::gemini, 10, 0, 0, 5, 9, std::nullopt,
            {{10, 0, 0, 5, 9}, true, 10, 5, 15}},
    MapCase{"openrouterIsIndependent", AgentSource::openrouter, 1, 2, 3, 4, 5, std::nullopt,
            {{1, 2, 3, 4, 5}, true, 1, 4, 5}}),
    [](const testing::TestParamInfo<MapCase>& info) { return info.param.name; });
// clang-format on

TEST(TokenSemantics, SnapshotOverloadUsesProviderTotalOnlyWhenFlagged) {
    const TokenSnapshot raw{.input = 10,
                            .cachedInput = 4,
                            .cacheCreate = 0,
                            .output = 6,
                            .reasoning = 0,
                            .providerTotal = 99};
    EXPECT_EQ(TokenSemantics::map(AgentSource::codex, raw, true).providerTotal, 99);
    EXPECT_EQ(TokenSemantics::map(AgentSource::codex, raw, false).providerTotal, 16);
    EXPECT_EQ(TokenSemantics::map(AgentSource::codex, raw, false).exclusive,
              (ExclusiveTokens{6, 4, 0, 6, 0}));
}

TEST(TokenSemantics, DeltaOfCumulativeSnapshots) {
    const TokenSnapshot before{100, 40, 10, 30, 5, 130};
    struct Case {
        const char* name;
        TokenSnapshot after;
        std::optional<TokenSnapshot> expected;
    };
    const Case cases[] = {
        {"equal: zero, not absent", before, TokenSnapshot{}},
        {"growing counters subtract", {250, 90, 15, 70, 25, 320}, {{150, 50, 5, 40, 20, 190}}},
        // A cache or reasoning count recounted lower is clamped at zero.
        {"recounted cache and reasoning", {120, 39, 2, 35, 1, 155}, {{20, 0, 0, 5, 0, 25}}},
        // Input, output or total going back means the counters were reset.
        {"input went back", {99, 40, 10, 30, 5, 130}, std::nullopt},
        {"output went back", {100, 40, 10, 29, 5, 130}, std::nullopt},
        {"total went back", {100, 40, 10, 30, 5, 129}, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(TokenSemantics::delta(before, c.after), c.expected) << c.name;
    }
}

TEST(TokenSemantics, PromptTokensCountsInputSideOnly) {
    EXPECT_EQ(TokenSemantics::promptTokens({7, 11, 13, 17, 19}), 31);
    EXPECT_EQ(TokenSemantics::promptTokens(ExclusiveTokens::zero()), 0);
}

using TokenSemanticsDeathTest = testing::Test;

TEST_F(TokenSemanticsDeathTest, MapAbortsInsteadOfWrapping) {
    // Independent: the implied total input + output overflows.
    EXPECT_DEATH(TokenSemantics::map(AgentSource::claude, kMax, 0, 0, 1, 0, std::nullopt),
                 "overflow");
    // Additive: the provider's input total overflows even with a total given.
    EXPECT_DEATH(TokenSemantics::map(AgentSource::cursor, kMax, 1, 0, 0, 0, 0), "overflow");
    EXPECT_DEATH(TokenSemantics::map(AgentSource::kimi, kMax - 1, 1, 0, 1, 0, 0), "overflow");
    // Subset: cached + cache write overflows while deciding consistency.
    EXPECT_DEATH(TokenSemantics::map(AgentSource::grok, kMax, kMax, 1, 0, 0, 0), "overflow");
}

TEST_F(TokenSemanticsDeathTest, PromptTokensAbortsOnOverflow) {
    EXPECT_DEATH(TokenSemantics::promptTokens({kMax, 0, 1, 0, 0}), "overflow");
}

}  // namespace
}  // namespace kestrel
