#pragma once
// ISO-8601 date-times as agents write them, to and from seconds since the Unix epoch.

#include <optional>
#include <string>
#include <string_view>

namespace kestrel {

// Accepts "2026-08-21T10:15:30Z", with a fraction of any length ("…30.123Z"), a zone offset
// ("+02:00", "+0200", "-05"), a space instead of "T", and no zone (read as UTC). Absent for
// anything else, including impossible dates such as February 30.
std::optional<double> parseISO8601(std::string_view text);

// The current time in seconds since the Unix epoch.
double epochNow();

// "2026-08-21T10:15:30.123Z" (milliseconds, UTC).
std::string formatISO8601UTC(double secondsSinceEpoch);

}  // namespace kestrel
