#include "core/pricing/vendor_cost.hpp"

#include <nlohmann/json.hpp>

#include "core/pricing/decimal.hpp"

namespace kestrel::VendorCost {

std::optional<int64_t> micros(const std::optional<std::string>& rawExtras) {
    if (!rawExtras) {
        return std::nullopt;
    }
    const auto extras = nlohmann::json::parse(*rawExtras, nullptr, false);
    if (extras.is_discarded() || !extras.is_object()) {
        return std::nullopt;
    }

    if (auto ticks = extras.find("costUsdTicks"); ticks != extras.end()) {
        if (ticks->is_number_unsigned()) {
            const auto value = ticks->get<uint64_t>();
            if (value > 0) {
                return static_cast<int64_t>(value / 10'000);
            }
        } else if (ticks->is_number_integer()) {
            const auto value = ticks->get<int64_t>();
            if (value > 0) {
                return value / 10'000;
            }
        }
    }

    if (auto usd = extras.find("costUSD"); usd != extras.end() && usd->is_number()) {
        // The parser already turned the figure into a double; its shortest round-trip text is
        // the decimal the agent wrote (0.0123 stays "0.0123"), which is then scaled exactly
        // rather than multiplied in binary.
        const auto scaled = parseDecimalScaled(usd->dump(), 6, DecimalRounding::halfAwayFromZero);
        if (usd->get<double>() > 0 && scaled) {
            return *scaled;
        }
    }
    return std::nullopt;
}

}  // namespace kestrel::VendorCost
