#include "core/model/timestamp.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

namespace kestrel {
namespace {

// Epoch seconds below were computed with `date -u -d <text> +%s`.
constexpr double kBase = 1787307330;  // 2026-08-21T10:15:30Z

TEST(TimestampTest, ParsesTheFormsAgentsWrite) {
    struct Case {
        const char* text;
        double expected;
    };
    const std::vector<Case> cases = {
        {"2026-08-21T10:15:30Z", kBase},
        {"2026-08-21T10:15:30.5Z", kBase + 0.5},
        {"2026-08-21T10:15:30.12Z", kBase + 0.12},
        {"2026-08-21T10:15:30.123Z", kBase + 0.123},
        {"2026-08-21T10:15:30.123456Z", kBase + 0.123456},
        {"2026-08-21T10:15:30.987654321Z", kBase + 0.987654321},
        {"2026-08-21T10:15:30,25Z", kBase + 0.25},
        {"2026-08-21T10:15:30+02:00", 1787300130},
        {"2026-08-21T10:15:30+0200", 1787300130},
        {"2026-08-21T10:15:30-05", 1787325330},
        {"2026-08-21T10:15:30-05:30", 1787327130},
        {"2026-08-21T10:15:30.250+02:00", 1787300130.25},
        {"2026-08-21T10:15:30+00:00", kBase},
        {"2026-08-21t10:15:30z", kBase},
        {"2026-08-21 10:15:30Z", kBase},
        {"2026-08-21T10:15:30", kBase},  // no zone: UTC
        {"2024-02-29T00:00:00Z", 1709164800},
        {"2000-02-29T12:00:00Z", 951825600},
        {"2026-12-31T23:59:59Z", 1798761599},
        {"1970-01-01T00:00:00Z", 0},
        {"1969-12-31T23:59:59Z", -1},
        {"2026-01-01T01:00:00+02:00", 1767222000},  // the offset crosses into the previous year
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const auto parsed = parseISO8601(c.text);
        ASSERT_TRUE(parsed);
        EXPECT_NEAR(*parsed, c.expected, 1e-6);
    }
}

TEST(TimestampTest, RejectsMalformedAndImpossibleDates) {
    for (const char* text : {
             "",
             "2026-08-21",
             "2026-08-21T10:15",
             "2026-08-21T10:15:30Zjunk",
             "2026-08-21T10:15:30Z ",
             " 2026-08-21T10:15:30Z",
             "2026-08-21T10:15:30.Z",
             "2026-08-21T10:15:30+2",
             "2026-08-21T10:15:30+02:0",
             "2026-08-21T10:15:30+020",
             "2026-08-21T10:15:30+25:00",
             "2026-08-21X10:15:30Z",
             "26-08-21T10:15:30Z",
             "2026-8-21T10:15:30Z",
             "2026/08/21T10:15:30Z",
             "2023-02-29T00:00:00Z",
             "1900-02-29T00:00:00Z",
             "2026-04-31T00:00:00Z",
             "2026-13-01T00:00:00Z",
             "2026-00-10T00:00:00Z",
             "2026-08-00T00:00:00Z",
             "2026-08-21T24:00:00Z",
             "2026-08-21T10:60:00Z",
             "2026-08-21T10:15:61Z",
         }) {
        EXPECT_FALSE(parseISO8601(text)) << text;
    }
}

TEST(TimestampTest, FormatsUtcWithRoundedMilliseconds) {
    struct Case {
        double seconds;
        const char* expected;
    };
    for (const Case c : {
             Case{kBase, "2026-08-21T10:15:30.000Z"},
             Case{kBase + 0.1234, "2026-08-21T10:15:30.123Z"},
             Case{kBase + 0.1236, "2026-08-21T10:15:30.124Z"},
             Case{kBase + 0.9996, "2026-08-21T10:15:31.000Z"},
             Case{1798761599.9999, "2027-01-01T00:00:00.000Z"},
             Case{1709164800, "2024-02-29T00:00:00.000Z"},
             Case{0, "1970-01-01T00:00:00.000Z"},
             Case{-1, "1969-12-31T23:59:59.000Z"},
             Case{-0.25, "1969-12-31T23:59:59.750Z"},
         }) {
        EXPECT_EQ(formatISO8601UTC(c.seconds), c.expected) << std::to_string(c.seconds);
    }
}

TEST(TimestampTest, FormatAndParseRoundTrip) {
    std::mt19937_64 rng(2026);
    // Whole milliseconds from 1901 to 2100.
    std::uniform_int_distribution<int64_t> millis(-2'177'452'800'000, 4'102'444'800'000);
    for (int i = 0; i < 5000; ++i) {
        const double seconds = static_cast<double>(millis(rng)) / 1000;
        const std::string text = formatISO8601UTC(seconds);
        SCOPED_TRACE(text);
        const auto parsed = parseISO8601(text);
        ASSERT_TRUE(parsed);
        ASSERT_NEAR(*parsed, seconds, 1e-4);
        ASSERT_EQ(formatISO8601UTC(*parsed), text);
    }
}

}  // namespace
}  // namespace kestrel
