#pragma once
// The user's settings: one plain record handed to readers, views and the app. It persists as a
// JSON object in the ledger's settings table (core/ledger/settings_store.hpp); its JSON coding is
// in core/model/app_settings_json.hpp.
//
// Defaults favour a useful local tool that stays offline: nothing reaches the network, and no
// hook is installed, until the user asks.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/model/app_language.hpp"
#include "core/model/app_settings_enums.hpp"
#include "core/model/usage_enums.hpp"
#include "core/model/currency.hpp"

namespace kestrel {

struct AppSettings {
    std::vector<MenuBarElement> menuBarElements{MenuBarElement::todayCost,
                                                MenuBarElement::todayTokens};
    double menuBarRotateInterval = 5.0;  // seconds each element stays; always > 0
    MenuBarPresentationStyle menuBarPlatformStyle = MenuBarPresentationStyle::iconOnly;
    MenuBarPresentationStyle menuBarMetricStyle = MenuBarPresentationStyle::textOnly;

    BillingMode billingMode = BillingMode::apiEquivalent;
    int64_t cnyPerUsdE4 = 72000;            // yuan per dollar x 10,000; always > 0
    int64_t fxVersion = 0;                  // bumped whenever cnyPerUsdE4 changes
    std::optional<std::string> fxDate;      // the quote's date as the rate service gave it
    std::optional<std::string> fxProvider;  // where the rate came from; absent when typed in
    int64_t retentionDays = 0;              // 0 keeps everything

    // The data never leave the machine and per-project reports need these, so both default on.
    bool storeProject = true;
    bool storeSession = true;

    // Reading account usage from the providers' servers is a network call: off until asked.
    bool cursorAccountUsageEnabled = false;
    bool traeCNAccountUsageEnabled = false;
    std::optional<double> cursorAccountUsageLastSuccessAt;
    std::optional<double> traeCNAccountUsageLastSuccessAt;

    std::optional<int64_t> dailyBudgetCNYFen;
    std::optional<int64_t> monthlyBudgetCNYFen;

    // The home-folder grant as opaque bytes (a security-scoped bookmark on macOS; never set on
    // Linux, where consent alone is recorded in didGrantHomeAccess).
    std::optional<std::string> grantedBookmark;
    bool didGrantHomeAccess = false;
    bool didCompleteOnboarding = false;
    std::optional<double> usageImportSince;  // ignore usage older than this, when set

    bool launchAtLogin = false;
    bool keepMenuBar = true;  // closing the main window leaves the tray item running
    bool didConfirmMenuBarStay = false;
    bool confirmBeforeQuit = true;

    AppTheme theme = AppTheme::system;
    AppLanguage language = AppLanguage::system;
    DisplayCurrency displayCurrency = DisplayCurrency::automatic;
    bool showMascotSpeech = true;

    bool quotaNotificationsEnabled = true;
    bool activityNotificationsEnabled = true;
    bool activityNotifyCompleted = true;
    bool activityNotifyApproval = true;
    bool activityNotifyQuestion = true;
    bool activityNotifyFailure = true;
    // Two notification kinds of the desktop app with no switch above, and whether the user has
    // dismissed the hint that explains a missing tray.
    bool budgetNotificationsEnabled = true;
    bool importNotificationsEnabled = true;
    bool didDismissTrayHint = false;

    std::vector<ConsoleModuleKind> consoleModules{
        ConsoleModuleKind::overview, ConsoleModuleKind::heatmap, ConsoleModuleKind::models,
        ConsoleModuleKind::sources,  ConsoleModuleKind::quota,   ConsoleModuleKind::events,
    };

    bool autoSyncModelPrices = false;
    bool autoCheckAppUpdates = false;
    std::optional<std::string> skippedAppUpdateVersion;
    std::optional<double> lastAppUpdateCheckAt;

    bool operator==(const AppSettings&) const = default;
};

}  // namespace kestrel
