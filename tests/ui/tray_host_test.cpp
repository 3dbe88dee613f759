// The tray item on a real desktop session: kestrel-app under Xvfb, on a private session bus where
// the test itself plays the tray host (a StatusNotifierWatcher that says a host is registered).
// The app's item registers with it; its tooltip and icon are read back over D-Bus.

#include <signal.h>

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QProcess>
#include <QStandardPaths>

#include "core/app/display_choices.hpp"
#include "core/app/glance.hpp"
#include "tests/ui/ui_fixture.hpp"

namespace kestrel {
namespace {

class StatusNotifierWatcher : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ items)

  public:
    QStringList registered;
    bool hostRegistered() const { return true; }
    int protocolVersion() const { return 0; }
    QStringList items() const { return registered; }

  public slots:
    void RegisterStatusNotifierItem(const QString& service, const QDBusMessage& message) {
        // Items register by bus name or by object path; either way the sender is the item's bus.
        registered << (service.startsWith(QLatin1Char('/')) ? message.service() : service);
    }
    void RegisterStatusNotifierHost(const QString&) {}
};

struct ToolTip {
    QString title;
    QString text;
};

// org.kde.StatusNotifierItem's ToolTip: (icon name, icon pixmaps, title, text).
ToolTip readToolTip(const QDBusArgument& arg) {
    ToolTip t;
    QString iconName;
    arg.beginStructure();
    arg >> iconName;
    arg.beginArray();
    while (!arg.atEnd()) {
        int w = 0, h = 0;
        QByteArray bytes;
        arg.beginStructure();
        arg >> w >> h >> bytes;
        arg.endStructure();
    }
    arg.endArray();
    arg >> t.title >> t.text;
    arg.endStructure();
    return t;
}

// IconPixmap: (width, height, ARGB32 bytes) per size; the opaque pixels of the largest.
int opaquePixels(const QDBusArgument& arg, int* width) {
    int best = 0;
    *width = 0;
    arg.beginArray();
    while (!arg.atEnd()) {
        int w = 0, h = 0;
        QByteArray bytes;
        arg.beginStructure();
        arg >> w >> h >> bytes;
        arg.endStructure();
        if (w > *width && bytes.size() >= w * h * 4) {
            *width = w;
            best = 0;
            for (int i = 0; i < w * h; ++i) {
                best += static_cast<unsigned char>(bytes[i * 4]) > 0 ? 1 : 0;  // alpha first
            }
        }
    }
    arg.endArray();
    return best;
}

QVariant property(QDBusConnection& bus, const QString& service, const QString& name) {
    auto call = QDBusMessage::createMethodCall(service, QStringLiteral("/StatusNotifierItem"),
                                               QStringLiteral("org.freedesktop.DBus.Properties"),
                                               QStringLiteral("Get"));
    call << QStringLiteral("org.kde.StatusNotifierItem") << name;
    const QDBusMessage reply = bus.call(call, QDBus::Block, 5000);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
        return {};
    }
    return reply.arguments().first().value<QDBusVariant>().variant();
}

class TrayHost : public test_support::AppFixture {
  protected:
    void TearDown() override {
        for (QProcess* p : {&app_, &xvfb_, &bus_}) {
            if (p->state() != QProcess::NotRunning) {
                p->terminate();
                if (!p->waitForFinished(5000)) {
                    p->kill();
                    p->waitForFinished(3000);
                }
            }
        }
        QDBusConnection::disconnectFromBus(QStringLiteral("kestrel-tray-host"));
    }

    QProcess bus_;
    QProcess xvfb_;
    QProcess app_;
};

TEST_F(TrayHost, TheItemAppearsWithTheComposedTextInItsTooltip) {
    const QString daemon = QStandardPaths::findExecutable(QStringLiteral("dbus-daemon"));
    const QString xvfb = QStandardPaths::findExecutable(QStringLiteral("Xvfb"));
    if (daemon.isEmpty() || xvfb.isEmpty()) {
        GTEST_SKIP() << "needs dbus-daemon and Xvfb (Debian packages dbus-daemon and xvfb)";
    }
    bus_.start(daemon, {QStringLiteral("--session"), QStringLiteral("--nofork"),
                        QStringLiteral("--print-address=1")});
    ASSERT_TRUE(bus_.waitForReadyRead(5000));
    const QString address = QString::fromLocal8Bit(bus_.readLine()).trimmed();
    // -displayfd lets Xvfb pick a free display and say which.
    xvfb_.start(xvfb, {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-screen"),
                       QStringLiteral("0"), QStringLiteral("1280x800x24"), QStringLiteral("-nolisten"),
                       QStringLiteral("tcp")});
    ASSERT_TRUE(xvfb_.waitForReadyRead(10'000)) << "Xvfb did not start";
    const QString display = QStringLiteral(":") + QString::fromLocal8Bit(xvfb_.readLine()).trimmed();

    QDBusConnection bus = QDBusConnection::connectToBus(address, QStringLiteral("kestrel-tray-host"));
    ASSERT_TRUE(bus.isConnected());
    StatusNotifierWatcher watcher;
    ASSERT_TRUE(bus.registerObject(QStringLiteral("/StatusNotifierWatcher"), &watcher,
                                   QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllProperties));
    ASSERT_TRUE(bus.registerService(QStringLiteral("org.kde.StatusNotifierWatcher")));

    writeMonth();
    {
        // The ledger read beforehand, so the figure the tooltip must carry is known up front.
        auto session = AppSession::open(paths());
        ASSERT_TRUE(session.has_value());
        ASSERT_TRUE(scanUsage(**session, ScanRequest{}).has_value());
    }
    GlanceRequest request;
    request.now = epochNow();
    const Glance glance = readGlance(support.path(), request);
    ASSERT_TRUE(glance.ledgerRead) << glance.ledgerProblem;
    ASSERT_GT(glance.today.knownCostUSDMicros.value_or(0), 0);
    const QString cost =
        QString::fromStdString(DisplayChoices{}.money(glance.today.knownCostUSDMicros.value_or(0)));

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DISPLAY"), display);
    env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), address);
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    env.insert(QStringLiteral("QT_QPA_PLATFORMTHEME"), QStringLiteral("generic"));
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    app_.setProcessEnvironment(env);
    app_.setProcessChannelMode(QProcess::ForwardedChannels);
    app_.start(QStringLiteral(KESTREL_APP_BINARY),
               {QStringLiteral("--home"), QString::fromStdString(home.path().string()),
                QStringLiteral("--support-dir"), QString::fromStdString(support.path().string()),
                QStringLiteral("--lang"), QStringLiteral("en")});
    ASSERT_TRUE(app_.waitForStarted(5000));

    // The item registers, then its tooltip carries today's cost once the figures are read.
    ToolTip tip;
    const bool appeared = waitFor(
        [&] {
            if (watcher.registered.isEmpty()) {
                return false;
            }
            const QVariant v = property(bus, watcher.registered.first(), QStringLiteral("ToolTip"));
            if (!v.canConvert<QDBusArgument>()) {
                return false;
            }
            tip = readToolTip(v.value<QDBusArgument>());
            return tip.text.contains(cost) || tip.title.contains(cost);
        },
        30'000);
    ASSERT_TRUE(appeared) << "registered items: " << watcher.registered.join(QLatin1Char(' ')).toStdString()
                          << ", tooltip: " << tip.title.toStdString() << " / " << tip.text.toStdString()
                          << ", expected " << cost.toStdString();

    const QVariant icon = property(bus, watcher.registered.first(), QStringLiteral("IconPixmap"));
    ASSERT_TRUE(icon.canConvert<QDBusArgument>());
    int width = 0;
    const int opaque = opaquePixels(icon.value<QDBusArgument>(), &width);
    EXPECT_GE(width, 22);
    EXPECT_GT(opaque, width * width / 2) << "the icon is blank";

    // A logout's SIGTERM ends the app as Quit does: cleanly, the watcher stopped first.
    app_.terminate();
    ASSERT_TRUE(app_.waitForFinished(10'000));
    EXPECT_EQ(app_.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(app_.exitCode(), 0);
}

}  // namespace
}  // namespace kestrel

#include "tray_host_test.moc"
