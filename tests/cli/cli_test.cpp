#include "cli/cli.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

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

std::string line(const std::string& id, const std::string& model, int64_t input, int64_t output) {
    return R"({"type":"assistant","sessionId":"s","cwd":"/w/app","timestamp":"2026-01-02T03:04:05Z",)"
           R"("message":{"id":")" +
           id + R"(","model":")" + model + R"(","usage":{"input_tokens":)" + std::to_string(input) +
           R"(,"output_tokens":)" + std::to_string(output) + "}}}\n";
}

// A home with two transcripts: a message written on two lines (placeholder, then final), one
// message repeated in a second file (a resumed session), a user line and a broken line.
void writeHome(const TempDir& home) {
    home.write(".claude/projects/-w-app/a.jsonl",
               line("m1", "opus", 10, 1) + line("m1", "opus", 10, 500) +
                   R"({"type":"user","message":{"content":"hi"}})"
                   "\n" +
                   "{broken\n");
    home.write(".claude/projects/-w-app/b.jsonl",
               line("m1", "opus", 10, 500) + line("m2", "haiku", 3, 7));
}

TEST(Cli, SummaryScansAndCountsEachRequestOnceWithItsFinalUsage) {
    TempDir home, support;
    writeHome(home);
    const auto r = kestrel(
        {"--home", home.path().string(), "--support-dir", support.path().string(), "--json"});
    ASSERT_EQ(r.code, cli::kExitOK) << r.err;
    const auto doc = nlohmann::json::parse(r.out);
    EXPECT_EQ(doc["scan"]["files"], 2);
    EXPECT_EQ(doc["scan"]["events"], 4);
    EXPECT_EQ(doc["allTime"]["events"], 2);
    EXPECT_EQ(doc["allTime"]["inputUncached"], 13);
    EXPECT_EQ(doc["allTime"]["outputVisible"], 507);
    EXPECT_EQ(doc["allTime"]["totalTokens"], 520);
    EXPECT_EQ(doc["today"]["events"], 0);  // the fixture's messages are from January 2026
    ASSERT_EQ(doc["models"].size(), 2u);
    EXPECT_EQ(doc["models"][0]["model"], "opus");  // largest first
    EXPECT_EQ(doc["models"][0]["totalTokens"], 510);
    ASSERT_EQ(doc["sources"].size(), 1u);
    EXPECT_EQ(doc["sources"][0]["source"], "claude");

    // A second run finds nothing new and shows the same ledger.
    const auto again = kestrel(
        {"--home", home.path().string(), "--support-dir", support.path().string(), "--json"});
    const auto second = nlohmann::json::parse(again.out);
    EXPECT_EQ(second["scan"]["files"], 0);
    EXPECT_FALSE(second["scan"]["changed"].get<bool>());
    EXPECT_EQ(second["allTime"], doc["allTime"]);
}

TEST(Cli, SummaryTablesAreAlignedAndNameTheHome) {
    TempDir home, support;
    writeHome(home);
    const auto r =
        kestrel({"--home", home.path().string(), "--support-dir", support.path().string()});
    ASSERT_EQ(r.code, cli::kExitOK) << r.err;
    EXPECT_NE(r.out.find(home.path().string()), std::string::npos);
    EXPECT_EQ(r.out.find("\x1b["), std::string::npos) << "no colours off a terminal";
    // Every row of the model table ends its "Cost" column at the same place.
    std::istringstream lines(r.out);
    std::string text;
    std::vector<std::size_t> ends;
    bool inModels = false;
    while (std::getline(lines, text)) {
        if (text.rfind("Model", 0) == 0) {
            inModels = true;
        }
        if (inModels && text.empty()) {
            break;
        }
        if (inModels) {
            ends.push_back(text.size());
        }
    }
    ASSERT_EQ(ends.size(), 3u);  // header, two models
    for (auto end : ends) {
        EXPECT_EQ(end, ends[0]);
    }
}

TEST(Cli, EventsJsonPrintsOneObjectPerUsageLineAndCountsOnStderr) {
    TempDir home;
    writeHome(home);
    const auto r = kestrel({"events", "--home", home.path().string(), "--json"});
    ASSERT_EQ(r.code, cli::kExitOK) << r.err;
    std::istringstream lines(r.out);
    std::string text;
    std::vector<nlohmann::json> events;
    while (std::getline(lines, text)) {
        events.push_back(nlohmann::json::parse(text));
    }
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0]["id"], "claude:m1");
    EXPECT_EQ(events[0]["exclusive"]["outputVisible"], 1);
    EXPECT_EQ(events[1]["raw"]["output"], 500);
    EXPECT_DOUBLE_EQ(events[0]["occurredAt"].get<double>(), 1767323045.0);
    EXPECT_EQ(events[0]["source"], "claude");
    EXPECT_TRUE(events[0]["estimatedCostUSDMicros"].is_null());
    EXPECT_EQ(r.err, "2 files, 6 lines, 4 events, 1 malformed line skipped\n");
}

TEST(Cli, EventsTableEndsWithTheCounts) {
    TempDir home;
    writeHome(home);
    const auto r = kestrel({"events", "--home", home.path().string(), "--source", "claude"});
    ASSERT_EQ(r.code, cli::kExitOK) << r.err;
    EXPECT_NE(r.out.find("Cache read"), std::string::npos);
    EXPECT_NE(r.out.find("2 files, 6 lines, 4 events, 1 malformed line skipped\n"),
              std::string::npos);
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
        {{"events", "--home", home.path().string(), "--source", "codex"}, "not supported yet"},
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
