#include "core/pricing/display_currency.hpp"

namespace kestrel {

ResolvedCurrency resolved(DisplayCurrency currency, AppLanguage language,
                          std::string_view systemLocale) {
    switch (currency) {
        case DisplayCurrency::usd:
            return ResolvedCurrency::usd;
        case DisplayCurrency::cny:
            return ResolvedCurrency::cny;
        case DisplayCurrency::automatic:
            break;
    }
    return effectiveLanguage(language, systemLocale) == AppLanguage::zhHans ? ResolvedCurrency::cny
                                                                            : ResolvedCurrency::usd;
}

}  // namespace kestrel
