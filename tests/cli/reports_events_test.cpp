#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>

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

    // Every ledger event id, in the order `order` pages them, read in one query.
    std::vector<std::string> ledgerIDs(LedgerSortOrder order) {
        UsageStore store(support.path());
        std::vector<std::string> ids;
        for (const auto& e : store.ledgerEvents({}, order, std::nullopt, 1000).entries) {
            ids.push_back(e.event.id);
        }
        return ids;
    }
};

TEST_F(EventsCommandTest, PagingVisitsEveryEventOnceInOrder) {
    writeTranscripts();
    scan();
    for (const auto& order : {"desc", "asc"}) {
        const auto expected = ledgerIDs(std::string(order) == "asc" ? LedgerSortOrder::ascending
                                                                    : LedgerSortOrder::descending);
        ASSERT_EQ(expected.size(), std::size_t{kEvents});
        // 7 is a multiple of neither, one of 7 itself: the last page is short, then exactly full.
        for (int limit : {1, 2, 3, 7}) {
            SCOPED_TRACE(std::string(order) + " limit " + std::to_string(limit));
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
    const struct {
        double at;
        const char* id;
    } cases[] = {
        {1767355201.123, "le:claude:m2"},
        {1767355200.0, "le:codex:a/b"},  // a slash in the id stays in the id
        {0.000001, "x"},
        {1767355200.999999, "le:claude:m9"},
    };
    for (const auto& c : cases) {
        const LedgerCursor cursor{c.at, c.id};
        const auto text = cli::formatCursor(cursor);
        EXPECT_EQ(cli::parseCursor(text), cursor) << text;
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
        {{-5, "", "desc"}, "--limit -5"},
        {{10, "", "newest"}, "--order \"newest\""},
        {{10, "abc", "desc"}, "--after \"abc\""},
        {{10, "123.5", "desc"}, "--after \"123.5\""},
        {{10, "123.5/", "desc"}, "--after \"123.5/\""},
        {{10, "/le:claude:m1", "desc"}, "--after \"/le:claude:m1\""},
        {{10, "1e9/le:claude:m1", "desc"}, "--after \"1e9/le:claude:m1\""},
        {{10, "nan/le:claude:m1", "desc"}, "--after \"nan/le:claude:m1\""},
        {{10, "12:00/le:claude:m1", "desc"}, "--after \"12:00/le:claude:m1\""},
    };
    for (const auto& c : cases) {
        for (bool json : {false, true}) {
            const auto o = events(c.options, json);
            EXPECT_EQ(o.code, cli::kExitUsage) << c.named;
            EXPECT_EQ(o.err.find(c.named), 9u) << o.err;  // right after "kestrel: "
            EXPECT_EQ(std::count(o.err.begin(), o.err.end(), '\n'), 1) << o.err;
            EXPECT_TRUE(o.out.empty());
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
    ASSERT_EQ(doc.size(), 2u);
    EXPECT_TRUE(doc["nextCursor"].is_null());
    ASSERT_EQ(doc["entries"].size(), 1u);
    const auto& e = doc["entries"][0];
    std::vector<std::string> keys;
    for (const auto& [key, value] : e.items()) {
        keys.push_back(key);
    }
    std::sort(keys.begin(), keys.end());
    std::vector<std::string> expected{"id",
                                      "occurredAt",
                                      "localDay",
                                      "source",
                                      "provider",
                                      "model",
                                      "project",
                                      "sessionKey",
                                      "inputUncached",
                                      "cacheRead",
                                      "cacheWrite",
                                      "outputVisible",
                                      "reasoning",
                                      "providerInputTotal",
                                      "providerOutputTotal",
                                      "providerTotal",
                                      "costUSDMicros",
                                      "costSource",
                                      "completeness",
                                      "priceVersion"};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(keys, expected);
    EXPECT_EQ(e["id"], "le:claude:m5");
    EXPECT_EQ(e["localDay"], "2026-01-03");
    EXPECT_EQ(e["source"], "claude");
    EXPECT_EQ(e["provider"], "anthropic");
    EXPECT_EQ(e["project"], "other");
    EXPECT_EQ(e["sessionKey"], "s1");
    EXPECT_EQ(e["inputUncached"], 70);
    EXPECT_EQ(e["outputVisible"], 80);
    // Unpriced: no amount, no price version, and nothing pretends otherwise.
    EXPECT_TRUE(e["costUSDMicros"].is_null());
    EXPECT_TRUE(e["priceVersion"].is_null());
    EXPECT_EQ(e["costSource"], "unknown");
    EXPECT_EQ(e["completeness"], "none");

    ReportOptions onlySonnet;
    onlySonnet.noScan = true;
    onlySonnet.model = "claude-sonnet-4-5-20250929";
    const auto priced = page({1, "", "asc"}, onlySonnet)["entries"][0];
    EXPECT_EQ(priced["id"], "le:claude:m1");
    EXPECT_EQ(priced["costUSDMicros"], 15'300'000);  // 100K input at $3, 1M output at $15
    EXPECT_EQ(priced["costSource"], "priceTable");
    EXPECT_TRUE(priced["priceVersion"].is_number());
}

TEST_F(EventsCommandTest, TheTableIsAlignedAndMarksWhatIsAbsent) {
    writeTranscripts();
    const auto o = events({}, false);
    ASSERT_EQ(o.code, cli::kExitOK) << o.err;
    std::istringstream lines(o.out);
    std::string text;
    std::vector<std::string> rows;
    while (std::getline(lines, text)) {
        rows.push_back(text);
    }
    ASSERT_EQ(rows.size(), std::size_t{kEvents + 1}) << o.out;  // header, no next page
    EXPECT_EQ(rows[0].rfind("Time", 0), 0u);
    for (const auto& title :
         {"Agent", "Model", "Project", "Cache read", "Cache write", "Total tokens", "Cost"}) {
        EXPECT_NE(rows[0].find(title), std::string::npos) << title;
    }
    for (const auto& row : rows) {
        EXPECT_EQ(cli::displayWidth(row), cli::displayWidth(rows[0])) << row;
    }
    // Newest first: m7 on 2026-01-05 leads; the unpriced m5 shows a dash for its cost.
    EXPECT_NE(rows[1].find("2026-01-05"), std::string::npos) << rows[1];
    const auto& acme = rows[3];
    ASSERT_NE(acme.find("acme-model-7"), std::string::npos) << o.out;
    EXPECT_EQ(acme.back(), '-');
    EXPECT_NE(rows.back().find("$15.30"), std::string::npos) << rows.back();
}

TEST_F(EventsCommandTest, EmptyResultsSayWhy) {
    const auto empty = events({}, false);
    ASSERT_EQ(empty.code, cli::kExitOK) << empty.err;
    EXPECT_NE(empty.out.find("No usage found below " + home.path().string()), std::string::npos)
        << empty.out;

    writeTranscripts();
    ReportOptions nothing;
    nothing.model = "no-such-model";
    const auto filtered = events({}, false, nothing);
    EXPECT_EQ(filtered.out, "No events match.\n");
    const auto json = nlohmann::json::parse(events({}, true, nothing).out);
    EXPECT_EQ(json, nlohmann::json::parse(R"({"entries":[],"nextCursor":null})"));
}

}  // namespace
}  // namespace kestrel
