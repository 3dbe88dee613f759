#pragma once
// The currency amounts are shown in. Costs are always computed and stored in US-dollar micros;
// yuan exist only on screen, converted at the stored rate.

#include "core/model/enum_cases.hpp"

namespace kestrel {

// What the user chose: `auto` shows yuan when the texts are in Chinese, dollars otherwise.
enum class DisplayCurrency { automatic, usd, cny };

template <>
struct EnumCases<DisplayCurrency> {
    using E = DisplayCurrency;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        {E::automatic, "auto"},
        {E::usd, "usd"},
        {E::cny, "cny"},
    }};
};

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
