#pragma once
// Light, dark or the desktop's own colours, applied to the whole application at run time.

#include <QIcon>
#include <QPalette>

#include "core/model/app_settings.hpp"

namespace kestrel::desktop {

// The palette of `theme`; `system` is the one the application started with.
QPalette themePalette(AppTheme theme, const QPalette& systemPalette);

// Kestrel's icon (resources/desktop/kestrel.svg), for the windows and the notifications.
QIcon appIcon();

// Applies `theme` to every widget (Fusion style, so both palettes draw alike everywhere).
void applyTheme(AppTheme theme);

}  // namespace kestrel::desktop
