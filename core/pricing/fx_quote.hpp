#pragma once
// A USD→CNY quote from the exchange-rate service, and why a fetch gave none.

#include <cstdint>
#include <string>
#include <string_view>

#include "core/model/enum_cases.hpp"

namespace kestrel {

enum class FxError {
    badResponse,  // no answer, a status other than 200, or a body that is not a JSON object
    missingRate,  // no rates.CNY, or one that is not a positive number
    outOfRange,   // a rate outside 5 to 12 yuan per dollar
};

template <>
struct EnumCases<FxError> {
    using E = FxError;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        KESTREL_ENUM_CASE(E, badResponse),
        KESTREL_ENUM_CASE(E, missingRate),
        KESTREL_ENUM_CASE(E, outOfRange),
    }};
};

// The error as the settings screen shows it, in Simplified Chinese.
std::string_view description(FxError error);

// The same for the English texts.
std::string_view englishDescription(FxError error);

struct FxQuote {
    std::string cnyPerUsd;  // yuan per dollar as exact decimal text ("7.1234"), never a double
    std::string date;       // the quote's date as the service wrote it; empty when it gave none
    std::string source;     // who quoted it ("Frankfurter")

    // cnyPerUsd × 10,000 truncated toward zero: the value to store as cnyPerUsdE4. 0 when
    // cnyPerUsd is not a decimal that fits, which a fetched quote never is.
    int64_t e4() const;

    bool operator==(const FxQuote&) const = default;
};

}  // namespace kestrel
