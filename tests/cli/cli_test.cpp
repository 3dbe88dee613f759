#include "cli/cli.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;

struct Run {
    int code = -1;
    std::string out;
    std::string err;
};

Run kestrel(std::vector<std::string> args) {
    std::ostringstream out, err;
    Run r;
    r.code = cli::run(args, out, err);
    r.out = out.str();
    r.err = err.str();
    return r;
}

std::string line(const std::string& id, const std::string& model, int64_t input, int64_t output,
                 const std::string& timestamp = "2026-01-02T03:04:05Z") {
    return R"({"type":"assistant","sessionId":"s","cwd":"/w/app","timestamp":")" + timestamp +
           R"(",)"
           R"("message":{"id":")" +
           id + R"(","model":")" + model + R"(","usage":{"input_tokens":)" + std::to_string(input) +
           R"(,"output_tokens":)" + std::to_string(output) + "}}}\n";
}

// A home with two transcripts: a message written on two lines (placeholder, then final), one
// message repeated in a second file (a resumed session), a user line and a broken line.
void writeHome(const TempDir& home, const std::string& timestamp = "2026-01-02T03:04:05Z") {
    home.write(".claude/projects/-w-app/a.jsonl",
               line("m1", "opus", 10, 1, timestamp) + line("m1", "opus", 10, 500, timestamp) +
                   R"({"type":"user","message":{"content":"hi"}})"
                   "\n" +
                   "{broken\n");
    home.write(".claude/projects/-w-app/b.jsonl",
               line("m1", "opus", 10, 500, timestamp) + line("m2", "haiku", 3, 7, timestamp));
}

// A second into today, local time, so the overview counts the fixture as today's.
std::string earlyToday() {
    const Calendar calendar = Calendar::current();
    return formatISO8601UTC(calendar.startOfDay(epochNow()) + 1);
}

TEST(Cli, SummaryScansAndCountsEachRequestOnceWithItsFinalUsage) {
    TempDir home, support;
    writeHome(home, earlyToday());
    const auto r = kestrel(
        {"--home", home.path().string(), "--support-dir", support.path().string(), "--json"});
    ASSERT_EQ(r.code, cli::kExitOK) << r.err;
    const auto doc = nlohmann::json::parse(r.out);
    EXPECT_EQ(doc["scan"]["files"], 2);
    EXPECT_EQ(doc["scan"]["events"], 4);
    EXPECT_EQ(doc["today"]["events"], 2);
    EXPECT_EQ(doc["today"]["inputUncached"], 13);
    EXPECT_EQ(doc["today"]["outputVisible"], 507);
    EXPECT_EQ(doc["today"]["totalTokens"], 520);
    EXPECT_EQ(doc["yesterday"]["events"], 0);
    EXPECT_EQ(doc["last30Days"], doc["today"]);
    ASSERT_EQ(doc["topModelsToday"].size(), 2u);
    EXPECT_EQ(doc["topModelsToday"][0]["model"], "opus");  // largest first
    EXPECT_EQ(doc["topModelsToday"][0]["totalTokens"], 510);
    ASSERT_EQ(doc["topSourcesToday"].size(), 1u);
    EXPECT_EQ(doc["topSourcesToday"][0]["source"], "claude");

    // A second run finds nothing new and shows the same ledger.
    const auto again = kestrel(
        {"--home", home.path().string(), "--support-dir", support.path().string(), "--json"});
    const auto second = nlohmann::json::parse(again.out);
    EXPECT_EQ(second["scan"]["files"], 0);
    EXPECT_FALSE(second["scan"]["changed"].get<bool>());
    EXPECT_EQ(second["today"], doc["today"]);
    EXPECT_EQ(second["heatmap"], doc["heatmap"]);
}

TEST(Cli, SummaryTablesAreAlignedAndNameTheHome) {
    TempDir home, support;
    writeHome(home, earlyToday());
    const auto r =
        kestrel({"--home", home.path().string(), "--support-dir", support.path().string()});
    ASSERT_EQ(r.code, cli::kExitOK) << r.err;
    EXPECT_NE(r.out.find(home.path().string()), std::string::npos);
    EXPECT_EQ(r.out.find("\x1b["), std::string::npos) << "no colours off a terminal";
    // Every row of a table ends its "Cost" column at the same place.
    const struct {
        const char* header;
        std::size_t rows;  // with the header
    } tables[] = {{"Period", 5}, {"Model", 3}, {"Agent", 2}};
    for (const auto& table : tables) {
        std::istringstream lines(r.out);
        std::string text;
        std::vector<std::size_t> ends;
        bool inside = false;
        while (std::getline(lines, text)) {
            inside = inside || text.rfind(table.header, 0) == 0;
            if (inside && text.empty()) {
                break;
            }
            if (inside) {
                ends.push_back(text.size());
            }
        }
        ASSERT_EQ(ends.size(), table.rows) << table.header << "\n" << r.out;
        for (auto end : ends) {
            EXPECT_EQ(end, ends[0]) << table.header;
        }
    }
}

TEST(Cli, EventsPagesTheLedgerNewestFirst) {
    TempDir home, support;
    writeHome(home);
    const auto r = kestrel({"events", "--home", home.path().string(), "--support-dir",
                            support.path().string(), "--json"});
    ASSERT_EQ(r.code, cli::kExitOK) << r.err;
    const auto doc = nlohmann::json::parse(r.out);
    // Four usage lines, two usages; both at one time, so the id breaks the tie.
    ASSERT_EQ(doc["entries"].size(), 2u);
    EXPECT_EQ(doc["entries"][0]["id"], "le:claude:m2");
    EXPECT_EQ(doc["entries"][1]["id"], "le:claude:m1");
    EXPECT_EQ(doc["entries"][1]["outputVisible"], 500);
    EXPECT_DOUBLE_EQ(doc["entries"][1]["occurredAt"].get<double>(), 1767323045.0);
    EXPECT_TRUE(doc["nextCursor"].is_null());

    const auto table = kestrel({"events", "--home", home.path().string(), "--support-dir",
                                support.path().string()});
    ASSERT_EQ(table.code, cli::kExitOK) << table.err;
    EXPECT_NE(table.out.find("Cache read"), std::string::npos) << table.out;
}

TEST(Cli, LinkedRootsAreReadOnce) {
    TempDir home;
    writeHome(home);
    std::filesystem::create_directories(home / ".config");
    std::filesystem::create_directory_symlink(home / ".claude", home / ".config/claude");
    TempDir support;
    const auto r = kestrel(
        {"--home", home.path().string(), "--support-dir", support.path().string(), "--json"});
    ASSERT_EQ(r.code, cli::kExitOK) << r.err;
    EXPECT_EQ(nlohmann::json::parse(r.out)["scan"]["files"], 2);
}

TEST(Cli, BadUsageExitsWithTwoAndSaysWhy) {
    TempDir home;
    const struct {
        std::vector<std::string> args;
        const char* message;
    } cases[] = {
        {{"events", "--home", home.path().string(), "--source", "nope"}, "unknown source \"nope\""},
        {{"--home", (home / "missing").string()}, "does not exist"},
        {{"--frobnicate"}, "--frobnicate"},
    };
    for (const auto& c : cases) {
        const auto r = kestrel(c.args);
        EXPECT_EQ(r.code, cli::kExitUsage) << c.message;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    }
}

TEST(Cli, HelpAndEmptyHomes) {
    const auto help = kestrel({"--help"});
    EXPECT_EQ(help.code, cli::kExitOK);
    EXPECT_NE(help.out.find("events"), std::string::npos);

    TempDir home, support;
    const auto none =
        kestrel({"--home", home.path().string(), "--support-dir", support.path().string()});
    EXPECT_EQ(none.code, cli::kExitOK) << none.err;
    EXPECT_NE(none.out.find("No usage found below"), std::string::npos) << none.out;
    EXPECT_NE(none.out.find(".codex"), std::string::npos) << "names where it looked";
}

}  // namespace
}  // namespace kestrel
