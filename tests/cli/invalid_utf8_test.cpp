// Bytes that are not UTF-8 in the text fields of a transcript (model, working directory, session,
// the project folder's name): the scan keeps the usage, the ledger holds valid UTF-8 only, and
// every report prints valid UTF-8 (JSON that parses) whatever the agent wrote.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "core/ledger/usage_store.hpp"
#include "core/sources/utf8.hpp"
#include "tests/support/command_run.hpp"
#include "tests/support/ledger_connection.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

// Every text value in every table of the ledger at `support`.
std::vector<std::string> ledgerTexts(const std::filesystem::path& support) {
    test_support::LedgerConnection db(support / UsageStore::kFileName);
    std::vector<std::string> tables, texts;
    sqlite::Statement list(db.get(), "SELECT name FROM sqlite_master WHERE type = 'table'");
    while (list.step()) {
        tables.push_back(list.text(0));
    }
    for (const auto& table : tables) {
        sqlite::Statement rows(db.get(), "SELECT * FROM \"" + table + "\"");
        while (rows.step()) {
            for (int c = 0; c < sqlite3_column_count(rows.handle()); ++c) {
                if (sqlite3_column_type(rows.handle(), c) == SQLITE_TEXT) {
                    texts.push_back(rows.text(c));
                }
            }
        }
    }
    return texts;
}

struct Field {
    const char* name;
    std::string model = "claude-sonnet-4-5-20250929";
    std::string cwd = "/home/u/app";
    std::string session = "s1";
    std::string folder = "-home-u-app";
};

std::string transcriptLine(const Field& f, const std::string& id) {
    // Written by hand: a JSON library would refuse to write these bytes.
    return R"({"type":"assistant","sessionId":")" + f.session + R"(","cwd":")" + f.cwd +
           R"(","timestamp":"2026-03-02T10:00:00Z","message":{"id":")" + id +
           R"(","model":")" + f.model +
           R"(","usage":{"input_tokens":10,"output_tokens":3}}})" + "\n";
}

TEST(InvalidUtf8, EveryTextFieldIsStoredAndPrintedAsValidUtf8) {
    // A lone continuation byte, a sequence cut short, an overlong encoding and a surrogate.
    const std::vector<std::string> damage{"\x80", "\xe2\x82", "\xc0\xaf", "\xed\xa0\x80", "\xff"};
    std::vector<Field> cases;
    for (const auto& bad : damage) {
        Field model{"model"}, cwd{"cwd"}, session{"session"}, folder{"project folder"};
        model.model = "claude-" + bad + "sonnet";
        cwd.cwd = "/home/u/" + bad + "app";
        session.session = "s" + bad + "1";
        folder.folder = "-home-u-" + bad + "app";
        cases.insert(cases.end(), {model, cwd, session, folder});
    }
    for (const auto& f : cases) {
        SCOPED_TRACE(f.name);
        test_support::TempDir home, support;
        home.write(".claude/projects/" + f.folder + "/s1.jsonl",
                   transcriptLine(f, "m1") + transcriptLine(f, "m2"));
        const auto scan = test_support::runKestrel({"scan"}, home.path(), support.path());
        ASSERT_EQ(scan.code, 0) << scan.err;
        {
            UsageStore store(support.path());
            const auto summary = store.ledgerSummariesBySource({});
            ASSERT_EQ(summary.size(), 1u);
            EXPECT_EQ(summary.begin()->second.eventCount, 2) << "the usage is kept";
        }
        // Every text column of every ledger table, but for the files' own paths: those identify
        // the file a checkpoint belongs to and must stay the bytes the file system has.
        const auto texts = ledgerTexts(support.path());
        EXPECT_FALSE(texts.empty());
        for (const auto& t : texts) {
            if (!t.starts_with(home.path().string())) {
                EXPECT_TRUE(utf8::isValid(t)) << testing::PrintToString(t);
            }
        }
        for (const auto& command : {"events", "sessions", "projects", "models", "daily", "status", "coverage"}) {
            for (const bool json : {false, true}) {
                std::vector<std::string> args{command, "--no-scan"};
                if (json) {
                    args.push_back("--json");
                }
                const auto o = test_support::runKestrel(args, home.path(), support.path());
                EXPECT_EQ(o.code, 0) << command << ": " << o.err;
                EXPECT_TRUE(utf8::isValid(o.out)) << command << (json ? " --json" : "");
                if (json) {
                    EXPECT_TRUE(nlohmann::json::accept(o.out)) << command;
                }
            }
        }
    }
}

}  // namespace
}  // namespace kestrel
