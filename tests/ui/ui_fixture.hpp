#pragma once
// A home with Claude Code transcripts, its ledger, and the app's controller over them, for the
// widget tests. The controller follows nothing unless a test asks: the figures are read when the
// test says so.

#include <gtest/gtest.h>

#include <QApplication>
#include <QElapsedTimer>
#include <memory>

#include "app/app_controller.hpp"
#include "app/main_window.hpp"
#include "app/pages/page_list.hpp"
#include "core/app/usage_scan.hpp"
#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel::test_support {

inline constexpr const char* kSonnet = "claude-sonnet-4-5-20250929";
inline constexpr const char* kHaiku = "claude-haiku-4-5-20251001";

class AppFixture : public ::testing::Test {
  protected:
    // One assistant message with its usage, appended to the transcript `file` (also its session).
    void usage(const std::string& file, const std::string& id, const std::string& model,
               int64_t input, int64_t output, double at) const {
        home.append(".claude/projects/p/" + file + ".jsonl",
                    R"({"type":"assistant","sessionId":")" + file + R"(","timestamp":")" +
                        formatISO8601UTC(at) + R"(","message":{"id":")" + id + R"(","model":")" +
                        model + R"(","usage":{"input_tokens":)" + std::to_string(input) +
                        R"(,"output_tokens":)" + std::to_string(output) + "}}}\n");
    }

    // hh:mm local time `daysBack` days before today.
    static double localTime(int daysBack, int hour, int minute) {
        const Calendar calendar = Calendar::current();
        return calendar.addingDays(calendar.startOfDay(epochNow()), -daysBack) + hour * 3600.0 +
               minute * 60.0;
    }

    // Some minutes ago today (never before midnight), so "today" holds it whatever the hour.
    static double earlierToday(int minutes) {
        const double now = epochNow();
        return std::max(Calendar::current().startOfDay(now) + 1, now - minutes * 60.0);
    }

    // Messages spread over the last weeks, two models, an unpriced one today.
    void writeMonth() {
        usage("a", "t1", kSonnet, 1200, 300, earlierToday(30));
        usage("a", "t2", kHaiku, 25'000, 4000, earlierToday(20));
        usage("a", "t3", "acme-model-7", 70, 80, earlierToday(10));
        usage("b", "y1", kSonnet, 4000, 1000, localTime(1, 12, 0));
        usage("b", "d5", kSonnet, 90'000, 5000, localTime(5, 9, 0));
        usage("c", "d12", kHaiku, 300'000, 20'000, localTime(12, 15, 0));
        usage("c", "d20", kSonnet, 2'000'000, 50'000, localTime(20, 10, 0));
        usage("c", "d40", kSonnet, 7'000'000, 0, localTime(40, 10, 0));
    }

    AppPaths paths() const { return AppPaths{home.path(), support.path(), emptyEnvironment()}; }

    // A controller with every page, over the ledger the home gives after one scan.
    std::unique_ptr<desktop::AppController> openApp(AppLanguage language = AppLanguage::en,
                                                    desktop::ControllerOptions options = quiet()) {
        auto session = AppSession::open(paths());
        EXPECT_TRUE(session.has_value());
        if (!session) {
            return nullptr;
        }
        EXPECT_TRUE(scanUsage(**session, ScanRequest{}).has_value());
        auto app = std::make_unique<desktop::AppController>(std::move(*session), language, options);
        for (desktop::Page* page : desktop::createPages(*app)) {
            app->addPage(page);
        }
        app->reloadNow();
        EXPECT_TRUE(app->waitForBackground());
        return app;
    }

    static desktop::ControllerOptions quiet() {
        desktop::ControllerOptions o;
        o.follow = false;
        o.notifications = false;
        o.confirmDialogs = false;
        return o;
    }

  public:
    // Runs the event loop until `done` or `ms` pass; true when done.
    template <typename F>
    static bool waitFor(F done, int ms = 10'000) {
        QElapsedTimer timer;
        timer.start();
        while (!done()) {
            if (timer.elapsed() > ms) {
                return false;
            }
            QApplication::processEvents(QEventLoop::AllEvents, 20);
        }
        return true;
    }

  protected:
    TempDir home;
    TempDir support;
};

}  // namespace kestrel::test_support
