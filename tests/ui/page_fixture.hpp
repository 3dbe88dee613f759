#pragma once
// What the page tests share: a generated home with Claude Code transcripts scanned into a ledger,
// an application session over it, a PageHost that runs background work at once, the command
// line on the same folders (the pages must show what it prints), and pictures of the pages.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>
#include <QImage>
#include <QList>
#include <QVariant>
#include <QWidget>
#include <cstdlib>
#include <memory>
#include <string>

#include "app/page.hpp"
#include "app/ui_text.hpp"
#include "core/app/app_session.hpp"
#include "core/app/usage_scan.hpp"
#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"
#include "tests/support/command_run.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel::desktop::test {

// Every emission of one signal, its arguments as QVariants, in order.
class SignalLog : public QList<QVariantList> {
  public:
    template <typename Object, typename... Args>
    SignalLog(Object* sender, void (Object::*signal)(Args...)) {
        QObject::connect(sender, signal, &context_, [this](Args... args) {
            append(QVariantList{QVariant::fromValue(std::decay_t<Args>(args))...});
        });
    }
    SignalLog(const SignalLog&) = delete;
    SignalLog& operator=(const SignalLog&) = delete;

  private:
    QObject context_;  // ends the connection with the log
};

class TestHost : public PageHost {
  public:
    TestHost(AppSession& session, AppLanguage language) : session_(session), text_(language) {}

    AppSession& session() override { return session_; }
    const UiText& text() const override { return text_; }
    UiText& mutableText() { return text_; }
    // At once, on this thread: the tests see the outcome without an event loop.
    void runInBackground(std::function<void()> work, std::function<void()> done) override {
        ++backgroundRuns;
        work();
        done();
    }
    void readLedger(QObject*, ReadLane, std::function<void(UsageStore&)> read,
                    std::function<void()> done) override {
        read(session_.store());
        done();
    }
    void requestRefresh() override { ++refreshes; }

    int backgroundRuns = 0;
    int refreshes = 0;

  private:
    AppSession& session_;
    UiText text_;
};

class PageFixture : public ::testing::Test {
  protected:
    // hh:mm local time `daysBack` days before today.
    static double localTime(int daysBack, int hour, int minute) {
        const Calendar calendar = Calendar::current();
        return calendar.addingDays(calendar.startOfDay(epochNow()), -daysBack) + hour * 3600.0 +
               minute * 60.0;
    }

    // One assistant message of a Claude Code transcript.
    static std::string line(const std::string& id, const std::string& model, double at,
                            int64_t input, int64_t output, const std::string& cwd) {
        return R"({"type":"assistant","sessionId":"s-)" + id + R"(","cwd":")" + cwd +
               R"(","timestamp":")" + formatISO8601UTC(at) + R"(","message":{"id":")" + id +
               R"(","model":")" + model + R"(","usage":{"input_tokens":)" +
               std::to_string(input) + R"(,"output_tokens":)" + std::to_string(output) + "}}}\n";
    }

    static constexpr const char* kSonnet = "claude-sonnet-4-5-20250929";
    static constexpr const char* kHaiku = "claude-haiku-4-5-20251001";
    static constexpr int kEvents = 9;

    // Nine events: five today (one of them in project "beta"), two three days back, one twenty
    // days back, one sixty days back; two models, one of them only in "beta".
    void writeHome() {
        std::string a, b;
        a += line("m1", kSonnet, localTime(0, 0, 0) + 5, 1000, 2000, "/w/alpha");
        a += line("m2", kSonnet, localTime(0, 0, 0) + 6, 3000, 4000, "/w/alpha");
        a += line("m3", kSonnet, localTime(0, 0, 0) + 7, 5000, 6000, "/w/alpha");
        a += line("m4", kSonnet, localTime(0, 0, 0) + 8, 7000, 8000, "/w/alpha");
        a += line("m5", kSonnet, localTime(3, 10, 0), 9000, 10000, "/w/alpha");
        a += line("m6", kSonnet, localTime(3, 11, 0), 11000, 12000, "/w/alpha");
        a += line("m7", kSonnet, localTime(20, 9, 0), 13000, 14000, "/w/alpha");
        a += line("m8", kSonnet, localTime(60, 9, 0), 15000, 16000, "/w/alpha");
        b += line("m9", kHaiku, localTime(0, 0, 0) + 9, 100000, 200000, "/w/beta");
        home.write(".claude/projects/-w-alpha/a.jsonl", a);
        home.write(".claude/projects/-w-beta/b.jsonl", b);
    }

    void openSession(AppLanguage language = AppLanguage::en) {
        auto opened = AppSession::open({home.path(), support.path(), emptyEnvironment()});
        ASSERT_TRUE(opened) << opened.error().message;
        session = std::move(*opened);
        host = std::make_unique<TestHost>(*session, language);
    }

    void scan() {
        const auto outcome = scanUsage(*session, {});
        ASSERT_TRUE(outcome) << outcome.error().message;
    }

    void SetUp() override {
        writeHome();
        openSession();
        scan();
    }

    // `kestrel ARGS` on the same home and ledger, in English, without a scan of its own.
    test_support::CommandOutcome kestrel(std::vector<std::string> args) {
        args.insert(args.end(), {"--lang", "en"});
        return test_support::runKestrel(std::move(args), home.path(), support.path());
    }

    // Renders `widget` to KESTREL_UI_TEST_OUTPUT/NAME-LANG.png and checks that something was
    // drawn there.
    static void savePicture(QWidget& widget, const QString& name, const UiText& text) {
        widget.resize(1100, 720);
        // Shown (offscreen), so that layouts are set and deferred updates have run.
        widget.show();
        QCoreApplication::processEvents();
        const QImage image = widget.grab().toImage();
        ASSERT_FALSE(image.isNull());
        const QString dir = QStringLiteral(KESTREL_UI_TEST_OUTPUT);
        QDir().mkpath(dir);
        const QString lang = text.language() == AppLanguage::zhHans ? QStringLiteral("zh-Hans")
                                                                    : QStringLiteral("en");
        const QString path = dir + QLatin1Char('/') + name + QLatin1Char('-') + lang + ".png";
        ASSERT_TRUE(image.save(path)) << path.toStdString();
    }

    test_support::TempDir home, support;
    std::unique_ptr<AppSession> session;
    std::unique_ptr<TestHost> host;
};

}  // namespace kestrel::desktop::test
