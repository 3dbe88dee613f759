#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "cli/events_command.hpp"
#include "cli/text_table.hpp"
#include "tests/cli/ledger_home.hpp"

namespace kestrel {
namespace {

using cli::EventsOptions;
using cli::ReportOptions;

class EventsCommandTest : public test_support::LedgerHomeTest {
  protected:
    test_support::CommandOutcome events(const EventsOptions& options, bool json,
                                        ReportOptions report = {}) {
        return call([&](auto& ctx) { return cli::runEvents(ctx, report, options, json); });
    }

    nlohmann::json page(const EventsOptions& options, ReportOptions report = {}) {
        report.noScan = true;
        const auto o = events(options, true, report);
        EXPECT_EQ(o.code, cli::kExitOK) << o.err;
        return nlohmann::json::parse(o.out);
    }
};

TEST_F(EventsCommandTest, PagingVisitsEveryEventOnceInOrder) {
    writeTranscripts();
    scan();
    // By time, then by id for m3 and m4, which share one.
    const std::vector<std::string> ascending = {"le:claude:m1", "le:claude:m2", "le:claude:m3",
                                                "le:claude:m4", "le:claude:m5", "le:claude:m6",
                                                "le:claude:m7"};
    for (const std::string order : {"desc", "asc"}) {
        auto expected = ascending;
        if (order == "desc") {
            std::ranges::reverse(expected);
        }
        // 7 is a multiple of neither, one of 7 itself: the last page is short, then exactly full.
        for (int limit : {1, 2, 3, 7}) {
            SCOPED_TRACE(order + " limit " + std::to_string(limit));
            std::vector<std::string> seen;
            std::string after;
            int pages = 0;
            for (;;) {
                const auto doc = page({limit, after, order});
                ++pages;
                ASSERT_LE(doc["entries"].size(), std::size_t(limit));
                for (const auto& entry : doc["entries"]) {
                    seen.push_back(entry["id"]);
                }
                if (doc["nextCursor"].is_null()) {
                    break;
                }
                ASSERT_LT(pages, 20) << "paging does not end";
                after = doc["nextCursor"];
            }
            EXPECT_EQ(seen, expected);
            EXPECT_EQ(pages, (kEvents + limit - 1) / limit) << "no empty last page";
        }
    }
}

TEST_F(EventsCommandTest, TheNextPageCommandCarriesTheCursorAndTheChoices) {
    writeTranscripts();
    scan();
    ReportOptions report;
    report.noScan = true;
    report.since = "2026-01-01";
    report.project = "app";  // four events
    const auto first = page({2, "", "asc"}, report);
    ASSERT_EQ(first["entries"].size(), 2u);
    // The second event's time has milliseconds: the cursor must name it exactly.
    EXPECT_EQ(first["entries"][1]["id"], "le:claude:m2");
    const std::string cursor = first["nextCursor"];
    EXPECT_EQ(cursor.substr(cursor.find('/')), "/le:claude:m2");
    EXPECT_EQ(cursor.substr(cursor.find('.'), 7), ".123000");

    const auto text = events({2, "", "asc"}, false, report);
    ASSERT_EQ(text.code, cli::kExitOK) << text.err;
    EXPECT_NE(text.out.find("Next page: kestrel events --no-scan --since 2026-01-01 --project app "
                            "--order asc --limit 2 --after " +
                            cursor + "\n"),
              std::string::npos)
        << text.out;

    const auto second = page({2, cursor, "asc"}, report);
    ASSERT_EQ(second["entries"].size(), 2u);
    EXPECT_EQ(second["entries"][0]["id"], "le:claude:m3");
    EXPECT_EQ(second["entries"][1]["id"], "le:claude:m4");
    EXPECT_TRUE(second["nextCursor"].is_null());
    const auto last = events({2, cursor, "asc"}, false, report);
    EXPECT_EQ(last.out.find("Next page"), std::string::npos) << last.out;
}

TEST_F(EventsCommandTest, CursorsSurviveTheirTextForm) {
    // A slash in the id stays in the id; times keep their microseconds.
    for (const LedgerCursor& cursor :
         {LedgerCursor{1767355200.999999, "le:codex:a/b"}, LedgerCursor{0.000001, "x"}}) {
        EXPECT_EQ(cli::parseCursor(cli::formatCursor(cursor)), cursor) << cli::formatCursor(cursor);
    }
}

TEST_F(EventsCommandTest, BadOptionsAreRefusedBeforeTheLedgerOpens) {
    writeTranscripts();
    const struct {
        EventsOptions options;
        const char* named;
    } cases[] = {
        {{0, "", "desc"}, "--limit 0"},
        {{1001, "", "desc"}, "--limit 1001"},
        {{10, "", "newest"}, "--order \"newest\""},
        {{10, "123.5", "desc"}, "--after \"123.5\""},
        {{10, "123.5/", "desc"}, "--after \"123.5/\""},
        {{10, "/le:claude:m1", "desc"}, "--after \"/le:claude:m1\""},
        {{10, "1e9/le:claude:m1", "desc"}, "--after \"1e9/le:claude:m1\""},
    };
    for (const auto& c : cases) {
        for (bool json : {false, true}) {
            const auto o = events(c.options, json);
            EXPECT_EQ(o.code, cli::kExitUsage) << c.named;
            EXPECT_EQ(o.err.find(c.named), 9u) << o.err;  // right after "kestrel: "
            EXPECT_EQ(std::count(o.err.begin(), o.err.end(), '\n'), 1) << o.err;
            EXPECT_EQ(o.out, "");
        }
    }
    EXPECT_FALSE(std::filesystem::exists(support / UsageStore::kFileName)) << "nothing scanned";
}

TEST_F(EventsCommandTest, JsonEntriesCarryEveryFieldAndNullForWhatIsAbsent) {
    writeTranscripts();
    ReportOptions onlyAcme;
    onlyAcme.model = "acme-model-7";
    const auto o = events({}, true, onlyAcme);  // scans first
    ASSERT_EQ(o.code, cli::kExitOK) << o.err;
    const auto doc = nlohmann::json::parse(o.out);
    ASSERT_EQ(doc["entries"].size(), 1u);
    // Unpriced: no amount, no price version, and nothing pretends otherwise.
    EXPECT_EQ(doc["entries"][0], nlohmann::json::parse(R"({"id":"le:claude:m5",
        "occurredAt":1767441600.0,"localDay":"2026-01-03","source":"claude","provider":"anthropic",
        "model":"acme-model-7","project":"other","sessionKey":"s1","inputUncached":70,"cacheRead":0,
        "cacheWrite":0,"outputVisible":80,"reasoning":0,"providerInputTotal":70,
        "providerOutputTotal":80,"providerTotal":150,"costUSDMicros":null,"costSource":"unknown",
        "completeness":"none","priceVersion":null})"));

    ReportOptions onlySonnet;
    onlySonnet.noScan = true;
    onlySonnet.model = "claude-sonnet-4-5-20250929";
    const auto priced = page({1, "", "asc"}, onlySonnet)["entries"][0];
    EXPECT_EQ(priced["id"], "le:claude:m1");
    EXPECT_EQ(priced["costUSDMicros"], 15'300'000);  // 100K input at $3, 1M output at $15
    EXPECT_TRUE(priced["priceVersion"].is_number());
}

TEST_F(EventsCommandTest, TheTableIsAlignedAndMarksWhatIsAbsent) {
    writeTranscripts();
    const auto o = events({}, false);
    ASSERT_EQ(o.code, cli::kExitOK) << o.err;
    std::istringstream lines(o.out);
    std::vector<std::string> rows;
    for (std::string row; std::getline(lines, row);) {
        rows.push_back(row);
    }
    ASSERT_EQ(rows.size(), std::size_t{kEvents + 1}) << o.out;  // header, no next page
    for (const auto& row : rows) {
        EXPECT_EQ(cli::displayWidth(row), cli::displayWidth(rows[0])) << row;
    }
    // Newest first: m7 on 2026-01-05 leads; the unpriced m5 shows a dash for its cost.
    EXPECT_NE(rows[1].find("2026-01-05"), std::string::npos) << rows[1];
    ASSERT_NE(rows[3].find("acme-model-7"), std::string::npos) << o.out;
    EXPECT_EQ(rows[3].back(), '-');
    EXPECT_TRUE(rows.back().ends_with("$15.30")) << rows.back();
}

TEST_F(EventsCommandTest, EmptyResultsSayWhy) {
    const auto empty = events({}, false);
    ASSERT_EQ(empty.code, cli::kExitOK) << empty.err;
    EXPECT_EQ(empty.out.rfind("No usage found below " + home.path().string(), 0), 0u) << empty.out;

    writeTranscripts();
    ReportOptions nothing;
    nothing.model = "no-such-model";
    EXPECT_EQ(events({}, false, nothing).out, "No events match.\n");
    EXPECT_EQ(nlohmann::json::parse(events({}, true, nothing).out),
              nlohmann::json::parse(R"({"entries":[],"nextCursor":null})"));
}

}  // namespace
}  // namespace kestrel
