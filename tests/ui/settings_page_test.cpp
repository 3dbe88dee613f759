// The settings page: what the widgets set is what the session stores and what a new page shows;
// typed values that are refused change nothing; the language reaches whoever listens.
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>

#include "app/autostart_entry.hpp"
#include "app/pages/settings_page.hpp"
#include "tests/ui/page_fixture.hpp"

namespace kestrel::desktop::test {
namespace {

class SettingsPageTest : public PageFixture {
  protected:
    void SetUp() override {
        writeHome();
        openSession();
    }

    std::unique_ptr<SettingsPage> makePage() {
        auto page = std::make_unique<SettingsPage>(*host);
        page->setAutostartFile(autostart / "autostart" / "kestrel.desktop");
        return page;
    }

    static void type(SettingsPage& page, const char* name, const QString& text) {
        auto* edit = page.findChild<QLineEdit*>(name);
        ASSERT_NE(edit, nullptr) << name;
        edit->setText(text);
        emit edit->editingFinished();
    }
    template <typename Enum>
    static void pick(SettingsPage& page, const char* name, Enum value) {
        auto* box = page.findChild<QComboBox*>(name);
        ASSERT_NE(box, nullptr) << name;
        box->setCurrentIndex(box->findData(static_cast<int>(value)));
    }
    static void tick(SettingsPage& page, const char* name, bool on) {
        auto* box = page.findChild<QCheckBox*>(name);
        ASSERT_NE(box, nullptr) << name;
        box->setChecked(on);
    }

    test_support::TempDir autostart;
};

TEST(YuanBudget, ReadsYuanAsFenAndRefusesWhatIsNoAmount) {
    struct Case {
        const char* text;
        std::optional<int64_t> fen;
        bool ok;
    };
    const Case cases[] = {
        {"", std::nullopt, true},      {"  ", std::nullopt, true}, {"12", 1200, true},
        {"12.5", 1250, true},          {"12,34", 1234, true},      {" 0.05 ", 5, true},
        {"12.", 1200, true},           {".5", 50, true},           {"12.345", {}, false},
        {"-3", {}, false},             {"1e3", {}, false},         {"12.3.4", {}, false},
        {".", {}, false},              {"abc", {}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const auto parsed = parseYuanBudget(c.text);
        ASSERT_EQ(parsed.has_value(), c.ok);
        if (c.ok) {
            EXPECT_EQ(*parsed, c.fen);
            // What is shown reads back as the same amount.
            EXPECT_EQ(parseYuanBudget(yuanBudgetText(*parsed)).value(), c.fen);
        }
    }
    EXPECT_EQ(yuanBudgetText(1205), "12.05");
    EXPECT_EQ(yuanBudgetText(7), "0.07");
}

TEST_F(SettingsPageTest, WidgetsReachTheStoredSettingsAndANewPageShowsThem) {
    {
        auto page = makePage();
        pick(*page, "theme", AppTheme::dark);
        pick(*page, "currency", DisplayCurrency::cny);
        tick(*page, "keepMenuBar", false);
        tick(*page, "confirmBeforeQuit", false);
        tick(*page, "storeSession", false);
        tick(*page, "quotaNotifications", false);
        tick(*page, "importNotifications", false);
        tick(*page, "notifyApproval", false);
        page->findChild<QSpinBox*>("retention")->setValue(90);
        type(*page, "dailyBudget", "30");
        type(*page, "monthlyBudget", "500.5");
        type(*page, "importSince", "2026-01-15");
    }
    const AppSettings stored = session->settings();
    EXPECT_EQ(stored.theme, AppTheme::dark);
    EXPECT_EQ(stored.displayCurrency, DisplayCurrency::cny);
    EXPECT_FALSE(stored.keepMenuBar);
    EXPECT_FALSE(stored.confirmBeforeQuit);
    EXPECT_FALSE(stored.storeSession);
    EXPECT_TRUE(stored.storeProject);
    EXPECT_FALSE(stored.quotaNotificationsEnabled);
    EXPECT_FALSE(stored.importNotificationsEnabled);
    EXPECT_TRUE(stored.budgetNotificationsEnabled);
    EXPECT_FALSE(stored.activityNotifyApproval);
    EXPECT_TRUE(stored.activityNotifyFailure);
    EXPECT_EQ(stored.retentionDays, 90);
    EXPECT_EQ(stored.dailyBudgetCNYFen, 3000);
    EXPECT_EQ(stored.monthlyBudgetCNYFen, 50050);
    EXPECT_EQ(stored.usageImportSince, Calendar::current().startOfDay(std::string("2026-01-15")));

    // The same values through the command line, which reads the stored settings.
    const auto cli = kestrel({"settings", "--json"});
    ASSERT_EQ(cli.code, 0) << cli.err;
    EXPECT_NE(cli.out.find("\"retentionDays\": 90"), std::string::npos) << cli.out;
    EXPECT_NE(cli.out.find("\"dailyBudgetCNYFen\": 3000"), std::string::npos);

    // A session opened again and a new page show the same.
    session.reset();
    openSession();
    auto again = makePage();
    EXPECT_EQ(session->settings(), stored);
    EXPECT_EQ(again->findChild<QComboBox*>("theme")->currentData().toInt(),
              static_cast<int>(AppTheme::dark));
    EXPECT_FALSE(again->findChild<QCheckBox*>("storeSession")->isChecked());
    EXPECT_EQ(again->findChild<QSpinBox*>("retention")->value(), 90);
    EXPECT_EQ(again->findChild<QLineEdit*>("dailyBudget")->text(), "30.00");
    EXPECT_EQ(again->findChild<QLineEdit*>("monthlyBudget")->text(), "500.50");
    EXPECT_EQ(again->findChild<QLineEdit*>("importSince")->text(), "2026-01-15");
    // Clearing a budget stores none.
    type(*again, "dailyBudget", "");
    EXPECT_EQ(session->settings().dailyBudgetCNYFen, std::nullopt);
}

TEST_F(SettingsPageTest, RefusedInputChangesNothingAndSaysWhy) {
    struct Case {
        const char* field;
        const char* text;
        const char* says;
    };
    const Case cases[] = {
        {"dailyBudget", "12.345", "12.345"},
        {"monthlyBudget", "lots", "lots"},
        {"importSince", "2026-13-01", "2026-13-01"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.field);
        auto page = makePage();
        SignalLog applied(page.get(), &SettingsPage::settingsApplied);
        const AppSettings before = session->settings();
        type(*page, c.field, c.text);
        ASSERT_EQ(applied.count(), 1);
        EXPECT_FALSE(applied[0][0].toBool());
        EXPECT_TRUE(applied[0][1].toString().contains(c.says));
        EXPECT_EQ(session->settings(), before);
    }
}

TEST_F(SettingsPageTest, TypedAndFetchedRatesAreStoredOnlyWhenValid) {
    auto page = makePage();
    SignalLog applied(page.get(), &SettingsPage::settingsApplied);
    auto* rate = page->findChild<QLineEdit*>("rate");
    const auto setRate = [&](const char* text) {
        rate->setText(text);
        page->findChild<QPushButton*>("setRate")->click();
    };
    const int64_t version = session->settings().fxVersion;
    setRate("7,1");
    EXPECT_EQ(session->settings().cnyPerUsdE4, 71000);
    EXPECT_EQ(session->settings().fxVersion, version + 1);
    setRate("20");  // out of range
    setRate("seven");
    EXPECT_EQ(session->settings().cnyPerUsdE4, 71000);
    ASSERT_EQ(applied.count(), 3);
    EXPECT_TRUE(applied[0][0].toBool());
    EXPECT_FALSE(applied[1][0].toBool());
    EXPECT_TRUE(applied[2][1].toString().contains("seven"));
    EXPECT_TRUE(page->findChild<QLabel*>("rateInfo")->text().contains("7.1000"));

    // Nothing answers on the discard port: the rate stays, the page says so.
    page->fetchRate("http://127.0.0.1:9/v1/latest");
    EXPECT_EQ(host->backgroundRuns, 1);
    ASSERT_EQ(applied.count(), 4);
    EXPECT_FALSE(applied[3][0].toBool());
    EXPECT_EQ(applied[3][1].toString(), host->text()("fx.badResponse"));
    EXPECT_EQ(session->settings().cnyPerUsdE4, 71000);
}

TEST_F(SettingsPageTest, LanguageAndThemeChangesAreAnnounced) {
    auto page = makePage();
    SignalLog language(page.get(), &SettingsPage::languageChanged);
    SignalLog theme(page.get(), &SettingsPage::themeChanged);
    // As the shell does: a new language is set and every page retranslated.
    QObject::connect(page.get(), &SettingsPage::languageChanged, [&](AppLanguage chosen) {
        host->mutableText().setLanguage(chosen);
        page->retranslate();
    });
    const QString english = page->title();
    pick(*page, "language", AppLanguage::zhHans);
    ASSERT_EQ(language.count(), 1);
    EXPECT_EQ(language[0][0].value<AppLanguage>(), AppLanguage::zhHans);
    EXPECT_EQ(session->settings().language, AppLanguage::zhHans);
    EXPECT_NE(page->title(), english);
    // The choice survives the retranslation (it is not taken for a new change).
    EXPECT_EQ(page->findChild<QComboBox*>("language")->currentData().toInt(),
              static_cast<int>(AppLanguage::zhHans));
    EXPECT_EQ(language.count(), 1);
    EXPECT_EQ(theme.count(), 0);
    pick(*page, "theme", AppTheme::light);
    EXPECT_EQ(theme.count(), 1);
    EXPECT_EQ(language.count(), 1);
}

TEST_F(SettingsPageTest, LaunchAtLoginWritesAndRemovesTheAutostartEntry) {
    auto page = makePage();
    const auto entry = autostart / "autostart" / "kestrel.desktop";
    tick(*page, "launchAtLogin", true);
    EXPECT_TRUE(session->settings().launchAtLogin);
    EXPECT_TRUE(launchesAtLogin(entry));
    tick(*page, "launchAtLogin", false);
    EXPECT_FALSE(session->settings().launchAtLogin);
    EXPECT_FALSE(std::filesystem::exists(entry));

    // A folder that cannot be made: the switch stays off and the page says why.
    autostart.write("blocked", "a file where the folder should be");
    page->setAutostartFile(autostart / "blocked" / "kestrel.desktop");
    SignalLog applied(page.get(), &SettingsPage::settingsApplied);
    tick(*page, "launchAtLogin", true);
    EXPECT_FALSE(session->settings().launchAtLogin);
    EXPECT_FALSE(page->findChild<QCheckBox*>("launchAtLogin")->isChecked());
    ASSERT_EQ(applied.count(), 1);
    EXPECT_FALSE(applied[0][0].toBool());
}

TEST_F(SettingsPageTest, SwitchingPrivacyOffSaysWhatStaysStored) {
    scan();
    auto page = makePage();
    SignalLog applied(page.get(), &SettingsPage::settingsApplied);
    tick(*page, "storeProject", false);
    ASSERT_EQ(applied.count(), 1);
    EXPECT_TRUE(applied[0][1].toString().contains("The 9 events that already have one keep it"))
        << applied[0][1].toString().toStdString();
    tick(*page, "storeProject", true);
    ASSERT_EQ(applied.count(), 2);
    EXPECT_FALSE(applied[1][1].toString().contains("keep it"));
}

TEST_F(SettingsPageTest, PicturesInBothLanguages) {
    for (auto language : {AppLanguage::en, AppLanguage::zhHans}) {
        host->mutableText().setLanguage(language);
        auto page = makePage();
        savePicture(*page, page->pageId(), host->text());
    }
}

}  // namespace
}  // namespace kestrel::desktop::test
