#pragma once
// The first run: consent to read the home folder, the agents found there, the first import with
// its progress, then done. The shell shows it while onboarding is not complete and listens for
// finished().

#include <QPointer>
#include <QWidget>
#include <cstdint>

#include "app/page.hpp"
#include "core/model/app_settings.hpp"

class QCheckBox;
class QLabel;
class QListWidget;
class QProgressBar;
class QPushButton;
class QStackedWidget;

namespace kestrel::desktop {

class OnboardingView : public QWidget {
    Q_OBJECT

  public:
    enum Step { consent, agents, firstImport, done };

    explicit OnboardingView(PageHost& host, QWidget* parent = nullptr);

    Step step() const;
    void retranslate();

    // The user's consent: stored as didGrantHomeAccess, after which the next step opens.
    void grantHomeAccess(bool granted);
    // Moves to the next step (the import starts when its step is reached).
    void next();
    // Stores didCompleteOnboarding and says finished().
    void finish();

    int64_t importedEvents() const { return imported_; }

  signals:
    void finished();
    // For the tests and the shell's status line: files done of all, as the scan reports them.
    void importProgress(int64_t completed, int64_t total);

  private:
    void showStep(Step step);
    void showAgents();
    void startImport();
    void storeFlag(bool AppSettings::*flag, bool value);

    PageHost& host_;
    QStackedWidget* steps_ = nullptr;
    QLabel* heading_ = nullptr;
    QLabel* consentText_ = nullptr;
    QCheckBox* consentBox_ = nullptr;
    QLabel* agentsText_ = nullptr;
    QListWidget* agentList_ = nullptr;
    QLabel* importText_ = nullptr;
    QProgressBar* progress_ = nullptr;
    QLabel* doneText_ = nullptr;
    QPushButton* next_ = nullptr;
    QLabel* error_ = nullptr;
    bool importing_ = false;
    bool imported_ok_ = false;
    int64_t imported_ = 0;
};

}  // namespace kestrel::desktop
