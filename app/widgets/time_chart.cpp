#include "app/widgets/time_chart.hpp"

#include <QHelpEvent>
#include <QPainter>
#include <QToolTip>
#include <algorithm>

namespace kestrel::desktop {

TimeChart::TimeChart(QWidget* parent) : QWidget(parent) {
    setMinimumHeight(120);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

void TimeChart::setBars(std::vector<ChartBar> bars, QString peakText) {
    bars_ = std::move(bars);
    peakText_ = std::move(peakText);
    update();
}

QRectF TimeChart::plotArea() const {
    const int text = fontMetrics().height();
    return QRectF(8, text + 6, width() - 16, height() - 2 * text - 14);
}

QRectF TimeChart::barRect(std::size_t i) const {
    if (i >= bars_.size()) {
        return {};
    }
    double peak = 0;
    for (const auto& b : bars_) {
        peak = std::max(peak, b.value);
    }
    const QRectF area = plotArea();
    if (peak <= 0 || bars_[i].value <= 0) {
        return {};
    }
    const double slot = area.width() / static_cast<double>(bars_.size());
    // A day with any usage gets at least a sliver, so it does not read as a day without.
    const double h = std::max(2.0, area.height() * bars_[i].value / peak);
    return {area.left() + i * slot + slot * 0.15, area.bottom() - h, slot * 0.7, h};
}

void TimeChart::paintEvent(QPaintEvent*) {
    QPainter p(this);
    const QRectF area = plotArea();
    const QColor text = palette().color(QPalette::WindowText);
    QColor grid = text;
    grid.setAlphaF(0.25);
    p.setPen(grid);
    p.drawLine(area.bottomLeft(), area.bottomRight());
    p.drawLine(area.topLeft(), area.topRight());

    p.setPen(text);
    p.drawText(QRectF(area.left(), 0, area.width(), area.top() - 2), Qt::AlignLeft | Qt::AlignBottom,
               peakText_);
    p.setPen(Qt::NoPen);
    p.setBrush(palette().color(QPalette::Highlight));
    for (std::size_t i = 0; i < bars_.size(); ++i) {
        const QRectF r = barRect(i);
        if (!r.isEmpty()) {
            p.drawRect(r);
        }
    }
    p.setPen(text);
    const double slot = bars_.empty() ? 0 : area.width() / static_cast<double>(bars_.size());
    for (std::size_t i = 0; i < bars_.size(); ++i) {
        if (bars_[i].label.isEmpty()) {
            continue;
        }
        p.drawText(QRectF(area.left() + i * slot - 30, area.bottom() + 2, 60 + slot,
                          fontMetrics().height() + 4),
                   Qt::AlignHCenter | Qt::AlignTop, bars_[i].label);
    }
}

bool TimeChart::event(QEvent* e) {
    if (e->type() == QEvent::ToolTip && !bars_.empty()) {
        const auto* help = static_cast<QHelpEvent*>(e);
        const QRectF area = plotArea();
        const double slot = area.width() / static_cast<double>(bars_.size());
        const auto i = static_cast<long>((help->pos().x() - area.left()) / slot);
        if (i >= 0 && i < static_cast<long>(bars_.size()) && !bars_[i].tip.isEmpty()) {
            QToolTip::showText(help->globalPos(), bars_[i].tip, this);
        } else {
            QToolTip::hideText();
        }
        return true;
    }
    return QWidget::event(e);
}

}  // namespace kestrel::desktop
