// kestrel-app from start to its first painted overview, on a ledger of 1,000,000 events over 400
// days. Each run is a fresh process (offscreen, no scan, no watcher): the time from starting it
// to the first paint of the overview with its figures, as the child reports it; the median of
// the runs is printed.
//
// With --batches N the child then commits N simulated watcher batches (a few new events each,
// as an agent writing, one per simulated second) with the app's reload after each, and reports
// its resident memory at the start, every 600 batches and at the end; --hour is 3600 of them.
// With --idle SECONDS it then starts following (file watcher, pulse polling, refresh timer) and
// reports the CPU it used over that many idle seconds. With --page-times it reports, per page,
// how long a reload keeps the main thread from its events and when its figures are in.

#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTimer>
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <vector>

#include "app/app_controller.hpp"
#include "app/main_window.hpp"
#include "app/pages/overview_page.hpp"
#include "app/pages/page_list.hpp"
#include "bench/ledger_fill.hpp"
#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"

namespace fs = std::filesystem;
using namespace kestrel;

namespace {

// Counts paints of the page it watches.
class PaintProbe : public QObject {
  public:
    bool painted = false;

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override {
        if (event->type() == QEvent::Paint) {
            painted = true;
        }
        return QObject::eventFilter(watched, event);
    }
};

long residentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::stol(line.substr(6));
        }
    }
    return -1;
}

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Runs the event loop until the figures asked for have been read and shown.
void waitForFigures(desktop::AppController& controller) {
    controller.waitForReads();
}

// The child: opens the ledger, builds the window and waits for the overview's first paint.
int child(int argc, char** argv, const fs::path& support, int batches, int idleSeconds,
          bool pageTimes) {
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    QElapsedTimer phase;
    phase.start();
    QApplication app(argc, argv);
    const fs::path home = support / "home";
    fs::create_directories(home);
    auto session = AppSession::open(AppPaths{home, support, emptyEnvironment()});
    if (!session) {
        fmt::print(stderr, "{}\n", session.error().message);
        return 1;
    }
    fmt::print(stderr, "phase: application and session open {} ms\n", phase.restart());
    if (idleSeconds > 0 && !(*session)->settings().didCompleteOnboarding) {
        // A user past the onboarding: otherwise start() waits for it and nothing is followed.
        AppSettings settings = (*session)->settings();
        settings.didCompleteOnboarding = true;
        (*session)->updateSettings(settings);
    }
    std::function<double()> simulatedClock;
    desktop::ControllerOptions options;
    options.clock = [&simulatedClock] { return simulatedClock ? simulatedClock() : epochNow(); };
    // Following (watcher, pulse polling, refresh timer) only for the idle measure: the first
    // paint is timed as the app draws it before its first scan.
    options.follow = idleSeconds > 0;
    options.notifications = false;
    options.confirmDialogs = false;
    desktop::AppController controller(std::move(*session), AppLanguage::en, options);
    for (desktop::Page* page : desktop::createPages(controller)) {
        controller.addPage(page);
    }
    PaintProbe probe;
    auto* overviewPage = qobject_cast<desktop::OverviewPage*>(controller.window().page(QStringLiteral("overview")));
    overviewPage->installEventFilter(&probe);
    bool figuresIn = false;
    QObject::connect(overviewPage, &desktop::OverviewPage::figuresShown, [&] { figuresIn = true; });
    controller.reloadNow();
    controller.window().show();
    // The first paint that counts shows the figures: their read is waited for first.
    while (!figuresIn) {
        QApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    fmt::print(stderr, "phase: window built and figures read {} ms\n", phase.restart());
    probe.painted = false;
    controller.window().pages().front()->update();
    while (!probe.painted) {
        QApplication::processEvents(QEventLoop::WaitForMoreEvents, 10);
    }
    fmt::print("painted\n");
    std::fflush(stdout);

    if (pageTimes) {
        // How long each page's reload keeps the main thread from its events: the reload call
        // itself, and the longest gap between ticks of a 1 ms timer until its figures are in.
        QElapsedTimer tickClock;
        qint64 lastTick = 0;
        qint64 longestGap = 0;
        QTimer ticker;
        ticker.setInterval(1);
        QObject::connect(&ticker, &QTimer::timeout, [&] {
            const qint64 t = tickClock.nsecsElapsed();
            longestGap = std::max(longestGap, t - lastTick);
            lastTick = t;
        });
        for (int round = 0; round < 3; ++round) {
            for (desktop::Page* page : controller.window().pages()) {
                QElapsedTimer call;
                call.start();
                page->reload();
                const qint64 callNs = call.nsecsElapsed();
                tickClock.start();
                lastTick = 0;
                longestGap = 0;
                ticker.start();
                waitForFigures(controller);
                const qint64 settledNs = tickClock.nsecsElapsed();
                ticker.stop();
                fmt::print("page {} round {}: reload call {:.1f} ms, longest stall after {:.1f} ms, "
                           "figures in after {:.1f} ms\n",
                           page->pageId().toStdString(), round, callNs / 1e6, longestGap / 1e6,
                           (callNs + settledNs) / 1e6);
            }
        }
    }

    if (batches > 0) {
        // An agent writing: a few events per batch (one to six, of two agents, several models
        // and sessions), one batch per simulated second from half an hour before local midnight,
        // so that "today" rolls over halfway through an hour. Each batch is committed as a scan
        // commits it (the rollups brought up to date at its end), then the app reloads every
        // figure as after a commit and shows them before the next batch.
        static const char* models[] = {"claude-sonnet-4-5", "claude-opus-4-1", "claude-haiku-4-5",
                                       "gpt-5-codex", "gpt-5"};
        const Calendar calendar = Calendar::current();
        const double midnight = calendar.addingDays(calendar.startOfDay(epochNow()), 1);
        double simulated = midnight - 1800;
        overviewPage->setClock([&simulated] { return simulated; });
        simulatedClock = [&simulated] { return simulated; };
        std::mt19937_64 rng(7);
        std::uniform_int_distribution<int> perBatch(1, 6);
        std::uniform_int_distribution<int64_t> tokens(1, 5'000);
        fmt::print("rss-kib at 0 batches: {}\n", residentKiB());
        std::fflush(stdout);
        QElapsedTimer wall;
        wall.start();
        for (int b = 1; b <= batches; ++b) {
            simulated += 1;
            UsageBatch batch;
            batch.id = fmt::format("watch-{}", b);
            batch.adapterID = "bench";
            batch.source = AgentSource::claude;
            batch.startedAt = simulated;
            batch.completedAt = simulated;
            const int n = perBatch(rng);
            for (int i = 0; i < n; ++i) {
                UsageObservation o;
                o.id = fmt::format("watch:{}:{}", b, i);
                const auto m = static_cast<std::size_t>((b + i) % 5);
                o.model = models[m];
                o.source = m < 3 ? AgentSource::claude : AgentSource::codex;
                o.provider = m < 3 ? "anthropic" : "openai";
                o.occurredAt = simulated - 0.5 + i * 0.05;
                o.observedAt = simulated;
                o.timeQuality = ObservationTimeQuality::trusted;
                o.precision = UsagePrecision::nativeExact;
                o.granularity = UsageGranularity::request;
                o.sessionKey = fmt::format("live-{}", b / 300);
                o.projectDisplayName = fmt::format("project-{}", b / 900);
                o.tokens.inputUncached = tokens(rng);
                o.tokens.cacheRead = tokens(rng) * 20;
                o.tokens.outputVisible = tokens(rng) / 2;
                o.cost.amountUSDMicros = tokens(rng) * 7;
                o.cost.completeness = CostCompleteness::complete;
                o.cost.source = CostSource::priceTable;
                batch.observations.push_back(std::move(o));
            }
            controller.session().store().ingest({}, {}, std::nullopt, batch);
            controller.session().store().refreshRollups();
            controller.reloadNow();
            if (!controller.waitForReads()) {
                fmt::print(stderr, "batch {}: the figures were never shown\n", b);
                return 1;
            }
            if (b % 600 == 0 || b == batches) {
                fmt::print("rss-kib at {} batches: {} ({:.0f} s, today {})\n", b, residentKiB(),
                           wall.elapsed() / 1000.0, calendar.dayKey(simulated));
                std::fflush(stdout);
            }
        }
        fmt::print("rss-kib {}\n", residentKiB());
    }
    if (idleSeconds > 0) {
        // The watcher over the (empty) home, the pulse reader and the refresh timer running, no
        // agent writing; the first scan is let finish before the clock starts.
        bool scanned = false;
        QObject::connect(&controller, &desktop::AppController::firstScanDone, [&] { scanned = true; });
        controller.start();
        while (!scanned) {
            QApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
        }
        // ...and the figures it set off read and shown (on the reading workers now).
        controller.waitForBackground();
        const double before = cpuSeconds();
        QTimer::singleShot(idleSeconds * 1000, &app, &QApplication::quit);
        QApplication::exec();
        fmt::print("idle-cpu-seconds {:.3f}\n", cpuSeconds() - before);
    }
    controller.shutdown();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    int64_t events = 1'000'000;
    int days = 400;
    int repeat = 7;
    int batches = 0;
    int idle = 0;
    fs::path dir = fs::temp_directory_path() / "kestrel-bench-app";
    bool isChild = false;
    bool pageTimes = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const auto next = [&] { return i + 1 < argc ? std::string(argv[++i]) : std::string(); };
        if (a == "--events") {
            events = std::stoll(next());
        } else if (a == "--days") {
            days = std::stoi(next());
        } else if (a == "--repeat") {
            repeat = std::max(1, std::stoi(next()));
        } else if (a == "--dir") {
            dir = next();
        } else if (a == "--batches") {
            batches = std::stoi(next());
        } else if (a == "--idle") {
            idle = std::stoi(next());
        } else if (a == "--hour") {
            batches = 3600;  // one watcher batch a second for an hour
        } else if (a == "--page-times") {
            pageTimes = true;
        } else if (a == "--child") {
            isChild = true;
        } else {
            fmt::print("usage: {} [--events N] [--days N] [--repeat N] [--dir DIR] [--batches N] "
                       "[--idle SECONDS] [--hour] [--page-times]\n", argv[0]);
            return a == "--help" ? 0 : 2;
        }
    }
    const fs::path support = dir / fmt::format("{}-over-{}-days", events, days);
    if (isChild) {
        return child(argc, argv, support, batches, idle, pageTimes);
    }

    {
        const bool existing = fs::exists(support / UsageStore::kFileName);
        UsageStore store(support);
        if (!existing || store.ledgerEventCount() < events) {
            fmt::print("writing {} events over {} days into {} ...\n", events, days, support.string());
            bench::fill(store, events, days, epochNow());
        }
        store.refreshRollups();
    }

    QCoreApplication core(argc, argv);
    const QString self = QString::fromStdString(fs::canonical("/proc/self/exe").string());
    const QStringList base = {QStringLiteral("--child"), QStringLiteral("--events"),
                              QString::number(events), QStringLiteral("--days"),
                              QString::number(days), QStringLiteral("--dir"),
                              QString::fromStdString(dir.string())};
    std::vector<double> ms;
    for (int r = 0; r < repeat; ++r) {
        QProcess process;
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        QElapsedTimer timer;
        timer.start();
        process.start(self, base);
        bool painted = false;
        while (!painted && process.waitForReadyRead(30'000)) {
            while (process.canReadLine()) {
                painted = painted || process.readLine().startsWith("painted");
            }
        }
        const double elapsed = static_cast<double>(timer.nsecsElapsed()) / 1e6;
        process.waitForFinished(30'000);
        if (!painted) {
            fmt::print(stderr, "run {}: the child never painted\n", r);
            return 1;
        }
        ms.push_back(elapsed);
        fmt::print("run {}: {:.1f} ms\n", r, elapsed);
    }
    std::sort(ms.begin(), ms.end());
    fmt::print("start to first painted overview, {} events: median {:.1f} ms (min {:.1f}, max {:.1f}, "
               "{} runs; limit 500 ms)\n",
               events, ms[ms.size() / 2], ms.front(), ms.back(), ms.size());

    if (batches > 0 || idle > 0 || pageTimes) {
        QProcess process;
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        QStringList args = base;
        if (pageTimes) {
            args << QStringLiteral("--page-times");
        }
        args << QStringLiteral("--batches") << QString::number(batches) << QStringLiteral("--idle")
             << QString::number(idle);
        process.start(self, args);
        // The child's lines as they come: an hour of batches takes a while.
        while (process.state() != QProcess::NotRunning || process.bytesAvailable() > 0) {
            process.waitForReadyRead(1000);
            while (process.canReadLine()) {
                fmt::print("{}", process.readLine().toStdString());
                std::fflush(stdout);
            }
        }
        fmt::print("{}", process.readAllStandardOutput().toStdString());
    }
    return 0;
}
