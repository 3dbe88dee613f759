#include "core/model/timestamp.hpp"

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>

namespace kestrel {
namespace {

// Days from 1970-01-01 to the given proleptic Gregorian date (Howard Hinnant's algorithm).
int64_t daysFromCivil(int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void civilFromDays(int64_t z, int64_t& y, unsigned& m, unsigned& d) {
    z += 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    y = static_cast<int64_t>(yoe) + era * 400;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    d = doy - (153 * mp + 2) / 5 + 1;
    m = mp < 10 ? mp + 3 : mp - 9;
    y += m <= 2;
}

bool isLeap(int64_t y) {
    return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
}

unsigned daysInMonth(int64_t y, unsigned m) {
    static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && isLeap(y) ? 29 : kDays[m - 1];
}

struct Cursor {
    std::string_view s;
    std::size_t i = 0;

    bool done() const { return i >= s.size(); }
    char peek() const { return done() ? '\0' : s[i]; }

    bool digits(std::size_t n, int& out) {
        if (i + n > s.size()) {
            return false;
        }
        int v = 0;
        for (std::size_t k = 0; k < n; ++k) {
            const char c = s[i + k];
            if (c < '0' || c > '9') {
                return false;
            }
            v = v * 10 + (c - '0');
        }
        i += n;
        out = v;
        return true;
    }

    bool expect(char c) {
        if (peek() != c) {
            return false;
        }
        ++i;
        return true;
    }
};

}  // namespace

std::optional<double> parseISO8601(std::string_view text) {
    Cursor c{text};
    int year, month, day, hour, minute, second;
    if (!c.digits(4, year) || !c.expect('-') || !c.digits(2, month) || !c.expect('-') ||
        !c.digits(2, day)) {
        return std::nullopt;
    }
    if (!(c.expect('T') || c.expect('t') || c.expect(' '))) {
        return std::nullopt;
    }
    if (!c.digits(2, hour) || !c.expect(':') || !c.digits(2, minute) || !c.expect(':') ||
        !c.digits(2, second)) {
        return std::nullopt;
    }
    if (month < 1 || month > 12 || day < 1 ||
        static_cast<unsigned>(day) > daysInMonth(year, static_cast<unsigned>(month)) || hour > 23 ||
        minute > 59 || second > 60) {
        return std::nullopt;
    }
    double fraction = 0;
    if (c.peek() == '.' || c.peek() == ',') {
        ++c.i;
        double scale = 0.1;
        const std::size_t start = c.i;
        while (!c.done() && c.peek() >= '0' && c.peek() <= '9') {
            fraction += (c.peek() - '0') * scale;
            scale /= 10;
            ++c.i;
        }
        if (c.i == start) {
            return std::nullopt;
        }
    }
    int offsetSeconds = 0;
    if (c.expect('Z') || c.expect('z')) {
        // UTC
    } else if (c.peek() == '+' || c.peek() == '-') {
        const int sign = c.peek() == '-' ? -1 : 1;
        ++c.i;
        int oh = 0, om = 0;
        if (!c.digits(2, oh)) {
            return std::nullopt;
        }
        if (c.expect(':')) {
            if (!c.digits(2, om)) {
                return std::nullopt;
            }
        } else if (!c.done()) {
            if (!c.digits(2, om)) {
                return std::nullopt;
            }
        }
        if (oh > 23 || om > 59) {
            return std::nullopt;
        }
        offsetSeconds = sign * (oh * 3600 + om * 60);
    }
    if (!c.done()) {
        return std::nullopt;
    }
    const int64_t days =
        daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day));
    const int64_t seconds = days * 86400 + hour * 3600 + minute * 60 + second - offsetSeconds;
    return static_cast<double>(seconds) + fraction;
}

std::string formatISO8601UTC(double secondsSinceEpoch) {
    const double whole = std::floor(secondsSinceEpoch);
    int64_t millis = static_cast<int64_t>(std::llround((secondsSinceEpoch - whole) * 1000));
    int64_t total = static_cast<int64_t>(whole);
    if (millis == 1000) {
        millis = 0;
        ++total;
    }
    int64_t days = total / 86400;
    int64_t rem = total % 86400;
    if (rem < 0) {
        rem += 86400;
        --days;
    }
    int64_t y;
    unsigned m, d;
    civilFromDays(days, y, m, d);
    char buf[40];
    std::snprintf(buf, sizeof buf, "%04lld-%02u-%02uT%02lld:%02lld:%02lld.%03lldZ",
                  static_cast<long long>(y), m, d, static_cast<long long>(rem / 3600),
                  static_cast<long long>(rem / 60 % 60), static_cast<long long>(rem % 60),
                  static_cast<long long>(millis));
    return buf;
}

double epochNow() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace kestrel
