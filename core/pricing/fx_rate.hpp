#pragma once
// The yuan-per-dollar rate kept in the settings as cnyPerUsdE4 (yuan per dollar × 10,000): a
// rate the user types, a live quote fetched on request, and storing either.

#include <chrono>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include "core/pricing/fx_quote.hpp"

namespace kestrel {
namespace FxRate {

// Any service answering this path and query with {"date": ..., "rates": {"CNY": ...}} will do.
inline constexpr std::string_view kDefaultURL =
    "https://api.frankfurter.app/v1/latest?base=USD&symbols=CNY";
inline constexpr std::chrono::milliseconds kDefaultTimeout{10'000};

// Accepted rates, both ends included: 5 to 12 yuan per dollar. Anything outside is a typo or a
// broken quote, never a real rate.
inline constexpr int64_t kMinE4 = 50'000;
inline constexpr int64_t kMaxE4 = 120'000;

// The rate the user typed as cnyPerUsdE4: blanks and newlines around it ignored, "," read as
// the decimal point, truncated (not rounded) to four decimals. Absent for text that is not a
// decimal number and for a rate outside kMinE4...kMaxE4.
std::optional<int64_t> parseInput(std::string_view text);

// One GET of `url`, giving up after `timeout` (at least 1 ms) for connecting and answering
// together; redirects are not followed. Only status 200 with a JSON object body counts; its
// rates.CNY, a JSON number or a numeric string, is read as an exact decimal and must be
// positive and in range. The quote's date is the top-level "date" string, else empty; its
// source is "Frankfurter". A network failure is a badResponse. Blocks the calling thread; safe
// to call from several threads at once.
std::expected<FxQuote, FxError> fetchUSDToCNY(std::string_view url = kDefaultURL,
                                              std::chrono::milliseconds timeout = kDefaultTimeout);

// The quote in one response to such a GET, by the rules above: `status` is the HTTP status.
std::expected<FxQuote, FxError> quoteFromResponse(long status, const std::string& body);

// The two settings values a rate change touches. fxVersion is copied onto stored events, so it
// moves exactly when the rate does.
struct StoredFxRate {
    int64_t cnyPerUsdE4 = 0;
    int64_t fxVersion = 0;

    bool operator==(const StoredFxRate&) const = default;
};

// `current` with the rate set to `cnyPerUsdE4` (already validated by parseInput or a fetch);
// fxVersion goes up by one when the rate differs, and nothing changes when it does not.
StoredFxRate applied(StoredFxRate current, int64_t cnyPerUsdE4);

}  // namespace FxRate
}  // namespace kestrel
