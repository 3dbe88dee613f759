#include "core/model/calendar.hpp"

#include <unicode/calendar.h>
#include <unicode/locid.h>

#include <cmath>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

#include "core/model/timestamp.hpp"

namespace kestrel {

namespace {

// The default locale's first day of the week. ICU numbers days UCAL_SUNDAY = 1 ... UCAL_SATURDAY
// = 7 and we number them 0 = Sunday ... 6; Monday when ICU cannot say.
int localeFirstWeekday() {
    constexpr int monday = 1;
    UErrorCode status = U_ZERO_ERROR;
    const std::unique_ptr<icu::Calendar> calendar(icu::Calendar::createInstance(status));
    if (U_FAILURE(status) || !calendar) {
        return monday;
    }
    const UCalendarDaysOfWeek first = calendar->getFirstDayOfWeek(status);
    if (U_FAILURE(status) || first < UCAL_SUNDAY || first > UCAL_SATURDAY) {
        return monday;
    }
    return static_cast<int>(first) - static_cast<int>(UCAL_SUNDAY);
}

}  // namespace

Calendar Calendar::current() {
    // Asking ICU costs a calendar object; the answer changes only with the default locale, and
    // readers ask once per event.
    static std::mutex mutex;
    static std::string cachedLocale;
    static int cachedWeekday = 1;
    Calendar c;
    {
        std::lock_guard guard(mutex);
        const char* locale = icu::Locale::getDefault().getName();
        if (cachedLocale.empty() || cachedLocale != locale) {
            cachedWeekday = localeFirstWeekday();
            cachedLocale = locale;
        }
        c.firstWeekday = cachedWeekday;
    }
    return c;
}

Calendar Calendar::utc() {
    return fixedOffset(0);
}

Calendar Calendar::fixedOffset(int secondsEastOfUTC) {
    Calendar c;
    c.kind_ = Kind::fixed;
    c.offset_ = secondsEastOfUTC;
    return c;
}

Calendar::Parts Calendar::parts(double t) const {
    std::tm tm{};
    if (kind_ == Kind::local) {
        const std::time_t secs = static_cast<std::time_t>(std::floor(t));
        localtime_r(&secs, &tm);
    } else {
        const std::time_t secs = static_cast<std::time_t>(std::floor(t)) + offset_;
        gmtime_r(&secs, &tm);
    }
    return {tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour,
            tm.tm_min,         tm.tm_sec,     tm.tm_wday};
}

std::string Calendar::dayKey(double t) const {
    const Parts p = parts(t);
    char buf[40];  // room for any int, so the compiler can prove nothing is cut
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d", p.year, p.month, p.day);
    return buf;
}

namespace {

// The instant of a local or offset wall-clock time; mktime normalises out-of-range days.
double instantOf(int year, int month, int day, bool local, int offset) {
    std::tm tm{};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_isdst = -1;
    if (local) {
        return static_cast<double>(std::mktime(&tm));
    }
    return static_cast<double>(timegm(&tm)) - offset;
}

}  // namespace

double Calendar::startOfDay(double t) const {
    const Parts p = parts(t);
    return instantOf(p.year, p.month, p.day, kind_ == Kind::local, offset_);
}

double Calendar::addingDays(double dayStart, int days) const {
    const Parts p = parts(dayStart);
    return instantOf(p.year, p.month, p.day + days, kind_ == Kind::local, offset_);
}

std::optional<double> Calendar::startOfDay(const std::string& dayKey) const {
    // Reuse the strict date check of the timestamp parser.
    if (dayKey.size() != 10 || !parseISO8601(dayKey + "T00:00:00Z")) {
        return std::nullopt;
    }
    const int year = std::stoi(dayKey.substr(0, 4));
    const int month = std::stoi(dayKey.substr(5, 2));
    const int day = std::stoi(dayKey.substr(8, 2));
    return instantOf(year, month, day, kind_ == Kind::local, offset_);
}

}  // namespace kestrel
