// kestrel fx show / set / fetch: what is stored, what is refused, and in which language it is said.

#include "cli/fx_command.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "cli/cli.hpp"
#include "core/ledger/settings_store.hpp"
#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"
#include "tests/support/loopback_server.hpp"
#include "tests/support/command_run.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using nlohmann::json;
using test_support::LoopbackServer;
using test_support::TempDir;

using Outcome = test_support::CommandOutcome;

// What the ledger holds before each case: a fetched rate at version 5.
AppSettings seeded() {
    AppSettings s;
    s.cnyPerUsdE4 = 72000;
    s.fxVersion = 5;
    s.fxDate = "2026-01-02";
    s.fxProvider = "Frankfurter";
    return s;
}

class FxCommandTest : public ::testing::Test {
  protected:
    Outcome call(const std::function<int(cli::CommandContext&)>& command) {
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

constexpr const char* kOutOfRangeEN = "Rate outside 5.00–12.00, ignored";
constexpr const char* kOutOfRangeZH = "汇率超出 5.00–12.00，已忽略";

struct SetCase {
    std::string input;
    std::string language;
    int code;
    int64_t e4;       // stored afterwards
    int64_t version;  // stored afterwards
    std::string err;  // part of the error text; empty when accepted
};

TEST_F(FxCommandTest, SetStoresGoodRatesAndRefusesTheRest) {
    const std::vector<SetCase> cases = {
        {"7.25", "en", cli::kExitOK, 72500, 6, ""},
        {" 7,1 \n", "en", cli::kExitOK, 71000, 6, ""},
        {"12", "en", cli::kExitOK, 120000, 6, ""},
        // Same rate again, or one that truncates to it: the version stays.
        {"7.2", "en", cli::kExitOK, 72000, 5, ""},
        {"7.20009", "zh-Hans", cli::kExitOK, 72000, 5, ""},
        // Numbers outside 5–12 get the range text in the chosen language.
        {"12.0001", "en", cli::kExitUsage, 72000, 5, kOutOfRangeEN},
        {"4.99", "zh-Hans", cli::kExitUsage, 72000, 5, kOutOfRangeZH},
        {"-7.2", "en", cli::kExitUsage, 72000, 5, kOutOfRangeEN},
        {"0", "en", cli::kExitUsage, 72000, 5, kOutOfRangeEN},
        {"1e400", "en", cli::kExitUsage, 72000, 5, kOutOfRangeEN},
        // Text that is no number is named.
        {"abc", "en", cli::kExitUsage, 72000, 5, "\"abc\" is not a number"},
        {"seven", "zh-Hans", cli::kExitUsage, 72000, 5, "“seven”不是数字"},
        {"7.2 CNY", "en", cli::kExitUsage, 72000, 5, "\"7.2 CNY\" is not a number"},
        {"1,000.5", "en", cli::kExitUsage, 72000, 5, "\"1,000.5\" is not a number"},
        {"", "en", cli::kExitUsage, 72000, 5, "\"\" is not a number"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE('"' + c.input + "\" " + c.language);
        reset(seeded());
        const auto o =
            call([&](auto& ctx) { return cli::runFxSet(ctx, c.input, c.language, true); });
        EXPECT_EQ(o.code, c.code) << o.err;
        const AppSettings after = stored();
        EXPECT_EQ(after.cnyPerUsdE4, c.e4);
        EXPECT_EQ(after.fxVersion, c.version);
        if (c.code != cli::kExitOK) {
            // Refused: nothing printed as a result, and date and provider untouched.
            EXPECT_EQ(o.out, "");
            EXPECT_NE(o.err.find(c.err), std::string::npos) << o.err;
            EXPECT_EQ(after.fxDate, seeded().fxDate);
            EXPECT_EQ(after.fxProvider, seeded().fxProvider);
            continue;
        }
        EXPECT_EQ(o.err, "");
        // A typed rate is today's and has no provider, even when the rate itself is unchanged.
        EXPECT_EQ(after.fxDate, today());
        EXPECT_EQ(after.fxProvider, std::nullopt);
        const json doc = json::parse(o.out);
        EXPECT_EQ(doc["cnyPerUsdE4"], c.e4);
        EXPECT_EQ(doc["fxVersion"], c.version);
        EXPECT_EQ(doc["fxDate"], today());
        EXPECT_TRUE(doc["fxProvider"].is_null());
        EXPECT_EQ(doc["changed"], c.version != seeded().fxVersion);
    }
}

TEST_F(FxCommandTest, SetSaysWhetherTheRateChanged) {
    struct Case {
        std::string input, language, want;
    };
    const std::vector<Case> cases = {
        {"7,25", "en", "Rate changed: 7.2000 → 7.2500 CNY per USD (rate version 6)\n"},
        {"7.2", "en", "Rate unchanged: 7.2000 CNY per USD (rate version 5)\n"},
        {"6.5", "zh-Hans", "汇率已更新：7.2000 → 6.5000 元人民币/美元（汇率版本 6）\n"},
        {"7.2000", "zh-Hans", "汇率未变：每美元 7.2000 元人民币（汇率版本 5）\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.input + " " + c.language);
        reset(seeded());
        const auto o =
            call([&](auto& ctx) { return cli::runFxSet(ctx, c.input, c.language, false); });
        EXPECT_EQ(o.code, cli::kExitOK) << o.err;
        EXPECT_EQ(o.out, c.want);
    }
}

TEST_F(FxCommandTest, SetTwiceBumpsTheVersionOnce) {
    reset(seeded());
    for (int i = 0; i < 2; ++i) {
        const auto o = call([](auto& ctx) { return cli::runFxSet(ctx, "6.9", "en", true); });
        ASSERT_EQ(o.code, cli::kExitOK) << o.err;
        EXPECT_EQ(json::parse(o.out)["changed"], i == 0);
    }
    EXPECT_EQ(stored().fxVersion, 6);
}

struct FetchCase {
    std::string name;
    std::string path;
    std::string language;
    int code;
    int64_t e4;
    int64_t version;
    std::optional<std::string> date, provider;
    std::string text;  // part of stdout on success, of stderr on failure
};

TEST_F(FxCommandTest, FetchStoresAGoodQuoteAndLeavesTheRateOnFailure) {
    std::atomic<int> hits{0};
    LoopbackServer server([&](httplib::Server& s) {
        auto reply = [&](const std::string& path, int status, const std::string& body) {
            s.Get(path, [&hits, status, body](const httplib::Request&, httplib::Response& res) {
                ++hits;
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

    const auto kept = seeded();
    const std::vector<FetchCase> cases = {
        {"good quote", "/good", "en", cli::kExitOK, 71000, 6, "2026-11-20", "Frankfurter",
         "Rate changed: 7.2000 → 7.1000 CNY per USD (rate version 6)"},
        {"good quote in Chinese", "/good", "zh-Hans", cli::kExitOK, 71000, 6, "2026-11-20",
         "Frankfurter", "来源：Frankfurter"},
        // No date in the quote: the stored one goes, since it belonged to the older quote.
        {"same rate, no date", "/same", "en", cli::kExitOK, 72000, 5, std::nullopt, "Frankfurter",
         "Rate unchanged: 7.2000 CNY per USD"},
        {"server error", "/error", "en", cli::kExitPartial, kept.cnyPerUsdE4, kept.fxVersion,
         kept.fxDate, kept.fxProvider, "The exchange-rate service sent an invalid response"},
        {"server error in Chinese", "/error", "zh-Hans", cli::kExitPartial, kept.cnyPerUsdE4,
         kept.fxVersion, kept.fxDate, kept.fxProvider, "汇率接口返回无效"},
        {"no CNY", "/nocny", "en", cli::kExitPartial, kept.cnyPerUsdE4, kept.fxVersion, kept.fxDate,
         kept.fxProvider, "No USD/CNY quote"},
        {"no CNY in Chinese", "/nocny", "zh-Hans", cli::kExitPartial, kept.cnyPerUsdE4,
         kept.fxVersion, kept.fxDate, kept.fxProvider, "没有 USD/CNY 报价"},
        {"out of range", "/high", "en", cli::kExitPartial, kept.cnyPerUsdE4, kept.fxVersion,
         kept.fxDate, kept.fxProvider, kOutOfRangeEN},
        {"unknown path", "/missing-route", "en", cli::kExitPartial, kept.cnyPerUsdE4,
         kept.fxVersion, kept.fxDate, kept.fxProvider,
         "The exchange-rate service sent an invalid response"},
    };
    for (const auto& c : cases) {
        for (const bool asJSON : {false, true}) {
            SCOPED_TRACE(c.name + (asJSON ? " (json)" : ""));
            reset(seeded());
            const auto o = call([&](auto& ctx) {
                return cli::runFxFetch(ctx, server.url(c.path), c.language, asJSON);
            });
            EXPECT_EQ(o.code, c.code) << o.err;
            const AppSettings after = stored();
            EXPECT_EQ(after.cnyPerUsdE4, c.e4);
            EXPECT_EQ(after.fxVersion, c.version);
            EXPECT_EQ(after.fxDate, c.date);
            EXPECT_EQ(after.fxProvider, c.provider);
            if (c.code != cli::kExitOK) {
                // An error goes to stderr in either mode; stdout stays clean for a JSON reader.
                EXPECT_EQ(o.out, "");
                EXPECT_NE(o.err.find(c.text), std::string::npos) << o.err;
                continue;
            }
            EXPECT_EQ(o.err, "");
            if (!asJSON) {
                EXPECT_NE(o.out.find(c.text), std::string::npos) << o.out;
                continue;
            }
            const json doc = json::parse(o.out);
            EXPECT_EQ(doc["cnyPerUsdE4"], c.e4);
            EXPECT_EQ(doc["fxVersion"], c.version);
            EXPECT_EQ(doc["fxDate"], c.date ? json(*c.date) : json(nullptr));
            EXPECT_EQ(doc["fxProvider"], c.provider ? json(*c.provider) : json(nullptr));
            EXPECT_EQ(doc["changed"], c.version != kept.fxVersion);
        }
    }
    EXPECT_GT(hits.load(), 0);
}

TEST_F(FxCommandTest, NothingIsFetchedOrOpenedOnBadUsageOrAMissingLedger) {
    std::atomic<int> hits{0};
    LoopbackServer server([&](httplib::Server& s) {
        s.Get("/good", [&](const httplib::Request&, httplib::Response& res) {
            ++hits;
            res.set_content(R"({"rates":{"CNY":7.1}})", "application/json");
        });
    });

    // An unknown language is refused before the ledger is created.
    support = std::make_unique<TempDir>();
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

TEST_F(FxCommandTest, ShowPrintsTheStoredRate) {
    reset(seeded());
    const auto full = call([](auto& ctx) { return cli::runFxShow(ctx, "", true); });
    ASSERT_EQ(full.code, cli::kExitOK) << full.err;
    EXPECT_EQ(json::parse(full.out), json::parse(R"({"cnyPerUsdE4":72000,"cnyPerUsd":"7.2000",
        "fxVersion":5,"fxDate":"2026-01-02","fxProvider":"Frankfurter"})"));

    AppSettings bare;  // never set: the default rate, with no date or provider
    bare.cnyPerUsdE4 = 71234;
    reset(bare);
    const auto empty = call([](auto& ctx) { return cli::runFxShow(ctx, "en", true); });
    ASSERT_EQ(empty.code, cli::kExitOK) << empty.err;
    EXPECT_EQ(json::parse(empty.out), json::parse(R"({"cnyPerUsdE4":71234,"cnyPerUsd":"7.1234",
        "fxVersion":0,"fxDate":null,"fxProvider":null})"));

    const auto text = call([](auto& ctx) { return cli::runFxShow(ctx, "en", false); });
    EXPECT_EQ(text.out,
              "Exchange rate USD → CNY\n"
              "  7.1234 CNY per USD\n"
              "  Rate version: 0\n"
              "Current 7.1234, type it in or fetch Frankfurter\n");
}

TEST_F(FxCommandTest, ShowUsesTheSettingsLanguageUnlessOneIsGiven) {
    struct Case {
        AppLanguage settings;
        std::string asked;
        std::string want;
    };
    const std::vector<Case> cases = {
        {AppLanguage::zhHans, "",
         "汇率 USD → CNY\n"
         "  每美元 7.0500 元人民币\n"
         "  报价日期：2026-01-02\n"
         "  来源：Frankfurter\n"
         "  汇率版本：5\n"
         "当前 7.0500，可手输或拉取 Frankfurter 报价\n"},
        {AppLanguage::zhHans, "en",
         "Exchange rate USD → CNY\n"
         "  7.0500 CNY per USD\n"
         "  Quote date: 2026-01-02\n"
         "  Source: Frankfurter\n"
         "  Rate version: 5\n"
         "Current 7.0500, type it in or fetch Frankfurter\n"},
        {AppLanguage::en, "", "Exchange rate USD → CNY\n"},
        {AppLanguage::en, "zh-Hans", "汇率 USD → CNY\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(rawValue(c.settings)) + " asked " + c.asked);
        AppSettings s = seeded();
        s.cnyPerUsdE4 = 70500;
        s.language = c.settings;
        reset(s);
        const auto o = call([&](auto& ctx) { return cli::runFxShow(ctx, c.asked, false); });
        EXPECT_EQ(o.code, cli::kExitOK) << o.err;
        EXPECT_EQ(o.out.substr(0, c.want.size()), c.want);
    }
}

}  // namespace
}  // namespace kestrel
