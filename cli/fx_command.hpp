#pragma once
// `kestrel fx`: the USD→CNY rate kept in the settings, shown, typed in or fetched.
//
// `language` is "en" or "zh-Hans"; empty means the settings' language (its `system` choice
// resolved from the locale). Any other value is refused as bad usage. With `json` the result is
// one object on standard output:
//   {"cnyPerUsdE4": 72000, "cnyPerUsd": "7.2000", "fxVersion": 3,
//    "fxDate": "2026-11-20" | null, "fxProvider": "Frankfurter" | null, "changed": true}
// ("changed" only from set and fetch); errors still go to standard error as text.

#include <string>

#include "cli/command_context.hpp"

namespace kestrel::cli {

// The stored rate, its date and provider when known, its version and the hint on changing it.
// 0, or 3 when the ledger cannot be read.
int runFxShow(CommandContext& ctx, const std::string& language, bool json);

// Stores the rate the user typed ("7.2", "7,25"), dated today with no provider. The version
// moves only when the rate does. Exit 2 with nothing stored for text that is not a rate in the
// accepted range; 3 when the ledger cannot be read or written.
int runFxSet(CommandContext& ctx, const std::string& rate, const std::string& language, bool json);

// Fetches a quote from `url` (empty: FxRate::kDefaultURL) and stores it with the quote's date
// and provider. Exit 1 with the stored rate untouched when no usable quote came; 3 when the
// ledger cannot be read or written.
int runFxFetch(CommandContext& ctx, const std::string& url, const std::string& language, bool json);

}  // namespace kestrel::cli
