// The shell around the pages: both languages with Chinese glyphs that really render, pictures of
// every page, one instance per support folder, the watcher feeding the overview, and quitting
// with the watcher stopped first.

#include <QDir>
#include <QFontDatabase>
#include <QImage>
#include <QListWidget>
#include <QPainter>
#include <QToolButton>
#include <set>

#include "app/main_window.hpp"
#include "app/pages/overview_page.hpp"
#include "app/screenshot.hpp"
#include "app/single_instance.hpp"
#include "app/tray/tray_item.hpp"
#include "app/ui_text.hpp"
#include "tests/ui/ui_fixture.hpp"

namespace kestrel {
namespace {

class AppShellTest : public test_support::AppFixture {};

// The glyph of `c` drawn alone in the application's font.
QImage glyph(QChar c) {
    QImage image(48, 48, QImage::Format_RGB32);
    image.fill(Qt::white);
    QPainter p(&image);
    QFont font = QApplication::font();
    font.setPixelSize(32);
    p.setFont(font);
    p.setPen(Qt::black);
    p.drawText(image.rect(), Qt::AlignCenter, QString(c));
    return image;
}

int inkOf(const QImage& image) {
    int n = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            n += qGray(image.pixel(x, y)) < 128 ? 1 : 0;
        }
    }
    return n;
}

TEST(ChineseText, GlyphsRenderAsDistinctCharacters) {
    // Without a CJK font every character falls back to the same empty box, so distinct
    // characters drawing distinct pictures is what shows that Chinese really renders.
    const QString sample = QStringLiteral("概览合计每日用量配额");
    std::set<QByteArray> pictures;
    for (QChar c : sample) {
        const QImage image = glyph(c);
        EXPECT_GT(inkOf(image), 20) << "nothing drawn for U+" << std::hex << static_cast<int>(c.unicode());
        pictures.insert(QByteArray(reinterpret_cast<const char*>(image.constBits()),
                                   static_cast<int>(image.sizeInBytes())));
    }
    EXPECT_EQ(pictures.size(), static_cast<std::size_t>(sample.size()))
        << "some Chinese characters drew the same picture: is fonts-noto-cjk installed?";
}

TEST_F(AppShellTest, LanguageSwitchesAtRunTime) {
    writeMonth();
    auto app = openApp(AppLanguage::en);
    ASSERT_TRUE(app);
    auto* navigation = app->window().findChild<QListWidget*>(QStringLiteral("navigation"));
    ASSERT_NE(navigation, nullptr);
    auto* todayTitle = app->window().findChild<desktop::OverviewPage*>();
    ASSERT_NE(todayTitle, nullptr);
    const struct {
        AppLanguage language;
        const char* overview;
        const char* tokensSuffix;
        const char* refresh;
    } cases[] = {{AppLanguage::zhHans, "概览", " 个 token", "刷新"},
                 {AppLanguage::en, "Overview", " tokens", "Refresh"}};
    for (const auto& c : cases) {
        app->setLanguage(c.language);
        EXPECT_EQ(navigation->item(0)->text().toStdString(), c.overview);
        auto* tokens = app->window().findChild<QLabel*>(QStringLiteral("today.tokens"));
        ASSERT_NE(tokens, nullptr);
        EXPECT_TRUE(tokens->text().endsWith(QString::fromUtf8(c.tokensSuffix))) << tokens->text().toStdString();
        bool found = false;
        for (QAction* a : app->tray().menu()->actions()) {
            found = found || a->text() == QString::fromUtf8(c.refresh);
        }
        EXPECT_TRUE(found) << c.refresh;
    }
}

TEST_F(AppShellTest, ScreenshotsOfEveryPageInBothLanguages) {
    writeMonth();
    for (AppLanguage language : {AppLanguage::en, AppLanguage::zhHans}) {
        auto app = openApp(language);
        ASSERT_TRUE(app);
        const QString folder = QDir(QStringLiteral(KESTREL_UI_TEST_OUTPUT))
                                   .filePath(QString::fromLatin1(rawValue(language)));
        QDir(folder).removeRecursively();
        const auto written = desktop::writeScreenshots(*app, folder);
        ASSERT_TRUE(written.has_value()) << written.error().toStdString();
        const auto pages = app->window().pages();
        EXPECT_EQ(written->size(), static_cast<qsizetype>(pages.size() + 3));
        for (desktop::Page* page : pages) {
            const QImage image(QDir(folder).filePath(page->pageId() + QStringLiteral(".png")));
            ASSERT_FALSE(image.isNull()) << page->pageId().toStdString();
            EXPECT_EQ(image.size(), desktop::kScreenshotSize);
            // A page with its figures, not an empty frame: many distinct colours.
            std::set<QRgb> colours;
            for (int y = 0; y < image.height(); y += 3) {
                for (int x = 0; x < image.width(); x += 3) {
                    colours.insert(image.pixel(x, y));
                }
            }
            EXPECT_GT(colours.size(), 40u) << page->pageId().toStdString();
        }
        for (int px : desktop::kTrayScreenshotSizes) {
            const QImage tray(QDir(folder).filePath(QStringLiteral("tray-%1.png").arg(px)));
            EXPECT_EQ(tray.size(), QSize(px, px));
        }
    }
}

TEST(SingleInstance, ASecondLaunchRaisesTheFirst) {
    test_support::TempDir support;
    const QString name = desktop::SingleInstance::serverName(support.path());
    EXPECT_EQ(name, desktop::SingleInstance::serverName(support.path() / "."));
    EXPECT_NE(name, desktop::SingleInstance::serverName(support.path() / "other"));

    desktop::SingleInstance first(name);
    desktop::SingleInstance second(name);
    EXPECT_FALSE(second.signalRunning(200));  // nobody listens yet
    ASSERT_TRUE(first.listen());
    int raised = 0;
    QObject::connect(&first, &desktop::SingleInstance::raiseRequested, [&] { ++raised; });
    EXPECT_TRUE(second.signalRunning());
    EXPECT_TRUE(test_support::AppFixture::waitFor([&] { return raised == 1; }, 5000));
}

TEST_F(AppShellTest, WatcherBatchesReachTheOverview) {
    usage("a", "first", test_support::kSonnet, 100, 10, earlierToday(5));
    auto options = quiet();
    options.follow = true;
    options.periodicRefresh = std::chrono::minutes(5);
    auto app = openApp(AppLanguage::en, options);
    ASSERT_TRUE(app);
    auto settings = app->session().settings();
    settings.didCompleteOnboarding = true;  // a returning user: the app follows at once
    app->session().updateSettings(settings);
    bool firstScan = false;
    QObject::connect(app.get(), &desktop::AppController::firstScanDone, [&] { firstScan = true; });
    app->start();
    EXPECT_EQ(app->onboarding(), nullptr);
    ASSERT_TRUE(waitFor([&] { return firstScan; }));
    auto* page = app->window().findChild<desktop::OverviewPage*>();
    ASSERT_NE(page, nullptr);
    EXPECT_EQ(page->overview().today.eventCount, 1);

    // An agent writes: the watcher's batch becomes a scan on the worker, the page reads it.
    usage("a", "second", test_support::kSonnet, 200, 20, earlierToday(1));
    EXPECT_TRUE(waitFor([&] { return page->overview().today.eventCount == 2; }, 15'000))
        << "the overview never saw the new message";

    // Shutting down leaves the ledger open and the watch gone; further writes change nothing.
    app->shutdown();
    usage("a", "third", test_support::kSonnet, 300, 30, earlierToday(1));
    waitFor([] { return false; }, 1500);  // time enough for a watcher that were still running
    EXPECT_EQ(app->session().store().ledgerSummary(LedgerQuery{}).eventCount, 2);
}

TEST_F(AppShellTest, RefreshScansOnTheWorkerAndTheWindowStaysFree) {
    auto app = openApp();
    ASSERT_TRUE(app);
    auto* page = app->window().findChild<desktop::OverviewPage*>();
    ASSERT_NE(page, nullptr);
    EXPECT_EQ(page->overview().today.eventCount, 0);
    usage("a", "late", test_support::kSonnet, 100, 10, earlierToday(2));
    bool reloaded = false;
    QObject::connect(app.get(), &desktop::AppController::ledgerChanged, [&] { reloaded = true; });
    app->requestRefresh();
    // requestRefresh returns before the scan: nothing is read yet on this thread.
    EXPECT_EQ(page->overview().today.eventCount, 0);
    EXPECT_TRUE(waitFor([&] { return reloaded && page->overview().today.eventCount == 1; }));
}

}  // namespace
}  // namespace kestrel

namespace kestrel {
namespace {

// A new user is asked first: nothing is scanned until the onboarding has finished, then the app
// follows as usual.
TEST_F(AppShellTest, OnboardingComesBeforeTheFirstScan) {
    usage("a", "first", test_support::kSonnet, 100, 10, earlierToday(5));
    auto options = quiet();
    options.follow = true;
    auto app = openApp(AppLanguage::en, options);
    ASSERT_TRUE(app);
    bool firstScan = false;
    QObject::connect(app.get(), &desktop::AppController::firstScanDone, [&] { firstScan = true; });
    app->start();
    ASSERT_NE(app->onboarding(), nullptr);
    EXPECT_FALSE(waitFor([&] { return firstScan; }, 500));
    app->onboarding()->finish();
    EXPECT_TRUE(waitFor([&] { return firstScan; }));
    EXPECT_TRUE(app->session().settings().didCompleteOnboarding);
}

// Without a tray host the window explains why, until the user closes the note; it does not
// come back at the next launch.
TEST_F(AppShellTest, MissingTrayNoteStaysClosedOnceDismissed) {
    if (desktop::TrayItem::hostAvailable()) {
        GTEST_SKIP() << "a tray host is present on this bus";
    }
    const auto launch = [&] {
        auto app = openApp();
        auto settings = app->session().settings();
        settings.didCompleteOnboarding = true;
        app->session().updateSettings(settings);
        app->start();
        return app;
    };
    {
        auto app = launch();
        ASSERT_TRUE(app->window().bannerVisible());
        EXPECT_TRUE(app->window().bannerText().contains(QStringLiteral("tray")));
        auto* close = app->window().findChild<QWidget*>(QStringLiteral("banner"))->findChild<QToolButton*>();
        ASSERT_NE(close, nullptr);
        close->click();
        EXPECT_FALSE(app->window().bannerVisible());
        EXPECT_TRUE(app->session().settings().didDismissTrayHint);
        app->shutdown();
    }
    auto again = launch();
    EXPECT_FALSE(again->window().bannerVisible());
    again->shutdown();
}

}  // namespace
}  // namespace kestrel
