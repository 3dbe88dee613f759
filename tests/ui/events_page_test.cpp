// The events page against the same ledger the command line reads: the rows, their order and
// figures, every filter, paging both ways and the CSV export.
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <fstream>
#include <nlohmann/json.hpp>

#include "app/pages/events_page.hpp"
#include "app/pages/page_format.hpp"
#include "core/app/display_choices.hpp"
#include "tests/ui/page_fixture.hpp"

namespace kestrel::desktop::test {
namespace {

class EventsPageTest : public PageFixture {
  protected:
    std::vector<std::string> cliIDs(std::vector<std::string> args) {
        args.insert(args.begin(), {"events", "--json", "--no-scan", "--limit", "1000"});
        const auto o = kestrel(args);
        EXPECT_EQ(o.code, 0) << o.err;
        std::vector<std::string> ids;
        const auto doc = nlohmann::json::parse(o.out);
        for (const auto& entry : doc.at("entries")) {
            ids.push_back(entry.at("id").get<std::string>());
        }
        return ids;
    }

    static std::vector<std::string> pageIDs(const EventsPage& page) {
        std::vector<std::string> ids;
        for (const auto& entry : page.tableModel().entries()) {
            ids.push_back(entry.event.id);
        }
        return ids;
    }

    static QString cell(const EventsPage& page, int row, EventsTableModel::Column column) {
        const auto& model = page.tableModel();
        return model.data(model.index(row, column)).toString();
    }

    static void choose(EventsPage& page, const char* box, const QString& containing) {
        auto* combo = page.findChild<QComboBox*>(box);
        ASSERT_NE(combo, nullptr);
        const int index = combo->findText(containing, Qt::MatchContains);
        ASSERT_GE(index, 0) << containing.toStdString();
        combo->setCurrentIndex(index);
    }
};

TEST_F(EventsPageTest, ShowsTheRowsAndFiguresTheCommandLinePrints) {
    EventsPage page(*host);
    page.setPageSize(1000);
    ASSERT_EQ(page.tableModel().rowCount(), kEvents);
    EXPECT_EQ(pageIDs(page), cliIDs({}));

    const auto table = kestrel({"events", "--no-scan", "--limit", "1000"});
    ASSERT_EQ(table.code, 0) << table.err;
    const auto display = pageDisplay(*session, host->text());
    for (int row = 0; row < kEvents; ++row) {
        const auto& entry = page.tableModel().entries()[static_cast<std::size_t>(row)];
        ASSERT_TRUE(entry.cost.amountUSDMicros) << entry.event.model;
        EXPECT_EQ(cell(page, row, EventsTableModel::cost).toStdString(),
                  display.money(*entry.cost.amountUSDMicros));
        // Each figure of the row is one the command line's table holds.
        for (auto column : {EventsTableModel::cost, EventsTableModel::total,
                            EventsTableModel::input, EventsTableModel::output}) {
            EXPECT_NE(table.out.find(cell(page, row, column).toStdString()), std::string::npos)
                << "row " << row << " column " << column;
        }
    }
    // The Haiku event: 100,000 in, 200,000 out.
    int haiku = 0;
    while (haiku < kEvents && cell(page, haiku, EventsTableModel::model) != kHaiku) {
        ++haiku;
    }
    ASSERT_LT(haiku, kEvents);
    EXPECT_EQ(cell(page, haiku, EventsTableModel::total), "300,000");
}

TEST_F(EventsPageTest, FiltersSelectWhatTheSameCommandLineFiltersSelect) {
    struct Case {
        const char* name;
        int period;  // EventsPeriod
        const char* model;
        const char* project;
        const char* search;
        std::vector<std::string> cliArgs;
        int expected;
    };
    const Calendar calendar = Calendar::current();
    const std::string today = calendar.dayKey(epochNow());
    const std::string weekAgo = calendar.dayKey(localTime(6, 12, 0));
    const std::string monthAgo = calendar.dayKey(localTime(29, 12, 0));
    const std::vector<Case> cases{
        {"all", 0, nullptr, nullptr, nullptr, {}, kEvents},
        {"today", 1, nullptr, nullptr, nullptr, {"--since", today, "--until", today}, 5},
        {"last 7 days", 2, nullptr, nullptr, nullptr, {"--since", weekAgo, "--until", today}, 7},
        {"last 30 days", 3, nullptr, nullptr, nullptr, {"--since", monthAgo, "--until", today}, 8},
        {"model", 0, "haiku", nullptr, nullptr, {"--model", kHaiku}, 1},
        {"project", 0, nullptr, "alpha", nullptr, {"--project", "alpha"}, 8},
        {"search", 0, nullptr, nullptr, "HAIKU", {"--search", "HAIKU"}, 1},
        {"today in alpha", 1, nullptr, "alpha", nullptr,
         {"--since", today, "--until", today, "--project", "alpha"}, 4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EventsPage page(*host);
        page.setPageSize(1000);
        page.findChild<QComboBox*>("period")->setCurrentIndex(c.period);
        if (c.model) {
            choose(page, "model", c.model);
        }
        if (c.project) {
            choose(page, "project", c.project);
        }
        if (c.search) {
            auto* search = page.findChild<QLineEdit*>("search");
            search->setText(c.search);
            emit search->editingFinished();
        }
        EXPECT_EQ(page.tableModel().rowCount(), c.expected);
        EXPECT_EQ(pageIDs(page), cliIDs(c.cliArgs));
    }
}

TEST_F(EventsPageTest, FacetsListWhatTheLedgerHolds) {
    EventsPage page(*host);
    // "All" and then one entry per value.
    EXPECT_EQ(page.findChild<QComboBox*>("agent")->count(), 2);
    EXPECT_EQ(page.findChild<QComboBox*>("model")->count(), 3);
    EXPECT_EQ(page.findChild<QComboBox*>("project")->count(), 3);
    EXPECT_TRUE(page.findChild<QLabel*>("facets")->text().contains("2 models"));
}

TEST_F(EventsPageTest, PagesForwardAndBackCoverEveryEventOnce) {
    EventsPage page(*host);
    page.setPageSize(4);
    const auto all = cliIDs({});
    std::vector<std::string> seen;
    std::vector<std::vector<std::string>> pages;
    for (;;) {
        pages.push_back(pageIDs(page));
        seen.insert(seen.end(), pages.back().begin(), pages.back().end());
        if (!page.hasNextPage()) {
            break;
        }
        page.nextPage();
    }
    EXPECT_EQ(seen, all);
    ASSERT_EQ(pages.size(), 3u);
    EXPECT_EQ(pages.back().size(), 1u);
    EXPECT_EQ(page.pageNumber(), 2);
    page.previousPage();
    EXPECT_EQ(pageIDs(page), pages[1]);
    page.previousPage();
    EXPECT_EQ(pageIDs(page), pages[0]);
    page.previousPage();  // already on the first: stays
    EXPECT_EQ(page.pageNumber(), 0);
    // A new filter starts again from the first page.
    page.nextPage();
    choose(page, "model", "sonnet");
    EXPECT_EQ(page.pageNumber(), 0);
}

TEST_F(EventsPageTest, ExportsTheFilteredEventsOrSaysWhyNot) {
    EventsPage page(*host);
    choose(page, "project", "beta");
    SignalLog finished(&page, &EventsPage::exportFinished);
    SignalLog progress(&page, &EventsPage::exportProgressed);

    const auto target = support / "out.csv";
    page.exportTo(QString::fromStdString(target.string()));
    ASSERT_EQ(finished.count(), 1);
    EXPECT_TRUE(finished[0][0].toBool());
    EXPECT_EQ(host->backgroundRuns, 1);
    // The progress crosses over as queued calls; the last one says every row is written.
    QCoreApplication::processEvents();
    ASSERT_FALSE(progress.isEmpty());
    EXPECT_EQ(progress.last()[0].toLongLong(), 1);
    EXPECT_EQ(progress.last()[1].toLongLong(), 1);
    std::ifstream in(target);
    std::string header, row, extra;
    ASSERT_TRUE(std::getline(in, header));
    EXPECT_TRUE(header.starts_with("time_utc,"));
    ASSERT_TRUE(std::getline(in, row));
    EXPECT_NE(row.find(kHaiku), std::string::npos);
    EXPECT_FALSE(std::getline(in, extra));

    page.exportTo(QString::fromStdString((support / "no-such-dir" / "out.csv").string()));
    ASSERT_EQ(finished.count(), 2);
    EXPECT_FALSE(finished[1][0].toBool());
    EXPECT_TRUE(finished[1][1].toString().contains("no-such-dir"));
    EXPECT_EQ(page.findChild<QLabel*>("status")->text(), finished[1][1].toString());
}

TEST_F(EventsPageTest, PicturesInBothLanguages) {
    for (auto language : {AppLanguage::en, AppLanguage::zhHans}) {
        host->mutableText().setLanguage(language);
        EventsPage page(*host);
        EXPECT_EQ(page.title().isEmpty(), false);
        savePicture(page, page.pageId(), host->text());
    }
    host->mutableText().setLanguage(AppLanguage::en);
    EventsPage page(*host);
    auto* exportButton = page.findChild<QPushButton*>("export");
    const QString english = exportButton->text();
    host->mutableText().setLanguage(AppLanguage::zhHans);
    page.retranslate();
    EXPECT_NE(exportButton->text(), english);
    EXPECT_EQ(exportButton->text(), host->text()("pages.events.export"));
}

}  // namespace
}  // namespace kestrel::desktop::test
