#pragma once
// The language of the user-facing texts. `system` follows the operating system's preferred
// language, which on Linux is the locale in LC_ALL, LC_MESSAGES or LANG.

#include <string_view>

#include "core/model/enum_cases.hpp"

namespace kestrel {

enum class AppLanguage { system, en, zhHans };

template <>
struct EnumCases<AppLanguage> {
    using E = AppLanguage;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        {E::system, "system"},
        {E::en, "en"},
        {E::zhHans, "zh-Hans"},
    }};
};

// `language` with `system` resolved from `systemLocale` (a POSIX locale name such as
// "zh_CN.UTF-8", or a language tag such as "zh-Hans"): Chinese of any region reads the
// Simplified Chinese texts, everything else English.
AppLanguage effectiveLanguage(AppLanguage language, std::string_view systemLocale);

// The process's preferred locale name: the first non-empty of LC_ALL, LC_MESSAGES and LANG;
// empty when none is set.
std::string_view systemLocaleName();

}  // namespace kestrel
