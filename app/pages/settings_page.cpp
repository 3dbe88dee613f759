#include "app/pages/settings_page.hpp"

#include <QCheckBox>
#include <QComboBox>
#include <QCoreApplication>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QSpinBox>
#include <QVBoxLayout>
#include <memory>
#include <tuple>

#include "app/autostart_entry.hpp"
#include "app/pages/page_format.hpp"
#include "app/ui_text.hpp"
#include "core/app/app_session.hpp"
#include "core/app/fx_settings.hpp"
#include "core/model/calendar.hpp"
#include "core/pricing/fx_rate.hpp"

namespace kestrel::desktop {

std::expected<std::optional<int64_t>, std::string> parseYuanBudget(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
        text.remove_suffix(1);
    }
    if (text.empty()) {
        return std::optional<int64_t>();
    }
    int64_t yuan = 0, fen = 0;
    int decimals = -1;  // -1 before the decimal point
    bool digits = false;
    for (char c : text) {
        if ((c == '.' || c == ',') && decimals < 0) {
            decimals = 0;
        } else if (c >= '0' && c <= '9') {
            digits = true;
            if (decimals < 0) {
                if (yuan > 1'000'000'000'000) {
                    return std::unexpected("too large");
                }
                yuan = yuan * 10 + (c - '0');
            } else if (++decimals > 2) {
                return std::unexpected("more than two decimals");
            } else {
                fen = fen * 10 + (c - '0');
            }
        } else {
            return std::unexpected("not a number");
        }
    }
    if (!digits) {
        return std::unexpected("not a number");
    }
    if (decimals == 1) {
        fen *= 10;  // "12.5" is 12 yuan 50 fen
    }
    return std::optional<int64_t>(yuan * 100 + fen);
}

std::string yuanBudgetText(const std::optional<int64_t>& fen) {
    if (!fen) {
        return {};
    }
    const auto cents = *fen % 100;
    return std::to_string(*fen / 100) + (cents < 10 ? ".0" : ".") + std::to_string(cents);
}

namespace {

template <typename Enum>
void selectData(QComboBox* box, Enum value) {
    box->setCurrentIndex(std::max(0, box->findData(static_cast<int>(value))));
}

template <typename Enum>
Enum chosen(const QComboBox* box) {
    return static_cast<Enum>(box->currentData().toInt());
}

}  // namespace

SettingsPage::SettingsPage(PageHost& host, QWidget* parent)
    : Page(host, parent), text_(host.text()), autostart_(autostartFile(processEnvironment())) {
    auto* content = new QWidget;
    auto* column = new QVBoxLayout(content);

    const auto label = [this](const char* key) {
        auto* l = new QLabel;
        texts_.emplace_back(l, key);
        return l;
    };
    const auto check = [this](const char* name, const char* key) {
        auto* box = new QCheckBox;
        box->setObjectName(QString::fromLatin1(name));
        texts_.emplace_back(box, key);
        connect(box, &QCheckBox::toggled, this, [this] { apply(); });
        return box;
    };
    const auto group = [&](QGroupBox*& box, const char* key) {
        box = new QGroupBox;
        texts_.emplace_back(box, key);
        column->addWidget(box);
        return new QFormLayout(box);
    };

    // General
    generalForm_ = group(general_, "pages.settings.general");
    language_ = new QComboBox;
    language_->setObjectName(QStringLiteral("language"));
    language_->addItem(QString(), static_cast<int>(AppLanguage::system));
    language_->addItem(QStringLiteral("English"), static_cast<int>(AppLanguage::en));
    language_->addItem(QStringLiteral("简体中文"), static_cast<int>(AppLanguage::zhHans));
    theme_ = new QComboBox;
    theme_->setObjectName(QStringLiteral("theme"));
    for (auto theme : {AppTheme::system, AppTheme::light, AppTheme::dark}) {
        theme_->addItem(QString(), static_cast<int>(theme));
    }
    generalForm_->addRow(label("pages.settings.language"), language_);
    generalForm_->addRow(label("pages.settings.theme"), theme_);
    launchAtLogin_ = check("launchAtLogin", "pages.settings.launchAtLogin");
    keepMenuBar_ = check("keepMenuBar", "pages.settings.keepMenuBar");
    confirmQuit_ = check("confirmBeforeQuit", "pages.settings.confirmBeforeQuit");
    generalForm_->addRow(launchAtLogin_);
    generalForm_->addRow(keepMenuBar_);
    generalForm_->addRow(confirmQuit_);

    // Money
    moneyForm_ = group(money_, "pages.settings.money");
    currency_ = new QComboBox;
    currency_->setObjectName(QStringLiteral("currency"));
    for (auto currency : {DisplayCurrency::automatic, DisplayCurrency::usd, DisplayCurrency::cny}) {
        currency_->addItem(QString(), static_cast<int>(currency));
    }
    moneyForm_->addRow(label("pages.settings.currency"), currency_);
    rate_ = new QLineEdit;
    rate_->setObjectName(QStringLiteral("rate"));
    setRate_ = new QPushButton;
    setRate_->setObjectName(QStringLiteral("setRate"));
    texts_.emplace_back(setRate_, "pages.settings.setRate");
    fetchRate_ = new QPushButton;
    fetchRate_->setObjectName(QStringLiteral("fetchRate"));
    texts_.emplace_back(fetchRate_, "fx.fetchLive");
    auto* rateRow = new QHBoxLayout;
    rateRow->addWidget(rate_, 1);
    rateRow->addWidget(setRate_);
    rateRow->addWidget(fetchRate_);
    moneyForm_->addRow(label("fx.heading"), rateRow);
    rateInfo_ = new QLabel;
    rateInfo_->setObjectName(QStringLiteral("rateInfo"));
    moneyForm_->addRow(QString(), rateInfo_);
    dailyBudget_ = new QLineEdit;
    dailyBudget_->setObjectName(QStringLiteral("dailyBudget"));
    monthlyBudget_ = new QLineEdit;
    monthlyBudget_->setObjectName(QStringLiteral("monthlyBudget"));
    moneyForm_->addRow(label("pages.settings.dailyBudget"), dailyBudget_);
    moneyForm_->addRow(label("pages.settings.monthlyBudget"), monthlyBudget_);

    // Data
    dataForm_ = group(data_, "pages.settings.data");
    retention_ = new QSpinBox;
    retention_->setObjectName(QStringLiteral("retention"));
    retention_->setRange(0, 3650);
    dataForm_->addRow(label("pages.settings.retention"), retention_);
    importSince_ = new QLineEdit;
    importSince_->setObjectName(QStringLiteral("importSince"));
    importSince_->setPlaceholderText(QStringLiteral("YYYY-MM-DD"));
    dataForm_->addRow(label("pages.settings.importSince"), importSince_);
    storeProject_ = check("storeProject", "pages.settings.storeProject");
    storeSession_ = check("storeSession", "pages.settings.storeSession");
    dataForm_->addRow(storeProject_);
    dataForm_->addRow(storeSession_);

    // Notifications
    QFormLayout* noticeForm = group(notices_, "pages.settings.notifications");
    quotaNotices_ = check("quotaNotifications", "pages.settings.quotaNotifications");
    budgetNotices_ = check("budgetNotifications", "pages.settings.budgetNotifications");
    importNotices_ = check("importNotifications", "pages.settings.importNotifications");
    activityNotices_ = check("activityNotifications", "pages.settings.activityNotifications");
    noticeCompleted_ = check("notifyCompleted", "pages.settings.notifyCompleted");
    noticeApproval_ = check("notifyApproval", "pages.settings.notifyApproval");
    noticeQuestion_ = check("notifyQuestion", "pages.settings.notifyQuestion");
    noticeFailure_ = check("notifyFailure", "pages.settings.notifyFailure");
    for (auto* box : {quotaNotices_, budgetNotices_, importNotices_, activityNotices_,
                      noticeCompleted_, noticeApproval_, noticeQuestion_, noticeFailure_}) {
        noticeForm->addRow(box);
    }
    column->addStretch(1);

    auto* scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidget(content);
    status_ = new QLabel(this);
    status_->setObjectName(QStringLiteral("status"));
    status_->setWordWrap(true);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(scroll, 1);
    layout->addWidget(status_);

    for (auto* box : {language_, theme_, currency_}) {
        connect(box, &QComboBox::currentIndexChanged, this, [this] { apply(); });
    }
    connect(retention_, &QSpinBox::valueChanged, this, [this] { apply(); });
    for (auto* edit : {dailyBudget_, monthlyBudget_, importSince_}) {
        connect(edit, &QLineEdit::editingFinished, this, [this] { apply(); });
    }
    connect(rate_, &QLineEdit::returnPressed, this, [this] { setRate(); });
    connect(setRate_, &QPushButton::clicked, this, [this] { setRate(); });
    connect(fetchRate_, &QPushButton::clicked, this, [this] { fetchRate(); });

    retranslate();
    reload();
}

QString SettingsPage::title() const {
    return text_("pages.settings.title");
}

void SettingsPage::setAutostartFile(std::filesystem::path file) {
    autostart_ = std::move(file);
}

void SettingsPage::retranslate() {
    for (const auto& [widget, key] : texts_) {
        if (auto* l = qobject_cast<QLabel*>(widget)) {
            l->setText(text_(key));
        } else if (auto* b = qobject_cast<QAbstractButton*>(widget)) {
            b->setText(text_(key));
        } else if (auto* g = qobject_cast<QGroupBox*>(widget)) {
            g->setTitle(text_(key));
        }
    }
    language_->setItemText(0, text_("pages.settings.followSystem"));
    theme_->setItemText(0, text_("pages.settings.followSystem"));
    theme_->setItemText(1, text_("pages.settings.theme.light"));
    theme_->setItemText(2, text_("pages.settings.theme.dark"));
    currency_->setItemText(0, text_("pages.settings.currency.auto"));
    currency_->setItemText(1, text_("pages.settings.currency.usd"));
    currency_->setItemText(2, text_("pages.settings.currency.cny"));
    retention_->setSpecialValueText(text_("pages.settings.keepForever"));
    retention_->setSuffix(text_("pages.settings.daysSuffix"));
    dailyBudget_->setPlaceholderText(text_("pages.settings.noBudget"));
    monthlyBudget_->setPlaceholderText(text_("pages.settings.noBudget"));
    reload();
}

void SettingsPage::reload() {
    const AppSettings s = host().session().settings();
    filling_ = true;
    selectData(language_, s.language);
    selectData(theme_, s.theme);
    selectData(currency_, s.displayCurrency);
    launchAtLogin_->setChecked(s.launchAtLogin);
    keepMenuBar_->setChecked(s.keepMenuBar);
    confirmQuit_->setChecked(s.confirmBeforeQuit);
    rate_->setText(QString::fromStdString(fxRateText(s.cnyPerUsdE4)));
    QString info = text_("fx.stored", {{"rate", fxRateText(s.cnyPerUsdE4)}});
    if (s.fxDate) {
        info += QStringLiteral(" · ") + text_("fx.date", {{"date", *s.fxDate}});
    }
    if (s.fxProvider) {
        info += QStringLiteral(" · ") + text_("fx.provider", {{"provider", *s.fxProvider}});
    }
    rateInfo_->setText(info);
    dailyBudget_->setText(QString::fromStdString(yuanBudgetText(s.dailyBudgetCNYFen)));
    monthlyBudget_->setText(QString::fromStdString(yuanBudgetText(s.monthlyBudgetCNYFen)));
    retention_->setValue(static_cast<int>(std::min<int64_t>(s.retentionDays, 3650)));
    importSince_->setText(s.usageImportSince ? QString::fromStdString(Calendar::current().dayKey(
                                                   *s.usageImportSince))
                                             : QString());
    storeProject_->setChecked(s.storeProject);
    storeSession_->setChecked(s.storeSession);
    quotaNotices_->setChecked(s.quotaNotificationsEnabled);
    budgetNotices_->setChecked(s.budgetNotificationsEnabled);
    importNotices_->setChecked(s.importNotificationsEnabled);
    activityNotices_->setChecked(s.activityNotificationsEnabled);
    noticeCompleted_->setChecked(s.activityNotifyCompleted);
    noticeApproval_->setChecked(s.activityNotifyApproval);
    noticeQuestion_->setChecked(s.activityNotifyQuestion);
    noticeFailure_->setChecked(s.activityNotifyFailure);
    for (auto* box : {noticeCompleted_, noticeApproval_, noticeQuestion_, noticeFailure_}) {
        box->setEnabled(s.activityNotificationsEnabled);
    }
    filling_ = false;
}

std::expected<AppSettings, QString> SettingsPage::fromWidgets() {
    AppSettings s = host().session().settings();
    s.language = chosen<AppLanguage>(language_);
    s.theme = chosen<AppTheme>(theme_);
    s.displayCurrency = chosen<DisplayCurrency>(currency_);
    s.launchAtLogin = launchAtLogin_->isChecked();
    s.keepMenuBar = keepMenuBar_->isChecked();
    s.confirmBeforeQuit = confirmQuit_->isChecked();
    for (auto [edit, field] : {std::pair{dailyBudget_, &s.dailyBudgetCNYFen},
                               std::pair{monthlyBudget_, &s.monthlyBudgetCNYFen}}) {
        const auto budget = parseYuanBudget(edit->text().toStdString());
        if (!budget) {
            return std::unexpected(
                text_("pages.settings.badBudget", {{"text", edit->text().toStdString()}}));
        }
        *field = *budget;
    }
    s.retentionDays = retention_->value();
    const QString since = importSince_->text().trimmed();
    if (since.isEmpty()) {
        s.usageImportSince.reset();
    } else if (auto start = Calendar::current().startOfDay(since.toStdString())) {
        s.usageImportSince = *start;
    } else {
        return std::unexpected(text_("pages.settings.badDay", {{"text", since.toStdString()}}));
    }
    s.storeProject = storeProject_->isChecked();
    s.storeSession = storeSession_->isChecked();
    s.quotaNotificationsEnabled = quotaNotices_->isChecked();
    s.budgetNotificationsEnabled = budgetNotices_->isChecked();
    s.importNotificationsEnabled = importNotices_->isChecked();
    s.activityNotificationsEnabled = activityNotices_->isChecked();
    s.activityNotifyCompleted = noticeCompleted_->isChecked();
    s.activityNotifyApproval = noticeApproval_->isChecked();
    s.activityNotifyQuestion = noticeQuestion_->isChecked();
    s.activityNotifyFailure = noticeFailure_->isChecked();
    return s;
}

void SettingsPage::showStatus(const QString& message) {
    status_->setText(message);
}

void SettingsPage::apply() {
    if (filling_) {
        return;
    }
    auto& session = host().session();
    auto wanted = fromWidgets();
    if (!wanted) {
        showStatus(wanted.error());
        emit settingsApplied(false, wanted.error());
        return;
    }
    const AppSettings before = session.settings();
    QString problem;
    if (wanted->launchAtLogin != before.launchAtLogin) {
        const auto done = setLaunchAtLogin(
            autostart_, wanted->launchAtLogin,
            QCoreApplication::applicationFilePath().toStdString());
        if (!done) {
            // The stored switch keeps saying what the desktop will do.
            wanted->launchAtLogin = before.launchAtLogin;
            problem = text_("pages.settings.autostartFailed", {{"reason", done.error()}});
        }
    }
    SettingsChange change;
    try {
        change = session.updateSettings(*wanted);
    } catch (const std::exception& e) {
        const QString message = text_("pages.settings.saveFailed", {{"reason", e.what()}});
        reload();
        showStatus(message);
        emit settingsApplied(false, message);
        return;
    }
    reload();
    if (!problem.isEmpty()) {
        showStatus(problem);
        emit settingsApplied(false, problem);
    } else {
        QString message =
            !change.changed ? QString()
            : change.repriced.skipped
                ? text_("pages.settings.saved")
                : text_("settings.repriced", {{"count", std::to_string(change.repriced.count)}});
        // Switching a privacy field off keeps what is stored; say how much, as the CLI does.
        for (auto [was, now, field, key] :
             {std::tuple{before.storeProject, wanted->storeProject, PrivateField::projectName,
                         "settings.projectsStay"},
              std::tuple{before.storeSession, wanted->storeSession, PrivateField::sessionKey,
                         "settings.sessionsStay"}}) {
            if (was && !now) {
                if (const auto kept = session.store().ledgerEventsHolding(field); kept > 0) {
                    message += QLatin1Char(' ') +
                               text_(key, {{"count", groupedCount(kept).toStdString()}});
                }
            }
        }
        showStatus(message);
        emit settingsApplied(true, message);
    }
    if (wanted->language != before.language) {
        emit languageChanged(wanted->language);
    }
    if (wanted->theme != before.theme) {
        emit themeChanged(wanted->theme);
    }
}

void SettingsPage::setRate() {
    const auto e4 = parseFxInput(rate_->text().toStdString());
    if (!e4) {
        const QString message =
            e4.error().kind == FxInputError::Kind::outOfRange
                ? text_("fx.outOfRange")
                : text_("fx.notANumber", {{"text", e4.error().text}});
        showStatus(message);
        emit settingsApplied(false, message);
        return;
    }
    try {
        const auto change = storeFxRate(host().session(), *e4, std::nullopt, std::nullopt);
        reload();
        const QString message =
            change.changed
                ? text_("fx.changed", {{"old", fxRateText(change.previousE4)},
                                       {"new", fxRateText(*e4)},
                                       {"version", std::to_string(change.settings.fxVersion)}})
                : text_("fx.unchanged", {{"rate", fxRateText(*e4)},
                                         {"version", std::to_string(change.settings.fxVersion)}});
        showStatus(message);
        emit settingsApplied(true, message);
    } catch (const std::exception& e) {
        const QString message = text_("pages.settings.saveFailed", {{"reason", e.what()}});
        showStatus(message);
        emit settingsApplied(false, message);
    }
}

void SettingsPage::fetchRate(std::string url) {
    auto quote = std::make_shared<std::expected<FxQuote, FxError>>(
        std::unexpected(FxError::badResponse));
    fetchRate_->setEnabled(false);
    showStatus(text_("pages.settings.fetching"));
    host().runInBackground(
        [quote, url = std::move(url)] {
            *quote = FxRate::fetchUSDToCNY(url.empty() ? FxRate::kDefaultURL
                                                       : std::string_view(url));
        },
        [self = QPointer<SettingsPage>(this), quote] {
            if (!self) {
                return;
            }
            self->fetchRate_->setEnabled(true);
            if (!*quote) {
                const QString message = self->text_(
                    std::string("fx.") + std::string(rawValue(quote->error())));
                self->showStatus(message);
                emit self->settingsApplied(false, message);
                return;
            }
            std::optional<std::string> date;
            if (!(*quote)->date.empty()) {
                date = (*quote)->date;
            }
            self->rate_->setText(QString::fromStdString((*quote)->cnyPerUsd));
            try {
                storeFxRate(self->host().session(), (*quote)->e4(), date, (*quote)->source);
            } catch (const std::exception& e) {
                const QString message =
                    self->text_("pages.settings.saveFailed", {{"reason", e.what()}});
                self->showStatus(message);
                emit self->settingsApplied(false, message);
                return;
            }
            self->reload();
            const QString message = self->rateInfo_->text();
            self->showStatus(message);
            emit self->settingsApplied(true, message);
        });
}

}  // namespace kestrel::desktop
