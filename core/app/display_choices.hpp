#pragma once
// How figures are shown to the user: the language of the texts, the currency of money and the
// locale that formats both, from the settings and any choice made for one view (a command's
// --lang or --currency). Shared by the command line and the desktop app, so both say the same.

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "core/model/app_language.hpp"
#include "core/model/app_settings.hpp"
#include "core/model/currency.hpp"
#include "core/presentation/messages.hpp"

namespace kestrel {

struct DisplayChoices {
    AppLanguage language = AppLanguage::en;  // resolved: never `system`
    ResolvedCurrency currency = ResolvedCurrency::usd;
    int64_t cnyPerUsdE4 = 72000;  // the stored rate, for amounts in yuan

    // The ICU locale for numbers and money ("en_US", "zh_CN").
    std::string locale() const;
    // A catalogue text in the chosen language.
    std::string text(std::string_view key) const;
    std::string text(std::string_view key, std::initializer_list<MessageArg> args) const;
    // An amount kept in micro-dollars, in the chosen currency ("$1.20", "¥8.64").
    std::string money(int64_t usdMicros) const;

    bool operator==(const DisplayChoices&) const = default;
};

// The settings' language and currency, each replaced by `language` / `currency` when given;
// `system` and `auto` are resolved against the process's locale.
DisplayChoices displayChoices(const AppSettings& settings,
                              std::optional<AppLanguage> language = std::nullopt,
                              std::optional<ResolvedCurrency> currency = std::nullopt);

}  // namespace kestrel
