#pragma once
// Raw-value plumbing shared by every persisted enumeration: each enum declares its cases and
// their stored strings once, in declaration order, and gets rawValue / fromRawValue / allCases.

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

// One case whose stored string is its name: KESTREL_ENUM_CASE(SourceStatus, healthy).
#define KESTREL_ENUM_CASE(E, c)      \
    std::pair<E, std::string_view> { \
        E::c, #c                     \
    }

namespace kestrel {

// Specialised per enumeration with `static constexpr std::array<std::pair<E, std::string_view>, N>
// cases` in declaration order.
template <class E>
struct EnumCases;

template <class E>
constexpr std::string_view rawValue(E value) {
    for (const auto& [c, raw] : EnumCases<E>::cases) {
        if (c == value) {
            return raw;
        }
    }
    return {};
}

// The case whose stored string is `raw`; absent for any other text.
template <class E>
constexpr std::optional<E> fromRawValue(std::string_view raw) {
    for (const auto& [c, r] : EnumCases<E>::cases) {
        if (r == raw) {
            return c;
        }
    }
    return std::nullopt;
}

template <class E>
constexpr auto allCases() {
    constexpr auto& table = EnumCases<E>::cases;
    std::array<E, table.size()> out{};
    for (std::size_t i = 0; i < table.size(); ++i) {
        out[i] = table[i].first;
    }
    return out;
}

}  // namespace kestrel
