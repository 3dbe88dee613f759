#pragma once
// Exact decimal reading of prices and rates. Money never passes through binary floating point:
// "0.30" dollars is 300000 micros exactly, which a double cannot promise.

#include <cstdint>
#include <optional>
#include <string_view>

namespace kestrel {

enum class DecimalRounding {
    towardZero,        // drop the digits below the scale
    halfAwayFromZero,  // a first dropped digit of 5 or more moves away from zero
};

// `text` × 10^scaleDigits as an integer, digits below that scale rounded as asked.
//
// Accepted: optional surrounding ASCII blanks, an optional sign, digits with at most one decimal
// point and at least one digit ("3", "0.30", ".5", "5."), then an optional exponent ("1e-6",
// "2.5E+3"), which is applied exactly as a decimal shift, since price catalogues and JSON
// numbers written back as text use that form. Absent for anything else, and for a value whose
// scaled magnitude does not fit in 63 bits. `scaleDigits` must be 0 to 18.
std::optional<int64_t> parseDecimalScaled(std::string_view text, int scaleDigits,
                                          DecimalRounding rounding = DecimalRounding::towardZero);

}  // namespace kestrel
