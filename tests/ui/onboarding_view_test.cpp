// The first run: nothing is read before consent, the agents below the home are listed, the
// first import fills the ledger with its progress shown, and finishing is stored.
#include <QCoreApplication>
#include <QListWidget>
#include <QProgressBar>
#include <QPushButton>

#include "app/onboarding/onboarding_view.hpp"
#include "tests/ui/page_fixture.hpp"

namespace kestrel::desktop::test {
namespace {

class OnboardingViewTest : public PageFixture {
  protected:
    void SetUp() override {
        writeHome();
        openSession();  // no scan: the onboarding makes the first one
    }
};

TEST_F(OnboardingViewTest, WalksFromConsentThroughTheFirstImportToDone) {
    OnboardingView view(*host);
    SignalLog finished(&view, &OnboardingView::finished);
    SignalLog progress(&view, &OnboardingView::importProgress);
    auto* next = view.findChild<QPushButton*>("next");

    // No consent, no way on.
    EXPECT_EQ(view.step(), OnboardingView::consent);
    EXPECT_FALSE(next->isEnabled());
    view.next();
    EXPECT_EQ(view.step(), OnboardingView::consent);

    view.grantHomeAccess(true);
    EXPECT_TRUE(session->settings().didGrantHomeAccess);
    EXPECT_TRUE(next->isEnabled());
    view.grantHomeAccess(false);
    EXPECT_FALSE(session->settings().didGrantHomeAccess);
    EXPECT_FALSE(next->isEnabled());
    view.grantHomeAccess(true);
    EXPECT_EQ(session->store().ledgerEventCount(), 0);

    next->click();
    ASSERT_EQ(view.step(), OnboardingView::agents);
    auto* agents = view.findChild<QListWidget*>("agents");
    ASSERT_EQ(agents->count(), 1);
    EXPECT_TRUE(agents->item(0)->text().startsWith("Claude Code"));

    next->click();
    ASSERT_EQ(view.step(), OnboardingView::firstImport);
    EXPECT_EQ(host->backgroundRuns, 1);
    EXPECT_EQ(view.importedEvents(), kEvents);
    EXPECT_EQ(session->store().ledgerEventCount(), kEvents);
    QCoreApplication::processEvents();  // the queued progress updates
    ASSERT_GE(progress.count(), 1);
    EXPECT_EQ(progress.last()[0].toLongLong(), progress.last()[1].toLongLong());
    auto* bar = view.findChild<QProgressBar*>("progress");
    EXPECT_EQ(bar->value(), bar->maximum());
    EXPECT_TRUE(next->isEnabled());

    next->click();
    ASSERT_EQ(view.step(), OnboardingView::done);
    EXPECT_FALSE(session->settings().didCompleteOnboarding);
    next->click();
    EXPECT_EQ(finished.count(), 1);
    EXPECT_TRUE(session->settings().didCompleteOnboarding);
}

TEST_F(OnboardingViewTest, ConsentGivenEarlierIsNotAskedAgain) {
    auto settings = session->settings();
    settings.didGrantHomeAccess = true;
    session->updateSettings(settings);
    OnboardingView view(*host);
    EXPECT_TRUE(view.findChild<QPushButton*>("next")->isEnabled());
}

TEST_F(OnboardingViewTest, PicturesOfEveryStepInBothLanguages) {
    for (auto language : {AppLanguage::en, AppLanguage::zhHans}) {
        host->mutableText().setLanguage(language);
        OnboardingView view(*host);
        view.grantHomeAccess(true);
        const char* names[] = {"onboarding-consent", "onboarding-agents", "onboarding-import",
                               "onboarding-done"};
        for (int step = 0; step < 4; ++step) {
            ASSERT_EQ(view.step(), step);
            savePicture(view, names[step], host->text());
            view.next();
        }
    }
}

}  // namespace
}  // namespace kestrel::desktop::test
