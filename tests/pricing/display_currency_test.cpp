#include "core/pricing/display_currency.hpp"

#include <gtest/gtest.h>

#include <string>

namespace kestrel {
namespace {

TEST(DisplayCurrency, ResolvesFromChoiceLanguageAndLocale) {
    struct Case {
        DisplayCurrency choice;
        AppLanguage language;
        std::string locale;
        ResolvedCurrency shown;
    };
    const Case cases[] = {
        {DisplayCurrency::automatic, AppLanguage::en, "zh_CN.UTF-8", ResolvedCurrency::usd},
        {DisplayCurrency::automatic, AppLanguage::zhHans, "en_US.UTF-8", ResolvedCurrency::cny},
        {DisplayCurrency::automatic, AppLanguage::system, "zh_CN.UTF-8", ResolvedCurrency::cny},
        {DisplayCurrency::automatic, AppLanguage::system, "zh_TW.UTF-8", ResolvedCurrency::cny},
        {DisplayCurrency::automatic, AppLanguage::system, "en_US.UTF-8", ResolvedCurrency::usd},
        {DisplayCurrency::automatic, AppLanguage::system, "C", ResolvedCurrency::usd},
        {DisplayCurrency::automatic, AppLanguage::system, "", ResolvedCurrency::usd},
        // An explicit currency ignores the language.
        {DisplayCurrency::usd, AppLanguage::zhHans, "zh_CN.UTF-8", ResolvedCurrency::usd},
        {DisplayCurrency::cny, AppLanguage::en, "en_US.UTF-8", ResolvedCurrency::cny},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(resolved(c.choice, c.language, c.locale), c.shown)
            << rawValue(c.choice) << " / " << rawValue(c.language) << " / \"" << c.locale << '"';
    }
}

}  // namespace
}  // namespace kestrel
