// kestrel-app: the desktop application. With --screenshot it draws every page and the tray
// icon to PNG files and exits, which needs no desktop at all.
#include <QApplication>
#include <QCommandLineParser>
#include <QMessageBox>
#include <QSocketNotifier>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unistd.h>

#include "app/app_controller.hpp"
#include "app/main_window.hpp"
#include "app/pages/page_list.hpp"
#include "app/screenshot.hpp"
#include "app/single_instance.hpp"
#include "app/theme.hpp"
#include "core/app/app_paths.hpp"
#include "core/app/usage_scan.hpp"
#include "core/model/enum_cases.hpp"

using namespace kestrel;
using namespace kestrel::desktop;

namespace {

// Pictures are drawn offscreen: the platform has to be chosen before the application exists.
bool hasOption(int argc, char** argv, const char* name) {
    const size_t length = std::strlen(name);
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], name) == 0 ||
            (std::strncmp(argv[i], name, length) == 0 && argv[i][length] == '=')) {
            return true;
        }
    }
    return false;
}

bool displayPresent() {
    const char* x11 = std::getenv("DISPLAY");
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    return (x11 != nullptr && *x11 != '\0') || (wayland != nullptr && *wayland != '\0');
}

// SIGTERM (a logout) and SIGINT end the app as Quit does, without asking: the handler only
// writes to a pipe, the event loop does the rest.
int signalPipe[2] = {-1, -1};

void onSignal(int) {
    const char byte = 1;
    [[maybe_unused]] const auto n = ::write(signalPipe[1], &byte, 1);
}

int fail(const QString& message, bool quiet) {
    std::fprintf(stderr, "kestrel-app: %s\n", message.toLocal8Bit().constData());
    if (!quiet) {
        QMessageBox::critical(nullptr, QStringLiteral("Kestrel"), message);
    }
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    const bool screenshot = hasOption(argc, argv, "--screenshot");
    const bool help = hasOption(argc, argv, "--help") || hasOption(argc, argv, "-h");
    if (std::getenv("QT_QPA_PLATFORM") == nullptr) {
        if (screenshot || help) {
            setenv("QT_QPA_PLATFORM", "offscreen", 1);
        } else if (!displayPresent()) {
            std::fprintf(stderr,
                         "kestrel-app: no display (DISPLAY and WAYLAND_DISPLAY are unset); "
                         "`kestrel-app --screenshot DIR` draws the pages without one, and the "
                         "`kestrel` command reads the same ledger\n");
            return 2;
        }
    }
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("kestrel"));
    QApplication::setApplicationDisplayName(QStringLiteral("Kestrel"));
    QApplication::setDesktopFileName(QStringLiteral("kestrel"));
    QApplication::setWindowIcon(appIcon());
    // The tray item keeps running with the window closed.
    QApplication::setQuitOnLastWindowClosed(false);

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Kestrel: what your AI coding agents spend, in tokens and money."));
    parser.addHelpOption();
    const QCommandLineOption homeOption(QStringLiteral("home"),
                                        QStringLiteral("Read the agents' records below DIR."),
                                        QStringLiteral("DIR"));
    const QCommandLineOption supportOption(QStringLiteral("support-dir"),
                                           QStringLiteral("Keep the ledger in DIR."),
                                           QStringLiteral("DIR"));
    const QCommandLineOption screenshotOption(
        QStringLiteral("screenshot"),
        QStringLiteral("Draw every page and the tray icon to PNG files in OUTDIR, then exit."),
        QStringLiteral("OUTDIR"));
    const QCommandLineOption langOption(QStringLiteral("lang"),
                                        QStringLiteral("Show the texts in LANG (en or zh-Hans)."),
                                        QStringLiteral("LANG"));
    const QCommandLineOption themeOption(QStringLiteral("theme"),
                                         QStringLiteral("Use the light or dark colours."),
                                         QStringLiteral("THEME"));
    parser.addOptions({homeOption, supportOption, screenshotOption, langOption, themeOption});
    parser.process(app);

    std::optional<AppLanguage> language;
    if (parser.isSet(langOption)) {
        language = fromRawValue<AppLanguage>(parser.value(langOption).toStdString());
        if (!language || *language == AppLanguage::system) {
            std::fprintf(stderr, "kestrel-app: --lang takes en or zh-Hans\n");
            return 2;
        }
    }
    std::optional<AppTheme> theme;
    if (parser.isSet(themeOption)) {
        theme = fromRawValue<AppTheme>(parser.value(themeOption).toStdString());
        if (!theme || *theme == AppTheme::system) {
            std::fprintf(stderr, "kestrel-app: --theme takes light or dark\n");
            return 2;
        }
    }

    auto paths = resolveAppPaths(parser.value(homeOption).toStdString(),
                                 parser.value(supportOption).toStdString(), processEnvironment());
    if (!paths) {
        return fail(paths.error().kind == AppPathsError::Kind::noHome
                        ? QStringLiteral("no home folder: set HOME or pass --home DIR")
                        : QStringLiteral("%1 is not a folder").arg(QString::fromStdString(paths.error().home)),
                    screenshot);
    }

    SingleInstance instance(SingleInstance::serverName(paths->supportDir));
    if (!screenshot) {
        if (instance.signalRunning()) {
            return 0;  // the running Kestrel raises its window
        }
        instance.listen();
    }

    auto session = AppSession::open(*paths);
    if (!session) {
        return fail(QString::fromStdString(session.error().message), screenshot);
    }
    const AppSettings settings = (*session)->settings();
    applyTheme(theme.value_or(settings.theme));

    ControllerOptions options;
    options.follow = !screenshot;
    options.notifications = !screenshot;
    options.confirmDialogs = !screenshot;
    AppController controller(std::move(*session), language.value_or(settings.language), options);
    for (Page* page : createPages(controller)) {
        controller.addPage(page);
    }
    QObject::connect(&instance, &SingleInstance::raiseRequested, &controller,
                     &AppController::raiseWindow);

    if (screenshot) {
        // The pictures show what the home holds now: read it first.
        if (auto scanned = scanUsage(controller.session(), ScanRequest{}); !scanned) {
            std::fprintf(stderr, "kestrel-app: scan failed: %s\n", scanned.error().message.c_str());
        }
        controller.reloadNow();
        controller.waitForBackground();
        auto written = writeScreenshots(controller, parser.value(screenshotOption));
        if (!written) {
            return fail(written.error(), true);
        }
        for (const QString& file : *written) {
            std::printf("%s\n", file.toLocal8Bit().constData());
        }
        controller.shutdown();
        return 0;
    }

    std::unique_ptr<QSocketNotifier> signalWatch;
    if (::pipe(signalPipe) == 0) {
        signalWatch = std::make_unique<QSocketNotifier>(signalPipe[0], QSocketNotifier::Read);
        QObject::connect(signalWatch.get(), &QSocketNotifier::activated, &controller, [&controller] {
            char byte = 0;
            [[maybe_unused]] const auto n = ::read(signalPipe[0], &byte, 1);
            controller.shutdown();
            QApplication::quit();
        });
        struct sigaction action {};
        action.sa_handler = onSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        sigaction(SIGTERM, &action, nullptr);
        sigaction(SIGINT, &action, nullptr);
    }

    controller.start();
    const int code = QApplication::exec();
    controller.shutdown();
    return code;
}
