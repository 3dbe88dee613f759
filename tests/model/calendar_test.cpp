#include "core/model/calendar.hpp"

#include <gtest/gtest.h>
#include <unicode/locid.h>

namespace kestrel {
namespace {

TEST(CalendarTest, CurrentTakesTheFirstWeekdayFromTheLocale) {
    const icu::Locale saved = icu::Locale::getDefault();
    struct Case {
        const char* locale;
        int firstWeekday;  // 0 = Sunday
    };
    const Case cases[] = {{"en_US", 0}, {"de_DE", 1}, {"ar_EG", 6}};
    for (const Case& c : cases) {
        UErrorCode status = U_ZERO_ERROR;
        icu::Locale::setDefault(icu::Locale(c.locale), status);
        ASSERT_TRUE(U_SUCCESS(status));
        EXPECT_EQ(Calendar::current().firstWeekday, c.firstWeekday) << c.locale;
        // Pinned calendars do not follow the locale.
        EXPECT_EQ(Calendar::utc().firstWeekday, 1) << c.locale;
        EXPECT_EQ(Calendar::fixedOffset(3600).firstWeekday, 1) << c.locale;
    }
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(saved, status);
}

}  // namespace
}  // namespace kestrel
