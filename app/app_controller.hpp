#pragma once
// The running application: one AppSession for the app's life, the scans, quota requests and
// pulse reading on worker threads, the main window with its pages, the tray item and the
// notifications. Everything on this object runs on the main thread; workers hand results back
// through queued calls, so the window never waits on a scan or a request.

#include <QObject>
#include <QPointer>
#include <QTimer>
#include <atomic>
#include <memory>
#include <optional>
#include <stop_token>

#include "app/background_queue.hpp"
#include "app/onboarding/onboarding_view.hpp"
#include "app/page.hpp"
#include "app/tray/tray_figures.hpp"
#include "app/ui_text.hpp"
#include "core/app/app_session.hpp"
#include "core/app/live_activity.hpp"
#include "core/app/notification_policy.hpp"
#include "core/plans/live_quota.hpp"
#include "core/plans/quota_refresher.hpp"

namespace kestrel {
class UsageWatch;
}

namespace kestrel::desktop {

class MainWindow;
class TrayItem;
class DesktopNotifier;

struct ControllerOptions {
    bool follow = true;         // file watcher, periodic refresh, live activity, quota requests
    bool notifications = true;  // send desktop notifications
    bool confirmDialogs = true; // ask before quitting when the settings say so
    std::chrono::milliseconds periodicRefresh = std::chrono::minutes(5);
    std::chrono::milliseconds pulsePoll = std::chrono::seconds(2);
};

class AppController : public QObject, public PageHost {
    Q_OBJECT

  public:
    AppController(std::unique_ptr<AppSession> session, AppLanguage language,
                  ControllerOptions options = {}, QObject* parent = nullptr);
    ~AppController() override;

    // PageHost
    AppSession& session() override { return *session_; }
    const UiText& text() const override { return text_; }
    void runInBackground(std::function<void()> work, std::function<void()> done) override;
    void requestRefresh() override;

    MainWindow& window() { return *window_; }
    TrayItem& tray() { return *tray_; }
    DesktopNotifier& notifier() { return *notifier_; }

    // Takes `page` into the window.
    void addPage(Page* page);

    // Starts following (watcher first, then the first scan with plan discovery, timers, pulses)
    // and shows the window or the tray item. Before the user has been through onboarding, the
    // onboarding comes first and nothing of the home is read until it has finished.
    void start();
    // The onboarding on show, if any (tests walk it).
    OnboardingView* onboarding() const { return onboarding_; }
    // Reads every figure again now (pages, tray, notifications); the screenshot mode and the
    // tests call it after a scan of their own.
    void reloadNow();

    void setLanguage(AppLanguage language);
    void setTheme(AppTheme theme);

    // Quit from the menu: asks first when confirmBeforeQuit (and dialogs are allowed), then
    // shuts down and leaves the event loop. False when the user said no.
    bool quit();
    // Stops the timers, the pulse reader and the quota requests, cancels a running scan, and
    // stops the watcher, all before the session (and its store) can close. Idempotent.
    void shutdown();

    void raiseWindow();
    // The tray's figures and text as last composed.
    const TrayFigures& trayFigures() const { return figures_; }
    const MenuBarText& menuBarText() const { return composed_; }

  signals:
    void ledgerChanged();   // after the pages read a commit
    void firstScanDone();
    void statusChanged(const QString& message);

  private:
    void scheduleReload();
    void readFigures();
    void recompose();
    void evaluateNotifications(bool deliver);
    void restoreNotificationMemory();
    void saveNotificationMemory();
    QString notificationMemoryPath() const;
    void postPending();
    void refreshQuotas();
    void pollPulses();
    void onSettingsChanged(const AppSettings& settings);
    void explainMissingTray();
    void showStartWindow();
    void startFollowing();

    std::unique_ptr<AppSession> session_;
    UiText text_;
    ControllerOptions options_;
    AppSettings appliedSettings_;

    // Declared before the workers so that they are gone first.
    std::unique_ptr<LiveActivity> live_;
    QuotaRefresher refresher_;
    TokenCache tokens_;
    NotificationPolicy policy_;
    bool policyRestored_ = false;
    std::string savedMemory_;  // the memory as last written to the support folder
    std::optional<int64_t> firstImportEvents_;

    std::unique_ptr<BackgroundQueue> scans_;  // scans and page work, in order
    std::unique_ptr<BackgroundQueue> network_;  // quota requests
    std::unique_ptr<BackgroundQueue> pulses_;   // reading the hooks' pulse files
    std::stop_source stop_;
    UsageWatch* watch_ = nullptr;
    std::atomic<bool> pendingPosted_{false};
    std::atomic<bool> pulsePosted_{false};

    std::unique_ptr<MainWindow> window_;
    QPointer<OnboardingView> onboarding_;
    TrayItem* tray_ = nullptr;
    DesktopNotifier* notifier_ = nullptr;
    QTimer reloadTimer_;
    QTimer refreshTimer_;
    QTimer pulseTimer_;
    int refreshTicks_ = 0;
    TrayFigures figures_;
    MenuBarText composed_;
    bool shutDown_ = false;
};

}  // namespace kestrel::desktop
