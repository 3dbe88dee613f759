#include "app/screenshot.hpp"

#include <QApplication>
#include <QDir>
#include <QPixmap>

#include "app/app_controller.hpp"
#include "app/main_window.hpp"
#include "app/tray/tray_item.hpp"

namespace kestrel::desktop {

std::expected<QStringList, QString> writeScreenshots(AppController& app, const QString& folder,
                                                     QSize size) {
    if (!QDir().mkpath(folder)) {
        return std::unexpected(QStringLiteral("cannot create %1").arg(folder));
    }
    QStringList written;
    const auto save = [&](const QPixmap& pixmap, const QString& name) -> bool {
        const QString path = QDir(folder).filePath(name);
        if (!pixmap.save(path, "PNG")) {
            return false;
        }
        written << path;
        return true;
    };

    MainWindow& window = app.window();
    window.resize(size);
    // Shown offscreen so layouts settle at the final size before each grab.
    window.show();
    for (Page* page : window.pages()) {
        window.showPage(page->pageId());
        // A page shown for the first time since a reload reads its figures now.
        app.waitForBackground();
        QApplication::processEvents();
        if (!save(window.grab(), page->pageId() + QStringLiteral(".png"))) {
            return std::unexpected(QStringLiteral("cannot write %1.png in %2").arg(page->pageId(), folder));
        }
    }
    for (int px : kTrayScreenshotSizes) {
        if (!save(app.tray().pixmap(px), QStringLiteral("tray-%1.png").arg(px))) {
            return std::unexpected(QStringLiteral("cannot write tray-%1.png in %2").arg(px).arg(folder));
        }
    }
    return written;
}

}  // namespace kestrel::desktop
