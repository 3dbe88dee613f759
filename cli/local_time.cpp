#include "cli/local_time.hpp"

namespace kestrel::cli {

std::string formatLocal(double t, const char* pattern) {
    const std::time_t secs = static_cast<std::time_t>(t);
    std::tm tm{};
    localtime_r(&secs, &tm);
    char buf[64];
    const std::size_t n = std::strftime(buf, sizeof buf, pattern, &tm);
    return std::string(buf, n);
}

double localMidnight(std::time_t now, int daysBack) {
    std::tm tm{};
    localtime_r(&now, &tm);
    tm.tm_hour = 0;
    tm.tm_min = 0;
    tm.tm_sec = 0;
    tm.tm_mday -= daysBack;
    tm.tm_isdst = -1;  // let mktime find whether that day is in summer time
    return static_cast<double>(std::mktime(&tm));
}

}  // namespace kestrel::cli
