#include "core/app/fx_settings.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "core/pricing/decimal.hpp"
#include "core/pricing/fx_rate.hpp"

namespace kestrel {
namespace {

// Whether the typed text is a decimal number at all, read as parseInput reads it. Digits are
// zeroed first so that a number too large to hold still counts as one and is then told it is
// out of range rather than not a number.
bool isNumberText(std::string_view typed) {
    constexpr std::string_view blanks = " \t\n\r\v\f";
    const auto first = typed.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return false;
    }
    std::string text(typed.substr(first, typed.find_last_not_of(blanks) - first + 1));
    std::replace(text.begin(), text.end(), ',', '.');
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c >= '1' && c <= '9'; }, '0');
    return parseDecimalScaled(text, 0).has_value();
}

}  // namespace

std::string fxRateText(int64_t e4) {
    // The settings keep the rate positive; the sign is handled only so no value prints wrong.
    const uint64_t magnitude = e4 < 0 ? 0 - static_cast<uint64_t>(e4) : static_cast<uint64_t>(e4);
    return fmt::format("{}{}.{:04}", e4 < 0 ? "-" : "", magnitude / 10000, magnitude % 10000);
}

std::expected<int64_t, FxInputError> parseFxInput(std::string_view typed) {
    if (const auto e4 = FxRate::parseInput(typed)) {
        return *e4;
    }
    return std::unexpected(FxInputError{isNumberText(typed) ? FxInputError::Kind::outOfRange
                                                            : FxInputError::Kind::notANumber,
                                        std::string(typed)});
}

AppSettings withFxRate(AppSettings s, int64_t e4, std::optional<std::string> date,
                       std::optional<std::string> provider) {
    const auto next = FxRate::applied({s.cnyPerUsdE4, s.fxVersion}, e4);
    s.cnyPerUsdE4 = next.cnyPerUsdE4;
    s.fxVersion = next.fxVersion;
    s.fxDate = std::move(date);
    s.fxProvider = std::move(provider);
    return s;
}

FxRateChange storeFxRate(AppSession& session, int64_t e4, std::optional<std::string> date,
                         std::optional<std::string> provider) {
    const AppSettings before = session.settings();
    FxRateChange out;
    out.previousE4 = before.cnyPerUsdE4;
    out.settings = withFxRate(before, e4, std::move(date), std::move(provider));
    out.changed = out.settings.fxVersion != before.fxVersion;
    session.updateSettings(out.settings);
    return out;
}

}  // namespace kestrel
