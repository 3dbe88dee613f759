#pragma once
// The tray item: the composed text's short form in the icon, the whole text in the tooltip, and
// a menu with today's and the week's figures, each agent's line, the live sessions, Refresh,
// Open Kestrel and Quit. Without a tray host it keeps its picture and texts (the screenshots and
// the window's status line use them) but shows nothing.

#include <QAction>
#include <QMenu>
#include <QObject>
#include <QPixmap>
#include <QPointer>
#include <QStringList>
#include <QSystemTrayIcon>
#include <QTimer>
#include <memory>

#include "core/app/glance.hpp"
#include "core/presentation/menu_bar_composer.hpp"

namespace kestrel::desktop {

class UiText;

struct TrayMenuLines {
    QString today;             // "Today  $12.34 · 1.2M tokens"
    QString last7Days;
    QStringList agents;        // one per agent with usage today
    QStringList liveSessions;  // one per session at work or waiting
};

class TrayItem : public QObject {
    Q_OBJECT

  public:
    explicit TrayItem(const UiText& text, QObject* parent = nullptr);
    ~TrayItem() override;

    // Whether the desktop has a tray host to show the item in.
    static bool hostAvailable();

    // Shows `composed` (the frame on show and the tooltip) and `lines` in the menu; when the
    // text changes with the clock, `rotationDue` fires at its nextChangeAt.
    void show(const MenuBarText& composed, const TrayMenuLines& lines, double now);
    void retranslate();

    QPixmap pixmap(int size) const;
    QString compactText() const { return compact_; }
    QString toolTip() const { return toolTip_; }
    QMenu* menu() { return menu_.get(); }
    QSystemTrayIcon* icon() { return icon_; }
    // Milliseconds until the next rotation, or -1 when none is scheduled.
    int rotationInterval() const { return rotation_.isActive() ? rotation_.interval() : -1; }

  signals:
    void refreshRequested();
    void openRequested();
    void quitRequested();
    void rotationDue();

  private:
    void rebuildMenu();

    const UiText& text_;
    std::unique_ptr<QMenu> menu_;
    QSystemTrayIcon* icon_ = nullptr;  // absent without a tray host
    QTimer rotation_;
    QString compact_;
    QString toolTip_;
    GlanceLevel level_ = GlanceLevel::normal;
    TrayMenuLines lines_;
};

}  // namespace kestrel::desktop
