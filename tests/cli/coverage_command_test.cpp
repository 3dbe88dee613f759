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
};

TEST_F(CoverageCommandTest, GroupsSayWhatTheIssueMeansInTheReportLanguageAndFiltersApply) {
    // The transcripts plus a second unpriced usage and one whose time cannot be read.
    writeTranscripts();
    home.write(".claude/projects/-w-app/c.jsonl",
               line("m8", "acme-model-7", "2026-01-06T12:00:00Z", 1, 1) +
                   line("m9", "claude-sonnet-4-5-20250929", "yesterday-ish", 1, 1));
    const auto doc = coverageJSON();
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
    const auto at = text.out.find("\nunknownCost ");
    ASSERT_NE(at, std::string::npos) << text.out;
    const auto row = text.out.substr(at, text.out.find('\n', at + 1) - at);
    EXPECT_NE(row.find("Claude Code"), std::string::npos) << row;
    EXPECT_NE(row.find("No price-table match. Add an override in Prices."), std::string::npos)
        << row;
    EXPECT_TRUE(text.out.ends_with("\nTotal: 3 open issues\n")) << text.out;

    ReportOptions chinese = noScan();
    chinese.language = "zh-Hans";
    const auto zh = coverage(false, chinese);
    ASSERT_EQ(zh.code, cli::kExitOK) << zh.err;
    EXPECT_NE(zh.out.find("价格表中没有匹配的模型。"), std::string::npos) << zh.out;
    EXPECT_NE(zh.out.find("合计：3 个未解决的问题"), std::string::npos) << zh.out;

    // Nothing open for the agent asked about is said plainly.
    ReportOptions codex = noScan();
    codex.sources = {"codex"};
    EXPECT_EQ(coverageJSON(codex), nlohmann::json::parse(R"({"groups":[],"counts":[]})"));
    EXPECT_EQ(coverage(false, codex).out,
              "No open coverage issues: every usage record read so far was counted and priced.\n");
    ReportOptions acme = noScan();
    acme.model = "acme-model-7";
    EXPECT_EQ(coverageJSON(acme)["counts"],
              nlohmann::json::parse(R"([{"code":"unknownCost","count":2}])"));

    ReportOptions unknown;
    unknown.sources = {"nope"};
    const auto refused = coverage(false, unknown);
    EXPECT_EQ(refused.code, cli::kExitUsage);
    EXPECT_NE(refused.err.find("unknown source \"nope\""), std::string::npos) << refused.err;
}

TEST_F(CoverageCommandTest, EveryCodeIsExplained) {
    // English only: the catalogue's own test holds the other language to the same keys. No ledger
    // is needed to look texts up: a report with only its language set.
    cli::Report report;
    report.language = AppLanguage::en;
    std::set<std::string> texts;
    for (auto code : allCases<CoverageIssueCode>()) {
        const auto text = cli::coverageExplanation(report, code);
        EXPECT_EQ(text.find("coverage."), std::string::npos) << rawValue(code) << " has only a key";
        EXPECT_GT(text.size(), 20u) << rawValue(code);
        texts.insert(text);
    }
    EXPECT_EQ(texts.size(), allCases<CoverageIssueCode>().size()) << "one text per code";
}

}  // namespace
}  // namespace kestrel
