#pragma once
// The cost an agent itself reported for a request, kept in the event's rawExtras.

#include <cstdint>
#include <optional>
#include <string>

namespace kestrel::VendorCost {

// Micro-USD from the JSON object `rawExtras`: "costUsdTicks" (an integer count of 1/10,000
// micro-dollar) divided by 10,000 with truncation when it is a positive integer; otherwise
// "costUSD" (dollars) × 1,000,000 rounded half away from zero when it is a positive number.
// Absent for anything else: no text, not a JSON object, neither key, zero or negative values,
// or a dollar figure too large for 64-bit micros.
std::optional<int64_t> micros(const std::optional<std::string>& rawExtras);

}  // namespace kestrel::VendorCost
