#pragma once
// The yuan-per-dollar rate kept in the settings: reading what the user typed, and storing a rate
// (typed or fetched) so that its version moves only when the rate does.

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include "core/app/app_session.hpp"

namespace kestrel {

// "7.2000": all four decimals cnyPerUsdE4 holds, so a stored rate reads back exactly.
std::string fxRateText(int64_t cnyPerUsdE4);

struct FxInputError {
    enum class Kind { notANumber, outOfRange };
    Kind kind = Kind::notANumber;
    std::string text;  // as typed
};

// A typed rate ("7.25", "7,25") as cnyPerUsdE4; a number outside the accepted range is told
// apart from text that is no number at all.
std::expected<int64_t, FxInputError> parseFxInput(std::string_view typed);

// `settings` with the rate set to `cnyPerUsdE4` (already checked), dated and attributed as given;
// fxVersion goes up by one when the rate differs, since stored events carry the version they
// were priced with.
AppSettings withFxRate(AppSettings settings, int64_t cnyPerUsdE4, std::optional<std::string> date,
                       std::optional<std::string> provider);

struct FxRateChange {
    int64_t previousE4 = 0;
    AppSettings settings;  // as stored now
    bool changed = false;  // the rate differs (its version moved)
};

// Stores `cnyPerUsdE4` with the quote's date and provider (absent for a typed rate). Throws
// StoreError when the settings cannot be written.
FxRateChange storeFxRate(AppSession& session, int64_t cnyPerUsdE4, std::optional<std::string> date,
                         std::optional<std::string> provider);

}  // namespace kestrel
