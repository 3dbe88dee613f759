#include "app/pages/events_page.hpp"

#include <QComboBox>
#include <QDateTime>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QTableView>
#include <QVBoxLayout>
#include <climits>
#include <cstring>
#include <expected>
#include <tuple>
#include <memory>

#include "app/pages/page_format.hpp"
#include "app/progress_relay.hpp"
#include "app/ui_text.hpp"
#include "core/app/app_session.hpp"
#include "core/app/csv_export.hpp"
#include "core/app/events_page.hpp"
#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"

namespace kestrel::desktop {

void EventsTableModel::setEntries(std::vector<LedgerEntry> entries, DisplayChoices display) {
    beginResetModel();
    entries_ = std::move(entries);
    display_ = std::move(display);
    endResetModel();
}

void EventsTableModel::setHeaders(QStringList headers) {
    headers_ = std::move(headers);
    emit headerDataChanged(Qt::Horizontal, 0, columnCount_ - 1);
}

int EventsTableModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(entries_.size());
}

int EventsTableModel::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : columnCount_;
}

QVariant EventsTableModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() >= rowCount()) {
        return {};
    }
    const auto column = static_cast<Column>(index.column());
    if (role == Qt::TextAlignmentRole) {
        const bool figure = column >= input;
        return (Qt::AlignVCenter | (figure ? Qt::AlignRight : Qt::AlignLeft)).toInt();
    }
    if (role != Qt::DisplayRole) {
        return {};
    }
    const auto& entry = entries_[static_cast<std::size_t>(index.row())];
    const auto& e = entry.event;
    switch (column) {
        case time:
            return QDateTime::fromMSecsSinceEpoch(static_cast<qint64>(e.occurredAt * 1000))
                .toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
        case source:
            return qstr(displayName(e.source));
        case model:
            return e.model.empty() ? QStringLiteral("-") : QString::fromStdString(e.model);
        case project:
            return e.projectDisplayName ? QString::fromStdString(*e.projectDisplayName)
                                        : QStringLiteral("-");
        case input:
            return countOrDash(e.tokens.inputUncached);
        case cacheRead:
            return countOrDash(e.tokens.cacheRead);
        case cacheWrite:
            return countOrDash(e.tokens.cacheWrite);
        case output:
            return countOrDash(eventOutputTokens(e.tokens));
        case total:
            return countOrDash(eventTokenTotal(e.tokens));
        case cost:
            return entry.cost.amountUSDMicros
                       ? QString::fromStdString(display_.money(*entry.cost.amountUSDMicros))
                       : QStringLiteral("-");
        case columnCount_:
            break;
    }
    return {};
}

QVariant EventsTableModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation == Qt::Horizontal && role == Qt::DisplayRole && section >= 0 &&
        section < headers_.size()) {
        return headers_[section];
    }
    return QAbstractTableModel::headerData(section, orientation, role);
}

std::pair<std::optional<double>, std::optional<double>> periodRange(EventsPeriod period,
                                                                    double now) {
    const Calendar calendar = Calendar::current();
    const double today = calendar.startOfDay(now);
    const double tomorrow = calendar.addingDays(today, 1);
    switch (period) {
        case EventsPeriod::all:
            return {std::nullopt, std::nullopt};
        case EventsPeriod::today:
            return {today, tomorrow};
        case EventsPeriod::last7Days:
            return {calendar.addingDays(today, -6), tomorrow};
        case EventsPeriod::last30Days:
            return {calendar.addingDays(today, -29), tomorrow};
        case EventsPeriod::thisMonth: {
            std::string key = calendar.dayKey(now);  // YYYY-MM-DD
            key.replace(key.size() - 2, 2, "01");
            return {calendar.startOfDay(key).value_or(today), tomorrow};
        }
    }
    return {std::nullopt, std::nullopt};
}

EventsPage::EventsPage(PageHost& host, QWidget* parent)
    : Page(host, parent),
      text_(host.text()),
      read_(host, this,
            [this] {
                return [query = query(), after = current_, limit = pageSize_,
                        facets = std::exchange(facetsWanted_, false)](UsageStore& store) {
                    Figures f;
                    if (facets) {
                        f.facets = store.ledgerFacets({});
                    }
                    f.page = eventsPage(store, query, LedgerSortOrder::descending, after, limit);
                    return f;
                };
            },
            [this](CoalescedRead<Figures>::Result read) { showRead(std::move(read)); }) {
    model_ = new EventsTableModel(this);

    period_ = new QComboBox(this);
    period_->setObjectName(QStringLiteral("period"));
    agent_ = new QComboBox(this);
    agent_->setObjectName(QStringLiteral("agent"));
    modelFilter_ = new QComboBox(this);
    modelFilter_->setObjectName(QStringLiteral("model"));
    project_ = new QComboBox(this);
    project_->setObjectName(QStringLiteral("project"));
    search_ = new QLineEdit(this);
    search_->setObjectName(QStringLiteral("search"));
    search_->setClearButtonEnabled(true);
    searchLabel_ = new QLabel(this);
    export_ = new QPushButton(this);
    export_->setObjectName(QStringLiteral("export"));

    auto* filters = new QHBoxLayout;
    filters->addWidget(period_);
    filters->addWidget(agent_);
    filters->addWidget(modelFilter_);
    filters->addWidget(project_);
    filters->addWidget(searchLabel_);
    filters->addWidget(search_, 1);
    filters->addWidget(export_);

    facets_ = new QLabel(this);
    facets_->setObjectName(QStringLiteral("facets"));

    table_ = new QTableView(this);
    table_->setModel(model_);
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    table_->setAlternatingRowColors(true);
    table_->verticalHeader()->hide();
    table_->horizontalHeader()->setStretchLastSection(true);

    previous_ = new QPushButton(this);
    next_button_ = new QPushButton(this);
    pageLabel_ = new QLabel(this);
    exportProgress_ = new QProgressBar(this);
    exportProgress_->setObjectName(QStringLiteral("exportProgress"));
    exportProgress_->setFormat(QStringLiteral("%v / %m  (%p%)"));
    exportProgress_->hide();
    status_ = new QLabel(this);
    status_->setObjectName(QStringLiteral("status"));
    status_->setWordWrap(true);
    auto* paging = new QHBoxLayout;
    paging->addWidget(status_, 1);
    paging->addWidget(exportProgress_);
    paging->addWidget(previous_);
    paging->addWidget(pageLabel_);
    paging->addWidget(next_button_);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(filters);
    layout->addWidget(facets_);
    layout->addWidget(table_, 1);
    layout->addLayout(paging);

    for (int i = 0; i < 5; ++i) {
        period_->addItem(QString(), i);
    }
    connect(period_, &QComboBox::currentIndexChanged, this, [this] { filtersChanged(); });
    connect(agent_, &QComboBox::currentIndexChanged, this, [this] { filtersChanged(); });
    connect(modelFilter_, &QComboBox::currentIndexChanged, this, [this] { filtersChanged(); });
    connect(project_, &QComboBox::currentIndexChanged, this, [this] { filtersChanged(); });
    connect(search_, &QLineEdit::editingFinished, this, [this] { filtersChanged(); });
    connect(previous_, &QPushButton::clicked, this, [this] { previousPage(); });
    connect(next_button_, &QPushButton::clicked, this, [this] { nextPage(); });
    connect(export_, &QPushButton::clicked, this, [this] { chooseExportFile(); });

    retranslate();
    reload();
}

QString EventsPage::title() const {
    return text_("pages.events.title");
}

LedgerQuery EventsPage::query() const {
    LedgerQuery q;
    const auto period = static_cast<EventsPeriod>(period_->currentData().toInt());
    std::tie(q.from, q.to) = periodRange(period, epochNow());
    if (const auto source = agent_->currentData(); source.isValid()) {
        q.source = static_cast<AgentSource>(source.toInt());
    }
    if (const auto model = modelFilter_->currentData(); model.isValid()) {
        q.model = model.toString().toStdString();
    }
    if (const auto project = project_->currentData(); project.isValid()) {
        q.projectDisplayName = project.toString().toStdString();
    }
    if (const auto text = search_->text().trimmed(); !text.isEmpty()) {
        q.search = text.toStdString();
    }
    return q;
}

void EventsPage::setPageSize(int size) {
    pageSize_ = std::clamp(size, 1, kMaxEventsPerPage);
    filtersChanged();
}

void EventsPage::reload() {
    facetsWanted_ = true;
    showPage();
}

void EventsPage::filtersChanged() {
    if (filling_) {
        return;
    }
    cursors_.clear();
    current_.reset();
    showPage();
}

void EventsPage::nextPage() {
    if (!next_) {
        return;
    }
    cursors_.push_back(current_);
    current_ = next_;
    showPage();
}

void EventsPage::previousPage() {
    if (cursors_.empty()) {
        return;
    }
    current_ = cursors_.back();
    cursors_.pop_back();
    showPage();
}

// Each list keeps the user's choice when the ledger still has it; true when one could not.
bool EventsPage::refillFacets(const LedgerFacets& facets) {
    const auto& t = text_;
    filling_ = true;
    bool lost = false;
    const auto refill = [&lost](QComboBox* box, const QString& allText, const auto& items,
                                const auto& label, const auto& value) {
        const QVariant chosen = box->currentData();
        box->clear();
        box->addItem(allText);
        for (const auto& item : items) {
            box->addItem(label(item), value(item));
        }
        const int index = chosen.isValid() ? box->findData(chosen) : 0;
        lost = lost || index < 0;
        box->setCurrentIndex(std::max(index, 0));
    };
    refill(agent_, t("pages.events.allAgents"), facets.sources,
           [](AgentSource s) { return qstr(displayName(s)); },
           [](AgentSource s) { return QVariant(static_cast<int>(s)); });
    refill(modelFilter_, t("pages.events.allModels"), facets.models,
           [](const std::string& m) { return QString::fromStdString(m); },
           [](const std::string& m) { return QVariant(QString::fromStdString(m)); });
    refill(project_, t("pages.events.allProjects"), facets.projects,
           [](const std::string& p) { return QString::fromStdString(p); },
           [](const std::string& p) { return QVariant(QString::fromStdString(p)); });
    facets_->setText(t("pages.events.facets",
                       {{"agents", std::to_string(facets.sources.size())},
                        {"models", std::to_string(facets.models.size())},
                        {"projects", std::to_string(facets.projects.size())}}));
    filling_ = false;
    return lost;
}

void EventsPage::showPage() {
    read_.request();
}

void EventsPage::showRead(CoalescedRead<Figures>::Result read) {
    const auto& t = text_;
    if (!read) {
        status_->setText(QString::fromStdString(read.error()));
        return;
    }
    if (read->facets && refillFacets(*read->facets)) {
        // A chosen agent, model or project is gone from the ledger: the page read with it is
        // stale, and the first page under the widened filter follows.
        filtersChanged();
        return;
    }
    auto& page = read->page;
    next_ = page.next;
    const bool empty = page.entries.empty();
    model_->setEntries(std::move(page.entries), pageDisplay(host().session(), t));
    table_->resizeColumnsToContents();
    if (empty) {
        status_->setText(page.ledgerEmpty ? t("pages.events.ledgerEmpty") : t("events.none"));
    } else {
        status_->clear();
    }
    pageLabel_->setText(t("pages.events.page", {{"page", std::to_string(pageNumber() + 1)}}));
    previous_->setEnabled(!cursors_.empty());
    next_button_->setEnabled(next_.has_value());
}

void EventsPage::retranslate() {
    const auto& t = text_;
    static constexpr const char* periodKeys[] = {"period.allTime", "period.today",
                                                 "period.last7Days", "period.last30Days",
                                                 "period.thisMonth"};
    for (int i = 0; i < period_->count(); ++i) {
        period_->setItemText(i, t(periodKeys[i]));
    }
    agent_->setItemText(0, t("pages.events.allAgents"));
    modelFilter_->setItemText(0, t("pages.events.allModels"));
    project_->setItemText(0, t("pages.events.allProjects"));
    searchLabel_->setText(t("pages.events.search"));
    search_->setPlaceholderText(t("pages.events.searchHint"));
    export_->setText(t("pages.events.export"));
    previous_->setText(t("pages.events.previous"));
    next_button_->setText(t("pages.events.next"));
    model_->setHeaders({t("column.time"), t("column.source"), t("column.model"),
                        t("column.project"), t("column.input"), t("column.cacheRead"),
                        t("column.cacheWrite"), t("column.output"), t("column.totalTokens"),
                        t("column.cost")});
    if (agent_->count() > 0) {
        reload();  // the facets' texts (counts) and the rows' formats follow the language
    }
}

void EventsPage::chooseExportFile() {
    const QString path = QFileDialog::getSaveFileName(
        this, text_("pages.events.exportTitle"), QStringLiteral("kestrel-events.csv"),
        QStringLiteral("CSV (*.csv)"));
    if (!path.isEmpty()) {
        exportTo(path);
    }
}

namespace {

QString exportErrorText(const UiText& t, const ExportError& error) {
    std::string reason;
    switch (error.kind) {
        case ExportError::Kind::notAFile:
            reason = t("pages.events.notAFile").toStdString();
            break;
        case ExportError::Kind::cannotWrite:
            reason = std::strerror(error.errorNumber);
            break;
        case ExportError::Kind::cannotRead:
            reason = error.message;
            break;
    }
    return t("pages.events.exportFailed", {{"path", error.path}, {"reason", reason}});
}

}  // namespace

void EventsPage::exportTo(const QString& path) {
    auto& session = host().session();
    const auto display = pageDisplay(session, text_);
    CsvFormat format{display.currency, display.cnyPerUsdE4, Calendar::current()};
    auto result = std::make_shared<std::expected<int64_t, ExportError>>(0);
    export_->setEnabled(false);
    status_->setText(text_("pages.events.exporting"));
    exportProgress_->setRange(0, 0);  // until the first page tells the total
    exportProgress_->show();
    const auto progress = relayProgress(this, [this](int64_t done, int64_t total) {
        exportProgress_->setRange(0, static_cast<int>(std::min<int64_t>(total, INT_MAX)));
        exportProgress_->setValue(static_cast<int>(std::min<int64_t>(done, INT_MAX)));
        emit exportProgressed(done, total);
    });
    host().runInBackground(
        [&session, result, format, progress, query = query(), target = path.toStdString()] {
            auto file = CsvExport::begin(target);
            if (!file) {
                *result = std::unexpected(file.error());
                return;
            }
            *result = file->write(session.store(), query, format, progress);
        },
        [self = QPointer<EventsPage>(this), result, path] {
            if (!self) {
                return;
            }
            const auto& t = self->text_;
            self->export_->setEnabled(true);
            self->exportProgress_->hide();
            const QString message =
                *result ? t("pages.events.exported",
                            {{"count", std::to_string(**result)}, {"path", path.toStdString()}})
                        : exportErrorText(t, result->error());
            self->status_->setText(message);
            emit self->exportFinished(result->has_value(), message);
        });
}

}  // namespace kestrel::desktop
