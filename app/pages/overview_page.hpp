#pragma once
// The Overview page: today, yesterday, the last 7 and 30 days, the calendar heatmap, a chart of
// the last 30 days, today's heaviest models and agents, and the stored quota windows, as modules
// in the order the user arranged them (settings.consoleModules).

#include <QLabel>
#include <QPointer>
#include <QTableWidget>
#include <QVBoxLayout>
#include <array>

#include "app/coalesced_read.hpp"
#include "app/page.hpp"
#include "app/tray/tray_figures.hpp"
#include "app/widgets/heatmap_widget.hpp"
#include "app/widgets/time_chart.hpp"
#include "core/app/usage_overview.hpp"
#include "core/model/app_settings.hpp"

class QGroupBox;
class QGridLayout;

namespace kestrel::desktop {

class OverviewPage : public Page {
    Q_OBJECT

  public:
    explicit OverviewPage(PageHost& host, QWidget* parent = nullptr);

    QString pageId() const override { return QStringLiteral("overview"); }
    QString title() const override;
    void reload() override;
    void retranslate() override;

    // What the page shows now (tests compare it with the command line's figures). reload()
    // reads on the reading worker; the figures change when that read comes back.
    const UsageOverview& overview() const { return overview_; }
    // The clock the page reads at; tests pin it.
    void setClock(std::function<double()> clock) { clock_ = std::move(clock); }

  signals:
    // A read has come back and the page shows its figures.
    void figuresShown();

  private:
    struct PeriodCard {
        QLabel* title = nullptr;
        QLabel* cost = nullptr;
        QLabel* tokens = nullptr;
        QLabel* events = nullptr;
    };

    // What one read of the ledger gives the page.
    struct Figures {
        UsageOverview overview;
        std::vector<StoredQuota> quotas;
    };

    void build();
    void showRead(CoalescedRead<Figures>::Result read);
    void fill();
    void arrangeModules(const std::vector<ConsoleModuleKind>& order);
    QGroupBox* module(ConsoleModuleKind kind) const;

    std::function<double()> clock_;
    CoalescedRead<Figures> read_;
    UsageOverview overview_;
    std::vector<StoredQuota> quotas_;
    QString loadProblem_;

    QVBoxLayout* modules_ = nullptr;
    QLabel* problem_ = nullptr;
    QGroupBox* totalsBox_ = nullptr;
    std::array<PeriodCard, 4> cards_{};
    TimeChart* chart_ = nullptr;
    QGroupBox* heatmapBox_ = nullptr;
    HeatmapWidget* heatmap_ = nullptr;
    QLabel* heatmapTotal_ = nullptr;
    QLabel* heatmapLegend_ = nullptr;
    QGroupBox* modelsBox_ = nullptr;
    QTableWidget* models_ = nullptr;
    QGroupBox* sourcesBox_ = nullptr;
    QTableWidget* sources_ = nullptr;
    QGroupBox* quotaBox_ = nullptr;
    QVBoxLayout* quotaRows_ = nullptr;
    QLabel* unpriced_ = nullptr;
};

}  // namespace kestrel::desktop
