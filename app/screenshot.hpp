#pragma once
// Pictures of the app without a desktop: every page of the window at a fixed size and the tray
// item's icon at 22, 32 and 64 pixels, as PNG files in one folder.

#include <QSize>
#include <QString>
#include <QStringList>
#include <expected>

namespace kestrel::desktop {

class AppController;

inline constexpr QSize kScreenshotSize{1100, 760};
inline constexpr int kTrayScreenshotSizes[] = {22, 32, 64};

// Writes "<pageId>.png" per page and "tray-<size>.png" into `folder` (created when missing).
// Returns the files written, or why one could not be.
std::expected<QStringList, QString> writeScreenshots(AppController& app, const QString& folder,
                                                     QSize size = kScreenshotSize);

}  // namespace kestrel::desktop
