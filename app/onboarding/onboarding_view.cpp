#include "app/onboarding/onboarding_view.hpp"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QProgressBar>
#include <QPushButton>
#include <QStackedWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <expected>
#include <memory>

#include "app/pages/page_format.hpp"
#include "app/ui_text.hpp"
#include "core/app/integration_status.hpp"
#include "core/app/usage_scan.hpp"

namespace kestrel::desktop {

OnboardingView::OnboardingView(PageHost& host, QWidget* parent) : QWidget(parent), host_(host) {
    heading_ = new QLabel(this);
    heading_->setObjectName(QStringLiteral("heading"));
    steps_ = new QStackedWidget(this);

    const auto pageWith = [this](std::initializer_list<QWidget*> widgets) {
        auto* page = new QWidget;
        auto* layout = new QVBoxLayout(page);
        for (auto* w : widgets) {
            layout->addWidget(w);
        }
        layout->addStretch(1);
        steps_->addWidget(page);
    };
    consentText_ = new QLabel;
    consentText_->setWordWrap(true);
    consentBox_ = new QCheckBox;
    consentBox_->setObjectName(QStringLiteral("consent"));
    pageWith({consentText_, consentBox_});

    agentsText_ = new QLabel;
    agentsText_->setWordWrap(true);
    agentList_ = new QListWidget;
    agentList_->setObjectName(QStringLiteral("agents"));
    pageWith({agentsText_, agentList_});

    importText_ = new QLabel;
    importText_->setObjectName(QStringLiteral("importText"));
    importText_->setWordWrap(true);
    progress_ = new QProgressBar;
    progress_->setObjectName(QStringLiteral("progress"));
    progress_->setRange(0, 0);
    pageWith({importText_, progress_});

    doneText_ = new QLabel;
    doneText_->setObjectName(QStringLiteral("doneText"));
    doneText_->setWordWrap(true);
    pageWith({doneText_});

    error_ = new QLabel(this);
    error_->setObjectName(QStringLiteral("error"));
    error_->setWordWrap(true);
    next_ = new QPushButton(this);
    next_->setObjectName(QStringLiteral("next"));
    next_->setDefault(true);
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(error_, 1);
    buttons->addWidget(next_);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(heading_);
    layout->addWidget(steps_, 1);
    layout->addLayout(buttons);

    connect(consentBox_, &QCheckBox::toggled, this, [this](bool on) { grantHomeAccess(on); });
    connect(next_, &QPushButton::clicked, this, [this] {
        if (step() == done) {
            finish();
        } else {
            next();
        }
    });

    // Consent given on an earlier run that did not finish is not asked again.
    const bool granted = host_.session().settings().didGrantHomeAccess;
    consentBox_->setChecked(granted);
    showStep(consent);
}

OnboardingView::Step OnboardingView::step() const {
    return static_cast<Step>(steps_->currentIndex());
}

void OnboardingView::storeFlag(bool AppSettings::*flag, bool value) {
    auto settings = host_.session().settings();
    settings.*flag = value;
    try {
        host_.session().updateSettings(settings);
        error_->clear();
    } catch (const std::exception& e) {
        error_->setText(host_.text()("pages.settings.saveFailed", {{"reason", e.what()}}));
    }
}

void OnboardingView::grantHomeAccess(bool granted) {
    if (consentBox_->isChecked() != granted) {
        consentBox_->setChecked(granted);  // comes back here through toggled
        return;
    }
    storeFlag(&AppSettings::didGrantHomeAccess, granted);
    next_->setEnabled(step() != consent || host_.session().settings().didGrantHomeAccess);
}

void OnboardingView::next() {
    switch (step()) {
        case consent:
            if (host_.session().settings().didGrantHomeAccess) {
                showStep(agents);
            }
            break;
        case agents:
            showStep(firstImport);
            startImport();
            break;
        case firstImport:
            if (imported_ok_) {
                showStep(done);
            }
            break;
        case done:
            break;
    }
}

void OnboardingView::finish() {
    storeFlag(&AppSettings::didCompleteOnboarding, true);
    emit finished();
}

void OnboardingView::showStep(Step s) {
    steps_->setCurrentIndex(s);
    if (s == agents) {
        showAgents();
    }
    retranslate();
}

void OnboardingView::showAgents() {
    agentList_->clear();
    const auto status = integrationStatus(host_.session());
    for (const auto& row : status.rows) {
        if (row.group == IntegrationListGroup::notInstalled) {
            continue;
        }
        QString line = QString::fromStdString(row.plugin->descriptor.displayName);
        if (!row.installation.installedRoots.empty()) {
            line += QStringLiteral(" — ") +
                    QString::fromStdString(row.installation.installedRoots.front().string());
        }
        agentList_->addItem(line);
    }
}

void OnboardingView::startImport() {
    if (importing_) {
        return;
    }
    importing_ = true;
    imported_ok_ = false;
    progress_->setRange(0, 0);
    auto& session = host_.session();
    auto outcome = std::make_shared<std::expected<ScanOutcome, ScanFailure>>(
        std::unexpected(ScanFailure{}));
    QPointer<OnboardingView> self(this);
    // Progress comes from the scanning thread; it reaches the widgets queued on the main thread.
    ScanCallbacks callbacks;
    callbacks.onFileProgress = [self](int64_t completed, int64_t total, std::optional<AgentSource>) {
        QMetaObject::invokeMethod(
            self.data(),
            [self, completed, total] {
                if (!self) {
                    return;
                }
                self->progress_->setRange(0, static_cast<int>(std::max<int64_t>(total, 1)));
                self->progress_->setValue(static_cast<int>(completed));
                emit self->importProgress(completed, total);
            },
            Qt::QueuedConnection);
    };
    host_.runInBackground(
        [&session, outcome, callbacks] { *outcome = scanUsage(session, {}, callbacks); },
        [self, outcome] {
            if (!self) {
                return;
            }
            self->importing_ = false;
            if (*outcome) {
                self->imported_ok_ = true;
                // What the ledger holds now: a second run of the import reads nothing new.
                try {
                    self->imported_ = self->host_.session().store().ledgerEventCount();
                } catch (const std::exception&) {
                    self->imported_ = (*outcome)->totals.events;
                }
                self->progress_->setRange(0, 1);
                self->progress_->setValue(1);
                self->error_->clear();
            } else {
                self->error_->setText(
                    self->host_.text()("onboarding.importFailed",
                                       {{"reason", (*outcome).error().message}}));
            }
            self->retranslate();
        });
}

void OnboardingView::retranslate() {
    const auto& t = host_.text();
    const std::string home = host_.session().paths().home.string();
    static constexpr const char* headings[] = {"onboarding.consent.heading",
                                               "onboarding.agents.heading",
                                               "onboarding.import.heading",
                                               "onboarding.done.heading"};
    heading_->setText(QStringLiteral("<h2>%1</h2>").arg(t(headings[step()])));
    consentText_->setText(t("onboarding.consent.text", {{"home", home}}));
    consentBox_->setText(t("onboarding.consent.allow"));
    agentsText_->setText(agentList_->count() == 0
                             ? t("onboarding.agents.none", {{"home", home}})
                             : t("onboarding.agents.found",
                                 {{"count", std::to_string(agentList_->count())}}));
    importText_->setText(importing_     ? t("onboarding.import.running")
                         : imported_ok_ ? t("onboarding.import.done",
                                            {{"count", std::to_string(imported_)}})
                                        : t("onboarding.import.waiting"));
    doneText_->setText(t("onboarding.done.text"));
    next_->setText(step() == done ? t("onboarding.finish") : t("onboarding.next"));
    switch (step()) {
        case consent:
            next_->setEnabled(host_.session().settings().didGrantHomeAccess);
            break;
        case firstImport:
            next_->setEnabled(imported_ok_);
            break;
        default:
            next_->setEnabled(true);
    }
}

}  // namespace kestrel::desktop
