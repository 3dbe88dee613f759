#include "core/app/settings_editor.hpp"

#include <gtest/gtest.h>

#include "core/model/calendar.hpp"
#include "tests/support/time_zone.hpp"

namespace kestrel {
namespace {

using Kind = SettingsInputError::Kind;

nlohmann::ordered_json storedAfter(const std::string& field, const std::string& value) {
    const auto edited = withSetting(AppSettings{}, field, value, "2026-11-24");
    EXPECT_TRUE(edited.has_value()) << field << " = " << value;
    return edited ? settingValue(edited->settings, *edited->field) : nullptr;
}

TEST(SettingsEditor, TypedValuesBecomeWhatTheStoredSettingsHold) {
    test_support::ScopedTimeZone utc("UTC");
    const struct {
        const char* field;
        const char* typed;
        nlohmann::ordered_json stored;
    } cases[] = {
        {"storeProject", "false", false},
        {"storeProject", "No", false},
        {"storeSession", "ON", true},
        {"billingmode", "LOCALZERO", "localZero"},  // names and cases in any case
        {"language", "zh-hans", "zh-Hans"},
        {"displayCurrency", "cny", "cny"},
        {"retentionDays", "365", 365},
        {"menuBarRotateInterval", "2.5", 2.5},
        {"menuBarElements", " quota , todayCost ", nlohmann::ordered_json{"quota", "todayCost"}},
        {"menuBarElements", "", nlohmann::ordered_json::array()},
        {"usageImportSince", "2026-01-01", 1767225600.0},
        {"usageImportSince", "1767225600", 1767225600.0},
        {"usageImportSince", "none", nullptr},
        {"fxProvider", " my bank ", " my bank "},  // text stands as typed
        {"dailyBudgetCNYFen", "", nullptr},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(storedAfter(c.field, c.typed), c.stored) << c.field << " = " << c.typed;
    }
}

TEST(SettingsEditor, RefusesWhatTheFieldDoesNotTakeAndNamesWhy) {
    const struct {
        const char* field;
        const char* typed;
        Kind kind;
    } cases[] = {
        {"storeProjects", "false", Kind::unknownField},
        {"fxVersion", "3", Kind::keptByKestrel},
        {"grantedBookmark", "abc", Kind::keptByKestrel},
        {"storeProject", "maybe", Kind::badValue},
        {"billingMode", "free", Kind::badValue},
        {"retentionDays", "-1", Kind::badValue},    // below the minimum
        {"retentionDays", "1.5", Kind::badValue},
        {"menuBarRotateInterval", "0", Kind::badValue},  // must stay positive
        {"menuBarElements", "todayCost,nope", Kind::badValue},
        {"usageImportSince", "yesterday", Kind::badValue},
        {"cnyPerUsdE4", "7.2", Kind::badValue},     // the stored unit is × 10,000
        {"cnyPerUsdE4", "200000", Kind::badValue},  // no real rate
        {"storeProject", "none", Kind::badValue},   // only optional fields can be cleared
    };
    for (const auto& c : cases) {
        const auto edited = withSetting(AppSettings{}, c.field, c.typed, "2026-11-24");
        ASSERT_FALSE(edited.has_value()) << c.field << " = " << c.typed;
        EXPECT_EQ(edited.error().kind, c.kind) << c.field << " = " << c.typed;
        EXPECT_EQ(edited.error().info == nullptr, c.kind == Kind::unknownField);
    }
}

TEST(SettingsEditor, ATypedRateMovesItsVersionOnlyWhenItChanges) {
    AppSettings s;
    s.fxProvider = "a rates service";
    const auto same = withSetting(s, "cnyPerUsdE4", std::to_string(s.cnyPerUsdE4), "2026-11-24");
    ASSERT_TRUE(same);
    EXPECT_EQ(same->settings.fxVersion, s.fxVersion);
    const auto moved = withSetting(s, "cnyPerUsdE4", "71000", "2026-11-24");
    ASSERT_TRUE(moved);
    EXPECT_EQ(moved->settings.cnyPerUsdE4, 71000);
    EXPECT_EQ(moved->settings.fxVersion, s.fxVersion + 1);
    EXPECT_EQ(moved->settings.fxDate, "2026-11-24");
    EXPECT_FALSE(moved->settings.fxProvider) << "a typed rate has no provider";
}

// Whatever the listing shows can be typed back: every value of a field, written as the listing
// writes it, sets the field to the same value.
TEST(SettingsEditor, EveryListedValueCanBeTypedBack) {
    AppSettings s;
    s.billingMode = BillingMode::tokensOnly;
    s.menuBarElements = {MenuBarElement::activity};
    s.usageImportSince = 1767225600.5;
    s.skippedAppUpdateVersion = "2.0";
    s.dailyBudgetCNYFen = 5000;
    for (const auto& entry : settingsEntries(s)) {
        const auto& field = *entry.field;
        if (field.kind == AppSettingsField::Kind::bytes || field.name == "fxVersion") {
            continue;
        }
        std::string typed;
        if (entry.value.is_null()) {
            typed = "none";
        } else if (entry.value.is_string()) {
            typed = entry.value.get<std::string>();
        } else if (entry.value.is_array()) {
            for (const auto& v : entry.value) {
                typed += (typed.empty() ? "" : ",") + v.get<std::string>();
            }
        } else {
            typed = entry.value.dump();
        }
        const auto edited = withSetting(s, field.name, typed, "2026-11-24");
        ASSERT_TRUE(edited) << field.name << " = " << typed;
        EXPECT_EQ(edited->settings, s) << field.name << " = " << typed;
    }
}

TEST(SettingsEditor, AllowedValuesNameTheChoicesInEitherLanguage) {
    DisplayChoices en;
    DisplayChoices zh;
    zh.language = AppLanguage::zhHans;
    for (const auto& field : appSettingsFields()) {
        const auto english = allowedValues(field, en);
        EXPECT_FALSE(english.empty()) << field.name;
        EXPECT_EQ(english.find("settings."), std::string::npos) << field.name << ": " << english;
        EXPECT_NE(allowedValues(field, zh), english) << field.name;
        for (const auto& c : field.cases) {
            EXPECT_NE(english.find(c), std::string::npos) << field.name << " lacks " << c;
        }
    }
}

}  // namespace
}  // namespace kestrel
