#include "app/tray/tray_item.hpp"

#include <QIcon>
#include <algorithm>
#include <cmath>

#include "app/tray/tray_icon.hpp"
#include "app/ui_text.hpp"

namespace kestrel::desktop {

TrayItem::TrayItem(const UiText& text, QObject* parent)
    : QObject(parent), text_(text), menu_(std::make_unique<QMenu>()) {
    rotation_.setSingleShot(true);
    connect(&rotation_, &QTimer::timeout, this, &TrayItem::rotationDue);
    if (hostAvailable()) {
        icon_ = new QSystemTrayIcon(this);
        icon_->setContextMenu(menu_.get());
        connect(icon_, &QSystemTrayIcon::activated, this,
                [this](QSystemTrayIcon::ActivationReason reason) {
                    if (reason == QSystemTrayIcon::Trigger ||
                        reason == QSystemTrayIcon::DoubleClick) {
                        emit openRequested();
                    }
                });
    }
    rebuildMenu();
}

TrayItem::~TrayItem() {
    if (icon_ != nullptr) {
        icon_->hide();
        icon_->setContextMenu(nullptr);
    }
}

bool TrayItem::hostAvailable() {
    return QSystemTrayIcon::isSystemTrayAvailable();
}

void TrayItem::show(const MenuBarText& composed, const TrayMenuLines& lines, double now) {
    if (!composed.frames.empty()) {
        compact_ = QString::fromStdString(composed.shown().compactValue);
    } else {
        compact_.clear();
    }
    toolTip_ = QString::fromStdString(composed.tooltip);
    level_ = glanceLevel(composed.tightestUsedPercent);
    lines_ = lines;
    rebuildMenu();

    rotation_.stop();
    if (composed.nextChangeAt) {
        // A little after the change, so the recomposed text is the next one; never a busy loop.
        const double ms = std::max(250.0, (*composed.nextChangeAt - now) * 1000 + 50);
        rotation_.start(static_cast<int>(std::min(ms, 3'600'000.0)));
    }
    if (icon_ != nullptr) {
        QIcon icon;
        for (int size : {16, 22, 24, 32, 48, 64}) {
            icon.addPixmap(pixmap(size));
        }
        icon_->setIcon(icon);
        icon_->setToolTip(toolTip_);
        icon_->show();
    }
}

void TrayItem::retranslate() {
    rebuildMenu();
}

QPixmap TrayItem::pixmap(int size) const {
    return trayPixmap(compact_, level_, size);
}

void TrayItem::rebuildMenu() {
    menu_->clear();
    const auto info = [this](const QString& line) {
        if (!line.isEmpty()) {
            menu_->addAction(line)->setEnabled(false);
        }
    };
    info(lines_.today);
    info(lines_.last7Days);
    if (!lines_.agents.isEmpty()) {
        menu_->addSeparator();
        for (const auto& line : lines_.agents) {
            info(line);
        }
    }
    if (!lines_.liveSessions.isEmpty()) {
        menu_->addSeparator();
        menu_->addSection(text_("desktop.tray.liveSessions"));
        for (const auto& line : lines_.liveSessions) {
            info(line);
        }
    }
    menu_->addSeparator();
    connect(menu_->addAction(text_("desktop.action.refresh")), &QAction::triggered, this,
            &TrayItem::refreshRequested);
    connect(menu_->addAction(text_("desktop.action.open")), &QAction::triggered, this,
            &TrayItem::openRequested);
    menu_->addSeparator();
    connect(menu_->addAction(text_("desktop.action.quit")), &QAction::triggered, this,
            &TrayItem::quitRequested);
}

}  // namespace kestrel::desktop
