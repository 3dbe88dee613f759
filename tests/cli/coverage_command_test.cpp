#include "cli/coverage_command.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>

#include "tests/cli/ledger_home.hpp"

namespace kestrel {
namespace {

using cli::ReportOptions;

ReportOptions noScan() {
    ReportOptions o;
    o.noScan = true;
    return o;
}

class CoverageCommandTest : public test_support::LedgerHomeTest {
  protected:
    test_support::CommandOutcome coverage(bool json, ReportOptions report = {}) {
        return call([&](auto& ctx) { return cli::runCoverage(ctx, report, json); });
    }

    nlohmann::json coverageJSON(ReportOptions report = {}) {
        const auto o = coverage(true, report);
        EXPECT_EQ(o.code, cli::kExitOK) << o.err;
        return nlohmann::json::parse(o.out);
    }

    // The transcripts plus a second unpriced usage and one whose time cannot be read.
    void writeDoubtfulUsage() {
        writeTranscripts();
        home.write(".claude/projects/-w-app/c.jsonl",
                   line("m8", "acme-model-7", "2026-01-06T12:00:00Z", 1, 1) +
                       line("m9", "claude-sonnet-4-5-20250929", "yesterday-ish", 1, 1));
    }
};

TEST_F(CoverageCommandTest, GroupsSayWhatTheIssueMeans) {
    writeDoubtfulUsage();
    const auto doc = coverageJSON();
    ASSERT_EQ(doc.size(), 2u);
    const auto expectedGroups = nlohmann::json::parse(R"([
        {"code":"missingTrustedTime","source":"claude","origin":"validation","count":1,
         "explanation":"The records carry no reliable time, so they are kept aside and not counted."},
        {"code":"unknownCost","source":"claude","origin":"validation","count":2,
         "explanation":"No price-table match. Add an override in Prices."}])");
    EXPECT_EQ(doc["groups"], expectedGroups);
    EXPECT_EQ(doc["counts"], nlohmann::json::parse(R"([{"code":"missingTrustedTime","count":1},
                                                        {"code":"unknownCost","count":2}])"));

    const auto text = coverage(false, noScan());
    ASSERT_EQ(text.code, cli::kExitOK) << text.err;
    EXPECT_EQ(text.out.rfind("Issue", 0), 0u) << text.out;
    std::istringstream lines(text.out);
    std::string row;
    bool unpricedRow = false;
    while (std::getline(lines, row)) {
        if (row.rfind("unknownCost", 0) == 0) {
            unpricedRow = true;
            EXPECT_NE(row.find("Claude Code"), std::string::npos) << row;
            EXPECT_NE(row.find("No price-table match. Add an override in Prices."),
                      std::string::npos)
                << row;
        }
    }
    EXPECT_TRUE(unpricedRow) << text.out;
    EXPECT_NE(text.out.find("\nTotal: 3 open issues\n"), std::string::npos) << text.out;
}

TEST_F(CoverageCommandTest, TheReportLanguageAndFiltersApply) {
    writeDoubtfulUsage();
    ReportOptions chinese;
    chinese.language = "zh-Hans";
    const auto zh = coverage(false, chinese);
    ASSERT_EQ(zh.code, cli::kExitOK) << zh.err;
    EXPECT_NE(zh.out.find("价格表中没有匹配的模型。"), std::string::npos) << zh.out;
    EXPECT_NE(zh.out.find("合计：3 个未解决的问题"), std::string::npos) << zh.out;

    ReportOptions codex;
    codex.noScan = true;
    codex.sources = {"codex"};
    EXPECT_EQ(coverageJSON(codex), nlohmann::json::parse(R"({"groups":[],"counts":[]})"));
    ReportOptions acme;
    acme.noScan = true;
    acme.model = "acme-model-7";
    EXPECT_EQ(coverageJSON(acme)["counts"],
              nlohmann::json::parse(R"([{"code":"unknownCost","count":2}])"));

    ReportOptions unknown;
    unknown.sources = {"nope"};
    const auto refused = coverage(false, unknown);
    EXPECT_EQ(refused.code, cli::kExitUsage);
    EXPECT_NE(refused.err.find("unknown source \"nope\""), std::string::npos) << refused.err;
}

TEST_F(CoverageCommandTest, NothingOpenIsSaidPlainly) {
    home.write(".claude/projects/-w-app/a.jsonl",
               line("m1", "claude-sonnet-4-5-20250929", "2026-01-02T12:00:00Z", 1, 1));
    const auto o = coverage(false);
    ASSERT_EQ(o.code, cli::kExitOK) << o.err;
    EXPECT_EQ(o.out,
              "No open coverage issues: every usage record read so far was counted and priced.\n");
    EXPECT_EQ(coverageJSON(noScan()), nlohmann::json::parse(R"({"groups":[],"counts":[]})"));
}

TEST_F(CoverageCommandTest, EveryCodeIsExplainedInBothLanguages) {
    // No ledger is needed to look texts up: a report with only its language set.
    for (auto language : {AppLanguage::en, AppLanguage::zhHans}) {
        cli::Report report;
        report.language = language;
        std::set<std::string> texts;
        for (auto code : allCases<CoverageIssueCode>()) {
            const auto text = cli::coverageExplanation(report, code);
            EXPECT_EQ(text.find("coverage."), std::string::npos)
                << rawValue(code) << " has no text, only its key";
            EXPECT_GT(text.size(), 20u) << rawValue(code);
            texts.insert(text);
        }
        EXPECT_EQ(texts.size(), allCases<CoverageIssueCode>().size()) << "one text per code";
    }
}

}  // namespace
}  // namespace kestrel
