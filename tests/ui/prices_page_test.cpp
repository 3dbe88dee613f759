// The prices page: the rows the command line lists, and overrides saved and removed through the
// editor repricing the ledger.
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QTableWidget>
#include <nlohmann/json.hpp>

#include "app/pages/prices_page.hpp"
#include "core/app/events_page.hpp"
#include "tests/ui/page_fixture.hpp"

namespace kestrel::desktop::test {
namespace {

class PricesPageTest : public PageFixture {
  protected:
    // What the ledger holds for the Haiku event's cost.
    std::optional<int64_t> haikuCost() {
        LedgerQuery query;
        query.model = kHaiku;
        const auto page = eventsPage(session->store(), query, LedgerSortOrder::descending, {}, 10);
        EXPECT_EQ(page.entries.size(), 1u);
        return page.entries.empty() ? std::nullopt : page.entries[0].cost.amountUSDMicros;
    }

    static int rowOf(QTableWidget* table, const QString& pattern) {
        for (int r = 0; r < table->rowCount(); ++r) {
            if (table->item(r, 0)->text() == pattern) {
                return r;
            }
        }
        return -1;
    }
};

TEST_F(PricesPageTest, ListsTheRowsTheCommandLineLists) {
    PricesPage page(*host);
    const auto cli = kestrel({"prices", "--json"});
    ASSERT_EQ(cli.code, 0) << cli.err;
    const auto doc = nlohmann::json::parse(cli.out);
    auto* table = page.findChild<QTableWidget*>("prices");
    ASSERT_EQ(static_cast<std::size_t>(table->rowCount()), doc.at("rows").size());
    EXPECT_EQ(page.prices().version, doc.at("version").get<int64_t>());
    int r = 0;
    for (const auto& row : doc.at("rows")) {
        SCOPED_TRACE(row.at("match").get<std::string>());
        EXPECT_EQ(table->item(r, 0)->text().toStdString(), row.at("match").get<std::string>());
        EXPECT_EQ(table->item(r, 2)->text().toStdString(),
                  row.at("inputUncachedPerMTokUSD").get<std::string>());
        EXPECT_EQ(table->item(r, 5)->text().toStdString(),
                  row.at("outputVisiblePerMTokUSD").get<std::string>());
        ++r;
    }
    // The filter narrows the table to matching patterns.
    page.findChild<QLineEdit*>("filter")->setText("haiku-4-5");
    EXPECT_GE(table->rowCount(), 1);
    for (int i = 0; i < table->rowCount(); ++i) {
        EXPECT_TRUE(table->item(i, 0)->text().contains("haiku-4-5"));
    }
}

TEST_F(PricesPageTest, AnOverrideRepricesTheLedgerAndRemovingItRestoresTheCost) {
    PricesPage page(*host);
    SignalLog finished(&page, &PricesPage::changeFinished);
    SignalLog progressed(&page, &PricesPage::repriceProgressed);
    const auto before = haikuCost();
    ASSERT_TRUE(before);
    ASSERT_GT(*before, 0);

    // Picking the row fills the editor; the new prices are typed over it.
    auto* table = page.findChild<QTableWidget*>("prices");
    const int row = rowOf(table, "claude-haiku-4-5");
    ASSERT_GE(row, 0);
    table->setCurrentCell(row, 0);
    EXPECT_EQ(page.findChild<QLineEdit*>("match")->text(), "claude-haiku-4-5");
    page.findChild<QLineEdit*>("input")->setText("10");
    page.findChild<QLineEdit*>("output")->setText("20");
    page.findChild<QLineEdit*>("cacheRead")->clear();
    page.findChild<QLineEdit*>("cacheWrite")->clear();
    page.findChild<QLineEdit*>("reasoning")->clear();
    page.findChild<QPushButton*>("save")->click();

    ASSERT_EQ(finished.count(), 1);
    EXPECT_TRUE(finished[0][0].toBool()) << finished[0][1].toString().toStdString();
    EXPECT_EQ(host->backgroundRuns, 1);
    // 100,000 input at $10 and 200,000 output at $20 per million: $1 + $4.
    EXPECT_EQ(haikuCost(), 5'000'000);
    // The bar followed the reprice to its end.
    QCoreApplication::processEvents();
    ASSERT_GE(progressed.count(), 1);
    const auto& last = progressed[progressed.count() - 1];
    EXPECT_GT(last[1].toLongLong(), 0);
    EXPECT_EQ(last[0].toLongLong(), last[1].toLongLong());
    EXPECT_EQ(page.findChild<QProgressBar*>("repriceProgress")->value(), last[0].toLongLong());
    const int marked = rowOf(table, "claude-haiku-4-5");
    ASSERT_GE(marked, 0);
    EXPECT_FALSE(table->item(marked, 8)->text().isEmpty());
    const auto cli = kestrel({"prices", "--json"});
    EXPECT_NE(cli.out.find("\"override\": true"), std::string::npos);

    page.removeOverride("claude-haiku-4-5");
    ASSERT_EQ(finished.count(), 2);
    EXPECT_TRUE(finished[1][0].toBool());
    EXPECT_EQ(haikuCost(), before);
    EXPECT_TRUE(table->item(rowOf(table, "claude-haiku-4-5"), 8)->text().isEmpty());
}

TEST_F(PricesPageTest, RefusesWhatIsNoOverrideBeforeTouchingTheLedger) {
    PricesPage page(*host);
    SignalLog finished(&page, &PricesPage::changeFinished);
    const auto input = [](std::string match, std::string in, std::optional<std::string> from) {
        PriceOverrideInput typed;
        typed.match = std::move(match);
        typed.input = std::move(in);
        typed.output = "2";
        typed.from = std::move(from);
        return typed;
    };
    struct Case {
        PriceOverrideInput input;
        const char* says;
    };
    const std::vector<Case> cases{
        {input("", "1", std::nullopt), nullptr},
        {input("m", "one", std::nullopt), "one"},
        {input("m", "1", "someday"), "someday"},
    };
    for (const auto& c : cases) {
        page.saveOverride(c.input);
        ASSERT_FALSE(finished.isEmpty());
        const auto args = finished.takeLast();
        EXPECT_FALSE(args[0].toBool());
        if (c.says) {
            EXPECT_TRUE(args[1].toString().contains(c.says)) << args[1].toString().toStdString();
        }
    }
    EXPECT_EQ(host->backgroundRuns, 0);
    page.removeOverride("no-such-pattern");
    ASSERT_EQ(finished.count(), 1);
    EXPECT_FALSE(finished[0][0].toBool());
    EXPECT_TRUE(finished[0][1].toString().contains("no-such-pattern"));
}

TEST_F(PricesPageTest, PicturesInBothLanguages) {
    for (auto language : {AppLanguage::en, AppLanguage::zhHans}) {
        host->mutableText().setLanguage(language);
        PricesPage page(*host);
        savePicture(page, page.pageId(), host->text());
    }
}

}  // namespace
}  // namespace kestrel::desktop::test
