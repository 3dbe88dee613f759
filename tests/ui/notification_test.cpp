// Notifications reach a notification server: a small one of the test's own on a private session
// bus (dbus-daemon), so nothing of the machine's desktop is involved.

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QProcess>
#include <QStandardPaths>
#include <QVariantMap>

#include "app/notifications/desktop_notifier.hpp"
#include "app/notifications/notification_text.hpp"
#include "app/ui_text.hpp"
#include "tests/ui/ui_fixture.hpp"

namespace kestrel {
namespace {

class NotificationServer : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

  public:
    struct Received {
        QString app;
        QString summary;
        QString body;
        int urgency = -1;
    };
    std::vector<Received> received;

  public slots:
    uint Notify(const QString& app, uint, const QString&, const QString& summary,
                const QString& body, const QStringList&, const QVariantMap& hints, int) {
        received.push_back({app, summary, body, hints.value(QStringLiteral("urgency")).toInt()});
        return static_cast<uint>(received.size());
    }
};

// A dbus-daemon of the test's own, ended with the test.
class PrivateBus {
  public:
    PrivateBus() {
        const QString daemon = QStandardPaths::findExecutable(QStringLiteral("dbus-daemon"));
        if (daemon.isEmpty()) {
            return;
        }
        process_.start(daemon, {QStringLiteral("--session"), QStringLiteral("--nofork"),
                                QStringLiteral("--print-address=1")});
        if (!process_.waitForStarted(5000) || !process_.waitForReadyRead(5000)) {
            return;
        }
        address_ = QString::fromLocal8Bit(process_.readLine()).trimmed();
    }
    ~PrivateBus() {
        process_.kill();
        process_.waitForFinished(3000);
    }
    const QString& address() const { return address_; }

  private:
    QProcess process_;
    QString address_;
};

class NotificationDelivery : public test_support::AppFixture {
  protected:
    void SetUp() override {
        if (bus_.address().isEmpty()) {
            GTEST_SKIP() << "dbus-daemon is not installed (Debian package dbus-daemon)";
        }
        server_ = QDBusConnection::connectToBus(bus_.address(), QStringLiteral("kestrel-test-server"));
        ASSERT_TRUE(server_.isConnected()) << server_.lastError().message().toStdString();
        ASSERT_TRUE(server_.registerObject(QStringLiteral("/org/freedesktop/Notifications"), &fake_,
                                           QDBusConnection::ExportAllSlots));
        ASSERT_TRUE(server_.registerService(QStringLiteral("org.freedesktop.Notifications")));
    }
    void TearDown() override {
        QDBusConnection::disconnectFromBus(QStringLiteral("kestrel-test-server"));
        QDBusConnection::disconnectFromBus(QStringLiteral("kestrel-test-client"));
    }
    QDBusConnection client() {
        return QDBusConnection::connectToBus(bus_.address(), QStringLiteral("kestrel-test-client"));
    }

    PrivateBus bus_;
    QDBusConnection server_{QString()};
    NotificationServer fake_;
};

TEST_F(NotificationDelivery, QuotaAndActivityNoticesReachTheServer) {
    desktop::DesktopNotifier notifier(client());
    desktop::UiText text(AppLanguage::en);
    std::vector<uint> ids;
    QObject::connect(&notifier, &desktop::DesktopNotifier::delivered, [&](uint id) { ids.push_back(id); });

    Notification quota;
    quota.kind = NotificationKind::quotaExhausted;
    quota.source = AgentSource::claude;
    quota.planLabel = "Max";
    quota.window.kind = QuotaWindowKind::session5h;
    quota.window.usedPercent = 100;
    quota.window.resetsAt = 1'800'007'500;
    notifier.send(desktop::notificationMessage(text, DisplayChoices{}, quota, 1'800'000'000));

    ActivityNotice approval;
    approval.source = AgentSource::codex;
    approval.kind = ActivityNoticeKind::needsApproval;
    approval.projectDisplayName = "kestrel";
    notifier.send(desktop::notificationMessage(text, approval));

    ASSERT_TRUE(waitFor([&] { return ids.size() == 2; }, 5000)) << "failed: " << notifier.failed();
    ASSERT_EQ(fake_.received.size(), 2u);
    const auto& q = fake_.received[0];
    EXPECT_EQ(q.app, QStringLiteral("Kestrel"));
    EXPECT_EQ(q.summary, QStringLiteral("Claude Code: 5-hour quota used up"));
    EXPECT_TRUE(q.body.contains(QStringLiteral("100%"))) << q.body.toStdString();
    EXPECT_TRUE(q.body.contains(QStringLiteral("resets in 2h 5m"))) << q.body.toStdString();
    EXPECT_EQ(q.urgency, 2);
    const auto& a = fake_.received[1];
    EXPECT_EQ(a.summary, QStringLiteral("Codex"));
    EXPECT_EQ(a.body, QStringLiteral("Codex needs your approval in kestrel."));
    EXPECT_EQ(a.urgency, 2);
}

TEST_F(NotificationDelivery, BudgetNoticeInChineseReachesTheServer) {
    desktop::DesktopNotifier notifier(client());
    desktop::UiText text(AppLanguage::zhHans);
    Notification budget;
    budget.kind = NotificationKind::dailyBudget;
    budget.spentFen = 1080;
    budget.budgetFen = 1000;
    DisplayChoices display;
    display.language = AppLanguage::zhHans;
    notifier.send(desktop::notificationMessage(text, display, budget, 0));
    ASSERT_TRUE(waitFor([&] { return fake_.received.size() == 1; }, 5000));
    EXPECT_EQ(fake_.received[0].summary, QStringLiteral("已达到每日预算"));
    EXPECT_TRUE(fake_.received[0].body.contains(QStringLiteral("10.80"))) << fake_.received[0].body.toStdString();
    EXPECT_TRUE(fake_.received[0].body.contains(QStringLiteral("10.00"))) << fake_.received[0].body.toStdString();
    EXPECT_EQ(fake_.received[0].urgency, 1);
}

TEST_F(NotificationDelivery, ABusWithoutAServerCostsAFailedCallOnly) {
    server_.unregisterService(QStringLiteral("org.freedesktop.Notifications"));
    desktop::DesktopNotifier notifier(client());
    QString error;
    QObject::connect(&notifier, &desktop::DesktopNotifier::failedToSend,
                     [&](const QString& e) { error = e; });
    notifier.send({QStringLiteral("s"), QStringLiteral("b"), false});
    ASSERT_TRUE(waitFor([&] { return !error.isEmpty(); }, 5000));
    EXPECT_EQ(notifier.failed(), 1);
    EXPECT_TRUE(fake_.received.empty());
}

}  // namespace
}  // namespace kestrel

#include "notification_test.moc"
