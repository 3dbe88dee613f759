#pragma once
// The tray item's picture. A tray shows no text beside its icon on Linux, so the short figure is
// drawn into the icon itself, on a badge coloured by the tightest quota window.

#include <QColor>
#include <QPixmap>
#include <QString>

#include "core/app/glance.hpp"

namespace kestrel::desktop {

// The badge's fill for a level: calm slate, amber from 50 %, red from 80 %.
QColor glanceColor(GlanceLevel level);

// A `size` × `size` picture (device pixels) with `compact` ("$12", "42%") as large as it fits.
QPixmap trayPixmap(const QString& compact, GlanceLevel level, int size);

}  // namespace kestrel::desktop
