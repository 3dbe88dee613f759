#include "app/app_controller.hpp"

#include <QApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QMessageBox>
#include <QSaveFile>
#include <utility>

#include "app/figures.hpp"
#include "app/main_window.hpp"
#include "app/notifications/desktop_notifier.hpp"
#include "app/theme.hpp"
#include "app/tray/tray_item.hpp"
#include "core/app/display_choices.hpp"
#include "core/app/quota_service.hpp"
#include "core/app/usage_rows.hpp"
#include "core/app/usage_scan.hpp"
#include "core/app/usage_watch.hpp"
#include "core/ledger/store_error.hpp"
#include "core/model/timestamp.hpp"
#include "core/plans/key_store.hpp"

namespace kestrel::desktop {
namespace {

constexpr int kReloadDelayMs = 300;  // commits in a burst become one reload

}  // namespace

AppController::AppController(std::unique_ptr<AppSession> session, AppLanguage language,
                             ControllerOptions options, QObject* parent)
    : QObject(parent),
      session_(std::move(session)),
      text_(language),
      options_(options),
      appliedSettings_(session_->settings()),
      reads_{std::make_unique<BackgroundQueue>(QStringLiteral("kestrel-glance")),
             std::make_unique<BackgroundQueue>(QStringLiteral("kestrel-reads"))},
      scans_(std::make_unique<BackgroundQueue>(QStringLiteral("kestrel-scan"))),
      network_(std::make_unique<BackgroundQueue>(QStringLiteral("kestrel-network"))),
      pulses_(std::make_unique<BackgroundQueue>(QStringLiteral("kestrel-pulses"))),
      window_(std::make_unique<MainWindow>(text_)) {
    for (auto& reader : readers_) {
        try {
            reader = std::make_unique<UsageStore>(session_->store().databasePath().parent_path(),
                                                  ReadOnlyLedger{.busyTimeoutMs = 2000});
        } catch (const StoreError&) {
            // Reads share the writer's connection then: slower during a scan, never wrong.
        }
    }
    figuresRead_ = std::make_unique<CoalescedRead<TrayFigures>>(
        *this, this,
        [this] {
            const bool withMonth = session_->settings().monthlyBudgetCNYFen.has_value();
            return [now = options_.clock(), withMonth](UsageStore& store) {
                return readTrayFigures(store, Calendar::current(), now, withMonth);
            };
        },
        [this](CoalescedRead<TrayFigures>::Result read) { showFigures(std::move(read)); },
        ReadLane::glance);
    tray_ = new TrayItem(text_, this);
    notifier_ = new DesktopNotifier(QDBusConnection::sessionBus(), this);
    if (options_.follow) {
        live_ = std::make_unique<LiveActivity>(session_->paths(), appliedSettings_);
    }

    reloadTimer_.setSingleShot(true);
    reloadTimer_.setInterval(kReloadDelayMs);
    connect(&reloadTimer_, &QTimer::timeout, this, &AppController::reloadNow);
    connect(tray_, &TrayItem::rotationDue, this, &AppController::recompose);
    connect(tray_, &TrayItem::refreshRequested, this, &AppController::requestRefresh);
    connect(tray_, &TrayItem::openRequested, this, &AppController::raiseWindow);
    connect(tray_, &TrayItem::quitRequested, this, &AppController::quit);
    connect(window_.get(), &MainWindow::closeRequested, this, &AppController::quit);
    connect(this, &AppController::statusChanged, window_.get(), &MainWindow::setStatus);

    // Settings change on whichever thread changed them; the window hears of it on its own.
    session_->onSettingsChanged([this](const AppSettings& settings) {
        QMetaObject::invokeMethod(
            this, [this, settings] { onSettingsChanged(settings); }, Qt::QueuedConnection);
    });
}

AppController::~AppController() {
    shutdown();
    // The pages, the onboarding and the tray item read the session: they go before it.
    delete onboarding_.data();
    window_.reset();
}

void AppController::addPage(Page* page) {
    window_->addPage(page);
    page->installEventFilter(this);
}

bool AppController::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() == QEvent::Show) {
        if (auto* page = qobject_cast<Page*>(watched); page != nullptr && stalePages_.erase(page) > 0) {
            page->reload();
        }
    }
    return QObject::eventFilter(watched, event);
}

void AppController::runInBackground(std::function<void()> work, std::function<void()> done) {
    scans_->post([this, work = std::move(work), done = std::move(done)] {
        work();
        if (done) {
            QMetaObject::invokeMethod(this, done, Qt::QueuedConnection);
        }
    });
}

namespace {

// Runs the event loop, sleeping between events, until `done` or the deadline.
template <typename F>
bool runEventsUntil(F done, const QDeadlineTimer& deadline) {
    QTimer wake;  // so that the deadline is looked at even when nothing else happens
    wake.start(20);
    while (!done()) {
        if (deadline.hasExpired()) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

}  // namespace

void AppController::readLedger(QObject* receiver, ReadLane lane,
                               std::function<void(UsageStore&)> read, std::function<void()> done) {
    const auto index = static_cast<std::size_t>(lane);
    if (reads_[index]->stopping()) {
        return;  // shut down: nothing is shown any more
    }
    ++readsInFlight_;
    reads_[index]->post([this, index, receiver = QPointer<QObject>(receiver), read = std::move(read),
                         done = std::move(done)] {
        std::function<void()> hook;
        {
            std::lock_guard guard(readHookLock_);
            hook = readHook_;
        }
        if (hook) {
            hook();
        }
        try {
            read(readers_[index] ? *readers_[index] : session_->store());
        } catch (const std::exception&) {
            // The read says what it could not read through its own result; nothing escapes
            // into the worker's event loop.
        }
        QMetaObject::invokeMethod(
            this,
            [this, receiver, done] {
                --readsInFlight_;
                if (receiver && done) {
                    done();
                }
            },
            Qt::QueuedConnection);
    });
}

bool AppController::waitForReads(int timeoutMs) {
    return runEventsUntil([this] { return readsInFlight_ == 0; }, QDeadlineTimer(timeoutMs));
}

bool AppController::waitForBackground(int timeoutMs) {
    if (scans_->stopping()) {
        return false;
    }
    const QDeadlineTimer deadline(timeoutMs);
    auto through = std::make_shared<bool>(false);
    // The queue runs in order: once this has come back, everything posted before it has too.
    runInBackground([] {}, [through] { *through = true; });
    return runEventsUntil([through] { return *through; }, deadline) &&
           runEventsUntil([this] { return readsInFlight_ == 0; }, deadline);
}

void AppController::setReadHook(std::function<void()> hook) {
    std::lock_guard guard(readHookLock_);
    readHook_ = std::move(hook);
}

void AppController::start() {
    window_->setHideOnClose(TrayItem::hostAvailable() && appliedSettings_.keepMenuBar);
    reloadNow();
    if (options_.follow && !session_->settings().didCompleteOnboarding) {
        onboarding_ = new OnboardingView(*this);
        onboarding_->setAttribute(Qt::WA_DeleteOnClose);
        onboarding_->setWindowTitle(text_("desktop.window.title"));
        connect(onboarding_, &OnboardingView::finished, this, [this] {
            if (onboarding_) {
                onboarding_->close();
            }
            appliedSettings_ = session_->settings();
            reloadNow();
            window_->show();
            startFollowing();
        });
        // Closed before the end: nothing was agreed to, so there is nothing to follow.
        connect(onboarding_, &QObject::destroyed, this, [this] {
            if (!shutDown_ && !session_->settings().didCompleteOnboarding) {
                shutdown();
                QApplication::quit();
            }
        });
        onboarding_->show();
        return;
    }
    showStartWindow();
    startFollowing();
}

void AppController::showStartWindow() {
    if (!TrayItem::hostAvailable()) {
        explainMissingTray();
        window_->show();
    } else if (!appliedSettings_.keepMenuBar || !appliedSettings_.didCompleteOnboarding) {
        window_->show();
    }
}

void AppController::startFollowing() {
    if (!options_.follow) {
        return;
    }

    WatchOptions watchOptions;
    watchOptions.fullRefreshEvery = options_.periodicRefresh;
    WatchCallbacks callbacks;
    callbacks.onCommit = [this](const CommitNotice&) {
        QMetaObject::invokeMethod(this, [this] { scheduleReload(); }, Qt::QueuedConnection);
    };
    callbacks.onScanError = [this](const std::string& message) {
        const QString text = text_("desktop.status.scanFailed", {{"detail", message}});
        QMetaObject::invokeMethod(this, [this, text] { emit statusChanged(text); },
                                  Qt::QueuedConnection);
    };
    callbacks.onPending = [this] { postPending(); };
    callbacks.onBatch = [this](const FileWatcherBatch& batch) {
        if (live_) {
            live_->observe(batch, epochNow());
        }
    };
    watch_ = &session_->watch(watchOptions, std::move(callbacks));
    // The watcher first, so that nothing written during the first scan goes unnoticed.
    if (auto started = watch_->start(); !started) {
        emit statusChanged(text_("desktop.status.watchFailed", {{"detail", started.error()}}));
    }

    emit statusChanged(text_("desktop.status.scanning"));
    scans_->post([this, stop = stop_.get_token()] {
        bool wasEmpty = false;
        try {
            wasEmpty = session_->store().ledgerSummary(LedgerQuery{}).eventCount == 0;
        } catch (const StoreError&) {
        }
        ScanRequest request;
        request.discoverPlans = true;
        auto outcome = scanUsage(*session_, request, {}, stop);
        std::optional<int64_t> imported;
        if (outcome && wasEmpty) {
            imported = outcome->totals.events;
        }
        QString status = outcome ? text_("desktop.status.scanned",
                                         {{"events", std::to_string(outcome->totals.events)},
                                          {"files", std::to_string(outcome->totals.files)}})
                                 : text_("desktop.status.scanFailed", {{"detail", outcome.error().message}});
        QMetaObject::invokeMethod(
            this,
            [this, imported, status] {
                firstImportEvents_ = imported;
                emit statusChanged(status);
                reloadNow();
                emit firstScanDone();
            },
            Qt::QueuedConnection);
    });

    if (live_) {
        live_->prime(epochNow());
        pulseTimer_.setInterval(static_cast<int>(options_.pulsePoll.count()));
        connect(&pulseTimer_, &QTimer::timeout, this, &AppController::pollPulses);
        pulseTimer_.start();
    }
    // The watch decides when its full refresh is due; the timer only gives it the chance, and
    // asks the providers for new quota readings at the same pace.
    refreshTimer_.setInterval(static_cast<int>(std::min<int64_t>(options_.periodicRefresh.count(), 60'000)));
    connect(&refreshTimer_, &QTimer::timeout, this, [this] {
        postPending();
        if (++refreshTicks_ * refreshTimer_.interval() >= options_.periodicRefresh.count()) {
            refreshTicks_ = 0;
            refreshQuotas();
        }
    });
    refreshTimer_.start();
    refreshQuotas();
}

void AppController::postPending() {
    if (watch_ == nullptr || pendingPosted_.exchange(true)) {
        return;  // one waiting job handles everything that arrived before it runs
    }
    scans_->post([this, stop = stop_.get_token()] {
        pendingPosted_ = false;
        watch_->runPending(stop);
    });
}

void AppController::requestRefresh() {
    emit statusChanged(text_("desktop.status.scanning"));
    scans_->post([this, stop = stop_.get_token()] {
        std::expected<ScanOutcome, ScanFailure> outcome =
            watch_ != nullptr ? watch_->scanNow({}, stop) : scanUsage(*session_, ScanRequest{}, {}, stop);
        QString status = outcome ? text_("desktop.status.scanned",
                                         {{"events", std::to_string(outcome->totals.events)},
                                          {"files", std::to_string(outcome->totals.files)}})
                                 : text_("desktop.status.scanFailed", {{"detail", outcome.error().message}});
        QMetaObject::invokeMethod(
            this, [this, status] {
                emit statusChanged(status);
                scheduleReload();
            },
            Qt::QueuedConnection);
    });
    if (options_.follow) {
        refreshQuotas();
    }
}

void AppController::refreshQuotas() {
    network_->post([this] {
        if (!std::exchange(keysOpened_, true)) {
            keys_ = openKeyStore(session_->paths().supportDir, session_->paths().env);
        }
        QuotaRequest request;
        request.refresh = true;
        request.keys = keys_.get();
        try {
            quotaReport(*session_, request, refresher_, tokens_);
        } catch (const StoreError&) {
            return;  // the readings stay as stored; the next round tries again
        }
        QMetaObject::invokeMethod(this, [this] { scheduleReload(); }, Qt::QueuedConnection);
    });
}

void AppController::pollPulses() {
    if (!live_ || pulsePosted_.exchange(true)) {
        return;
    }
    pulses_->post([this] {
        const double now = epochNow();
        auto notices = live_->refresh(now);
        LiveView view = live_->view(now);
        pulsePosted_ = false;
        QMetaObject::invokeMethod(
            this,
            [this, notices = std::move(notices), view = std::move(view)] {
                const bool changed = view.sessions != figures_.live.sessions;
                figures_.live = view;
                if (options_.notifications) {
                    const AppSettings settings = session_->settings();
                    for (const auto& n : notices) {
                        if (activityNoticeWanted(settings, n)) {
                            notifier_->send(notificationMessage(text_, n));
                        }
                    }
                }
                if (changed) {
                    recompose();
                }
            },
            Qt::QueuedConnection);
    });
}

void AppController::scheduleReload() {
    if (!reloadTimer_.isActive()) {
        reloadTimer_.start();
    }
}

void AppController::reloadNow() {
    // Only the page in view reads now: a page nobody looks at would cost a read (the events'
    // facets take a second on a large ledger) after every burst of commits.
    Page* current = window_->currentPage();
    for (Page* page : window_->pages()) {
        if (page == current) {
            page->reload();
        } else {
            stalePages_.insert(page);
        }
    }
    figuresRead_->request();
}

void AppController::showFigures(CoalescedRead<TrayFigures>::Result read) {
    if (!read) {
        emit statusChanged(text_("desktop.overview.readFailed", {{"detail", read.error()}}));
        return;
    }
    LiveView live = std::move(figures_.live);
    figures_ = std::move(*read);
    figures_.live = std::move(live);
    recompose();
    evaluateNotifications(options_.notifications);
    emit ledgerChanged();
}

void AppController::recompose() {
    const AppSettings settings = session_->settings();
    const DisplayChoices display = displayChoices(settings, text_.language());
    const double now = options_.clock();
    figures_.now = now;
    composed_ = MenuBarComposer::compose(settings, menuBarInputs(figures_), menuBarFormatter(display));

    const auto figure = [&](const LedgerSummary& s) {
        return text_("desktop.tray.figure",
                     {{"cost", moneyText(display, s).toStdString()},
                      {"tokens", tokenText(display, totalTokens(s)).toStdString()}});
    };
    TrayMenuLines lines;
    lines.today = text_("period.today") + QStringLiteral("  ") + figure(figures_.headline.today);
    lines.last7Days = text_("period.last7Days") + QStringLiteral("  ") + figure(figures_.headline.last7Days);
    for (const auto& [source, summary] : figures_.todayBySource) {
        if (summary.eventCount > 0) {
            lines.agents << QString::fromStdString(std::string(displayName(source))) +
                                QStringLiteral("  ") + figure(summary);
        }
    }
    for (const auto& s : figures_.live.sessions) {
        if (s.state == ActivityState::completed) {
            continue;
        }
        QString line = QString::fromStdString(std::string(displayName(s.source))) + QStringLiteral(" — ") +
                       text_("live.state." + std::string(rawValue(s.state)));
        if (s.projectDisplayName) {
            line += QStringLiteral(" — ") + QString::fromStdString(*s.projectDisplayName);
        }
        line += QStringLiteral(" (") + waitText(s.elapsed(now)) + QStringLiteral(")");
        lines.liveSessions << line;
    }
    tray_->show(composed_, lines, now);
}

void AppController::evaluateNotifications(bool deliver) {
    if (!deliver) {
        return;  // nothing is decided, so nothing is spent, until notices can be sent
    }
    const AppSettings settings = session_->settings();
    const Calendar calendar = Calendar::current();
    NotificationFacts facts;
    facts.now = options_.clock();
    facts.quotas = figures_.quotas;
    const LedgerSummary& today = figures_.headline.today;
    if (today.pricedEventCount > 0) {
        facts.todayCostUSDMicros = today.knownCostUSDMicros.value_or(0);
    }
    facts.dayKey = calendar.dayKey(facts.now);
    facts.monthKey = facts.dayKey.substr(0, 7);
    if (settings.monthlyBudgetCNYFen && figures_.thisMonth &&
        figures_.thisMonth->pricedEventCount > 0) {
        facts.monthCostUSDMicros = figures_.thisMonth->knownCostUSDMicros.value_or(0);
    }
    facts.firstImportEvents = firstImportEvents_;
    if (!policyRestored_) {
        restoreNotificationMemory();
    }
    const auto notifications = policy_.evaluate(settings, facts);
    saveNotificationMemory();
    const DisplayChoices display = displayChoices(settings, text_.language());
    for (const auto& n : notifications) {
        notifier_->send(notificationMessage(text_, display, n, facts.now));
    }
}

void AppController::onSettingsChanged(const AppSettings& settings) {
    const AppSettings before = std::exchange(appliedSettings_, settings);
    if (settings.language != before.language) {
        setLanguage(settings.language);
    }
    if (settings.theme != before.theme) {
        setTheme(settings.theme);
    }
    window_->setHideOnClose(TrayItem::hostAvailable() && settings.keepMenuBar);
    scheduleReload();
}

void AppController::setLanguage(AppLanguage language) {
    text_.setLanguage(language);
    window_->retranslate();
    tray_->retranslate();
    if (onboarding_) {
        onboarding_->retranslate();
    }
    recompose();
}

void AppController::setTheme(AppTheme theme) {
    applyTheme(theme);
    scheduleReload();  // the heatmap's legend and squares follow the palette's lightness
}

void AppController::restoreNotificationMemory() {
    policyRestored_ = true;
    QFile file(notificationMemoryPath());
    if (file.open(QIODevice::ReadOnly)) {
        const QByteArray bytes = file.readAll();
        policy_.restoreMemory(std::string_view(bytes.constData(), size_t(bytes.size())));
    }
    savedMemory_ = policy_.memoryJson();
}

void AppController::saveNotificationMemory() {
    std::string memory = policy_.memoryJson();
    if (memory == savedMemory_) {
        return;
    }
    // Whole or not at all: a torn file would be refused and everything told again.
    QSaveFile file(notificationMemoryPath());
    if (file.open(QIODevice::WriteOnly) &&
        file.write(memory.data(), qint64(memory.size())) == qint64(memory.size()) && file.commit()) {
        savedMemory_ = std::move(memory);
    }
}

QString AppController::notificationMemoryPath() const {
    return QString::fromStdString((session_->paths().supportDir / "notification-memory.json").string());
}

void AppController::explainMissingTray() {
    // Said in the window, which then stays the app (closing it quits), until the user has read
    // it and closed the note.
    if (session_->settings().didDismissTrayHint) {
        return;
    }
    window_->showBanner(text_("desktop.tray.missing"));
    connect(window_.get(), &MainWindow::bannerDismissed, this, [this] {
        AppSettings settings = session_->settings();
        if (!settings.didDismissTrayHint) {
            settings.didDismissTrayHint = true;
            session_->updateSettings(settings);
        }
    }, Qt::SingleShotConnection);
}

void AppController::raiseWindow() {
    window_->show();
    window_->setWindowState((window_->windowState() & ~Qt::WindowMinimized) | Qt::WindowActive);
    window_->raise();
    window_->activateWindow();
}

bool AppController::quit() {
    if (options_.confirmDialogs && session_->settings().confirmBeforeQuit) {
        const auto answer = QMessageBox::question(
            window_->isVisible() ? window_.get() : nullptr, text_("desktop.quit.title"),
            text_("desktop.quit.question"), QMessageBox::Yes | QMessageBox::No, QMessageBox::No);
        if (answer != QMessageBox::Yes) {
            return false;
        }
    }
    shutdown();
    QApplication::quit();
    return true;
}

void AppController::shutdown() {
    if (shutDown_) {
        return;
    }
    shutDown_ = true;
    reloadTimer_.stop();
    refreshTimer_.stop();
    pulseTimer_.stop();
    stop_.request_stop();  // a scan under way stops between files
    for (auto& queue : reads_) {
        queue->stop();
    }
    pulses_->stop();
    network_->stop();
    scans_->stop();
    // The watcher stops before anything the store backs goes away.
    session_->stopWatching();
    watch_ = nullptr;
}

}  // namespace kestrel::desktop
