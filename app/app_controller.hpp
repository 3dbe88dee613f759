#pragma once
// The running application: one AppSession for the app's life, the scans, quota requests, pulse
// reading and the ledger reads behind every figure on worker threads, the main window with its
// pages, the tray item and the notifications. Everything on this object runs on the main thread;
// workers hand results back through queued calls, so the window never waits on a scan, a read
// or a request.

#include <QObject>
#include <QPointer>
#include <QTimer>
#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stop_token>

#include "app/background_queue.hpp"
#include "app/coalesced_read.hpp"
#include "app/onboarding/onboarding_view.hpp"
#include "app/page.hpp"
#include "app/tray/tray_figures.hpp"
#include "app/ui_text.hpp"
#include "core/app/app_session.hpp"
#include "core/app/live_activity.hpp"
#include "core/app/notification_policy.hpp"
#include "core/model/timestamp.hpp"
#include "core/plans/key_store.hpp"
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
    // The clock the figures are read at (today, this month); the benchmark runs a simulated one.
    std::function<double()> clock = [] { return epochNow(); };
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
    void readLedger(QObject* receiver, ReadLane lane, std::function<void(UsageStore&)> read,
                    std::function<void()> done) override;
    void requestRefresh() override;

    // Reads asked for and not yet handed back to the main thread.
    int readsInFlight() const { return readsInFlight_; }
    // Runs the event loop until every read asked for has been shown (or `timeoutMs` passed);
    // the screenshot mode, the benchmark and the tests use it after reloadNow(). True when done.
    bool waitForReads(int timeoutMs = 60'000);
    // As waitForReads, and also until the page work queued so far (runInBackground) is done and
    // shown: the screenshots wait for it.
    bool waitForBackground(int timeoutMs = 60'000);
    // Tests: runs on the reading worker before each read (a slow ledger, say).
    void setReadHook(std::function<void()> hook);

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
    // Reads every figure again (the current page, tray, notifications) on the reading workers;
    // each is shown as its read comes back. The other pages read again when next shown. The
    // screenshot mode and the tests call it after a scan of their own.
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

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    void scheduleReload();
    void showFigures(CoalescedRead<TrayFigures>::Result read);
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

    // Each reading lane's own connection: read-only, so it never waits on a scan's writes.
    // Absent when it could not be opened; the session's store serves then.
    std::array<std::unique_ptr<UsageStore>, 2> readers_;
    std::mutex readHookLock_;
    std::function<void()> readHook_;
    int readsInFlight_ = 0;
    std::set<Page*> stalePages_;  // read again when next shown

    // The user's API keys for the quota refreshes: opened on the network worker at its first
    // refresh (the store may be a D-Bus service), used only there.
    std::unique_ptr<KeyStore> keys_;
    bool keysOpened_ = false;

    std::array<std::unique_ptr<BackgroundQueue>, 2> reads_;  // per lane: ledger reads, in order
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
    std::unique_ptr<CoalescedRead<TrayFigures>> figuresRead_;
    MenuBarText composed_;
    bool shutDown_ = false;
};

}  // namespace kestrel::desktop
