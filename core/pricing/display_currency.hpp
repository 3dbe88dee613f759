#pragma once
// Which currency amounts are shown in, from the user's choice and the language of the texts.

#include <string_view>

#include "core/model/app_language.hpp"
#include "core/model/currency.hpp"

namespace kestrel {

// `usd` and `cny` stand as chosen. `automatic` shows yuan when the effective language (`system`
// resolved from `systemLocale`, see effectiveLanguage) is Simplified Chinese, dollars otherwise.
// Only a cny result needs the stored exchange rate.
ResolvedCurrency resolved(DisplayCurrency currency, AppLanguage language,
                          std::string_view systemLocale = systemLocaleName());

}  // namespace kestrel
