#include "app/notifications/desktop_notifier.hpp"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QVariantMap>

namespace kestrel::desktop {

DesktopNotifier::DesktopNotifier(QDBusConnection bus, QObject* parent)
    : QObject(parent), bus_(std::move(bus)) {}

void DesktopNotifier::send(const NotificationMessage& message) {
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("/org/freedesktop/Notifications"),
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("Notify"));
    QVariantMap hints;
    hints.insert(QStringLiteral("urgency"), QVariant::fromValue<uchar>(message.urgent ? 2 : 1));
    hints.insert(QStringLiteral("desktop-entry"), QStringLiteral("kestrel"));
    call << QStringLiteral("Kestrel") << uint(0) << QStringLiteral("kestrel") << message.summary
         << message.body << QStringList() << hints << int(-1);
    ++sent_;
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* w) {
        const QDBusPendingReply<uint> reply = *w;
        if (reply.isError()) {
            ++failed_;
            emit failedToSend(reply.error().message());
        } else {
            emit delivered(reply.value());
        }
        w->deleteLater();
    });
}

}  // namespace kestrel::desktop
