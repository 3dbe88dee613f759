#pragma once
// The calendar days and hours that reports group by. `current()` follows the process's time zone
// (TZ honoured) and the first weekday of the process's locale; tests pin UTC or a fixed offset,
// which start the week on Monday.

#include <cstdint>
#include <optional>
#include <string>

namespace kestrel {

class Calendar {
  public:
    static Calendar current();
    static Calendar utc();
    static Calendar fixedOffset(int secondsEastOfUTC);

    struct Parts {
        int year = 1970;
        int month = 1;  // 1-12
        int day = 1;    // 1-31
        int hour = 0;   // 0-23
        int minute = 0;
        int second = 0;
        int weekday = 4;  // 0 = Sunday
    };

    Parts parts(double t) const;

    // "yyyy-MM-dd" of the day `t` falls on.
    std::string dayKey(double t) const;

    // The instant the day of `t` starts, and the day `days` later (negative: earlier).
    double startOfDay(double t) const;
    double addingDays(double dayStart, int days) const;

    // The instant a "yyyy-MM-dd" day starts; absent when the text is not a valid date.
    std::optional<double> startOfDay(const std::string& dayKey) const;

    // 0 = Sunday ... 6 = Saturday: the first day of the week. `current()` reads it from the
    // locale (Monday when the locale cannot say); `utc()` and `fixedOffset()` use Monday.
    int firstWeekday = 1;

  private:
    enum class Kind { local, fixed };
    Kind kind_ = Kind::local;
    int offset_ = 0;
};

}  // namespace kestrel
