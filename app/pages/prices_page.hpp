#pragma once
// The prices in force (one row per model pattern, the user's overrides marked) and an editor for
// the overrides: saving or removing one reprices the ledger, which runs in the background with a
// busy bar.

#include <QPointer>
#include <optional>

#include "app/page.hpp"
#include "core/app/price_overrides.hpp"

class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;
class QTableWidget;
class QGroupBox;
class QFormLayout;

namespace kestrel::desktop {

class PricesPage : public Page {
    Q_OBJECT

  public:
    explicit PricesPage(PageHost& host, QWidget* parent = nullptr);

    QString pageId() const override { return QStringLiteral("prices"); }
    QString title() const override;
    void reload() override;
    void retranslate() override;

    const PriceList& prices() const { return list_; }
    // The editor's fields as typed.
    PriceOverrideInput editorInput() const;
    // Fills the editor with `row` (as when the user picks it in the table).
    void edit(const PriceRow& row);

    // Checks `input` here and, when it is well formed, saves it and reprices in the background.
    void saveOverride(const PriceOverrideInput& input);
    void removeOverride(const QString& match);

  signals:
    // After a save or removal finished (or was refused); `message` is what the status line says.
    void changeFinished(bool ok, const QString& message);
    // As a reprice goes: observations looked at, of `total`.
    void repriceProgressed(qint64 done, qint64 total);

  private:
    void fillTable();
    // Shows the bar and hands back what the worker reports progress through.
    UsageStore::RepriceProgress startProgress();
    void finish(bool ok, const QString& message);
    QString inputErrorText(const PriceInputError& error) const;

    const UiText& text_;
    PriceList list_;
    QTableWidget* table_ = nullptr;
    QLineEdit* filter_ = nullptr;
    QLabel* summary_ = nullptr;
    QGroupBox* editor_ = nullptr;
    QFormLayout* form_ = nullptr;
    QLineEdit* match_ = nullptr;
    QLineEdit* input_ = nullptr;
    QLineEdit* output_ = nullptr;
    QLineEdit* cacheRead_ = nullptr;
    QLineEdit* cacheWrite_ = nullptr;
    QLineEdit* reasoning_ = nullptr;
    QLineEdit* from_ = nullptr;
    QLineEdit* to_ = nullptr;
    QPushButton* save_ = nullptr;
    QPushButton* remove_ = nullptr;
    QProgressBar* busy_ = nullptr;  // the reprice's progress
    QLabel* status_ = nullptr;
};

}  // namespace kestrel::desktop
