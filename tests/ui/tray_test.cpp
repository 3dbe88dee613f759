// The tray item: the picture carries the short figure legibly in the level's colour, the tooltip
// the composed text, the menu today's figures and the commands; and the short money forms.

#include <QImage>
#include <QMenu>

#include "app/figures.hpp"
#include "app/tray/tray_icon.hpp"
#include "app/tray/tray_item.hpp"
#include "app/ui_text.hpp"
#include "tests/ui/ui_fixture.hpp"

namespace kestrel {
namespace {

// Pixels that are neither transparent nor the badge's fill: the drawn text.
int textPixels(const QImage& image, QColor badge) {
    int n = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const QColor c = image.pixelColor(x, y);
            if (c.alpha() == 255 && c.lightness() > badge.lightness() + 60) {
                ++n;
            }
        }
    }
    return n;
}

TEST(TrayPixmap, DrawsTheFigureOnABadgeOfTheLevelsColourAtEverySize) {
    const struct {
        QString text;
        GlanceLevel level;
    } cases[] = {{QStringLiteral("$12"), GlanceLevel::normal},
                 {QStringLiteral("$1.2K"), GlanceLevel::warning},
                 {QStringLiteral("100%"), GlanceLevel::critical},
                 {QStringLiteral("¥88"), GlanceLevel::normal}};
    for (const auto& c : cases) {
        int previous = 0;
        for (int size : {22, 32, 64}) {
            const QImage image = desktop::trayPixmap(c.text, c.level, size).toImage();
            ASSERT_EQ(image.size(), QSize(size, size));
            const QColor badge = desktop::glanceColor(c.level);
            // The middle of the top edge is badge, not text and not transparent.
            EXPECT_EQ(image.pixelColor(size / 2, 1).rgb(), badge.rgb()) << c.text.toStdString() << size;
            const int ink = textPixels(image, badge);
            // Legible: the text covers a real share of the icon, more at larger sizes.
            EXPECT_GT(ink, size * size / 20) << c.text.toStdString() << " at " << size;
            EXPECT_GT(ink, previous) << c.text.toStdString() << " at " << size;
            previous = ink;
        }
    }
    EXPECT_NE(desktop::glanceColor(GlanceLevel::normal), desktop::glanceColor(GlanceLevel::warning));
    EXPECT_NE(desktop::glanceColor(GlanceLevel::warning), desktop::glanceColor(GlanceLevel::critical));
}

TEST(TrayPixmap, LongerTextsAreShrunkToFit) {
    // Text running off the icon would leave its last character out; the widest one still fits.
    const QImage image = desktop::trayPixmap(QStringLiteral("$888.8K"), GlanceLevel::normal, 22).toImage();
    const QColor badge = desktop::glanceColor(GlanceLevel::normal);
    int rightmost = -1;
    for (int y = 0; y < 22; ++y) {
        for (int x = 0; x < 22; ++x) {
            if (image.pixelColor(x, y).lightness() > badge.lightness() + 60) {
                rightmost = std::max(rightmost, x);
            }
        }
    }
    EXPECT_GT(rightmost, 14);  // the text reaches the right half
    EXPECT_LT(rightmost, 22);
}

TEST(TrayPixmap, SmallIconsDropCentsThatWouldNotReadLargeOnesKeepThem) {
    const auto image = [](const char* text, int size) {
        return desktop::trayPixmap(QString::fromUtf8(text), GlanceLevel::normal, size).toImage();
    };
    EXPECT_EQ(image("$1.30", 22), image("$1", 22));
    EXPECT_NE(image("$1.30", 64), image("$1", 64));
    // A scaled figure keeps its fraction: "$1K" would say less than "$1.2K".
    EXPECT_NE(image("$1.2K", 22), image("$1K", 22));
}

TEST(CompactMoney, FitsFiveCharactersAndNeverRoundsUp) {
    DisplayChoices usd;
    DisplayChoices cny;
    cny.currency = ResolvedCurrency::cny;
    cny.cnyPerUsdE4 = 72000;
    const struct {
        const DisplayChoices* display;
        int64_t micros;
        const char* text;
    } cases[] = {
        {&usd, 0, "$0.00"},           {&usd, 420'000, "$0.42"},
        {&usd, 9'999'999, "$9.99"},   {&usd, 12'990'000, "$12"},
        {&usd, 999'990'000, "$999"},  {&usd, 1'299'000'000, "$1.2K"},
        {&usd, 12'345'000'000, "$12K"}, {&usd, 2'500'000'000'000, "$2.5M"},
        {&cny, 1'000'000, "¥7.20"},   {&cny, 12'340'000, "¥88"},
    };
    for (const auto& c : cases) {
        const std::string text = desktop::compactMoney(*c.display, c.micros);
        EXPECT_EQ(text, c.text) << c.micros;
        EXPECT_LE(QString::fromStdString(text).size(), 5) << text;
    }
}

class TrayItemTest : public test_support::AppFixture {};

TEST_F(TrayItemTest, ShowsTheComposedTextAndTodaysFigures) {
    writeMonth();
    auto app = openApp();
    ASSERT_TRUE(app);
    const MenuBarText& composed = app->menuBarText();
    ASSERT_FALSE(composed.frames.empty());
    desktop::TrayItem& tray = app->tray();
    EXPECT_EQ(tray.toolTip().toStdString(), composed.tooltip);
    EXPECT_EQ(tray.compactText().toStdString(), composed.shown().compactValue);
    // Today's cost is what the tooltip says first (the default elements start with it).
    const DisplayChoices display;
    const std::string cost = display.money(app->trayFigures().headline.today.knownCostUSDMicros.value_or(0));
    EXPECT_NE(composed.tooltip.find(cost), std::string::npos) << composed.tooltip << " / " << cost;

    QStringList entries;
    for (QAction* action : tray.menu()->actions()) {
        if (!action->isSeparator()) {
            entries << action->text();
        }
    }
    const QString joined = entries.join(QLatin1Char('\n'));
    EXPECT_TRUE(entries.value(0).startsWith(QStringLiteral("Today"))) << joined.toStdString();
    EXPECT_TRUE(entries.value(0).contains(QString::fromStdString(cost))) << joined.toStdString();
    EXPECT_TRUE(entries.value(1).startsWith(QStringLiteral("Last 7 days"))) << joined.toStdString();
    EXPECT_TRUE(joined.contains(QStringLiteral("Claude Code"))) << joined.toStdString();
    for (const char* command : {"Refresh", "Open Kestrel", "Quit Kestrel"}) {
        EXPECT_TRUE(entries.contains(QString::fromLatin1(command))) << command;
    }

    const QImage icon = tray.pixmap(32).toImage();
    EXPECT_GT(textPixels(icon, desktop::glanceColor(GlanceLevel::normal)), 32 * 32 / 20);
}

TEST_F(TrayItemTest, QuotaReadingColoursTheIcon) {
    writeMonth();
    auto app = openApp();
    ASSERT_TRUE(app);
    AccountSnapshot snapshot;
    snapshot.identity.source = AgentSource::claude;
    snapshot.identity.planLabel = "Max";
    QuotaWindow window;
    window.kind = QuotaWindowKind::session5h;
    window.usedPercent = 91;
    window.resetsAt = epochNow() + 3600;
    snapshot.windows.push_back(window);
    snapshot.fetchedAt = epochNow();
    app->session().store().saveQuota(snapshot);
    auto settings = app->session().settings();
    settings.menuBarElements = {MenuBarElement::quota};
    app->session().updateSettings(settings);
    app->reloadNow();
    ASSERT_TRUE(app->waitForReads());

    ASSERT_EQ(app->menuBarText().tightestUsedPercent, 91);
    const QImage icon = app->tray().pixmap(22).toImage();
    EXPECT_EQ(icon.pixelColor(11, 1).rgb(), desktop::glanceColor(GlanceLevel::critical).rgb());
    EXPECT_EQ(app->tray().compactText(), QStringLiteral("91%"));
}

}  // namespace
}  // namespace kestrel
