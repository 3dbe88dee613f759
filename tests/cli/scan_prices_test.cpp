#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "cli/cli.hpp"
#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_store.hpp"
#include "tests/support/command_run.hpp"
#include "tests/support/ledger_connection.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;

using CliRun = test_support::CommandOutcome;

class ScanAndPricesTest : public ::testing::Test {
  protected:
    CliRun kestrel(std::vector<std::string> args, const std::string& input = "") {
        return test_support::runKestrel(std::move(args), home.path(), support.path(), input);
    }

    nlohmann::json scanJSON(std::vector<std::string> extra = {}) {
        std::vector<std::string> args{"scan", "--json"};
        args.insert(args.end(), extra.begin(), extra.end());
        const auto r = kestrel(args);
        EXPECT_EQ(r.code, cli::kExitOK) << r.err;
        return nlohmann::json::parse(r.out)["sources"][0];
    }

    int64_t ledger(const std::string& sql) {
        UsageStore store(support.path());
        test_support::LedgerConnection connection(store.databasePath());
        sqlite::Statement s(connection.get(), sql);
        EXPECT_TRUE(s.step());
        return s.int64(0);
    }

    static std::string line(const std::string& id, const std::string& model, int64_t output) {
        return R"({"type":"assistant","sessionId":"s","timestamp":"2026-03-02T10:00:00Z",)"
               R"("message":{"id":")" +
               id + R"(","model":")" + model +
               R"(","usage":{"input_tokens":100000,"output_tokens":)" + std::to_string(output) +
               "}}}\n";
    }

    TempDir home, support;
};

TEST_F(ScanAndPricesTest, ASecondScanOfUnchangedFilesChangesNothing) {
    home.write(".claude/projects/p/a.jsonl", line("m1", "claude-sonnet-4-5-20250929", 1) +
                                                 line("m1", "claude-sonnet-4-5-20250929", 1000000));
    home.write(".claude/projects/p/b.jsonl", line("m2", "claude-haiku-4-5-20251001", 10));
    const auto first = scanJSON();
    EXPECT_EQ(first["files"], 2);
    EXPECT_EQ(first["filesRead"], 2);
    EXPECT_EQ(first["events"], 3);
    EXPECT_EQ(first["accepted"], 2);  // one per usage: m1's placeholder line is superseded
    EXPECT_EQ(ledger("SELECT COUNT(*) FROM ledger_events;"), 2);
    // 100K input at $3 and 1M output at $15 per million: the final line's usage holds.
    EXPECT_EQ(ledger("SELECT amount_usd_micros FROM ledger_costs WHERE ledger_event_id="
                     "'le:claude:m1';"),
              15'300'000);
    const auto runs = ledger("SELECT COUNT(*) FROM ingest_runs;");

    const auto second = scanJSON();
    EXPECT_EQ(second["filesRead"], 0);
    EXPECT_EQ(second["filesUnchanged"], 2);
    EXPECT_FALSE(second["committed"].get<bool>());
    EXPECT_EQ(ledger("SELECT COUNT(*) FROM ingest_runs;"), runs);

    home.append(".claude/projects/p/b.jsonl", line("m3", "claude-haiku-4-5-20251001", 5));
    const auto third = scanJSON();
    EXPECT_EQ(third["filesRead"], 1);
    EXPECT_EQ(third["filesFromStart"], 0);
    EXPECT_EQ(third["events"], 1);
    EXPECT_EQ(ledger("SELECT COUNT(*) FROM ledger_events;"), 3);
}

TEST_F(ScanAndPricesTest, AForcedRescanDropsUsageWhoseRecordsAreGone) {
    home.write(".claude/projects/p/a.jsonl", line("m1", "claude-sonnet-4-5-20250929", 5));
    home.write(".claude/projects/p/b.jsonl", line("m2", "claude-sonnet-4-5-20250929", 6));
    scanJSON();
    std::filesystem::remove(home / ".claude/projects/p/a.jsonl");
    // A plain scan never removes what was once read.
    scanJSON();
    EXPECT_EQ(ledger("SELECT COUNT(*) FROM ledger_events;"), 2);

    const auto declined = kestrel({"scan", "--force"}, "n\n");
    EXPECT_EQ(declined.code, cli::kExitOK);
    EXPECT_NE(declined.err.find("removes from the ledger"), std::string::npos);

    const auto forced = scanJSON({"--force", "--yes"});
    EXPECT_EQ(forced["filesRead"], 1);
    EXPECT_EQ(ledger("SELECT COUNT(*) FROM ledger_events;"), 1);
    EXPECT_EQ(ledger("SELECT COUNT(*) FROM ledger_events WHERE observation_id='claude:m2';"), 1);
}

TEST_F(ScanAndPricesTest, AnOverrideRepricesTheLedgerAndItsRemovalRestoresIt) {
    home.write(".claude/projects/p/a.jsonl",
               line("m1", "acme-model-7", 1000000) + line("m2", "claude-sonnet-4-5-20250929", 0));
    scanJSON();
    EXPECT_EQ(ledger("SELECT COUNT(*) FROM ledger_costs WHERE amount_usd_micros IS NULL;"), 1);
    EXPECT_EQ(ledger("SELECT COUNT(*) FROM coverage_issues WHERE code='unknownCost';"), 1);

    const auto set = kestrel({"prices", "set", "acme-model", "--input", "2", "--output", "10"});
    ASSERT_EQ(set.code, cli::kExitOK) << set.err;
    EXPECT_NE(set.out.find("Repriced 1 stored observation"), std::string::npos) << set.out;
    EXPECT_EQ(ledger("SELECT amount_usd_micros FROM ledger_costs WHERE ledger_event_id="
                     "'le:claude:m1';"),
              10'200'000);
    EXPECT_EQ(ledger("SELECT COUNT(*) FROM coverage_issues WHERE code='unknownCost';"), 0);

    const auto listed = kestrel({"prices", "--json"});
    ASSERT_EQ(listed.code, cli::kExitOK) << listed.err;
    bool found = false;
    const auto doc = nlohmann::json::parse(listed.out);
    for (const auto& row : doc["rows"]) {
        if (row["match"] == "acme-model") {
            found = true;
            EXPECT_TRUE(row["override"].get<bool>());
            EXPECT_EQ(row["inputUncachedPerMTokUSD"], "2");
        }
    }
    EXPECT_TRUE(found);

    const auto removed = kestrel({"prices", "rm", "acme-model"});
    ASSERT_EQ(removed.code, cli::kExitOK) << removed.err;
    EXPECT_EQ(ledger("SELECT COUNT(*) FROM ledger_costs WHERE amount_usd_micros IS NULL;"), 1);
}

TEST_F(ScanAndPricesTest, BadInputIsRefusedWithTheReason) {
    const struct {
        std::vector<std::string> args;
        int code;
        const char* message;
    } cases[] = {
        {{"prices", "set", "m", "--input", "abc", "--output", "1"}, cli::kExitUsage, "\"abc\""},
        {{"prices", "set", "m", "--input", "-1", "--output", "1"}, cli::kExitUsage, "\"-1\""},
        {{"prices", "set", "m", "--input", "1", "--output", "1", "--from", "2025-02-30"},
         cli::kExitUsage,
         "2025-02-30"},
        {{"prices", "set", "m", "--input", "1", "--output", "1", "--long-input", "2"},
         cli::kExitUsage,
         "--long-threshold"},
        {{"prices", "rm", "nothing-here"}, cli::kExitUsage, "no price override"},
        {{"scan", "--source", "openrouter"}, cli::kExitUsage, "keeps no usage records"},
        {{"scan", "--source", "nope"}, cli::kExitUsage, "unknown source \"nope\""},
    };
    for (const auto& c : cases) {
        const auto r = kestrel(c.args);
        EXPECT_EQ(r.code, c.code) << c.message;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    }
}

TEST_F(ScanAndPricesTest, ALedgerThatCannotBeOpenedIsNamed) {
    support.write("usage.sqlite", std::string(4096, 'x'));
    const auto r = kestrel({"scan"});
    EXPECT_EQ(r.code, cli::kExitFailure);
    EXPECT_NE(r.err.find("cannot open the ledger"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("not a database"), std::string::npos) << r.err;
}

}  // namespace
}  // namespace kestrel
