#pragma once
// The ledger's events a page at a time, newest first, under the filters every report shares
// (period, agent, model, project, search); the filter lists come from the ledger's facets. The
// events the filters select can be written to a CSV file.

#include <QAbstractTableModel>
#include <QPointer>
#include <optional>
#include <vector>

#include "app/coalesced_read.hpp"
#include "app/page.hpp"
#include "core/app/display_choices.hpp"
#include "core/app/events_page.hpp"
#include "core/ledger/ledger_query.hpp"

class QComboBox;
class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;
class QTableView;

namespace kestrel::desktop {

// One page of ledger entries as table rows, in the columns of `kestrel events`.
class EventsTableModel : public QAbstractTableModel {
    Q_OBJECT

  public:
    enum Column { time, source, model, project, input, cacheRead, cacheWrite, output, total, cost,
                  columnCount_ };

    explicit EventsTableModel(QObject* parent = nullptr) : QAbstractTableModel(parent) {}

    void setEntries(std::vector<LedgerEntry> entries, DisplayChoices display);
    void setHeaders(QStringList headers);
    const std::vector<LedgerEntry>& entries() const { return entries_; }

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation,
                        int role = Qt::DisplayRole) const override;

  private:
    std::vector<LedgerEntry> entries_;
    DisplayChoices display_;
    QStringList headers_;
};

// The periods the filter offers; `all` does not restrict.
enum class EventsPeriod { all, today, last7Days, last30Days, thisMonth };

// [from, to) of `period` around `now` in the local calendar; absent bounds do not restrict.
std::pair<std::optional<double>, std::optional<double>> periodRange(EventsPeriod period,
                                                                    double now);

class EventsPage : public Page {
    Q_OBJECT

  public:
    explicit EventsPage(PageHost& host, QWidget* parent = nullptr);

    QString pageId() const override { return QStringLiteral("events"); }
    QString title() const override;
    void reload() override;
    void retranslate() override;

    // The filter as the widgets set it now.
    LedgerQuery query() const;
    void setPageSize(int size);
    int pageNumber() const { return static_cast<int>(cursors_.size()); }  // 0 for the first
    bool hasNextPage() const { return next_.has_value(); }
    void nextPage();
    void previousPage();
    const EventsTableModel& tableModel() const { return *model_; }

    // Writes every event the filter selects to `path` in the background; the status line says
    // how it went.
    void exportTo(const QString& path);

  signals:
    void exportFinished(bool ok, const QString& message);
    // Rows written of the rows in all, as the progress bar shows them (a few times a second).
    void exportProgressed(qint64 done, qint64 total);

  private:
    // One read of the ledger: a page of events, and the filter lists after a reload.
    struct Figures {
        ::kestrel::EventsPage page;
        std::optional<LedgerFacets> facets;
    };

    void showRead(CoalescedRead<Figures>::Result read);
    bool refillFacets(const LedgerFacets& facets);
    void showPage();
    void filtersChanged();
    void chooseExportFile();

    const UiText& text_;
    EventsTableModel* model_ = nullptr;
    QTableView* table_ = nullptr;
    QComboBox* period_ = nullptr;
    QComboBox* agent_ = nullptr;
    QComboBox* modelFilter_ = nullptr;
    QComboBox* project_ = nullptr;
    QLineEdit* search_ = nullptr;
    QLabel* searchLabel_ = nullptr;
    QLabel* facets_ = nullptr;
    QLabel* pageLabel_ = nullptr;
    QLabel* status_ = nullptr;
    QPushButton* previous_ = nullptr;
    QPushButton* next_button_ = nullptr;
    QPushButton* export_ = nullptr;
    QProgressBar* exportProgress_ = nullptr;

    int pageSize_ = 100;
    // The cursors the pages before this one started after (the first page starts after none).
    std::vector<std::optional<LedgerCursor>> cursors_;
    std::optional<LedgerCursor> current_;
    std::optional<LedgerCursor> next_;
    bool filling_ = false;  // combo boxes being refilled: their signals are not a user's choice
    bool facetsWanted_ = true;  // the next read brings the filter lists too
    CoalescedRead<Figures> read_;
};

}  // namespace kestrel::desktop
