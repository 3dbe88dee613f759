#pragma once
// A home with Claude Code transcripts and a support folder, and a way to call the reading
// commands in-process on string streams; shared by the tests of the reading commands.

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>

#include "cli/cli.hpp"
#include "cli/command_context.hpp"
#include "cli/report_context.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"
#include "tests/support/command_run.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel::test_support {


class LedgerHomeTest : public ::testing::Test {
  protected:
    CommandOutcome call(const std::function<int(cli::CommandContext&)>& command,
                        bool colour = false) {
        return runCommand(home.path(), support.path(), command, colour);
    }

    // One assistant line of a Claude Code transcript; `time` is ISO-8601.
    static std::string line(const std::string& id, const std::string& model,
                            const std::string& time, int64_t input, int64_t output,
                            const std::string& cwdJSON = "/w/app") {
        return R"({"type":"assistant","sessionId":"s1","cwd":")" + cwdJSON + R"(","timestamp":")" +
               time + R"(","message":{"id":")" + id + R"(","model":")" + model +
               R"(","usage":{"input_tokens":)" + std::to_string(input) + R"(,"output_tokens":)" +
               std::to_string(output) + "}}}\n";
    }

    // One assistant message with its usage, appended to the transcript `file` (also its session).
    void usage(const std::string& file, const std::string& id, const std::string& model,
               int64_t input, int64_t output, double at) const {
        home.append(".claude/projects/p/" + file + ".jsonl",
                    R"({"type":"assistant","sessionId":")" + file + R"(","timestamp":")" +
                        formatISO8601UTC(at) + R"(","message":{"id":")" + id + R"(","model":")" +
                        model + R"(","usage":{"input_tokens":)" + std::to_string(input) +
                        R"(,"output_tokens":)" + std::to_string(output) + "}}}\n");
    }

    // hh:mm local time `daysBack` days before today, in the process's time zone.
    static double localTime(int daysBack, int hour, int minute) {
        const Calendar calendar = Calendar::current();
        return calendar.addingDays(calendar.startOfDay(epochNow()), -daysBack) + hour * 3600.0 +
               minute * 60.0;
    }

    // Seven events over two transcripts: two share a time (so pages break ties by id), one
    // has a millisecond time, one is of a model without a price, one is in a project whose
    // name holds a comma and quotes.
    void writeTranscripts() {
        const std::string sonnet = "claude-sonnet-4-5-20250929";
        home.write(".claude/projects/-w-app/a.jsonl",
                   line("m1", sonnet, "2026-01-02T12:00:00Z", 100000, 1000000) +
                       line("m2", sonnet, "2026-01-02T12:00:01.123Z", 10, 20) +
                       line("m3", sonnet, "2026-01-02T12:00:02Z", 30, 40) +
                       line("m4", sonnet, "2026-01-02T12:00:02Z", 50, 60));
        home.write(".claude/projects/-w-other/b.jsonl",
                   line("m5", "acme-model-7", "2026-01-03T12:00:00Z", 70, 80, "/w/other") +
                       line("m6", sonnet, "2026-01-04T12:00:00Z", 90, 100, R"(/w/acme, \"beta\")") +
                       line("m7", sonnet, "2026-01-05T12:00:00Z", 110, 120, "/w/other"));
    }
    static constexpr int kEvents = 7;

    // Reads the transcripts into the ledger, as every reading command does first.
    void scan() {
        const auto o = call([](auto& ctx) {
            auto report = cli::openReport(ctx, {});
            return report ? cli::kExitOK : report.error();
        });
        ASSERT_EQ(o.code, cli::kExitOK) << o.err;
    }

    TempDir home, support;
};

}  // namespace kestrel::test_support
