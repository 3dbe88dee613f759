// The tray item on a real desktop session, kestrel-app under Xvfb on a private session bus, with
// either kind of tray host: the test itself as a StatusNotifierWatcher (the item registers, its
// tooltip and icon are read back over D-Bus), or Debian's trayer as an XEmbed tray on a bus
// without a watcher (the icon window lands inside the tray, and its picture is read with xwd).

#include <signal.h>

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QProcess>
#include <QStandardPaths>
#include <map>
#include <optional>

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

// The first window named by `childName` inside the window whose line holds `parentName`, in the
// output of `xwininfo -root -tree` (each window a line, children indented deeper).
std::optional<QString> embeddedWindow(const QString& tree, const QString& parentName,
                                      const QString& childName) {
    const QStringList lines = tree.split(QLatin1Char('\n'));
    const auto depth = [](const QString& line) {
        qsizetype n = 0;
        while (n < line.size() && line[n] == QLatin1Char(' ')) {
            ++n;
        }
        return n;
    };
    for (qsizetype i = 0; i < lines.size(); ++i) {
        if (!lines[i].contains(parentName)) {
            continue;
        }
        for (qsizetype j = i + 1; j < lines.size() && depth(lines[j]) > depth(lines[i]); ++j) {
            const QString line = lines[j].trimmed();
            if (line.contains(childName)) {
                return line.section(QLatin1Char(' '), 0, 0);  // "0x400006"
            }
        }
    }
    return std::nullopt;
}

// An xwd dump (32-bit ZPixmap, as Xvfb's 24-bit screen gives): the share of pixels that differ
// from the most common colour, or -1 when the dump is not of that kind.
double inkShare(const QByteArray& dump) {
    const auto word = [&](int index) {
        const auto* b = reinterpret_cast<const unsigned char*>(dump.constData()) + index * 4;
        return (uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | b[3];
    };
    if (dump.size() < 100) {
        return -1;
    }
    const uint32_t headerSize = word(0), format = word(2), width = word(4), height = word(5),
                   byteOrder = word(7), bitsPerPixel = word(11), bytesPerLine = word(12),
                   colours = word(19);
    const qsizetype pixels = qsizetype(headerSize) + qsizetype(colours) * 12;
    if (format != 2 || bitsPerPixel != 32 || width == 0 || height == 0 ||
        pixels + qsizetype(height) * bytesPerLine > dump.size()) {
        return -1;
    }
    std::map<uint32_t, int> counts;
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            const auto* b = reinterpret_cast<const unsigned char*>(dump.constData()) + pixels +
                            y * bytesPerLine + x * 4;
            const uint32_t pixel = byteOrder == 0 ? (b[2] << 16) | (b[1] << 8) | b[0]
                                                  : (b[1] << 16) | (b[2] << 8) | b[3];
            ++counts[pixel];
        }
    }
    int most = 0;
    for (const auto& [pixel, n] : counts) {
        most = std::max(most, n);
    }
    return 1.0 - double(most) / double(width * height);
}

class TrayHost : public test_support::AppFixture {
  protected:
    // A private session bus and an Xvfb display; false (the test skipped) without the programs.
    bool startDesktop() {
        const QString daemon = QStandardPaths::findExecutable(QStringLiteral("dbus-daemon"));
        const QString xvfb = QStandardPaths::findExecutable(QStringLiteral("Xvfb"));
        if (daemon.isEmpty() || xvfb.isEmpty()) {
            return false;
        }
        bus_.start(daemon, {QStringLiteral("--session"), QStringLiteral("--nofork"),
                            QStringLiteral("--print-address=1")});
        EXPECT_TRUE(bus_.waitForReadyRead(5000));
        address_ = QString::fromLocal8Bit(bus_.readLine()).trimmed();
        // -displayfd lets Xvfb pick a free display and say which.
        xvfb_.start(xvfb, {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-screen"),
                           QStringLiteral("0"), QStringLiteral("1280x800x24"),
                           QStringLiteral("-nolisten"), QStringLiteral("tcp")});
        EXPECT_TRUE(xvfb_.waitForReadyRead(10'000)) << "Xvfb did not start";
        display_ = QStringLiteral(":") + QString::fromLocal8Bit(xvfb_.readLine()).trimmed();
        return !address_.isEmpty() && display_.size() > 1;
    }

    QProcessEnvironment desktopEnvironment() const {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("DISPLAY"), display_);
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), address_);
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        env.insert(QStringLiteral("QT_QPA_PLATFORMTHEME"), QStringLiteral("generic"));
        env.remove(QStringLiteral("WAYLAND_DISPLAY"));
        return env;
    }

    void startApp() {
        app_.setProcessEnvironment(desktopEnvironment());
        app_.setProcessChannelMode(QProcess::ForwardedChannels);
        app_.start(QStringLiteral(KESTREL_APP_BINARY),
                   {QStringLiteral("--home"), QString::fromStdString(home.path().string()),
                    QStringLiteral("--support-dir"), QString::fromStdString(support.path().string()),
                    QStringLiteral("--lang"), QStringLiteral("en")});
        ASSERT_TRUE(app_.waitForStarted(5000));
    }

    // What an X client prints on the test's display.
    QByteArray x11Output(const QString& program, const QStringList& arguments) const {
        QProcess p;
        p.setProcessEnvironment(desktopEnvironment());
        p.start(program, arguments);
        if (!p.waitForFinished(10'000) || p.exitCode() != 0) {
            return {};
        }
        return p.readAllStandardOutput();
    }

    void TearDown() override {
        for (QProcess* p : {&app_, &trayer_, &xvfb_, &bus_}) {
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
    QProcess trayer_;
    QProcess app_;
    QString address_;
    QString display_;
};

TEST_F(TrayHost, TheItemAppearsWithTheComposedTextInItsTooltip) {
    if (!startDesktop()) {
        GTEST_SKIP() << "needs dbus-daemon and Xvfb (Debian packages dbus-daemon and xvfb)";
    }
    QDBusConnection bus = QDBusConnection::connectToBus(address_, QStringLiteral("kestrel-tray-host"));
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

    startApp();

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

TEST_F(TrayHost, AnXEmbedTrayFromDebianHoldsTheDrawnIcon) {
    const QString trayer = QStandardPaths::findExecutable(QStringLiteral("trayer"));
    const QString xwininfo = QStandardPaths::findExecutable(QStringLiteral("xwininfo"));
    const QString xwd = QStandardPaths::findExecutable(QStringLiteral("xwd"));
    if (trayer.isEmpty() || xwininfo.isEmpty() || xwd.isEmpty()) {
        GTEST_SKIP() << "needs trayer, xwininfo and xwd (Debian packages trayer, x11-utils, x11-apps)";
    }
    if (!startDesktop()) {
        GTEST_SKIP() << "needs dbus-daemon and Xvfb (Debian packages dbus-daemon and xvfb)";
    }
    // No StatusNotifierWatcher on this bus: the app must fall back to the XEmbed tray.
    trayer_.setProcessEnvironment(desktopEnvironment());
    trayer_.start(trayer, {QStringLiteral("--edge"), QStringLiteral("top"), QStringLiteral("--align"),
                           QStringLiteral("right"), QStringLiteral("--widthtype"), QStringLiteral("pixel"),
                           QStringLiteral("--width"), QStringLiteral("200"), QStringLiteral("--height"),
                           QStringLiteral("32")});
    ASSERT_TRUE(trayer_.waitForStarted(5000));
    ASSERT_TRUE(waitFor([&] {
        return x11Output(xwininfo, {QStringLiteral("-root"), QStringLiteral("-tree")})
            .contains("(\"panel\" \"trayer\")");
    })) << "trayer did not map its panel";

    writeMonth();
    startApp();

    std::optional<QString> icon;
    ASSERT_TRUE(waitFor(
        [&] {
            const QString tree = QString::fromLocal8Bit(
                x11Output(xwininfo, {QStringLiteral("-root"), QStringLiteral("-tree")}));
            icon = embeddedWindow(tree, QStringLiteral("(\"panel\" \"trayer\")"),
                                  QStringLiteral("(\"kestrel-app\""));
            return icon.has_value();
        },
        30'000))
        << "no window of kestrel-app inside the tray";

    // The icon is drawn after the first figures are read; give it those moments.
    double ink = -1;
    waitFor(
        [&] {
            ink = inkShare(x11Output(xwd, {QStringLiteral("-silent"), QStringLiteral("-id"), *icon}));
            return ink > 0.1;
        },
        10'000);
    EXPECT_GT(ink, 0.1) << "the tray icon is blank (share of drawn pixels " << ink << ")";

    app_.terminate();
    ASSERT_TRUE(app_.waitForFinished(10'000));
    EXPECT_EQ(app_.exitCode(), 0);
}

}  // namespace
}  // namespace kestrel

#include "tray_host_test.moc"
