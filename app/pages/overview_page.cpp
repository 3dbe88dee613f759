#include "app/pages/overview_page.hpp"

#include <QGridLayout>
#include <QGroupBox>
#include <QHeaderView>
#include <QProgressBar>
#include <algorithm>
#include <QScrollArea>

#include "app/figures.hpp"
#include "app/tray/tray_figures.hpp"
#include "app/ui_text.hpp"
#include "core/app/display_choices.hpp"
#include "core/app/ledger_heatmap.hpp"
#include "core/app/usage_rows.hpp"
#include "core/ledger/store_error.hpp"
#include "core/model/timestamp.hpp"

namespace kestrel::desktop {
namespace {

constexpr const char* kPeriodKeys[] = {"period.today", "period.yesterday", "period.last7Days",
                                       "period.last30Days"};
constexpr const char* kPeriodNames[] = {"today", "yesterday", "last7Days", "last30Days"};
constexpr int kChartDays = 30;

QLocale localeOf(const DisplayChoices& display) {
    return QLocale(QString::fromStdString(display.locale()));
}

QTableWidget* makeTable(QWidget* parent) {
    auto* table = new QTableWidget(0, 4, parent);
    table->verticalHeader()->hide();
    table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    table->setSelectionMode(QAbstractItemView::NoSelection);
    table->horizontalHeader()->setSectionResizeMode(0, QHeaderView::Stretch);
    for (int c = 1; c < 4; ++c) {
        table->horizontalHeader()->setSectionResizeMode(c, QHeaderView::ResizeToContents);
    }
    table->setSizeAdjustPolicy(QAbstractScrollArea::AdjustToContents);
    table->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    return table;
}

void fillRow(QTableWidget* table, int row, const QString& name, const LedgerSummary& s,
             const DisplayChoices& display) {
    const QLocale locale = localeOf(display);
    const QString cells[] = {name, locale.toString(static_cast<qlonglong>(s.eventCount)),
                             locale.toString(static_cast<qlonglong>(totalTokens(s))),
                             moneyText(display, s)};
    for (int c = 0; c < 4; ++c) {
        auto* item = new QTableWidgetItem(cells[c]);
        if (c > 0) {
            item->setTextAlignment(Qt::AlignRight | Qt::AlignVCenter);
        }
        table->setItem(row, c, item);
    }
}

void fitHeight(QTableWidget* table) {
    int h = table->horizontalHeader()->height() + 2 * table->frameWidth();
    for (int r = 0; r < table->rowCount(); ++r) {
        h += table->rowHeight(r);
    }
    table->setFixedHeight(h);
}

}  // namespace

OverviewPage::OverviewPage(PageHost& host, QWidget* parent)
    : Page(host, parent),
      clock_([] { return epochNow(); }),
      read_(host, this,
            [this] {
                return [now = clock_()](UsageStore& store) {
                    return Figures{usageOverview(store, LedgerQuery{}, Calendar::current(), now),
                                   readStoredQuotas(store)};
                };
            },
            [this](CoalescedRead<Figures>::Result read) { showRead(std::move(read)); },
            ReadLane::glance) {
    build();
    retranslate();
}

QString OverviewPage::title() const {
    return const_cast<OverviewPage*>(this)->host().text()("desktop.page.overview");
}

void OverviewPage::build() {
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    auto* scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    outer->addWidget(scroll);
    auto* content = new QWidget(scroll);
    scroll->setWidget(content);
    auto* column = new QVBoxLayout(content);
    problem_ = new QLabel(content);
    problem_->setWordWrap(true);
    problem_->hide();
    column->addWidget(problem_);
    modules_ = new QVBoxLayout();
    column->addLayout(modules_);
    unpriced_ = new QLabel(content);
    unpriced_->setWordWrap(true);
    column->addWidget(unpriced_);
    column->addStretch(1);

    totalsBox_ = new QGroupBox(content);
    auto* grid = new QGridLayout(totalsBox_);
    for (int i = 0; i < 4; ++i) {
        PeriodCard& card = cards_[i];
        const QString name = QString::fromLatin1(kPeriodNames[i]);
        card.title = new QLabel(totalsBox_);
        card.cost = new QLabel(totalsBox_);
        card.cost->setObjectName(name + QStringLiteral(".cost"));
        QFont big = card.cost->font();
        big.setPointSizeF(big.pointSizeF() * 1.6);
        big.setBold(true);
        card.cost->setFont(big);
        card.tokens = new QLabel(totalsBox_);
        card.tokens->setObjectName(name + QStringLiteral(".tokens"));
        card.events = new QLabel(totalsBox_);
        card.events->setObjectName(name + QStringLiteral(".events"));
        grid->addWidget(card.title, 0, i);
        grid->addWidget(card.cost, 1, i);
        grid->addWidget(card.tokens, 2, i);
        grid->addWidget(card.events, 3, i);
    }
    chart_ = new TimeChart(totalsBox_);
    grid->addWidget(chart_, 4, 0, 1, 4);

    heatmapBox_ = new QGroupBox(content);
    auto* heatmapLayout = new QVBoxLayout(heatmapBox_);
    heatmap_ = new HeatmapWidget(heatmapBox_);
    heatmapTotal_ = new QLabel(heatmapBox_);
    heatmapTotal_->setObjectName(QStringLiteral("heatmap.total"));
    heatmapLegend_ = new QLabel(heatmapBox_);
    heatmapLayout->addWidget(heatmap_);
    auto* below = new QHBoxLayout();
    below->addWidget(heatmapTotal_, 1);
    below->addWidget(heatmapLegend_);
    heatmapLayout->addLayout(below);

    modelsBox_ = new QGroupBox(content);
    models_ = makeTable(modelsBox_);
    models_->setObjectName(QStringLiteral("overview.models"));
    (new QVBoxLayout(modelsBox_))->addWidget(models_);

    sourcesBox_ = new QGroupBox(content);
    sources_ = makeTable(sourcesBox_);
    sources_->setObjectName(QStringLiteral("overview.sources"));
    (new QVBoxLayout(sourcesBox_))->addWidget(sources_);

    quotaBox_ = new QGroupBox(content);
    quotaRows_ = new QVBoxLayout(quotaBox_);
}

QGroupBox* OverviewPage::module(ConsoleModuleKind kind) const {
    switch (kind) {
        case ConsoleModuleKind::overview:
            return totalsBox_;
        case ConsoleModuleKind::heatmap:
            return heatmapBox_;
        case ConsoleModuleKind::models:
            return modelsBox_;
        case ConsoleModuleKind::sources:
            return sourcesBox_;
        case ConsoleModuleKind::quota:
            return quotaBox_;
        case ConsoleModuleKind::events:
            break;  // the Events page lists them
    }
    return nullptr;
}

void OverviewPage::arrangeModules(const std::vector<ConsoleModuleKind>& order) {
    for (QGroupBox* box : {totalsBox_, heatmapBox_, modelsBox_, sourcesBox_, quotaBox_}) {
        modules_->removeWidget(box);
        box->hide();
    }
    for (ConsoleModuleKind kind : order) {
        if (QGroupBox* box = module(kind); box != nullptr && box->isHidden()) {
            modules_->addWidget(box);
            box->show();
        }
    }
}

void OverviewPage::reload() {
    read_.request();
}

void OverviewPage::showRead(CoalescedRead<Figures>::Result read) {
    if (read) {
        overview_ = std::move(read->overview);
        quotas_ = std::move(read->quotas);
        loadProblem_.clear();
    } else {
        // Keep the last figures; a ledger held by a long write is read again with the next commit.
        loadProblem_ = host().text()("desktop.overview.readFailed", {{"detail", read.error()}});
    }
    fill();
    emit figuresShown();
}

void OverviewPage::retranslate() {
    const UiText& text = host().text();
    totalsBox_->setTitle(text("desktop.overview.totals"));
    heatmapBox_->setTitle(text("desktop.overview.heatmap"));
    modelsBox_->setTitle(text("overview.topModelsToday"));
    sourcesBox_->setTitle(text("overview.topSourcesToday"));
    quotaBox_->setTitle(text("desktop.overview.quota"));
    for (int i = 0; i < 4; ++i) {
        cards_[i].title->setText(text(kPeriodKeys[i]));
    }
    for (QTableWidget* table : {models_, sources_}) {
        table->setHorizontalHeaderLabels(
            {text(table == models_ ? "column.model" : "column.source"), text("column.events"),
             text("column.totalTokens"), text("column.cost")});
    }
    fill();
}

void OverviewPage::fill() {
    const UiText& text = host().text();
    const AppSettings settings = host().session().settings();
    const DisplayChoices display = displayChoices(settings, text.language());
    const QLocale locale = localeOf(display);
    arrangeModules(settings.consoleModules);

    problem_->setVisible(!loadProblem_.isEmpty());
    problem_->setText(loadProblem_);

    const LedgerSummary* periods[] = {&overview_.today, &overview_.yesterday,
                                      &overview_.last7Days, &overview_.last30Days};
    for (int i = 0; i < 4; ++i) {
        const LedgerSummary& s = *periods[i];
        cards_[i].cost->setText(moneyText(display, s));
        cards_[i].tokens->setText(text("desktop.overview.tokens",
                                       {{"tokens", locale.toString(static_cast<qlonglong>(totalTokens(s))).toStdString()}}));
        cards_[i].events->setText(text("desktop.overview.events",
                                       {{"events", locale.toString(static_cast<qlonglong>(s.eventCount)).toStdString()}}));
    }

    // The chart's days are the heatmap's last thirty (the grid holds every day up to today).
    std::vector<ChartBar> bars;
    std::vector<const HeatmapCell*> days;
    for (const auto& week : overview_.heatmap.cells) {
        for (const auto& cell : week) {
            if (!cell.isFuture) {
                days.push_back(&cell);
            }
        }
    }
    const std::size_t first = days.size() > kChartDays ? days.size() - kChartDays : 0;
    const Calendar calendar = Calendar::current();
    int64_t peak = 0;
    for (std::size_t i = first; i < days.size(); ++i) {
        const HeatmapCell& cell = *days[i];
        ChartBar bar;
        bar.value = static_cast<double>(cell.tokens);
        const QString day = QString::fromStdString(calendar.dayKey(cell.day));
        if ((days.size() - 1 - i) % 7 == 0) {
            bar.label = day.mid(5);  // "11-24"
        }
        bar.tip = text("desktop.overview.dayTip",
                       {{"day", day.toStdString()},
                        {"tokens", locale.toString(static_cast<qlonglong>(cell.tokens)).toStdString()},
                        {"cost", display.money(cell.costUSDMicros.value_or(0))}});
        peak = std::max(peak, cell.tokens);
        bars.push_back(std::move(bar));
    }
    chart_->setBars(std::move(bars),
                    text("desktop.overview.chartPeak",
                         {{"tokens", tokenText(display, peak).toStdString()}}));

    heatmap_->setModel(overview_.heatmap, calendar, locale, [this, display, calendar, locale](const HeatmapCell& cell) {
        return host().text()("desktop.overview.dayTip",
                             {{"day", calendar.dayKey(cell.day)},
                              {"tokens", locale.toString(static_cast<qlonglong>(cell.tokens)).toStdString()},
                              {"cost", display.money(cell.costUSDMicros.value_or(0))}});
    });
    const bool dark = palette().color(QPalette::Window).lightness() < 128;
    QString legend = text("heatmap.less").toHtmlEscaped() + QStringLiteral(" ");
    for (int level = 0; level <= 4; ++level) {
        legend += QStringLiteral("<span style=\"color:%1\">&#9632;</span>")
                      .arg(HeatmapWidget::levelColor(level, dark).name());
    }
    heatmapLegend_->setText(legend + QStringLiteral(" ") + text("heatmap.more").toHtmlEscaped());
    const HeatmapTotals totals = heatmapTotals(overview_.heatmap);
    heatmapTotal_->setText(text("heatmap.total",
                                {{"tokens", locale.toString(static_cast<qlonglong>(totals.tokens)).toStdString()},
                                 {"weeks", std::to_string(overview_.heatmap.weeks)},
                                 {"cost", display.money(totals.costUSDMicros)}}));

    models_->setRowCount(static_cast<int>(overview_.topModelsToday.size()));
    for (int r = 0; r < models_->rowCount(); ++r) {
        const auto& m = overview_.topModelsToday[r];
        fillRow(models_, r, QString::fromStdString(m.model), m.summary, display);
    }
    fitHeight(models_);
    sources_->setRowCount(static_cast<int>(overview_.topSourcesToday.size()));
    for (int r = 0; r < sources_->rowCount(); ++r) {
        const auto& s = overview_.topSourcesToday[r];
        fillRow(sources_, r, QString::fromStdString(std::string(displayName(s.source))), s.summary,
                display);
    }
    fitHeight(sources_);

    while (QLayoutItem* item = quotaRows_->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    const double now = clock_();
    int shown = 0;
    for (const auto& q : quotas_) {
        for (const auto& w : q.snapshot.windows) {
            if (!w.usedPercent) {
                continue;
            }
            auto* row = new QWidget(quotaBox_);
            auto* line = new QHBoxLayout(row);
            line->setContentsMargins(0, 0, 0, 0);
            QString name = QString::fromStdString(std::string(displayName(q.snapshot.identity.source)));
            if (!q.snapshot.identity.planLabel.empty()) {
                name += QStringLiteral(" · ") + QString::fromStdString(q.snapshot.identity.planLabel);
            }
            name += QStringLiteral(" · ") +
                    text(std::string("quota.window.") + std::string(rawValue(w.kind)));
            line->addWidget(new QLabel(name, row), 1);
            auto* bar = new QProgressBar(row);
            bar->setRange(0, 100);
            bar->setValue(static_cast<int>(std::clamp(*w.usedPercent, 0.0, 100.0)));
            bar->setFormat(QStringLiteral("%1%").arg(*w.usedPercent, 0, 'f', 0));
            line->addWidget(bar, 1);
            QString after;
            if (w.resetsAt && *w.resetsAt > now) {
                after = text("quota.resetsIn", {{"wait", waitText(*w.resetsAt - now).toStdString()}});
            }
            if (q.snapshot.stale) {
                after += (after.isEmpty() ? QString() : QStringLiteral(" · ")) + text("quota.stale");
            }
            line->addWidget(new QLabel(after, row));
            quotaRows_->addWidget(row);
            ++shown;
        }
    }
    if (shown == 0) {
        auto* none = new QLabel(text("desktop.overview.noQuota"), quotaBox_);
        none->setWordWrap(true);
        quotaRows_->addWidget(none);
    }

    unpriced_->setVisible(overview_.last30Days.unknownCostEventCount > 0);
    unpriced_->setText(text("desktop.overview.unpricedNote"));
}

}  // namespace kestrel::desktop
