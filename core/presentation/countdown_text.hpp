#pragma once
// Spans of time as people read them next to a quota window: "2d 4h", "3h 12m", "8m", "<1m".
// The same in every language (the units are the usual abbreviations in Chinese interfaces too).

#include <optional>
#include <string>

namespace kestrel {

// `seconds` truncated to whole minutes, as the two largest units that apply ("2d 4h",
// "3h 12m", "8m"); under a minute, negative or not finite: "<1m".
std::string durationText(double seconds);

// The time left until `resetsAt`. Absent without a reset time and once it has passed: a window
// that has reset has nothing left to count down.
std::optional<std::string> resetCountdown(std::optional<double> resetsAt, double now);

}  // namespace kestrel
