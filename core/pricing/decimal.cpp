#include "core/pricing/decimal.hpp"

#include <string>

namespace kestrel {
namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Beyond this an exponent can only mean 0 or overflow; clamping keeps the shift arithmetic small.
constexpr int kExponentLimit = 1000;

}  // namespace

std::optional<int64_t> parseDecimalScaled(std::string_view text, int scaleDigits,
                                          DecimalRounding rounding) {
    if (scaleDigits < 0 || scaleDigits > 18) {
        return std::nullopt;
    }
    while (!text.empty() && isBlank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isBlank(text.back())) {
        text.remove_suffix(1);
    }

    std::size_t i = 0;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }

    std::string digits;  // all mantissa digits, integer part then fraction
    int fractionDigits = 0;
    bool seenPoint = false;
    for (; i < text.size(); ++i) {
        const char c = text[i];
        if (isDigit(c)) {
            digits.push_back(c);
            fractionDigits += seenPoint ? 1 : 0;
        } else if (c == '.' && !seenPoint) {
            seenPoint = true;
        } else {
            break;
        }
    }
    if (digits.empty()) {
        return std::nullopt;
    }

    int exponent = 0;
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        ++i;
        bool negativeExponent = false;
        if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
            negativeExponent = text[i] == '-';
            ++i;
        }
        if (i == text.size() || !isDigit(text[i])) {
            return std::nullopt;
        }
        for (; i < text.size() && isDigit(text[i]); ++i) {
            if (exponent < kExponentLimit) {
                exponent = exponent * 10 + (text[i] - '0');
            }
        }
        exponent = negativeExponent ? -exponent : exponent;
    }
    if (i != text.size()) {
        return std::nullopt;
    }

    // Leading zeros carry no value; dropping them keeps the digit count meaningful below.
    const auto firstNonZero = digits.find_first_not_of('0');
    digits.erase(0, firstNonZero == std::string::npos ? digits.size() : firstNonZero);

    // The scaled value is digits × 10^shift.
    const int shift = scaleDigits + exponent - fractionDigits;
    const int kept = static_cast<int>(digits.size()) + (shift < 0 ? shift : 0);

    int64_t magnitude = 0;
    for (int d = 0; d < kept; ++d) {
        if (__builtin_mul_overflow(magnitude, int64_t{10}, &magnitude) ||
            __builtin_add_overflow(magnitude, int64_t{digits[d] - '0'}, &magnitude)) {
            return std::nullopt;
        }
    }
    if (magnitude != 0) {
        for (int s = 0; s < shift; ++s) {
            if (__builtin_mul_overflow(magnitude, int64_t{10}, &magnitude)) {
                return std::nullopt;
            }
        }
    }
    if (rounding == DecimalRounding::halfAwayFromZero && shift < 0 && kept >= 0 &&
        kept < static_cast<int>(digits.size()) && digits[kept] >= '5') {
        if (__builtin_add_overflow(magnitude, int64_t{1}, &magnitude)) {
            return std::nullopt;
        }
    }
    return negative ? -magnitude : magnitude;
}

}  // namespace kestrel
