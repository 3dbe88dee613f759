// `kestrel statusline` and `kestrel bar` through the whole command line: what Claude Code hands
// the status line, countdowns, panel classes, and a line (never an error) whatever the input or
// the state of the ledger.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "cli/glance_text.hpp"
#include "cli/statusline_command.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"
#include "core/pricing/money_format.hpp"
#include "tests/support/command_run.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::runKestrel;
using test_support::TempDir;

TEST(StatuslineInput, ReadsWhatItCanAndNothingElse) {
    struct Case {
        const char* text;
        cli::StatuslineInput expected;
    };
    const Case cases[] = {
        {R"({"session_id":"abc","model":{"id":"claude-opus-4-1","display_name":"Opus"},
             "workspace":{"current_dir":"/w"},"cost":{"total_cost_usd":1.25}})",
         {"Opus", "abc", 1.25}},
        {R"({"session_id":"abc","model":{"id":"claude-opus-4-1"}})",
         {"claude-opus-4-1", "abc", std::nullopt}},
        {R"({"model":"sonnet","session_id":""})", {"sonnet", std::nullopt, std::nullopt}},
        {R"({"session_id":42,"model":[1],"cost":{"total_cost_usd":"3"}})", {}},
        {R"({"cost":{"total_cost_usd":-1}})", {}},
        {R"(["session_id","abc"])", {}},
        {"{\"session_id\":\"abc\"", {}},  // cut short
        {"not json at all", {}},
        {"", {}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(cli::parseStatuslineInput(c.text), c.expected) << c.text;
    }
}

TEST(ResetCountdown, CountsDownAndStopsAtTheReset) {
    constexpr double now = 1'790'000'000.0;
    struct Case {
        std::optional<double> resetsAt;
        std::optional<std::string> text;
    };
    const Case cases[] = {
        {std::nullopt, std::nullopt},
        {now - 3600, std::nullopt},  // reset an hour ago: not "<1m"
        {now - 0.5, std::nullopt},
        {now, std::nullopt},
        {now + 0.5, "<1m"},
        {now + 59, "<1m"},
        {now + 60, "1m"},
        {now + 3599, "59m"},
        {now + 3600, "1h 0m"},
        {now + 2 * 3600 + 5 * 60 + 59, "2h 5m"},
        {now + 86'400 + 3600 + 61, "1d 1h"},
        {now + 6 * 86'400 + 23 * 3600, "6d 23h"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(resetCountdown(c.resetsAt, now), c.text)
            << (c.resetsAt ? *c.resetsAt - now : -1.0);
    }
}

class GlanceCommandsTest : public ::testing::Test {
  protected:
    // Two events of session "s-live" a few seconds ago and one of another session.
    void writeLedger() { writeLedger(support.path()); }
    void writeLedger(const std::filesystem::path& folder) {
        UsageStore store(folder);
        UsageBatch b;
        b.id = "run";
        b.adapterID = "test";
        b.startedAt = now;
        b.completedAt = now;
        const struct {
            const char* session;
            int64_t tokens;
            int64_t micros;
        } events[] = {{"s-live", 120'000, 1'250'000}, {"s-live", 30'000, 750'000},
                      {"s-other", 5'000, 3'000'000}};
        for (const auto& e : events) {
            UsageObservation o;
            o.id = "obs-" + std::to_string(b.observations.size());
            o.source = AgentSource::claude;
            o.provider = "anthropic";
            o.model = "claude-opus-4-1";
            // A second ago, unless that was yesterday.
            o.occurredAt = std::max(now - 1.0, Calendar::current().startOfDay(now));
            o.observedAt = now;
            o.timeQuality = ObservationTimeQuality::trusted;
            o.precision = UsagePrecision::nativeExact;
            o.granularity = UsageGranularity::request;
            o.sessionKey = e.session;
            o.tokens.providerTotal = e.tokens;
            o.cost.amountUSDMicros = e.micros;
            o.cost.completeness = CostCompleteness::complete;
            o.cost.source = CostSource::priceTable;
            b.observations.push_back(o);
        }
        store.ingest({}, {}, std::nullopt, b);
    }

    // Claude's reading: a five-hour window at `fiveHour` % resetting in 2h 5m 30s, and a
    // weekly one at 95 % whose period ended a minute ago.
    void writeQuota(double fiveHour, bool stale = false) {
        UsageStore store(support.path());
        AccountSnapshot s;
        s.identity.source = AgentSource::claude;
        s.identity.planLabel = "Max";
        QuotaWindow spent;
        spent.kind = QuotaWindowKind::weekly;
        spent.usedPercent = 95;
        spent.resetsAt = now - 60;
        QuotaWindow current;
        current.kind = QuotaWindowKind::session5h;
        current.usedPercent = fiveHour;
        current.resetsAt = now + 2 * 3600 + 5 * 60 + 30;
        s.windows = {spent, current};
        s.fetchedAt = now - 300;
        s.stale = stale;
        s.provenance = QuotaProvenance::liveOAuth;
        store.saveQuota(s);
    }

    test_support::CommandOutcome run(std::vector<std::string> args, const std::string& input = "") {
        return runKestrel(std::move(args), home.path(), support.path(), input);
    }

    static std::string usd(int64_t micros) { return formatUSD(micros, "en_US"); }

    TempDir home, support;
    double now = epochNow();
    const std::string input =
        R"({"session_id":"s-live","model":{"id":"claude-opus-4-1","display_name":"Opus"},
            "cost":{"total_cost_usd":9.5}})";
};

TEST_F(GlanceCommandsTest, StatuslineShowsSessionTodayWindowAndBurnRate) {
    writeLedger();
    writeQuota(42);
    const auto o = run({"statusline", "--lang", "en"}, input);
    ASSERT_EQ(o.code, cli::kExitOK) << o.err;
    EXPECT_EQ(o.err, "");
    EXPECT_EQ(std::count(o.out.begin(), o.out.end(), '\n'), 1) << o.out;
    EXPECT_EQ(o.out.rfind("Opus · ", 0), 0u) << o.out;
    EXPECT_NE(o.out.find("session " + usd(2'000'000) + " · 150K tok"), std::string::npos) << o.out;
    EXPECT_NE(o.out.find("today " + usd(5'000'000)), std::string::npos) << o.out;
    // The spent weekly window is passed over; the five-hour one counts down.
    EXPECT_NE(o.out.find("5h 42% ↻2h 5m"), std::string::npos) << o.out;
    EXPECT_EQ(o.out.find("95%"), std::string::npos) << o.out;
    EXPECT_NE(o.out.find(usd(5'000'000) + "/h"), std::string::npos) << o.out;
    EXPECT_EQ(o.out.find('\x1b'), std::string::npos);

    const auto coloured = run({"statusline", "--color", "--lang", "en"}, input);
    EXPECT_NE(coloured.out.find("\x1b[32m42%\x1b[0m"), std::string::npos) << coloured.out;

    const auto chinese = run({"statusline", "--lang", "zh-Hans"}, input);
    EXPECT_NE(chinese.out.find("今日"), std::string::npos) << chinese.out;
}

TEST_F(GlanceCommandsTest, StatuslineAlwaysPrintsALineAndExitsZero) {
    struct Case {
        const char* what;
        bool ledger;
        std::string stdinText;
        std::string mustShow;
    };
    const Case cases[] = {
        {"no ledger, no input", false, "", "no ledger"},
        {"no ledger, input", false, input, "Opus · session ≈"},
        {"garbage input", true, "\x01\x02{{{", "today "},
        {"session not in the ledger", true,
         R"({"session_id":"s-gone","model":{"display_name":"Opus"},"cost":{"total_cost_usd":1.5}})",
         "Opus · session ≈" + usd(1'500'000) + " · today "},
    };
    for (const auto& c : cases) {
        TempDir fresh;
        if (c.ledger) {
            writeLedger(fresh.path());
        }
        const auto o =
            runKestrel({"statusline", "--lang", "en"}, home.path(), fresh.path(), c.stdinText);
        EXPECT_EQ(o.code, cli::kExitOK) << c.what;
        EXPECT_EQ(o.err, "") << c.what;
        EXPECT_EQ(std::count(o.out.begin(), o.out.end(), '\n'), 1) << c.what << ": " << o.out;
        EXPECT_NE(o.out.find(c.mustShow), std::string::npos) << c.what << ": " << o.out;
        if (!c.ledger) {
            EXPECT_FALSE(std::filesystem::exists(fresh / UsageStore::kFileName)) << c.what;
        }
    }
}

TEST_F(GlanceCommandsTest, StatuslineJSON) {
    writeLedger();
    writeQuota(42, true);
    const auto known = nlohmann::json::parse(run({"statusline", "--json"}, input).out);
    EXPECT_EQ(known["model"], "Opus");
    EXPECT_EQ(known["session"]["id"], "s-live");
    EXPECT_EQ(known["session"]["inLedger"], true);
    EXPECT_EQ(known["session"]["events"], 2);
    EXPECT_EQ(known["session"]["tokens"], 150'000);
    EXPECT_EQ(known["session"]["costUSDMicros"], 2'000'000);
    EXPECT_EQ(known["session"]["agentCostUSD"], 9.5);
    EXPECT_EQ(known["today"]["costUSDMicros"], 5'000'000);
    EXPECT_EQ(known["lastHour"]["events"], 3);
    EXPECT_EQ(known["tightest"]["kind"], "session5h");
    EXPECT_EQ(known["tightest"]["usedPercent"], 42);
    EXPECT_EQ(known["tightest"]["stale"], true);
    EXPECT_EQ(known["tightest"]["account"], "source:claude");
    EXPECT_NEAR(known["tightest"]["resetsInSeconds"].get<double>(), 2 * 3600 + 5 * 60 + 30, 5);
    EXPECT_EQ(known["level"], "normal");
    EXPECT_EQ(known["ledger"]["read"], true);

    const auto unknown = nlohmann::json::parse(
        run({"statusline", "--json"}, R"({"session_id":"s-gone"})").out);
    EXPECT_EQ(unknown["session"]["inLedger"], false);
    EXPECT_EQ(unknown["session"]["events"], 0);
    EXPECT_TRUE(unknown["session"]["costUSDMicros"].is_null());
    EXPECT_TRUE(unknown["model"].is_null());

    const auto none = nlohmann::json::parse(run({"statusline", "--json"}, "").out);
    EXPECT_TRUE(none["session"].is_null());
}

TEST_F(GlanceCommandsTest, BarClassFollowsTheTightestWindow) {
    writeLedger();
    struct Case {
        std::optional<double> percent;
        const char* cls;
        int percentage;
    };
    // The class goes by the percent the panel shows, so the two never disagree at a boundary.
    const Case cases[] = {{std::nullopt, "normal", 0}, {12.4, "normal", 12},
                          {49.49, "normal", 49},       {49.5, "warning", 50},
                          {49.9, "warning", 50},       {50, "warning", 50},
                          {79.49, "warning", 79},      {79.5, "critical", 80},
                          {80, "critical", 80},        {100, "critical", 100},
                          {140, "critical", 100}};
    for (const auto& c : cases) {
        {
            UsageStore store(support.path());
            store.deleteQuota(AgentSource::claude);
        }
        if (c.percent) {
            writeQuota(*c.percent);
        }
        const auto o = run({"bar"});
        ASSERT_EQ(o.code, cli::kExitOK) << o.err;
        const auto doc = nlohmann::json::parse(o.out);
        std::vector<std::string> keys;
        for (const auto& [key, value] : doc.items()) {
            keys.push_back(key);
        }
        EXPECT_EQ(keys, (std::vector<std::string>{"class", "percentage", "text", "tooltip"}));
        EXPECT_EQ(doc["class"], c.cls) << c.percent.value_or(-1);
        EXPECT_EQ(doc["percentage"], c.percentage) << c.percent.value_or(-1);
        if (c.percent && *c.percent <= 100) {
            EXPECT_NE(doc["text"].get<std::string>().find(" " + std::to_string(c.percentage) + "%"),
                      std::string::npos)
                << doc["text"];
        }
    }
}

TEST_F(GlanceCommandsTest, BarFormats) {
    writeLedger();
    writeQuota(85);
    const auto waybar = nlohmann::json::parse(run({"bar", "--lang", "en"}).out);
    EXPECT_EQ(waybar["text"], usd(5'000'000) + " · 5h 85%");
    const std::string tip = waybar["tooltip"];
    EXPECT_NE(tip.find("Today: " + usd(5'000'000) + " · 155K tok · 3 events"), std::string::npos)
        << tip;
    EXPECT_NE(tip.find("Claude Code 5h: 85% used, resets in 2h 5m"), std::string::npos) << tip;

    const auto json = nlohmann::json::parse(run({"bar", "--format", "json"}).out);
    EXPECT_EQ(json["class"], "critical");
    EXPECT_EQ(json["today"]["tokens"], 155'000);
    EXPECT_EQ(json["tightest"]["usedPercent"], 85);
    EXPECT_EQ(nlohmann::json::parse(run({"bar", "--json"}).out)["class"], "critical");

    const auto text = run({"bar", "--format", "text", "--lang", "en"});
    EXPECT_EQ(text.out, "today " + usd(5'000'000) + " · 5h 85% ↻2h 5m · " + usd(5'000'000) +
                            "/h\n");

    EXPECT_EQ(run({"bar", "--format", "xml"}).code, cli::kExitUsage);
}

TEST_F(GlanceCommandsTest, BarWithoutALedger) {
    const auto o = run({"bar", "--lang", "en"});
    ASSERT_EQ(o.code, cli::kExitOK);
    const auto doc = nlohmann::json::parse(o.out);
    EXPECT_EQ(doc["text"], "no ledger");
    EXPECT_EQ(doc["class"], "normal");
    EXPECT_FALSE(std::filesystem::exists(support / UsageStore::kFileName));
}

}  // namespace
}  // namespace kestrel
