// The settings row 'app' in the ledger: defaults before anything is saved, a saved record read
// back after reopening, keys of other builds kept across a save, and damaged rows.

#include "core/ledger/settings_store.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;

TEST(SettingsStore, AFreshLedgerGivesTheDefaultsWithNothingReported) {
    TempDir dir;
    UsageStore store(dir.path());
    const auto loaded = SettingsStore::load(store);
    EXPECT_EQ(loaded.settings, AppSettings{});
    EXPECT_TRUE(loaded.missingFields.empty());
    EXPECT_TRUE(loaded.invalidFields.empty());
    EXPECT_EQ(store.setting(SettingsStore::kKey), std::nullopt);  // loading writes nothing
}

TEST(SettingsStore, ASavedRecordIsReadBackAfterReopening) {
    TempDir dir;
    AppSettings settings;
    settings.theme = AppTheme::light;
    settings.language = AppLanguage::zhHans;
    settings.cnyPerUsdE4 = 71500;
    settings.fxDate = "2026-11-20";
    settings.consoleModules = {ConsoleModuleKind::quota};
    settings.grantedBookmark = std::string("\x00\x01", 2);
    {
        UsageStore store(dir.path());
        store.setSetting("plan_salt", "s1");
        SettingsStore::save(store, settings);
        settings.fxDate.reset();
        SettingsStore::save(store, settings);  // a second save replaces the first
    }
    UsageStore reopened(dir.path());
    const auto loaded = SettingsStore::load(reopened);
    EXPECT_EQ(loaded.settings, settings);
    EXPECT_TRUE(loaded.missingFields.empty());
    EXPECT_TRUE(loaded.invalidFields.empty());
    EXPECT_EQ(reopened.setting("plan_salt"), "s1");  // other rows untouched
}

TEST(SettingsStore, KeysOfOtherBuildsSurviveASave) {
    TempDir dir;
    UsageStore store(dir.path());
    store.setSetting(SettingsStore::kKey, R"({"theme":"dark","futureKey":1})");

    auto loaded = SettingsStore::load(store);
    EXPECT_EQ(loaded.settings.theme, AppTheme::dark);
    loaded.settings.launchAtLogin = true;
    SettingsStore::save(store, loaded.settings);

    const auto stored = nlohmann::json::parse(store.setting(SettingsStore::kKey).value());
    EXPECT_EQ(stored["futureKey"], 1);
    EXPECT_EQ(stored["theme"], "dark");
    EXPECT_EQ(stored["launchAtLogin"], true);
}

TEST(SettingsStore, ADamagedRowReadsAsDefaultsAndIsReplacedBySave) {
    TempDir dir;
    UsageStore store(dir.path());
    store.setSetting(SettingsStore::kKey, "{\"theme\": \"dark\", oops");

    const auto loaded = SettingsStore::load(store);
    EXPECT_FALSE(loaded.isObject);
    EXPECT_EQ(loaded.settings, AppSettings{});

    AppSettings settings;
    settings.retentionDays = 30;
    SettingsStore::save(store, settings);
    const auto reloaded = SettingsStore::load(store);
    EXPECT_TRUE(reloaded.isObject);
    EXPECT_EQ(reloaded.settings, settings);
}

TEST(SettingsStore, AnUnreadableLedgerThrowsInsteadOfGivingDefaults) {
    TempDir dir;
    UsageStore store(dir.path());
    store.close();
    EXPECT_THROW(SettingsStore::save(store, AppSettings{}), StoreError);
    EXPECT_THROW(SettingsStore::load(store), StoreError);
}

}  // namespace
}  // namespace kestrel
