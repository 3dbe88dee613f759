// The Overview page against the command line: the same ledger gives the same figures in both,
// and the heatmap is painted in the levels its model gives.

#include <QImage>
#include <QLabel>
#include <QTableWidget>
#include <nlohmann/json.hpp>
#include <set>

#include "app/pages/overview_page.hpp"
#include "app/ui_text.hpp"
#include "app/widgets/heatmap_widget.hpp"
#include "cli/summary_command.hpp"
#include "core/app/display_choices.hpp"
#include "core/app/usage_rows.hpp"
#include "tests/support/command_run.hpp"
#include "tests/ui/ui_fixture.hpp"

namespace kestrel {
namespace {

using desktop::OverviewPage;

class OverviewPageTest : public test_support::AppFixture {
  protected:
    OverviewPage& overview(desktop::AppController& app) {
        auto* page = qobject_cast<OverviewPage*>(app.window().page(QStringLiteral("overview")));
        EXPECT_NE(page, nullptr);
        return *page;
    }

    static QString label(QWidget& page, const QString& name) {
        auto* l = page.findChild<QLabel*>(name);
        return l != nullptr ? l->text() : QStringLiteral("<no %1>").arg(name);
    }

    test_support::CommandOutcome cli(bool json) {
        return test_support::runCommand(home.path(), support.path(), [&](cli::CommandContext& ctx) {
            cli::ReportOptions options;
            options.noScan = true;
            options.language = "en";
            options.currency = "usd";
            return cli::runSummary(ctx, options, json);
        });
    }
};

TEST_F(OverviewPageTest, ShowsTheFiguresTheCommandLineGives) {
    writeMonth();
    auto app = openApp();
    ASSERT_TRUE(app);
    auto& page = overview(*app);
    const auto outcome = cli(true);
    ASSERT_EQ(outcome.code, 0) << outcome.err;
    const auto doc = nlohmann::json::parse(outcome.out);
    DisplayChoices display;  // English and dollars, as the command was asked for

    for (const char* period : {"today", "yesterday", "last7Days", "last30Days"}) {
        const auto& p = doc[period];
        const QString name = QString::fromLatin1(period);
        std::string cost = display.money(p["costUSDMicros"].get<int64_t>());
        if (p["unpricedEvents"].get<int64_t>() > 0) {
            cost += "*";
        }
        EXPECT_EQ(label(page, name + ".cost").toStdString(), cost) << period;
        EXPECT_EQ(label(page, name + ".tokens"),
                  QLocale(QStringLiteral("en_US")).toString(p["totalTokens"].get<qlonglong>()) +
                      QStringLiteral(" tokens"))
            << period;
        EXPECT_EQ(label(page, name + ".events"),
                  QStringLiteral("%1 events").arg(p["events"].get<int>()))
            << period;
    }
    // The fixture has usage in every period, so a zero would not pass for a figure.
    EXPECT_GT(doc["today"]["events"].get<int>(), 0);
    EXPECT_GT(doc["last30Days"]["totalTokens"].get<int64_t>(), doc["last7Days"]["totalTokens"].get<int64_t>());

    const struct {
        const char* table;
        const char* key;
        const char* nameKey;
    } tables[] = {{"overview.models", "topModelsToday", "model"},
                  {"overview.sources", "topSourcesToday", "source"}};
    for (const auto& t : tables) {
        auto* table = page.findChild<QTableWidget*>(QString::fromLatin1(t.table));
        ASSERT_NE(table, nullptr) << t.table;
        const auto& rows = doc[t.key];
        ASSERT_EQ(table->rowCount(), static_cast<int>(rows.size())) << t.table;
        for (int r = 0; r < table->rowCount(); ++r) {
            const auto& row = rows[r];
            std::string name = row[t.nameKey].get<std::string>();
            if (std::string(t.nameKey) == "source") {
                name = std::string(displayName(*fromRawValue<AgentSource>(name)));
            }
            EXPECT_EQ(table->item(r, 0)->text().toStdString(), name) << t.table << " row " << r;
            EXPECT_EQ(table->item(r, 2)->text(),
                      QLocale(QStringLiteral("en_US")).toString(row["totalTokens"].get<qlonglong>()))
                << t.table << " row " << r;
        }
    }
    ASSERT_EQ(doc["topModelsToday"].size(), 3u);  // sonnet, haiku and the unpriced model
}

TEST_F(OverviewPageTest, HeatmapTotalReadsAsTheCommandLinesLine) {
    writeMonth();
    auto app = openApp();
    ASSERT_TRUE(app);
    const auto outcome = cli(false);
    ASSERT_EQ(outcome.code, 0) << outcome.err;
    const QString line = label(overview(*app), QStringLiteral("heatmap.total"));
    EXPECT_NE(outcome.out.find(line.toStdString() + "\n"), std::string::npos)
        << line.toStdString() << "\nnot in\n" << outcome.out;
    EXPECT_TRUE(line.contains(QStringLiteral("26 weeks")));
}

TEST_F(OverviewPageTest, ModulesFollowTheSettingsOrder) {
    writeMonth();
    auto app = openApp();
    ASSERT_TRUE(app);
    auto settings = app->session().settings();
    settings.consoleModules = {ConsoleModuleKind::models, ConsoleModuleKind::heatmap};
    app->session().updateSettings(settings);
    auto& page = overview(*app);
    page.reload();
    ASSERT_TRUE(app->waitForReads());
    page.resize(900, 1200);
    page.show();
    page.grab();  // lays the page out at its size
    auto* models = page.findChild<QTableWidget*>(QStringLiteral("overview.models"));
    auto* sources = page.findChild<QTableWidget*>(QStringLiteral("overview.sources"));
    auto* heatmap = page.findChild<desktop::HeatmapWidget*>();
    ASSERT_TRUE(models && sources && heatmap);
    EXPECT_TRUE(models->isVisibleTo(&page));
    EXPECT_TRUE(heatmap->isVisibleTo(&page));
    EXPECT_FALSE(sources->isVisibleTo(&page));
    EXPECT_LT(models->mapTo(&page, QPoint(0, 0)).y(), heatmap->mapTo(&page, QPoint(0, 0)).y())
        << "models first, as the settings order them";
}

// Every square is painted in the colour of its level, and a month of varied days uses them all.
TEST(HeatmapWidget, PaintsEachDayInItsLevelsColour) {
    const Calendar calendar = Calendar::utc();
    const double now = 1'800'000'000;  // a fixed day, so the grid's shape does not vary by run
    std::vector<HeatmapDay> days;
    for (int i = 0; i < 40; ++i) {
        if (i % 3 != 0) {
            days.push_back({now - i * 86400.0, (i + 1) * 1000LL, std::nullopt});
        }
    }
    const HeatmapModel model = HeatmapGrid::make(days, now, calendar, 12);
    for (bool dark : {false, true}) {
        desktop::HeatmapWidget widget;
        QPalette palette;
        palette.setColor(QPalette::Window, dark ? QColor(0x20, 0x20, 0x20) : QColor(0xf8, 0xf8, 0xf8));
        widget.setPalette(palette);
        widget.setModel(model, calendar, QLocale(QStringLiteral("en_US")), {});
        widget.resize(widget.sizeHint());
        QImage image(widget.size(), QImage::Format_ARGB32);
        image.fill(palette.color(QPalette::Window));
        widget.render(&image);

        std::set<int> levels;
        for (int w = 0; w < model.weeks; ++w) {
            for (int r = 0; r < 7; ++r) {
                const HeatmapCell& cell = model.cells[w][r];
                const QPoint centre = widget.cellRect(w, r).center().toPoint();
                const QColor painted = image.pixelColor(centre);
                if (cell.isFuture) {
                    EXPECT_EQ(painted, palette.color(QPalette::Window)) << "future day " << w << "," << r;
                    continue;
                }
                levels.insert(cell.level);
                EXPECT_EQ(painted, desktop::HeatmapWidget::levelColor(cell.level, dark))
                    << "week " << w << " row " << r << " level " << cell.level << " dark " << dark;
            }
        }
        EXPECT_EQ(levels, (std::set<int>{0, 1, 2, 3, 4}));
    }
}

TEST(HeatmapWidget, LevelColoursAreDistinctAndGrowDarkerOrBrighter) {
    for (bool dark : {false, true}) {
        std::set<QRgb> seen;
        for (int level = 0; level <= 4; ++level) {
            seen.insert(desktop::HeatmapWidget::levelColor(level, dark).rgb());
            if (level >= 2) {
                // Busier days stand out more: darker on light, brighter on dark.
                const int before = desktop::HeatmapWidget::levelColor(level - 1, dark).lightness();
                const int now = desktop::HeatmapWidget::levelColor(level, dark).lightness();
                EXPECT_TRUE(dark ? now > before : now < before) << level << " dark " << dark;
            }
        }
        EXPECT_EQ(seen.size(), 5u);
        // Out-of-range levels fall on the ends rather than reading out of bounds.
        EXPECT_EQ(desktop::HeatmapWidget::levelColor(9, dark), desktop::HeatmapWidget::levelColor(4, dark));
        EXPECT_EQ(desktop::HeatmapWidget::levelColor(-1, dark), desktop::HeatmapWidget::levelColor(0, dark));
    }
}

}  // namespace
}  // namespace kestrel
