#pragma once
// A bar per day over the last weeks: the shape of the usage over time, the busiest day's figure
// written at the top.

#include <QString>
#include <QWidget>
#include <vector>

namespace kestrel::desktop {

struct ChartBar {
    QString label;  // short date under every seventh bar ("11-24")
    double value = 0;
    QString tip;    // the day's figures
};

class TimeChart : public QWidget {
    Q_OBJECT

  public:
    explicit TimeChart(QWidget* parent = nullptr);

    // `peakText` labels the highest bar ("1.2M tokens").
    void setBars(std::vector<ChartBar> bars, QString peakText);
    const std::vector<ChartBar>& bars() const { return bars_; }

    // The rectangle of bar `i` as drawn (empty for a zero bar).
    QRectF barRect(std::size_t i) const;

    QSize sizeHint() const override { return {480, 160}; }

  protected:
    void paintEvent(QPaintEvent* event) override;
    bool event(QEvent* event) override;

  private:
    QRectF plotArea() const;

    std::vector<ChartBar> bars_;
    QString peakText_;
};

}  // namespace kestrel::desktop
