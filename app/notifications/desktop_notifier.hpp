#pragma once
// Sends notifications to the desktop's notification server (org.freedesktop.Notifications on
// the session bus). Calls are asynchronous: the window never waits for the server, and a desktop
// without one costs a failed call and nothing else.

#include <QDBusConnection>
#include <QObject>

#include "app/notifications/notification_text.hpp"

namespace kestrel::desktop {

class DesktopNotifier : public QObject {
    Q_OBJECT

  public:
    explicit DesktopNotifier(QDBusConnection bus = QDBusConnection::sessionBus(),
                             QObject* parent = nullptr);

    void send(const NotificationMessage& message);

    int sent() const { return sent_; }
    int failed() const { return failed_; }

  signals:
    // The server's id for a delivered notification, or the error of one that failed.
    void delivered(uint id);
    void failedToSend(const QString& error);

  private:
    QDBusConnection bus_;
    int sent_ = 0;
    int failed_ = 0;
};

}  // namespace kestrel::desktop
