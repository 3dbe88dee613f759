#include "app/tray/tray_icon.hpp"

#include <QFontMetricsF>
#include <QPainter>

namespace kestrel::desktop {
namespace {

// Below this glyph height digits blur together on a tray.
constexpr double kLegiblePixels = 9;

}  // namespace

QColor glanceColor(GlanceLevel level) {
    switch (level) {
        case GlanceLevel::warning:
            return QColor(0xd9, 0x8a, 0x00);
        case GlanceLevel::critical:
            return QColor(0xc6, 0x28, 0x28);
        case GlanceLevel::normal:
            break;
    }
    return QColor(0x26, 0x4d, 0x5c);
}

QPixmap trayPixmap(const QString& compact, GlanceLevel level, int size) {
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    p.setRenderHint(QPainter::TextAntialiasing);
    p.setPen(Qt::NoPen);
    p.setBrush(glanceColor(level));
    const double radius = size * 0.18;
    p.drawRoundedRect(QRectF(0, 0, size, size), radius, radius);

    QString text = compact.isEmpty() ? QStringLiteral("–") : compact;
    // The largest bold size whose width fits with a one-pixel-ish margin.
    const double room = size * 0.94;
    QFont font;
    font.setBold(true);
    font.setStretch(QFont::SemiCondensed);
    const auto fit = [&](const QString& t) {
        double px = size * 0.62;
        for (; px > 5; px -= 0.5) {
            font.setPixelSize(static_cast<int>(px));
            if (QFontMetricsF(font).horizontalAdvance(t) <= room) {
                break;
            }
        }
        return px;
    };
    double px = fit(text);
    // Too small to read at tray sizes: whole units say enough there ("$1.30" → "$1"); the tooltip
    // keeps the cents. A scaled figure ("$1.2K") keeps its digit, which carries the magnitude.
    const qsizetype point = text.indexOf(QLatin1Char('.'));
    if (px < kLegiblePixels && point > 0 && text.back().isDigit()) {
        text.truncate(point);
        px = fit(text);
    }
    font.setPixelSize(std::max(5, static_cast<int>(px)));
    p.setFont(font);
    p.setPen(Qt::white);
    p.drawText(QRectF(0, 0, size, size), Qt::AlignCenter, text);
    return pixmap;
}

}  // namespace kestrel::desktop
