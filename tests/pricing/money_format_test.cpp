#include "core/pricing/money_format.hpp"

#include <gtest/gtest.h>
#include <unicode/locid.h>

#include <climits>
#include <string>

#include "core/pricing/usage_formatting.hpp"

namespace kestrel {
namespace {

TEST(CnyFen, ConvertsAndTruncatesTowardZero) {
    struct Case {
        int64_t micros;
        int64_t rateE4;
        int64_t fen;
    };
    const Case cases[] = {
        {1'000'000, 72000, 720},                             // $1 at 7.2
        {-1'000'000, 72000, -720}, {1'000'000, 71234, 712},  // 712.34 fen
        {-1'000'000, 71234, -712},                           // toward zero, not down to -713
        {1'388'889, 72000, 1000},                            // 1000.00008 fen
        {13'888, 72000, 9},                                  // 9.99936 fen
        {-13'888, 72000, -9},      {1, 72000, 0},           {0, 72000, 0}, {1'000'000, 0, 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(cnyFen(c.micros, c.rateE4), c.fen) << c.micros << " at " << c.rateE4;
    }
}

TEST(CnyFenDeathTest, ProductOverflowAborts) {
    EXPECT_DEATH((void)cnyFen(INT64_MAX / 1000, 72000), "overflow");
    EXPECT_DEATH((void)cnyFen(INT64_MIN / 1000, 72000), "overflow");
}

TEST(MoneyFormat, DollarsShowTwoToFourFractionDigits) {
    struct Case {
        int64_t micros;
        const char* text;
    };
    const Case cases[] = {
        {1'000'000, "$1.00"},
        {1'234'567, "$1.2346"},
        {12'300'000, "$12.30"},
        {100, "$0.0001"},
        {1, "$0.00"},
        {1'000'050, "$1.0001"},  // an exact half rounds away from zero
        {-1'000'050, "-$1.0001"},
        {1'234'567'890, "$1,234.5679"},
        {INT64_MIN, "-$9,223,372,036,854.7758"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(formatUSD(c.micros, "en_US"), c.text) << c.micros;
    }
}

TEST(MoneyFormat, CurrencySymbolAndSeparatorsFollowTheLocale) {
    EXPECT_EQ(formatUSD(1'234'567, "zh_CN"), "US$1.2346");
    EXPECT_EQ(formatCNY(720, "zh_CN"), "¥7.20");
    EXPECT_EQ(formatCNY(720, "en_US"), "CN¥7.20");
    EXPECT_EQ(formatCNY(-1'234'567, "en_US"), "-CN¥12,345.67");
    EXPECT_EQ(formatCNY(5, "en_US"), "CN¥0.05");

    // German puts a decimal comma and the symbol after the amount; the exact spacing character
    // is CLDR data, so only the stable parts are checked.
    const std::string de = formatUSD(1'234'567'890, "de_DE");
    EXPECT_NE(de.find("1.234,5679"), std::string::npos) << de;
    EXPECT_NE(de.find('$'), std::string::npos) << de;
    EXPECT_GT(de.find('$'), de.find("5679")) << de;
}

TEST(MoneyFormat, FormatConvertsOnlyForYuan) {
    EXPECT_EQ(format(1'234'567, ResolvedCurrency::usd, 72000, "en_US"), "$1.2346");
    EXPECT_EQ(format(1'000'000, ResolvedCurrency::cny, 72000, "en_US"), "CN¥7.20");
    EXPECT_EQ(format(1'388'889, ResolvedCurrency::cny, 72000, "zh_CN"), "¥10.00");
    EXPECT_EQ(format(-1'000'000, ResolvedCurrency::cny, 71234, "zh_CN"), "-¥7.12");
}

TEST(MoneyFormat, EmptyLocaleUsesTheProcessDefault) {
    const icu::Locale saved = icu::Locale::getDefault();
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(icu::Locale("de_DE"), status);
    ASSERT_TRUE(U_SUCCESS(status));
    const std::string usd = formatUSD(1'234'567);
    const std::string tokens = UsageFormatting::tokens(9999);
    icu::Locale::setDefault(saved, status);

    EXPECT_EQ(usd, formatUSD(1'234'567, "de_DE"));
    EXPECT_NE(usd.find("1,2346"), std::string::npos) << usd;
    EXPECT_EQ(tokens, "9.999");
}

TEST(UsageFormattingTokens, PlainBelowTenThousandCompactFromThere) {
    struct Case {
        int64_t count;
        const char* locale;
        const char* text;
    };
    const Case cases[] = {
        {0, "en_US", "0"},
        {9999, "en_US", "9,999"},
        {-9999, "en_US", "-9,999"},
        {10'000, "en_US", "10K"},
        {-10'000, "en_US", "-10K"},
        {12'345, "en_US", "12.3K"},
        {-12'345, "en_US", "-12.3K"},
        {12'250, "en_US", "12.3K"},  // half away from zero, not to even
        {4'000'000, "en_US", "4M"},
        {999'950, "en_US", "1M"},  // rounding carries into the next unit
        {1'234'567'890, "en_US", "1.2B"},
        {INT64_MAX, "en_US", "9,223,372T"},  // past the largest unit the count stays grouped
        {9999, "zh_CN", "9,999"},
        {12'345, "zh_CN", "1.2万"},
        {4'000'000, "zh_CN", "400万"},
        {9999, "de_DE", "9.999"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(UsageFormatting::tokens(c.count, c.locale), c.text)
            << c.count << " in " << c.locale;
    }
}

TEST(UsageFormattingTokensDeathTest, MostNegativeCountAborts) {
    EXPECT_DEATH((void)UsageFormatting::tokens(INT64_MIN, "en_US"), "overflow");
}

TEST(UsageFormattingPercent, RoundsHalfAwayFromZero) {
    const std::pair<double, const char*> cases[] = {
        {0.5, "1%"},  {12.49, "12%"}, {-0.5, "-1%"}, {2.5, "3%"},     {99.5, "100%"},  {0.0, "0%"},
        {-0.4, "0%"}, {0.49, "0%"},   {150, "150%"}, {-12.5, "-13%"}, {33.333, "33%"},
    };
    for (const auto& [value, text] : cases) {
        EXPECT_EQ(UsageFormatting::percent(value), text) << value;
    }
}

}  // namespace
}  // namespace kestrel
