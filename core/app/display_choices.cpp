#include "core/app/display_choices.hpp"

#include "core/pricing/display_currency.hpp"
#include "core/pricing/money_format.hpp"

namespace kestrel {

std::string DisplayChoices::locale() const {
    return language == AppLanguage::zhHans ? "zh_CN" : "en_US";
}

std::string DisplayChoices::text(std::string_view key) const {
    return Messages::bundled().text(key, language);
}

std::string DisplayChoices::text(std::string_view key,
                                 std::initializer_list<MessageArg> args) const {
    return Messages::bundled().text(key, language, args);
}

std::string DisplayChoices::money(int64_t usdMicros) const {
    return format(usdMicros, currency, cnyPerUsdE4, locale());
}

DisplayChoices displayChoices(const AppSettings& settings, std::optional<AppLanguage> language,
                              std::optional<ResolvedCurrency> currency) {
    DisplayChoices out;
    out.language = effectiveLanguage(language.value_or(settings.language), systemLocaleName());
    out.currency = currency.value_or(resolved(settings.displayCurrency, out.language,
                                              systemLocaleName()));
    out.cnyPerUsdE4 = settings.cnyPerUsdE4;
    return out;
}

}  // namespace kestrel
