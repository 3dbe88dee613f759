#include "core/pricing/money_format.hpp"

#include <fmt/format.h>
#include <unicode/locid.h>
#include <unicode/numberformatter.h>

#include "core/model/checked_math.hpp"

namespace kestrel {

namespace {

namespace num = icu::number;

// `value` / 10^scale as exact decimal text ("-1.234567"). Works on the unsigned magnitude so
// that INT64_MIN needs no special case.
std::string scaledDecimal(int64_t value, int scale) {
    uint64_t divisor = 1;
    for (int i = 0; i < scale; ++i) {
        divisor *= 10;
    }
    const uint64_t magnitude = value < 0 ? 0 - static_cast<uint64_t>(value) : value;
    return fmt::format("{}{}.{:0{}}", value < 0 ? "-" : "", magnitude / divisor,
                       magnitude % divisor, scale);
}

std::string formatCurrency(const std::string& decimal, const char* code,
                           const num::Precision& precision, const std::string& locale) {
    const icu::Locale loc =
        locale.empty() ? icu::Locale::getDefault() : icu::Locale(locale.c_str());
    UErrorCode status = U_ZERO_ERROR;
    const icu::CurrencyUnit unit(icu::StringPiece(code), status);
    const num::FormattedNumber formatted = num::NumberFormatter::withLocale(loc)
                                               .unit(unit)
                                               .precision(precision)
                                               .roundingMode(UNUM_ROUND_HALFUP)
                                               .formatDecimal(decimal.c_str(), status);
    icu::UnicodeString text = formatted.toString(status);
    if (U_FAILURE(status)) {
        // Only missing ICU data gets here; the exact amount with its code still says the truth.
        return fmt::format("{} {}", decimal, code);
    }
    std::string out;
    text.toUTF8String(out);
    return out;
}

}  // namespace

int64_t cnyFen(int64_t usdMicros, int64_t cnyPerUsdE4) {
    // micros × (yuan × 10^4 per dollar) is yuan × 10^10; one fen is 10^8 of those units.
    return checkedMul(usdMicros, cnyPerUsdE4, "cnyFen usdMicros × cnyPerUsdE4") / 100'000'000;
}

std::string format(int64_t usdMicros, ResolvedCurrency currency, int64_t cnyPerUsdE4,
                   const std::string& locale) {
    switch (currency) {
        case ResolvedCurrency::usd:
            return formatUSD(usdMicros, locale);
        case ResolvedCurrency::cny:
            return formatCNY(cnyFen(usdMicros, cnyPerUsdE4), locale);
    }
    return formatUSD(usdMicros, locale);
}

std::string formatUSD(int64_t micros, const std::string& locale) {
    return formatCurrency(scaledDecimal(micros, 6), "USD", num::Precision::minMaxFraction(2, 4),
                          locale);
}

std::string formatCNY(int64_t fen, const std::string& locale) {
    return formatCurrency(scaledDecimal(fen, 2), "CNY", num::Precision::fixedFraction(2), locale);
}

}  // namespace kestrel
