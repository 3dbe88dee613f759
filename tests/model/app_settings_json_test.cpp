// AppSettings as JSON: every field under its stored key, raw enumeration values, keys of newer
// builds kept, and lenient decoding of hand-edited or damaged texts.

#include "core/model/app_settings_json.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace kestrel {
namespace {

using nlohmann::ordered_json;

// The stored keys, in the record's order. Renaming one loses the users' stored value.
const std::vector<std::string> kStoredKeys = {"menuBarElements",
                                              "menuBarRotateInterval",
                                              "menuBarPlatformStyle",
                                              "menuBarMetricStyle",
                                              "billingMode",
                                              "cnyPerUsdE4",
                                              "fxVersion",
                                              "fxDate",
                                              "fxProvider",
                                              "retentionDays",
                                              "storeProject",
                                              "storeSession",
                                              "cursorAccountUsageEnabled",
                                              "traeCNAccountUsageEnabled",
                                              "cursorAccountUsageLastSuccessAt",
                                              "traeCNAccountUsageLastSuccessAt",
                                              "dailyBudgetCNYFen",
                                              "monthlyBudgetCNYFen",
                                              "grantedBookmark",
                                              "didGrantHomeAccess",
                                              "didCompleteOnboarding",
                                              "usageImportSince",
                                              "launchAtLogin",
                                              "keepMenuBar",
                                              "didConfirmMenuBarStay",
                                              "confirmBeforeQuit",
                                              "theme",
                                              "language",
                                              "displayCurrency",
                                              "showMascotSpeech",
                                              "quotaNotificationsEnabled",
                                              "activityNotificationsEnabled",
                                              "activityNotifyCompleted",
                                              "activityNotifyApproval",
                                              "activityNotifyQuestion",
                                              "activityNotifyFailure",
                                              "budgetNotificationsEnabled",
                                              "importNotificationsEnabled",
                                              "didDismissTrayHint",
                                              "consoleModules",
                                              "autoSyncModelPrices",
                                              "autoCheckAppUpdates",
                                              "skippedAppUpdateVersion",
                                              "lastAppUpdateCheckAt"};

const std::vector<std::string> kOptionalKeys = {"fxDate",
                                                "fxProvider",
                                                "cursorAccountUsageLastSuccessAt",
                                                "traeCNAccountUsageLastSuccessAt",
                                                "dailyBudgetCNYFen",
                                                "monthlyBudgetCNYFen",
                                                "grantedBookmark",
                                                "usageImportSince",
                                                "skippedAppUpdateVersion",
                                                "lastAppUpdateCheckAt"};

// Every field away from its default, so a field the coding forgets comes back different.
AppSettings everyFieldChanged() {
    AppSettings s;
    s.menuBarElements = {MenuBarElement::activity, MenuBarElement::quota};
    s.menuBarRotateInterval = 12.5;
    s.menuBarPlatformStyle = MenuBarPresentationStyle::iconAndText;
    s.menuBarMetricStyle = MenuBarPresentationStyle::iconOnly;
    s.billingMode = BillingMode::tokensOnly;
    s.cnyPerUsdE4 = 71234;
    s.fxVersion = 3;
    s.fxDate = "2026-11-20";
    s.fxProvider = "Frankfurter";
    s.retentionDays = 90;
    s.storeProject = false;
    s.storeSession = false;
    s.cursorAccountUsageEnabled = true;
    s.traeCNAccountUsageEnabled = true;
    s.cursorAccountUsageLastSuccessAt = 1'763'600'000.25;
    s.traeCNAccountUsageLastSuccessAt = 1'763'600'100.5;
    s.dailyBudgetCNYFen = 5'000;
    s.monthlyBudgetCNYFen = 100'000;
    s.grantedBookmark = std::string("\x00\xff\x10 bookmark", 12);
    s.didGrantHomeAccess = true;
    s.didCompleteOnboarding = true;
    s.usageImportSince = 1'700'000'000.0;
    s.launchAtLogin = true;
    s.keepMenuBar = false;
    s.didConfirmMenuBarStay = true;
    s.confirmBeforeQuit = false;
    s.theme = AppTheme::dark;
    s.language = AppLanguage::zhHans;
    s.displayCurrency = DisplayCurrency::cny;
    s.showMascotSpeech = false;
    s.quotaNotificationsEnabled = false;
    s.activityNotificationsEnabled = false;
    s.activityNotifyCompleted = false;
    s.activityNotifyApproval = false;
    s.activityNotifyQuestion = false;
    s.activityNotifyFailure = false;
    s.budgetNotificationsEnabled = false;
    s.importNotificationsEnabled = false;
    s.didDismissTrayHint = true;
    s.consoleModules = {ConsoleModuleKind::events, ConsoleModuleKind::overview};
    s.autoSyncModelPrices = true;
    s.autoCheckAppUpdates = true;
    s.skippedAppUpdateVersion = "2.4.0";
    s.lastAppUpdateCheckAt = 1'763'000'000.0;
    return s;
}

std::vector<std::string> keysOf(const std::string& text) {
    std::vector<std::string> keys;
    const auto document = ordered_json::parse(text);
    for (const auto& [key, value] : document.items()) {
        keys.push_back(key);
    }
    return keys;
}

TEST(AppSettingsJson, EveryFieldRoundTripsUnderItsKeyInOrder) {
    const AppSettings changed = everyFieldChanged();
    const std::string text = encodeAppSettings(changed);
    EXPECT_EQ(keysOf(text), kStoredKeys);

    const auto decoded = decodeAppSettings(text);
    EXPECT_EQ(decoded.settings, changed);
    EXPECT_TRUE(decoded.missingFields.empty());
    EXPECT_TRUE(decoded.invalidFields.empty());
    EXPECT_TRUE(decoded.isObject);
}

TEST(AppSettingsJson, EnumerationsAndBytesAreStoredAsText) {
    AppSettings s = everyFieldChanged();
    s.language = AppLanguage::zhHans;
    s.displayCurrency = DisplayCurrency::automatic;
    s.grantedBookmark = std::string("\x00\x01\x02", 3);
    const auto j = ordered_json::parse(encodeAppSettings(s));
    EXPECT_EQ(j["language"], "zh-Hans");
    EXPECT_EQ(j["displayCurrency"], "auto");
    EXPECT_EQ(j["billingMode"], "tokensOnly");
    EXPECT_EQ(j["menuBarElements"], ordered_json::parse(R"(["activity","quota"])"));
    EXPECT_EQ(j["grantedBookmark"], "AAEC");
}

TEST(AppSettingsJson, DefaultsLeaveOptionalKeysOutAndReportTheRestAsMissing) {
    const std::string text = encodeAppSettings(AppSettings{});
    for (const auto& key : kOptionalKeys) {
        EXPECT_FALSE(ordered_json::parse(text).contains(key)) << key;
    }

    const auto empty = decodeAppSettings("{}");
    EXPECT_EQ(empty.settings, AppSettings{});
    EXPECT_TRUE(empty.invalidFields.empty());
    std::vector<std::string> required;
    for (const auto& key : kStoredKeys) {
        if (std::find(kOptionalKeys.begin(), kOptionalKeys.end(), key) == kOptionalKeys.end()) {
            required.push_back(key);
        }
    }
    EXPECT_EQ(empty.missingFields, required);
}

TEST(AppSettingsJson, KeysThisBuildDoesNotKnowSurviveARewrite) {
    const std::string stored =
        R"({"theme":"dark","futureKey":1,"fxProvider":"Frankfurter","nested":{"a":[1,"x"]}})";
    auto settings = decodeAppSettings(stored).settings;
    EXPECT_EQ(settings.theme, AppTheme::dark);

    settings.language = AppLanguage::en;
    settings.fxProvider.reset();  // an absent optional must not leave the old value behind
    const auto rewritten = ordered_json::parse(encodeAppSettings(settings, stored));
    EXPECT_EQ(rewritten["futureKey"], 1);
    EXPECT_EQ(rewritten["nested"], ordered_json::parse(R"({"a":[1,"x"]})"));
    EXPECT_EQ(rewritten["theme"], "dark");
    EXPECT_EQ(rewritten["language"], "en");
    EXPECT_FALSE(rewritten.contains("fxProvider"));
    // Known keys keep their place; new ones follow.
    EXPECT_EQ(keysOf(rewritten.dump())[1], "futureKey");
}

TEST(AppSettingsJson, APreviousTextThatIsNotAnObjectIsIgnored) {
    for (const char* previous : {"", "garbage", "[1]", "null"}) {
        const auto text = encodeAppSettings(AppSettings{}, previous);
        EXPECT_EQ(keysOf(text).size(), kStoredKeys.size() - kOptionalKeys.size()) << previous;
    }
}

TEST(AppSettingsJson, TextFieldsWithInvalidUtf8StillEncode) {
    AppSettings s;
    s.fxProvider = "bad \xff byte";
    const std::string text = encodeAppSettings(s);
    const auto decoded = decodeAppSettings(text);
    ASSERT_TRUE(decoded.settings.fxProvider.has_value());
    EXPECT_NE(*decoded.settings.fxProvider, *s.fxProvider);  // replaced, not thrown on
    EXPECT_TRUE(decoded.invalidFields.empty());
}

TEST(AppSettingsJson, LenientDecodingPerField) {
    using Change = std::function<void(AppSettings&)>;
    const struct {
        const char* text;
        Change expected;  // applied to the defaults
        std::vector<std::string> invalid;
    } cases[] = {
        {R"({"theme":5})", [](AppSettings&) {}, {"theme"}},
        {R"({"theme":"sepia"})", [](AppSettings&) {}, {"theme"}},
        {R"({"language":"zh-Hans","displayCurrency":"cny"})",
         [](AppSettings& s) {
             s.language = AppLanguage::zhHans;
             s.displayCurrency = DisplayCurrency::cny;
         },
         {}},
        {R"({"storeProject":"no","keepMenuBar":0})",
         [](AppSettings&) {},
         {"storeProject", "keepMenuBar"}},
        {R"({"storeSession":null})", [](AppSettings&) {}, {"storeSession"}},
        {R"({"cnyPerUsdE4":0})", [](AppSettings&) {}, {"cnyPerUsdE4"}},
        {R"({"cnyPerUsdE4":-72000})", [](AppSettings&) {}, {"cnyPerUsdE4"}},
        {R"({"cnyPerUsdE4":7.25})", [](AppSettings&) {}, {"cnyPerUsdE4"}},
        {R"({"cnyPerUsdE4":"72500"})", [](AppSettings&) {}, {"cnyPerUsdE4"}},
        {R"({"cnyPerUsdE4":18446744073709551615})", [](AppSettings&) {}, {"cnyPerUsdE4"}},
        {R"({"cnyPerUsdE4":7.25e4})", [](AppSettings& s) { s.cnyPerUsdE4 = 72500; }, {}},
        {R"({"retentionDays":-1,"fxVersion":-2})",
         [](AppSettings&) {},
         {"fxVersion", "retentionDays"}},
        {R"({"dailyBudgetCNYFen":-1})", [](AppSettings&) {}, {"dailyBudgetCNYFen"}},
        {R"({"menuBarRotateInterval":0})", [](AppSettings&) {}, {"menuBarRotateInterval"}},
        {R"({"menuBarRotateInterval":2})", [](AppSettings& s) { s.menuBarRotateInterval = 2; }, {}},
        {R"({"menuBarElements":["quota","weekCost","quota",3]})",
         [](AppSettings& s) { s.menuBarElements = {MenuBarElement::quota}; },
         {"menuBarElements"}},
        {R"({"menuBarElements":["weekCost"]})", [](AppSettings&) {}, {"menuBarElements"}},
        {R"({"menuBarElements":"quota"})", [](AppSettings&) {}, {"menuBarElements"}},
        {R"({"menuBarElements":[]})", [](AppSettings& s) { s.menuBarElements.clear(); }, {}},
        {R"({"consoleModules":{"overview":true}})", [](AppSettings&) {}, {"consoleModules"}},
        {R"({"fxDate":null,"usageImportSince":null})", [](AppSettings&) {}, {}},
        {R"({"fxDate":20261120,"usageImportSince":"yesterday"})",
         [](AppSettings&) {},
         {"fxDate", "usageImportSince"}},
        {R"({"grantedBookmark":"not base64!"})", [](AppSettings&) {}, {"grantedBookmark"}},
        {R"({"grantedBookmark":"AAEC"})",
         [](AppSettings& s) { s.grantedBookmark = std::string("\x00\x01\x02", 3); },
         {}},
        {R"({"theme":"dark","theme":"light"})",
         [](AppSettings& s) { s.theme = AppTheme::light; },
         {}},
    };
    for (const auto& c : cases) {
        AppSettings expected;
        c.expected(expected);
        const auto decoded = decodeAppSettings(c.text);
        EXPECT_TRUE(decoded.isObject) << c.text;
        EXPECT_EQ(decoded.settings, expected) << c.text;
        EXPECT_EQ(decoded.invalidFields, c.invalid) << c.text;
    }
}

TEST(AppSettingsJson, TextsThatAreNotAnObjectGiveTheDefaults) {
    const std::string cases[] = {
        "",
        "garbage",
        "[1,2]",
        R"("app")",
        "null",
        "42",
        R"({"theme":)",
        std::string("{\"fxDate\":\"\xff\"}"),
        std::string(100'000, '['),
    };
    for (const auto& text : cases) {
        const auto decoded = decodeAppSettings(text);
        EXPECT_FALSE(decoded.isObject) << text.substr(0, 40);
        EXPECT_EQ(decoded.settings, AppSettings{}) << text.substr(0, 40);
    }
}

}  // namespace
}  // namespace kestrel
