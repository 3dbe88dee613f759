#include "app/single_instance.hpp"

#include <QCryptographicHash>
#include <QLocalSocket>
#include <unistd.h>

namespace kestrel::desktop {

QString SingleInstance::serverName(const std::filesystem::path& supportDir) {
    // "dir", "dir/" and "dir/." are one folder.
    std::filesystem::path folder = supportDir.lexically_normal();
    if (!folder.has_filename() && folder.has_parent_path()) {
        folder = folder.parent_path();
    }
    const QByteArray digest =
        QCryptographicHash::hash(QByteArray::fromStdString(folder.string()),
                                 QCryptographicHash::Sha256)
            .toHex()
            .left(16);
    return QStringLiteral("kestrel-%1-%2").arg(::getuid()).arg(QString::fromLatin1(digest));
}

SingleInstance::SingleInstance(QString name, QObject* parent)
    : QObject(parent), name_(std::move(name)) {
    // Only this user may connect.
    server_.setSocketOptions(QLocalServer::UserAccessOption);
    connect(&server_, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket* socket = server_.nextPendingConnection()) {
            connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
                if (socket->readAll().startsWith("raise")) {
                    emit raiseRequested();
                }
                socket->disconnectFromServer();
            });
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        }
    });
}

bool SingleInstance::signalRunning(int timeoutMs) {
    QLocalSocket socket;
    socket.connectToServer(name_);
    if (!socket.waitForConnected(timeoutMs)) {
        return false;
    }
    socket.write("raise\n");
    socket.waitForBytesWritten(timeoutMs);
    socket.disconnectFromServer();
    return true;
}

bool SingleInstance::listen() {
    if (server_.listen(name_)) {
        return true;
    }
    // A socket left behind by an instance that crashed: nobody answered signalRunning, so it
    // is stale.
    QLocalServer::removeServer(name_);
    return server_.listen(name_);
}

}  // namespace kestrel::desktop
