#pragma once
// Every setting the desktop app uses, each stored through AppSession::updateSettings as soon as
// it is changed: language, theme, currency and exchange rate (typed or fetched), retention,
// privacy, notifications, launch at login, budgets and the import start.

#include <QPointer>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/page.hpp"
#include "core/model/app_settings.hpp"

class QCheckBox;
class QComboBox;
class QFormLayout;
class QGroupBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QSpinBox;

namespace kestrel::desktop {

// "12", "12.5", "12.34", "12,34" yuan as fen; an empty text is no budget (nullopt inside).
// Refuses negative amounts, more than two decimals and anything that is not a number.
std::expected<std::optional<int64_t>, std::string> parseYuanBudget(std::string_view text);
// Fen as the yuan text parseYuanBudget reads back ("12.30"); empty for no budget.
std::string yuanBudgetText(const std::optional<int64_t>& fen);

class SettingsPage : public Page {
    Q_OBJECT

  public:
    explicit SettingsPage(PageHost& host, QWidget* parent = nullptr);

    QString pageId() const override { return QStringLiteral("settings"); }
    QString title() const override;
    void reload() override;
    void retranslate() override;

    // Where "launch at login" writes its entry (by default the user's XDG autostart folder).
    void setAutostartFile(std::filesystem::path file);
    // Asks the exchange-rate service (in the background) and stores its rate; `url` for tests.
    void fetchRate(std::string url = {});

  signals:
    void languageChanged(AppLanguage language);
    void themeChanged(AppTheme theme);
    // After a change was stored, or refused (`ok` false, `message` says why).
    void settingsApplied(bool ok, const QString& message);

  private:
    // The settings as the widgets show them, on top of the stored ones; an error text when a
    // typed value is refused.
    std::expected<AppSettings, QString> fromWidgets();
    void apply();
    void setRate();
    void showStatus(const QString& message);

    const UiText& text_;
    std::filesystem::path autostart_;
    bool filling_ = false;

    QGroupBox* general_ = nullptr;
    QGroupBox* money_ = nullptr;
    QGroupBox* data_ = nullptr;
    QGroupBox* notices_ = nullptr;
    QFormLayout* generalForm_ = nullptr;
    QFormLayout* moneyForm_ = nullptr;
    QFormLayout* dataForm_ = nullptr;

    QComboBox* language_ = nullptr;
    QComboBox* theme_ = nullptr;
    QCheckBox* launchAtLogin_ = nullptr;
    QCheckBox* keepMenuBar_ = nullptr;
    QCheckBox* confirmQuit_ = nullptr;

    QComboBox* currency_ = nullptr;
    QLineEdit* rate_ = nullptr;
    QPushButton* setRate_ = nullptr;
    QPushButton* fetchRate_ = nullptr;
    QLabel* rateInfo_ = nullptr;
    QLineEdit* dailyBudget_ = nullptr;
    QLineEdit* monthlyBudget_ = nullptr;

    QSpinBox* retention_ = nullptr;
    QCheckBox* storeProject_ = nullptr;
    QCheckBox* storeSession_ = nullptr;
    QLineEdit* importSince_ = nullptr;

    QCheckBox* quotaNotices_ = nullptr;
    QCheckBox* budgetNotices_ = nullptr;
    QCheckBox* importNotices_ = nullptr;
    QCheckBox* activityNotices_ = nullptr;
    QCheckBox* noticeCompleted_ = nullptr;
    QCheckBox* noticeApproval_ = nullptr;
    QCheckBox* noticeQuestion_ = nullptr;
    QCheckBox* noticeFailure_ = nullptr;

    QLabel* status_ = nullptr;
    // Labels and buttons with the catalogue key of their text, for retranslate().
    std::vector<std::pair<QWidget*, const char*>> texts_;
};

}  // namespace kestrel::desktop
