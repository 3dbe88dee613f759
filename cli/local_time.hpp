#pragma once
// Times shown to the user are in the local calendar of the process (TZ honoured).

#include <ctime>
#include <string>

namespace kestrel::cli {

// `t` (seconds since the epoch) through strftime's `pattern` in local time.
std::string formatLocal(double t, const char* pattern);

// Local midnight `daysBack` days before the day of `now`.
double localMidnight(std::time_t now, int daysBack);

}  // namespace kestrel::cli
