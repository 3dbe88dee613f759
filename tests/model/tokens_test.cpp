#include "core/model/tokens.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

namespace kestrel {
namespace {

using Buckets = std::vector<std::pair<std::string_view, int64_t>>;

constexpr int64_t kMax = INT64_MAX;

TEST(ExclusiveTokens, BilledTokensSumsAllFiveBuckets) {
    EXPECT_EQ((ExclusiveTokens{1, 20, 300, 4000, 50000}).billedTokens(), 54321);
    EXPECT_EQ(ExclusiveTokens::zero().billedTokens(), 0);
    // The exact maximum is still representable.
    EXPECT_EQ((ExclusiveTokens{kMax - 4, 1, 1, 1, 1}).billedTokens(), kMax);
}

TEST(ExclusiveTokens, BilledBucketsFixedOrderAndOnlyPositive) {
    EXPECT_EQ((ExclusiveTokens{1, 2, 3, 4, 5}).billedBuckets(),
              (Buckets{{"input", 1}, {"output", 4}, {"reasoning", 5}, {"cache", 5}}));
    EXPECT_EQ((ExclusiveTokens{0, 0, 0, 42, 0}).billedBuckets(), (Buckets{{"output", 42}}));
    // Cache read alone and cache write alone both surface as "cache".
    EXPECT_EQ((ExclusiveTokens{0, 7, 0, 0, 0}).billedBuckets(), (Buckets{{"cache", 7}}));
    EXPECT_EQ((ExclusiveTokens{0, 0, 9, 0, 3}).billedBuckets(),
              (Buckets{{"reasoning", 3}, {"cache", 9}}));
    EXPECT_TRUE(ExclusiveTokens::zero().billedBuckets().empty());
}

TEST(ExclusiveTokens, AdditionIsFieldWise) {
    const ExclusiveTokens a{1, 2, 3, 4, 5};
    const ExclusiveTokens b{10, 20, 30, 40, 50};
    EXPECT_EQ(a + b, (ExclusiveTokens{11, 22, 33, 44, 55}));
    auto acc = ExclusiveTokens::zero();
    acc += a;
    acc += b;
    acc += a;
    EXPECT_EQ(acc, (ExclusiveTokens{12, 24, 36, 48, 60}));
}

using ExclusiveTokensDeathTest = testing::Test;

TEST_F(ExclusiveTokensDeathTest, AdditionAbortsOnOverflowOfAnyField) {
    const ExclusiveTokens one{1, 1, 1, 1, 1};
    for (int field = 0; field < 5; ++field) {
        ExclusiveTokens big{};
        int64_t* fields[] = {&big.inputUncached, &big.cacheRead, &big.cacheWrite,
                             &big.outputVisible, &big.reasoning};
        *fields[field] = kMax;
        EXPECT_DEATH((void)(big + one), "overflow") << "field " << field;
    }
    ExclusiveTokens acc{0, 0, 0, 0, kMax};
    EXPECT_DEATH(acc += one, "overflow");
}

TEST_F(ExclusiveTokensDeathTest, BilledTokensAndBucketsAbortOnOverflow) {
    EXPECT_DEATH((void)(ExclusiveTokens{kMax, 0, 0, 0, 1}).billedTokens(), "overflow");
    EXPECT_DEATH((void)(ExclusiveTokens{0, 1, 0, kMax, 0}).billedTokens(), "overflow");
    EXPECT_DEATH((void)(ExclusiveTokens{0, kMax, 1, 0, 0}).billedBuckets(), "overflow");
}

TEST(TokensJson, KeysAreFieldNamesAndRoundTrip) {
    const TokenSnapshot snap{1, 2, 3, 4, 5, -6};
    const nlohmann::json js = snap;
    EXPECT_EQ(js, nlohmann::json::parse(R"({"input":1,"cachedInput":2,"cacheCreate":3,
        "output":4,"reasoning":5,"providerTotal":-6})"));
    EXPECT_EQ(nlohmann::json::parse(js.dump()).get<TokenSnapshot>(), snap);

    const ExclusiveTokens ex{kMax, 2, 3, 4, 5};
    const nlohmann::json je = ex;
    EXPECT_EQ(je, nlohmann::json::parse(R"({"inputUncached":9223372036854775807,"cacheRead":2,
        "cacheWrite":3,"outputVisible":4,"reasoning":5})"));
    EXPECT_EQ(nlohmann::json::parse(je.dump()).get<ExclusiveTokens>(), ex);

    // Ordered output keeps the declaration order, which CSV and reports rely on.
    const nlohmann::ordered_json oj = snap;
    EXPECT_EQ(oj.dump(), R"({"input":1,"cachedInput":2,"cacheCreate":3,"output":4,"reasoning":5,)"
                         R"("providerTotal":-6})");
}

}  // namespace
}  // namespace kestrel
