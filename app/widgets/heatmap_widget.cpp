#include "app/widgets/heatmap_widget.hpp"

#include <QHelpEvent>
#include <QFontMetricsF>
#include <QPainter>
#include <QToolTip>
#include <algorithm>

namespace kestrel::desktop {
namespace {

constexpr double kMaxPitch = 20;
constexpr double kMargin = 4;

}  // namespace

HeatmapWidget::HeatmapWidget(QWidget* parent) : QWidget(parent) {
    setMouseTracking(true);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

void HeatmapWidget::setModel(HeatmapModel model, Calendar calendar, QLocale locale,
                             std::function<QString(const HeatmapCell&)> describe) {
    model_ = std::move(model);
    calendar_ = calendar;
    locale_ = std::move(locale);
    describe_ = std::move(describe);
    updateGeometry();
    update();
}

QColor HeatmapWidget::levelColor(int level, bool dark) {
    // Five steps of one green, from the empty square to the busiest quarter; the dark palette
    // starts from a dim square so that empty days still read as days.
    static const QColor light[] = {QColor(0xeb, 0xed, 0xf0), QColor(0x9b, 0xe9, 0xa8),
                                   QColor(0x40, 0xc4, 0x63), QColor(0x30, 0xa1, 0x4e),
                                   QColor(0x21, 0x6e, 0x39)};
    static const QColor darkSteps[] = {QColor(0x2d, 0x33, 0x3b), QColor(0x0e, 0x44, 0x29),
                                       QColor(0x00, 0x6d, 0x32), QColor(0x26, 0xa6, 0x41),
                                       QColor(0x39, 0xd3, 0x53)};
    const int i = std::clamp(level, 0, 4);
    return dark ? darkSteps[i] : light[i];
}

HeatmapMetrics HeatmapWidget::metrics() const {
    const int weeks = std::max(1, model_.weeks);
    return HeatmapGrid::metrics(std::max(40.0, width() - 2 * kMargin), false, kMaxPitch, weeks);
}

QRectF HeatmapWidget::cellRect(int week, int row) const {
    const HeatmapMetrics m = metrics();
    return {kMargin + m.weekdayCol + week * m.pitch, kMargin + m.monthH + row * m.pitch, m.cell,
            m.cell};
}

QSize HeatmapWidget::sizeHint() const {
    const int weeks = std::max(1, model_.weeks);
    const HeatmapMetrics m = HeatmapGrid::metrics(40 + weeks * kMaxPitch, false, kMaxPitch, weeks);
    return {static_cast<int>(m.weekdayCol + weeks * kMaxPitch + 2 * kMargin),
            static_cast<int>(m.plotHeight + 2 * kMargin)};
}

QSize HeatmapWidget::minimumSizeHint() const {
    return {200, sizeHint().height()};
}

bool HeatmapWidget::darkPalette() const {
    return palette().color(QPalette::Window).lightness() < 128;
}

void HeatmapWidget::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const HeatmapMetrics m = metrics();
    const bool dark = darkPalette();

    QFont small = font();
    small.setPointSizeF(std::max(7.0, font().pointSizeF() * 0.8));
    p.setFont(small);
    p.setPen(palette().color(QPalette::WindowText));
    for (const auto& label : model_.monthLabels) {
        const QPointF at(kMargin + m.weekdayCol + label.weekIndex * m.pitch, kMargin + m.monthH - 3);
        p.drawText(at, locale_.monthName(label.month, QLocale::ShortFormat));
    }
    const QFontMetricsF fm(small);
    const auto dayOf = [this](int row) {
        const int weekday = (calendar_.firstWeekday + row) % 7;  // 0 = Sunday
        return weekday == 0 ? 7 : weekday;
    };
    // One format for every row: the short names when all of them fit, else the narrow ones.
    QLocale::FormatType format = QLocale::ShortFormat;
    for (int row : model_.labeledRows) {
        if (fm.horizontalAdvance(locale_.dayName(dayOf(row), format)) > m.weekdayCol - 2) {
            format = QLocale::NarrowFormat;  // "M", "一"
        }
    }
    for (int row : model_.labeledRows) {
        const QString name = locale_.dayName(dayOf(row), format);
        const QRectF cell = cellRect(0, row);
        p.drawText(QRectF(kMargin, cell.top() - 2, m.weekdayCol - 2, cell.height() + 4),
                   Qt::AlignLeft | Qt::AlignVCenter, name);
    }

    p.setPen(Qt::NoPen);
    const double radius = std::max(1.0, m.cell / 5);
    for (int week = 0; week < static_cast<int>(model_.cells.size()); ++week) {
        const auto& column = model_.cells[week];
        for (int row = 0; row < static_cast<int>(column.size()); ++row) {
            if (column[row].isFuture) {
                continue;  // days still to come are left blank
            }
            p.setBrush(levelColor(column[row].level, dark));
            p.drawRoundedRect(cellRect(week, row), radius, radius);
        }
    }
}

bool HeatmapWidget::event(QEvent* e) {
    if (e->type() == QEvent::ToolTip && describe_) {
        const auto* help = static_cast<QHelpEvent*>(e);
        for (int week = 0; week < static_cast<int>(model_.cells.size()); ++week) {
            for (int row = 0; row < static_cast<int>(model_.cells[week].size()); ++row) {
                const auto& cell = model_.cells[week][row];
                if (!cell.isFuture && cellRect(week, row).contains(help->pos())) {
                    QToolTip::showText(help->globalPos(), describe_(cell), this);
                    return true;
                }
            }
        }
        QToolTip::hideText();
        e->ignore();
        return true;
    }
    return QWidget::event(e);
}

}  // namespace kestrel::desktop
