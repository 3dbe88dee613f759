// kestrel-app from start to its first painted overview, on a ledger of 1,000,000 events over 400
// days. Each run is a fresh process (offscreen, no scan, no watcher): the time from starting it
// to the overview's first paint, as the child reports it; the median of the runs is printed.
//
// With --batches N the child then commits N simulated watcher batches (a few new events each,
// as an agent writing) with a reload after each, and reports its resident memory; with
// --idle SECONDS it then starts following (file watcher, pulse polling, refresh timer) and
// reports the CPU it used over that many idle seconds.

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
#include <vector>

#include "app/app_controller.hpp"
#include "app/main_window.hpp"
#include "app/pages/page_list.hpp"
#include "bench/ledger_fill.hpp"
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

// The child: opens the ledger, builds the window and waits for the overview's first paint.
int child(int argc, char** argv, const fs::path& support, int batches, int idleSeconds) {
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
    desktop::ControllerOptions options;
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
    controller.window().pages().front()->installEventFilter(&probe);
    controller.reloadNow();
    fmt::print(stderr, "phase: window built and figures read {} ms\n", phase.restart());
    controller.window().show();
    while (!probe.painted) {
        QApplication::processEvents(QEventLoop::WaitForMoreEvents, 10);
    }
    fmt::print("painted\n");
    std::fflush(stdout);

    if (batches > 0) {
        // An agent writing: a few events per batch, committed as a scan commits them, then the
        // reload the app runs after a commit.
        const double now = epochNow();
        for (int b = 0; b < batches; ++b) {
            UsageBatch batch;
            batch.id = fmt::format("watch-{}", b);
            batch.adapterID = "bench";
            batch.source = AgentSource::claude;
            batch.startedAt = now;
            batch.completedAt = now;
            for (int i = 0; i < 3; ++i) {
                UsageObservation o;
                o.id = fmt::format("watch:{}:{}", b, i);
                o.model = "claude-sonnet-4-5";
                o.source = AgentSource::claude;
                o.provider = "anthropic";
                o.occurredAt = now - 1;
                o.observedAt = now;
                o.timeQuality = ObservationTimeQuality::trusted;
                o.precision = UsagePrecision::nativeExact;
                o.granularity = UsageGranularity::request;
                o.tokens.inputUncached = 100;
                o.tokens.outputVisible = 50;
                o.cost.amountUSDMicros = 700;
                o.cost.completeness = CostCompleteness::complete;
                o.cost.source = CostSource::priceTable;
                batch.observations.push_back(std::move(o));
            }
            controller.session().store().ingest({}, {}, std::nullopt, batch);
            controller.reloadNow();
            QApplication::processEvents();
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
        } else if (a == "--child") {
            isChild = true;
        } else {
            fmt::print("usage: {} [--events N] [--days N] [--repeat N] [--dir DIR] [--batches N] "
                       "[--idle SECONDS]\n", argv[0]);
            return a == "--help" ? 0 : 2;
        }
    }
    const fs::path support = dir / fmt::format("{}-over-{}-days", events, days);
    if (isChild) {
        return child(argc, argv, support, batches, idle);
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

    if (batches > 0 || idle > 0) {
        QProcess process;
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        QStringList args = base;
        args << QStringLiteral("--batches") << QString::number(batches) << QStringLiteral("--idle")
             << QString::number(idle);
        process.start(self, args);
        process.waitForFinished(static_cast<int>((idle + 600) * 1000));
        fmt::print("{}", process.readAllStandardOutput().toStdString());
    }
    return 0;
}
