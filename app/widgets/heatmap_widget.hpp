#pragma once
// The calendar heatmap: a square per day in week columns, coloured by the day's level, with the
// month names above and some weekday names at the left. A day's figures show in its tooltip.

#include <QLocale>
#include <QWidget>
#include <functional>

#include "core/model/calendar.hpp"
#include "core/presentation/heatmap_grid.hpp"

namespace kestrel::desktop {

class HeatmapWidget : public QWidget {
    Q_OBJECT

  public:
    explicit HeatmapWidget(QWidget* parent = nullptr);

    // `describe` gives a cell's tooltip (date, tokens, cost in the current language).
    void setModel(HeatmapModel model, Calendar calendar, QLocale locale,
                  std::function<QString(const HeatmapCell&)> describe);
    const HeatmapModel& model() const { return model_; }

    // The fill of a level (0 = nothing ... 4 = busiest), for the palette's lightness.
    static QColor levelColor(int level, bool dark);
    // Where the square of `week`, `row` is drawn, in widget coordinates.
    QRectF cellRect(int week, int row) const;

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

  protected:
    void paintEvent(QPaintEvent* event) override;
    bool event(QEvent* event) override;

  private:
    HeatmapMetrics metrics() const;
    bool darkPalette() const;

    HeatmapModel model_;
    Calendar calendar_ = Calendar::current();
    QLocale locale_;
    std::function<QString(const HeatmapCell&)> describe_;
};

}  // namespace kestrel::desktop
