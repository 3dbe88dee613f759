#pragma once
// One Kestrel per user and support folder: the first launch listens on a local socket, a later
// one finds it, asks it to raise its window and leaves.

#include <QLocalServer>
#include <QObject>
#include <QString>
#include <filesystem>

namespace kestrel::desktop {

class SingleInstance : public QObject {
    Q_OBJECT

  public:
    // The socket's name: the user and a digest of the support folder, so two ledgers can each
    // have their app, and two users never meet.
    static QString serverName(const std::filesystem::path& supportDir);

    explicit SingleInstance(QString name, QObject* parent = nullptr);

    // True when another instance answered (and was asked to raise its window).
    bool signalRunning(int timeoutMs = 500);
    // Starts listening; false when the name cannot be taken.
    bool listen();

  signals:
    void raiseRequested();

  private:
    QString name_;
    QLocalServer server_;
};

}  // namespace kestrel::desktop
