#include "core/presentation/countdown_text.hpp"

#include <algorithm>
#include <cmath>

namespace kestrel {

std::string durationText(double seconds) {
    const auto total = static_cast<long long>(std::isfinite(seconds) ? std::max(0.0, seconds) : 0.0);
    const long long days = total / 86400, hours = total % 86400 / 3600, minutes = total % 3600 / 60;
    if (days > 0) {
        return std::to_string(days) + "d " + std::to_string(hours) + "h";
    }
    if (hours > 0) {
        return std::to_string(hours) + "h " + std::to_string(minutes) + "m";
    }
    return minutes > 0 ? std::to_string(minutes) + "m" : std::string("<1m");
}

std::optional<std::string> resetCountdown(std::optional<double> resetsAt, double now) {
    if (!resetsAt || !std::isfinite(*resetsAt) || *resetsAt <= now) {
        return std::nullopt;
    }
    return durationText(*resetsAt - now);
}

}  // namespace kestrel
