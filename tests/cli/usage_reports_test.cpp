// The period and group reports through the command line: every figure must agree with the
// events written, however the rows are grouped, filtered and ordered.

#include <gtest/gtest.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <sstream>

#include "cli/cli.hpp"
#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"
#include "tests/support/command_run.hpp"
#include "tests/support/time_zone.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;

using CliRun = test_support::CommandOutcome;

class UsageReportsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // Claude Code on three days of one week and one of the next month; Codex on one day.
        claude("a", "m1", "claude-sonnet-4-5", 100, 10, "2026-03-02T09:00:00Z", "/w/alpha");
        claude("a", "m2", "claude-opus-4-1", 200, 20, "2026-03-02T23:30:00Z", "/w/alpha");
        claude("b", "m3", "claude-sonnet-4-5", 300, 30, "2026-03-04T12:00:00Z", "/w/beta");
        claude("b", "m4", "claude-sonnet-4-5", 400, 40, "2026-04-01T08:00:00Z", "/w/beta");
        codex("2026-03-03T10:00:00Z", 1000, 100);
    }

    void claude(const std::string& session, const std::string& id, const std::string& model,
                int64_t input, int64_t output, const std::string& at, const std::string& cwd) {
        home.append(".claude/projects/p/" + session + ".jsonl",
                    R"({"type":"assistant","sessionId":")" + session + R"(","cwd":")" + cwd +
                        R"(","timestamp":")" + at + R"(","message":{"id":")" + id +
                        R"(","model":")" + model + R"(","usage":{"input_tokens":)" +
                        std::to_string(input) + R"(,"output_tokens":)" + std::to_string(output) +
                        "}}}\n");
    }

    void codex(const std::string& at, int64_t input, int64_t output) {
        const auto line = [](const std::string& ts, const std::string& type,
                             const nlohmann::json& payload) {
            return nlohmann::json{{"timestamp", ts}, {"type", type}, {"payload", payload}}.dump() +
                   "\n";
        };
        home.write(
            ".codex/sessions/2026/03/03/rollout-2026-03-03T10-00-00-0198c1a2-1111-7222-8333-"
            "444455556666.jsonl",
            line(at, "session_meta", {{"id", "0198c1a2-1111-7222-8333-444455556666"}}) +
                line(at, "turn_context", {{"model", "gpt-5-codex"}, {"cwd", "/w/gamma"}}) +
                line(at, "event_msg",
                     {{"type", "token_count"},
                      {"info",
                       {{"total_token_usage",
                         {{"input_tokens", input}, {"output_tokens", output}}}}}}));
    }

    CliRun kestrel(std::vector<std::string> args) {
        return test_support::runKestrel(std::move(args), home.path(), support.path());
    }

    nlohmann::json json(std::vector<std::string> args) {
        args.push_back("--json");
        const auto r = kestrel(args);
        EXPECT_EQ(r.code, cli::kExitOK) << r.err;
        return nlohmann::json::parse(r.out);
    }

    static int64_t sum(const nlohmann::json& rows, const char* key) {
        int64_t s = 0;
        for (const auto& row : rows) {
            s += row[key].get<int64_t>();
        }
        return s;
    }

    TempDir home, support;
    test_support::ScopedTimeZone zone_{"UTC"};
};

TEST_F(UsageReportsTest, EveryGroupingAddsUpToTheSameTotals) {
    const auto daily = json({"daily"});
    const auto totals = daily["totals"];
    EXPECT_EQ(totals["events"], 5);
    EXPECT_EQ(totals["inputUncached"], 2000);
    EXPECT_EQ(totals["totalTokens"], 2200);
    for (const char* report :
         {"daily", "weekly", "monthly", "sessions", "models", "sources", "projects"}) {
        const auto doc = json({report, "--no-scan"});
        EXPECT_EQ(doc["totals"], totals) << report;
        EXPECT_EQ(sum(doc["rows"], "events"), 5) << report;
        EXPECT_EQ(sum(doc["rows"], "totalTokens"), 2200) << report;
    }

    // Days in order, an event at 23:30 on its own day, models and agents of each day.
    std::vector<std::string> days;
    for (const auto& row : daily["rows"]) {
        days.push_back(row["period"]);
    }
    EXPECT_EQ(days,
              (std::vector<std::string>{"2026-03-02", "2026-03-03", "2026-03-04", "2026-04-01"}));
    EXPECT_EQ(daily["rows"][0]["events"], 2);
    EXPECT_EQ(daily["rows"][0]["models"], (nlohmann::json{"claude-opus-4-1", "claude-sonnet-4-5"}));
    EXPECT_EQ(daily["rows"][1]["sources"], nlohmann::json{"codex"});

    const auto monthly = json({"monthly", "--no-scan"});
    ASSERT_EQ(monthly["rows"].size(), 2u);
    EXPECT_EQ(monthly["rows"][0]["period"], "2026-03");
    EXPECT_EQ(monthly["rows"][0]["events"], 4);

    // The week of 2 March holds the 2nd to the 4th; its name is its first day in this locale.
    const auto calendar = Calendar::current();
    const double march2 = *calendar.startOfDay(std::string("2026-03-02"));
    const int back = (calendar.parts(march2).weekday - calendar.firstWeekday + 7) % 7;
    const auto weekly = json({"weekly", "--no-scan"});
    EXPECT_EQ(weekly["rows"][0]["period"], calendar.dayKey(calendar.addingDays(march2, -back)));
    EXPECT_EQ(weekly["rows"].back()["events"], 1);  // 1 April
}

TEST_F(UsageReportsTest, BreakdownRowsAddUpToTheirPeriod) {
    const auto doc = json({"daily", "--breakdown", "--order", "desc"});
    EXPECT_EQ(doc["rows"][0]["period"], "2026-04-01");  // newest first
    for (const auto& row : doc["rows"]) {
        ASSERT_TRUE(row.contains("breakdown"));
        EXPECT_EQ(sum(row["breakdown"], "events"), row["events"]);
        EXPECT_EQ(sum(row["breakdown"], "totalTokens"), row["totalTokens"]);
    }
    const auto first = json(
        {"daily", "--no-scan", "--since", "2026-03-02", "--until", "2026-03-02", "--breakdown"});
    ASSERT_EQ(first["rows"].size(), 1u);
    // The heavier model first.
    EXPECT_EQ(first["rows"][0]["breakdown"][0]["model"], "claude-opus-4-1");
}

TEST_F(UsageReportsTest, FiltersRestrictEveryReport) {
    const struct {
        std::vector<std::string> args;
        int64_t events;
    } cases[] = {
        {{"--source", "codex"}, 1},
        {{"--source", "Claude Code"}, 4},
        {{"--model", "claude-sonnet-4-5"}, 3},
        {{"--search", "OPUS"}, 1},
        {{"--since", "2026-03-03"}, 3},
        {{"--until", "2026-03-03"}, 3},
        {{"--since", "2026-03-03", "--until", "2026-03-04"}, 2},
    };
    json({"daily"});  // scan once
    for (const auto& c : cases) {
        for (const char* report : {"daily", "models", "sources"}) {
            std::vector<std::string> args{report, "--no-scan"};
            args.insert(args.end(), c.args.begin(), c.args.end());
            const auto doc = json(args);
            EXPECT_EQ(doc["totals"]["events"], c.events) << report << " " << c.args[0];
        }
    }
    const auto models = json({"models", "--no-scan"});
    EXPECT_EQ(models["rows"][0]["model"], "gpt-5-codex");  // the heaviest
    EXPECT_FALSE(models["rows"][0].contains("period"));
    EXPECT_EQ(models["rows"][0]["sources"], nlohmann::json{"codex"});
    const auto ascending = json({"models", "--no-scan", "--order", "asc"});
    EXPECT_EQ(ascending["rows"].back()["model"], "gpt-5-codex");

    const auto sessions = json({"sessions", "--no-scan"});
    ASSERT_EQ(sessions["rows"].size(), 3u);
    EXPECT_EQ(sessions["rows"][0]["sessionKey"], "b");  // the latest activity first
    EXPECT_EQ(sessions["rows"][0]["models"], nlohmann::json{"claude-sonnet-4-5"});
}

TEST_F(UsageReportsTest, LanguageAndCurrencyChangeOnlyTheText) {
    const auto english = kestrel({"daily"});
    ASSERT_EQ(english.code, cli::kExitOK) << english.err;
    EXPECT_NE(english.out.find("Total tokens"), std::string::npos);
    const auto chinese = kestrel({"daily", "--no-scan", "--lang", "zh-Hans", "--currency", "cny"});
    ASSERT_EQ(chinese.code, cli::kExitOK) << chinese.err;
    EXPECT_NE(chinese.out.find("合计"), std::string::npos) << chinese.out;
    EXPECT_NE(chinese.out.find("¥"), std::string::npos) << chinese.out;
    EXPECT_EQ(chinese.out.find("$"), std::string::npos) << chinese.out;
    const auto en = json({"daily", "--no-scan", "--currency", "usd"});
    const auto zh = json({"daily", "--no-scan", "--lang", "zh-Hans", "--currency", "cny"});
    EXPECT_EQ(en["rows"], zh["rows"]);
    EXPECT_EQ(zh["currency"], "cny");
}

TEST_F(UsageReportsTest, BadInputIsAUsageErrorNamingTheArgument) {
    const struct {
        std::vector<std::string> args;
        const char* names;
    } cases[] = {
        {{"daily", "--since", "2026-02-30"}, "--since \"2026-02-30\""},
        {{"weekly", "--until", "yesterday"}, "--until \"yesterday\""},
        {{"monthly", "--since", "2026-03-05", "--until", "2026-03-01"}, "is after --until"},
        {{"models", "--source", "nope"}, "unknown source \"nope\""},
        {{"daily", "--currency", "eur"}, "--currency"},
        {{"sources", "--lang", "fr"}, "--lang"},
        {{"daily", "--order", "sideways"}, "--order"},
    };
    for (const auto& c : cases) {
        const auto r = kestrel(c.args);
        EXPECT_EQ(r.code, cli::kExitUsage) << c.names;
        EXPECT_NE(r.err.find(c.names), std::string::npos) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'),
                  r.err.find("Run with") == std::string::npos ? 1 : 2)
            << r.err;
    }
}

TEST_F(UsageReportsTest, AnEmptyLedgerSaysWhereKestrelLooked) {
    TempDir emptyHome;
    std::ostringstream out, err;
    std::istringstream in;
    const int code = cli::run(
        {"daily", "--home", emptyHome.path().string(), "--support-dir", support.path().string()},
        out, err, in);
    EXPECT_EQ(code, cli::kExitOK) << err.str();
    EXPECT_NE(out.str().find(".codex"), std::string::npos) << out.str();
    EXPECT_NE(out.str().find("--home"), std::string::npos) << out.str();
}

}  // namespace
}  // namespace kestrel
