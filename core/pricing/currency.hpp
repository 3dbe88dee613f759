#pragma once
// The currency amounts are shown in. Costs are always computed and stored in US-dollar micros;
// yuan exist only on screen, converted at the stored rate.

#include "core/model/enum_cases.hpp"

namespace kestrel {

enum class ResolvedCurrency { usd, cny };

template <>
struct EnumCases<ResolvedCurrency> {
    using E = ResolvedCurrency;
    static constexpr std::array<std::pair<E, std::string_view>, 2> cases{{
        KESTREL_ENUM_CASE(E, usd),
        KESTREL_ENUM_CASE(E, cny),
    }};
};

}  // namespace kestrel
