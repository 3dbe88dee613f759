#include "core/pricing/usage_formatting.hpp"

#include <fmt/format.h>
#include <unicode/locid.h>
#include <unicode/numberformatter.h>

#include <cmath>

#include "core/model/checked_math.hpp"

namespace kestrel::UsageFormatting {

namespace num = icu::number;

std::string tokens(int64_t count, const std::string& locale) {
    const int64_t magnitude = count < 0 ? checkedSub(0, count, "token count magnitude") : count;
    const icu::Locale loc =
        locale.empty() ? icu::Locale::getDefault() : icu::Locale(locale.c_str());
    num::LocalizedNumberFormatter formatter = num::NumberFormatter::withLocale(loc);
    if (magnitude >= 10'000) {
        formatter = formatter.notation(num::Notation::compactShort())
                        .precision(num::Precision::maxFraction(1))
                        .roundingMode(UNUM_ROUND_HALFUP);
    }
    UErrorCode status = U_ZERO_ERROR;
    const icu::UnicodeString text = formatter.formatInt(count, status).toString(status);
    if (U_FAILURE(status)) {
        // Only missing ICU data gets here; the exact count is better than nothing.
        return fmt::format("{}", count);
    }
    std::string out;
    text.toUTF8String(out);
    return out;
}

std::string percent(double value) {
    // Adding 0.0 turns the -0.0 that std::round gives for (-0.5, 0) into 0, so it shows "0%".
    return fmt::format("{:.0f}%", std::round(value) + 0.0);
}

}  // namespace kestrel::UsageFormatting
