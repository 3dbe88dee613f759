// kestrel fx show / set / fetch: what is stored, what is refused, and in which language it is said.

#include "cli/fx_command.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "cli/cli.hpp"
#include "core/ledger/settings_store.hpp"
#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"
#include "tests/support/command_run.hpp"
#include "tests/support/loopback_server.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using nlohmann::json;
using test_support::TempDir;

// What the ledger holds before each case: a fetched rate at version 5.
AppSettings seeded(AppLanguage language = AppLanguage::en) {
    AppSettings s;
    s.cnyPerUsdE4 = 72000;
    s.fxVersion = 5;
    s.fxDate = "2026-01-02";
    s.fxProvider = "Frankfurter";
    s.language = language;
    return s;
}

class FxCommandTest : public ::testing::Test {
  protected:
    test_support::CommandOutcome call(const std::function<int(cli::CommandContext&)>& command) {
        return test_support::runCommand(home.path(), support->path(), command);
    }

    // A fresh ledger holding `settings`, so that table cases do not see each other's writes.
    void reset(const AppSettings& settings) {
        support = std::make_unique<TempDir>();
        UsageStore store(support->path());
        SettingsStore::save(store, settings);
    }

    AppSettings stored() {
        UsageStore store(support->path());
        return SettingsStore::load(store).settings;
    }

    static std::string today() { return Calendar::current().dayKey(epochNow()); }

    TempDir home;
    std::unique_ptr<TempDir> support = std::make_unique<TempDir>();
};

// The stored rate, its version, and the date and provider of its quote.
using Fx = std::tuple<int64_t, int64_t, std::optional<std::string>, std::optional<std::string>>;

TEST_F(FxCommandTest, SetAndFetchStoreGoodRatesAndKeepTheOldOneOtherwise) {
    test_support::LoopbackServer server([](httplib::Server& s) {
        const auto reply = [&s](const std::string& path, int status, const std::string& body) {
            s.Get(path, [status, body](const httplib::Request&, httplib::Response& res) {
                res.status = status;
                res.set_content(body, "application/json");
            });
        };
        reply("/good", 200, R"({"date":"2026-11-20","rates":{"CNY":7.1}})");
        reply("/same", 200, R"({"rates":{"CNY":"7.2"}})");
        reply("/error", 500, R"({"rates":{"CNY":7.1}})");
        reply("/nocny", 200, R"({"date":"2026-11-20","rates":{"EUR":0.9}})");
        reply("/high", 200, R"({"rates":{"CNY":20}})");
    });
    const Fx kept{72000, 5, "2026-01-02", "Frankfurter"};
    const std::string range = "Rate outside 5.00–12.00, ignored";
    const struct {
        std::string verb, arg, language;  // arg: the typed rate, or the path fetched
        int code;
        Fx after;
        std::string text;  // all of stdout when it succeeds, part of stderr when it does not
    } cases[] = {
        // A typed rate is today's and has no provider, even when the rate itself is unchanged.
        {"set", "7,25", "en", cli::kExitOK, Fx(72500, 6, today(), std::nullopt),
         "Rate changed: 7.2000 → 7.2500 CNY per USD (rate version 6)\n"},
        {"set", "7.20009", "zh-Hans", cli::kExitOK, Fx(72000, 5, today(), std::nullopt),
         "汇率未变：每美元 7.2000 元人民币（汇率版本 5）\n"},
        // A number outside 5–12, however written, gets the range text in the chosen language.
        {"set", "4.99", "zh-Hans", cli::kExitUsage, kept, "汇率超出 5.00–12.00，已忽略"},
        {"set", "-7.2", "en", cli::kExitUsage, kept, range},
        {"set", "1e400", "en", cli::kExitUsage, kept, range},
        // Text that is no number is named.
        {"set", "seven", "zh-Hans", cli::kExitUsage, kept, "“seven”不是数字"},
        {"set", "1,000.5", "en", cli::kExitUsage, kept, "\"1,000.5\" is not a number"},
        {"set", "", "en", cli::kExitUsage, kept, "\"\" is not a number"},
        {"fetch", "/good", "en", cli::kExitOK, Fx(71000, 6, "2026-11-20", "Frankfurter"),
         "Rate changed: 7.2000 → 7.1000 CNY per USD (rate version 6)\n"
         "  Quote date: 2026-11-20\n  Source: Frankfurter\n"},
        // No date in the quote: the stored one goes, since it belonged to the older quote.
        {"fetch", "/same", "en", cli::kExitOK, Fx(72000, 5, std::nullopt, "Frankfurter"),
         "Rate unchanged: 7.2000 CNY per USD (rate version 5)\n  Source: Frankfurter\n"},
        {"fetch", "/error", "en", cli::kExitPartial, kept,
         "The exchange-rate service sent an invalid response"},
        {"fetch", "/nocny", "zh-Hans", cli::kExitPartial, kept, "没有 USD/CNY 报价"},
        {"fetch", "/high", "en", cli::kExitPartial, kept, range}};
    for (const auto& c : cases) {
        for (const bool asJSON : {false, true}) {
            SCOPED_TRACE(c.verb + " \"" + c.arg + "\" " + c.language + (asJSON ? " json" : ""));
            reset(seeded());
            const auto o = call([&](auto& ctx) {
                return c.verb == "set"
                           ? cli::runFxSet(ctx, c.arg, c.language, asJSON)
                           : cli::runFxFetch(ctx, server.url(c.arg), c.language, asJSON);
            });
            EXPECT_EQ(o.code, c.code) << o.err;
            const AppSettings s = stored();
            EXPECT_EQ(Fx(s.cnyPerUsdE4, s.fxVersion, s.fxDate, s.fxProvider), c.after);
            if (c.code != cli::kExitOK) {
                // An error goes to stderr in either mode; stdout stays clean for a JSON reader.
                EXPECT_EQ(o.out, "");
                EXPECT_NE(o.err.find(c.text), std::string::npos) << o.err;
            } else if (!asJSON) {
                EXPECT_EQ(o.out, c.text);
            } else {
                const json doc = json::parse(o.out);  // throws on any text after the document
                const auto orNull = [](const auto& v) { return v ? json(*v) : json(nullptr); };
                EXPECT_EQ(doc["cnyPerUsdE4"], std::get<0>(c.after));
                EXPECT_EQ(doc["fxDate"], orNull(std::get<2>(c.after)));
                EXPECT_EQ(doc["fxProvider"], orNull(std::get<3>(c.after)));
                EXPECT_EQ(doc["changed"], std::get<1>(c.after) != std::get<1>(kept));
            }
        }
    }
}

TEST_F(FxCommandTest, NothingIsFetchedOrOpenedOnBadUsageOrAMissingLedger) {
    std::atomic<int> hits{0};
    test_support::LoopbackServer server([&](httplib::Server& s) {
        s.Get("/good", [&](const httplib::Request&, httplib::Response& res) {
            ++hits;
            res.set_content(R"({"rates":{"CNY":7.1}})", "application/json");
        });
    });

    // An unknown language is refused before the ledger is created.
    for (const auto& command : std::vector<std::function<int(cli::CommandContext&)>>{
             [](auto& ctx) { return cli::runFxShow(ctx, "fr", false); },
             [](auto& ctx) { return cli::runFxSet(ctx, "7.1", "system", false); },
             [&](auto& ctx) { return cli::runFxFetch(ctx, server.url("/good"), "de", false); },
         }) {
        const auto o = call(command);
        EXPECT_EQ(o.code, cli::kExitUsage);
        EXPECT_NE(o.err.find("unknown language"), std::string::npos) << o.err;
    }
    EXPECT_TRUE(std::filesystem::is_empty(support->path()));

    // A ledger that cannot be opened: exit 3 and no request.
    const auto blocked = support->write("not-a-folder", "x");
    const auto o = call([&](auto& ctx) {
        ctx.supportDir = blocked / "ledger";
        return cli::runFxFetch(ctx, server.url("/good"), "en", false);
    });
    EXPECT_EQ(o.code, cli::kExitFailure);
    EXPECT_EQ(o.out, "");
    EXPECT_EQ(hits.load(), 0);
}

TEST_F(FxCommandTest, ShowPrintsTheStoredRateInTheSettingsLanguageUnlessOneIsGiven) {
    AppSettings bare;  // never set: no date or provider
    bare.cnyPerUsdE4 = 71234;
    bare.language = AppLanguage::en;
    reset(bare);
    const auto o = call([](auto& ctx) { return cli::runFxShow(ctx, "", true); });
    EXPECT_EQ(json::parse(o.out), json::parse(R"({"cnyPerUsdE4":71234,"cnyPerUsd":"7.1234",
        "fxVersion":0,"fxDate":null,"fxProvider":null})"));
    const struct {
        AppSettings settings;
        std::string asked, want;
    } cases[] = {
        {bare, "",
         "Exchange rate USD → CNY\n  7.1234 CNY per USD\n  Rate version: 0\n"
         "Current 7.1234, type it in or fetch Frankfurter\n"},
        {seeded(AppLanguage::zhHans), "",
         "汇率 USD → CNY\n  每美元 7.2000 元人民币\n  报价日期：2026-01-02\n  来源：Frankfurter\n"
         "  汇率版本：5\n当前 7.2000，可手输或拉取 Frankfurter 报价\n"},
        {seeded(AppLanguage::zhHans), "en",
         "Exchange rate USD → CNY\n  7.2000 CNY per USD\n  Quote date: 2026-01-02\n"
         "  Source: Frankfurter\n  Rate version: 5\n"
         "Current 7.2000, type it in or fetch Frankfurter\n"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(rawValue(c.settings.language)) + " asked " + c.asked);
        reset(c.settings);
        const auto text = call([&](auto& ctx) { return cli::runFxShow(ctx, c.asked, false); });
        EXPECT_EQ(text.code, cli::kExitOK) << text.err;
        EXPECT_EQ(text.out, c.want);
    }
}

}  // namespace
}  // namespace kestrel
