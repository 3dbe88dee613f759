#include "app/pages/prices_page.hpp"

#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QTableWidget>
#include <QVBoxLayout>
#include <expected>
#include <memory>

#include "app/pages/page_format.hpp"
#include "app/progress_relay.hpp"
#include "app/ui_text.hpp"
#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"

namespace kestrel::desktop {
namespace {

enum Column { pattern, from, input, cacheRead, cacheWrite, output, reasoning, longContext, mark,
              columnCount };

std::optional<std::string> optionalText(const QLineEdit* edit) {
    const auto text = edit->text().trimmed();
    return text.isEmpty() ? std::nullopt : std::optional(text.toStdString());
}

QString longContextText(const PriceRow& row) {
    if (!row.hasLongContextRates()) {
        return QStringLiteral("-");
    }
    return QStringLiteral("> %1: %2 / %3")
        .arg(groupedCount(*row.longContextThresholdTokens),
             QString::fromStdString(row.inputUncachedPerMTokUSDLong.value_or("-")),
             QString::fromStdString(row.outputVisiblePerMTokUSDLong.value_or("-")));
}

const char* fieldKey(PriceInputError::Field field) {
    using F = PriceInputError::Field;
    switch (field) {
        case F::match: return "pages.prices.pattern";
        case F::input: return "column.input";
        case F::output: return "column.output";
        case F::cacheRead: return "column.cacheRead";
        case F::cacheWrite: return "column.cacheWrite";
        case F::reasoning: return "column.reasoning";
        case F::longInput: return "pages.prices.longInput";
        case F::longOutput: return "pages.prices.longOutput";
        case F::from: return "pages.prices.from";
        case F::to: return "pages.prices.to";
        case F::longThreshold: return "pages.prices.longThreshold";
    }
    return "pages.prices.pattern";
}

const char* kindKey(PriceInputError::Kind kind) {
    using K = PriceInputError::Kind;
    switch (kind) {
        case K::empty: return "pages.prices.error.empty";
        case K::notADecimal: return "pages.prices.error.notADecimal";
        case K::notADay: return "pages.prices.error.notADay";
        case K::toNotAfterFrom: return "pages.prices.error.toNotAfterFrom";
        case K::needsThreshold: return "pages.prices.error.needsThreshold";
    }
    return "pages.prices.error.empty";
}

}  // namespace

PricesPage::PricesPage(PageHost& host, QWidget* parent) : Page(host, parent), text_(host.text()) {
    filter_ = new QLineEdit(this);
    filter_->setObjectName(QStringLiteral("filter"));
    filter_->setClearButtonEnabled(true);
    summary_ = new QLabel(this);
    summary_->setObjectName(QStringLiteral("summary"));

    table_ = new QTableWidget(0, columnCount, this);
    table_->setObjectName(QStringLiteral("prices"));
    table_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    table_->setSelectionMode(QAbstractItemView::SingleSelection);
    table_->verticalHeader()->hide();
    table_->horizontalHeader()->setStretchLastSection(true);

    editor_ = new QGroupBox(this);
    form_ = new QFormLayout(editor_);
    const auto field = [this](const char* name) {
        auto* edit = new QLineEdit(editor_);
        edit->setObjectName(QString::fromLatin1(name));
        return edit;
    };
    match_ = field("match");
    input_ = field("input");
    output_ = field("output");
    cacheRead_ = field("cacheRead");
    cacheWrite_ = field("cacheWrite");
    reasoning_ = field("reasoning");
    from_ = field("from");
    to_ = field("to");
    for (auto* edit : {match_, input_, output_, cacheRead_, cacheWrite_, reasoning_, from_, to_}) {
        form_->addRow(QString(), edit);
    }
    save_ = new QPushButton(editor_);
    save_->setObjectName(QStringLiteral("save"));
    remove_ = new QPushButton(editor_);
    remove_->setObjectName(QStringLiteral("remove"));
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(save_);
    buttons->addWidget(remove_);
    buttons->addStretch(1);
    form_->addRow(buttons);

    busy_ = new QProgressBar(this);
    busy_->setObjectName(QStringLiteral("repriceProgress"));
    busy_->setFormat(QStringLiteral("%v / %m  (%p%)"));
    busy_->hide();
    status_ = new QLabel(this);
    status_->setObjectName(QStringLiteral("status"));
    status_->setWordWrap(true);

    auto* top = new QHBoxLayout;
    top->addWidget(filter_, 1);
    top->addWidget(summary_);
    auto* body = new QHBoxLayout;
    body->addWidget(table_, 3);
    body->addWidget(editor_, 1);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addLayout(body, 1);
    layout->addWidget(busy_);
    layout->addWidget(status_);

    connect(filter_, &QLineEdit::textChanged, this, [this] { fillTable(); });
    connect(table_, &QTableWidget::currentCellChanged, this, [this](int row) {
        const auto* item = row < 0 ? nullptr : table_->item(row, pattern);
        if (item == nullptr) {
            return;  // the table is being filled
        }
        const auto index = item->data(Qt::UserRole).toInt();
        edit(list_.rows[static_cast<std::size_t>(index)].row);
    });
    connect(save_, &QPushButton::clicked, this, [this] { saveOverride(editorInput()); });
    connect(remove_, &QPushButton::clicked, this, [this] { removeOverride(match_->text()); });

    retranslate();
    reload();
}

QString PricesPage::title() const {
    return text_("pages.prices.title");
}

void PricesPage::reload() {
    list_ = currentPrices(host().session(), epochNow(), Calendar::current());
    fillTable();
}

void PricesPage::fillTable() {
    const QString filter = filter_->text().trimmed();
    table_->setRowCount(0);
    int overrides = 0;
    for (std::size_t i = 0; i < list_.rows.size(); ++i) {
        const auto& [row, isOverride] = list_.rows[i];
        overrides += isOverride ? 1 : 0;
        const QString match = QString::fromStdString(row.match);
        if (!filter.isEmpty() && !match.contains(filter, Qt::CaseInsensitive)) {
            continue;
        }
        const int r = table_->rowCount();
        table_->insertRow(r);
        const QString cells[columnCount] = {
            match,
            QString::fromStdString(row.effectiveFrom),
            QString::fromStdString(row.inputUncachedPerMTokUSD),
            QString::fromStdString(row.cacheReadPerMTokUSD),
            QString::fromStdString(row.cacheWritePerMTokUSD),
            QString::fromStdString(row.outputVisiblePerMTokUSD),
            QString::fromStdString(row.reasoningPerMTokUSD),
            longContextText(row),
            isOverride ? text_("pages.prices.override") : QString()};
        for (int c = 0; c < columnCount; ++c) {
            auto* item = new QTableWidgetItem(cells[c]);
            if (c >= input && c <= reasoning) {
                item->setTextAlignment(Qt::AlignRight | Qt::AlignVCenter);
            }
            table_->setItem(r, c, item);
        }
        table_->item(r, pattern)->setData(Qt::UserRole, static_cast<int>(i));
    }
    table_->resizeColumnsToContents();
    summary_->setText(text_("pages.prices.summary",
                            {{"version", std::to_string(list_.version)},
                             {"count", std::to_string(list_.rows.size())},
                             {"overrides", std::to_string(overrides)}}));
}

void PricesPage::retranslate() {
    filter_->setPlaceholderText(text_("pages.prices.filter"));
    editor_->setTitle(text_("pages.prices.editor"));
    const char* labels[] = {"pages.prices.pattern", "column.input",     "column.output",
                            "column.cacheRead",     "column.cacheWrite", "column.reasoning",
                            "pages.prices.from",    "pages.prices.to"};
    for (int i = 0; i < 8; ++i) {
        if (auto* label = qobject_cast<QLabel*>(form_->itemAt(i, QFormLayout::LabelRole)
                                                    ? form_->itemAt(i, QFormLayout::LabelRole)->widget()
                                                    : nullptr)) {
            label->setText(text_(labels[i]));
        } else {
            form_->setWidget(i, QFormLayout::LabelRole, new QLabel(text_(labels[i]), editor_));
        }
    }
    cacheRead_->setPlaceholderText(text_("pages.prices.defaultInput"));
    cacheWrite_->setPlaceholderText(text_("pages.prices.defaultInput"));
    reasoning_->setPlaceholderText(text_("pages.prices.defaultOutput"));
    from_->setPlaceholderText(QStringLiteral("YYYY-MM-DD"));
    to_->setPlaceholderText(text_("pages.prices.openEnded"));
    save_->setText(text_("pages.prices.save"));
    remove_->setText(text_("pages.prices.remove"));
    table_->setHorizontalHeaderLabels(
        {text_("pages.prices.pattern"), text_("pages.prices.from"), text_("column.input"),
         text_("column.cacheRead"), text_("column.cacheWrite"), text_("column.output"),
         text_("column.reasoning"), text_("pages.prices.longContext"), QString()});
    fillTable();
}

PriceOverrideInput PricesPage::editorInput() const {
    PriceOverrideInput in;
    in.match = match_->text().trimmed().toStdString();
    in.input = input_->text().trimmed().toStdString();
    in.output = output_->text().trimmed().toStdString();
    in.cacheRead = optionalText(cacheRead_);
    in.cacheWrite = optionalText(cacheWrite_);
    in.reasoning = optionalText(reasoning_);
    in.from = optionalText(from_);
    in.to = optionalText(to_);
    return in;
}

void PricesPage::edit(const PriceRow& row) {
    match_->setText(QString::fromStdString(row.match));
    input_->setText(QString::fromStdString(row.inputUncachedPerMTokUSD));
    output_->setText(QString::fromStdString(row.outputVisiblePerMTokUSD));
    cacheRead_->setText(QString::fromStdString(row.cacheReadPerMTokUSD));
    cacheWrite_->setText(QString::fromStdString(row.cacheWritePerMTokUSD));
    reasoning_->setText(QString::fromStdString(row.reasoningPerMTokUSD));
    from_->setText(QString::fromStdString(row.effectiveFrom));
    to_->setText(QString::fromStdString(row.effectiveTo.value_or("")));
}

QString PricesPage::inputErrorText(const PriceInputError& error) const {
    return text_(kindKey(error.kind),
                 {{"field", text_(fieldKey(error.field)).toStdString()}, {"text", error.text}});
}

UsageStore::RepriceProgress PricesPage::startProgress() {
    busy_->setRange(0, 0);  // until the reprice has counted what it will look at
    busy_->show();
    save_->setEnabled(false);
    remove_->setEnabled(false);
    status_->setText(text_("pages.prices.repricing"));
    return relayProgress(this, [this](int64_t done, int64_t total) {
        busy_->setRange(0, static_cast<int>(std::min<int64_t>(total, INT_MAX)));
        busy_->setValue(static_cast<int>(std::min<int64_t>(done, INT_MAX)));
        emit repriceProgressed(done, total);
    });
}

void PricesPage::finish(bool ok, const QString& message) {
    busy_->hide();
    save_->setEnabled(true);
    remove_->setEnabled(true);
    status_->setText(message);
    reload();
    emit changeFinished(ok, message);
}

void PricesPage::saveOverride(const PriceOverrideInput& input) {
    if (const auto problem = checkPriceOverride(input)) {
        status_->setText(inputErrorText(*problem));
        emit changeFinished(false, status_->text());
        return;
    }
    auto& session = host().session();
    auto result = std::make_shared<std::expected<PriceChange, PriceChangeError>>(
        std::unexpected(PriceChangeError{}));
    const auto progress = startProgress();
    host().runInBackground([&session, input, result, progress] {
                               *result = savePriceOverride(session, input, progress);
                           },
                           [self = QPointer<PricesPage>(this), result, match = input.match] {
                               if (!self) {
                                   return;
                               }
                               const auto& t = self->text_;
                               if (*result) {
                                   self->finish(true, t("pages.prices.saved",
                                                        {{"match", match},
                                                         {"count", std::to_string((*result)->repriced.count)}}));
                               } else if (result->error().input) {
                                   self->finish(false, self->inputErrorText(*result->error().input));
                               } else {
                                   self->finish(false, t("pages.prices.failed",
                                                         {{"match", match},
                                                          {"reason", result->error().message}}));
                               }
                           });
}

void PricesPage::removeOverride(const QString& match) {
    auto& session = host().session();
    auto result = std::make_shared<std::expected<RepriceOutcome, PriceChangeError>>(
        std::unexpected(PriceChangeError{}));
    const auto progress = startProgress();
    host().runInBackground(
        [&session, m = match.trimmed().toStdString(), result, progress] {
            *result = removePriceOverride(session, m, progress);
        },
        [self = QPointer<PricesPage>(this), result, m = match.trimmed().toStdString()] {
            if (!self) {
                return;
            }
            const auto& t = self->text_;
            if (*result) {
                self->finish(true, t("pages.prices.removed",
                                     {{"match", m}, {"count", std::to_string((*result)->count)}}));
            } else if (result->error().kind == PriceChangeError::Kind::notFound) {
                self->finish(false, t("pages.prices.noOverride", {{"match", m}}));
            } else {
                self->finish(false, t("pages.prices.failed",
                                      {{"match", m}, {"reason", result->error().message}}));
            }
        });
}

}  // namespace kestrel::desktop
