// A transcript line of 50 MB (an answer that quotes a whole generated file, say) is usage like any
// other: the scan counts it, and the lines around it, once.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "core/ledger/usage_store.hpp"
#include "tests/support/command_run.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

std::string assistant(const std::string& id, int64_t output, const std::string& text) {
    return nlohmann::json{
               {"type", "assistant"},
               {"sessionId", "s1"},
               {"timestamp", "2026-03-02T10:00:00Z"},
               {"message",
                {{"id", id},
                 {"model", "claude-sonnet-4-5-20250929"},
                 {"content", nlohmann::json::array({{{"type", "text"}, {"text", text}}})},
                 {"usage", {{"input_tokens", 10}, {"output_tokens", output}}}}}}
               .dump() +
           "\n";
}

TEST(LongLineScan, AFiftyMegabyteLineIsReadNotSkipped) {
    test_support::TempDir home, support;
    const std::string huge(50u << 20, 'x');
    home.write(
        ".claude/projects/p/s1.jsonl",
        assistant("m1", 1, "before") + assistant("m2", 2, huge) + assistant("m3", 4, "after"));

    for (int pass = 0; pass < 2; ++pass) {
        const auto scan = test_support::runKestrel({"scan"}, home.path(), support.path());
        ASSERT_EQ(scan.code, 0) << scan.err;
        UsageStore store(support.path());
        const auto summary = store.ledgerSummariesBySource({});
        ASSERT_EQ(summary.size(), 1u) << "pass " << pass;
        EXPECT_EQ(summary.begin()->second.eventCount, 3) << "pass " << pass;
        EXPECT_EQ(summary.begin()->second.outputVisible, 7) << "pass " << pass;
    }
}

}  // namespace
}  // namespace kestrel
