// The pieces every agent reader stands on: the read-only database layer, running totals between
// scans, the event builder and the shared JSON-lines loop.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>

#include "core/model/privacy.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/line_source.hpp"
#include "core/sources/readonly_sqlite.hpp"
#include "core/sources/sqlite_cumulative.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/agent_corpus/corpus_writer.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;

struct FileState {
    std::string bytes;
    int64_t mtimeNs = 0;
    bool operator==(const FileState&) const = default;
};

FileState stateOf(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    FileState s{std::string(std::istreambuf_iterator<char>(in), {}), 0};
    struct stat st {};
    ::stat(path.c_str(), &st);
    s.mtimeNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec;
    return s;
}

TEST(ReadonlySQLiteTest, ReadsCellsOfEveryKindAndOptionalColumnsWithoutWriting) {
    TempDir dir;
    const auto path = dir / "agent.db";
    {
        corpus::FixtureDB db(path);
        db.exec("CREATE TABLE t(id INTEGER PRIMARY KEY, n INTEGER, r REAL, s TEXT, b BLOB);");
        db.run("INSERT INTO t(n, r, s, b) VALUES(?, ?, ?, ?)",
               {int64_t{42}, 2.5, std::string("7"), std::vector<unsigned char>{'h', 'i'}});
        db.run("INSERT INTO t(n, r, s, b) VALUES(?, ?, ?, ?)",
               {std::monostate{}, 3.0, std::string("x"), std::monostate{}});
    }
    const auto before = stateOf(path);

    ReadonlySQLite db(path);
    EXPECT_TRUE(db.hasTable("t"));
    EXPECT_FALSE(db.hasTable("missing"));
    const auto present = db.columns("t");
    EXPECT_EQ(present, (std::set<std::string, std::less<>>{"id", "n", "r", "s", "b"}));
    EXPECT_EQ(db.columnOrNull(present, "n"), "n");
    EXPECT_EQ(db.columnOrNull(present, "directory", "s.directory"), "NULL AS directory");
    EXPECT_EQ(db.columnOrNull(present, "s", "t.s", "label"), "t.s AS label");

    const auto rows = db.query("SELECT n, r, s, b, " + db.columnOrNull(present, "gone") +
                                   " FROM t WHERE id >= ? ORDER BY id",
                               {int64_t{1}});
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0]["n"].integer(), 42);
    EXPECT_EQ(rows[0]["r"].real(), 2.5);
    EXPECT_EQ(rows[0]["r"].integer(), std::nullopt) << "2.5 is not a count";
    EXPECT_EQ(rows[0]["s"].integer(), 7) << "numbers stored as text still read";
    EXPECT_EQ(rows[0]["b"].text(), "hi");
    EXPECT_TRUE(rows[0]["gone"].isNull());
    EXPECT_TRUE(rows[0]["no such column"].isNull());
    EXPECT_TRUE(rows[1]["n"].isNull());
    EXPECT_EQ(rows[1]["r"].integer(), 3);
    EXPECT_EQ(rows[1]["s"].integer(), std::nullopt);

    // The connection refuses to write, and reading changed nothing on disk.
    EXPECT_THROW(db.query("INSERT INTO t(n) VALUES(1)"), SQLiteUsageError);
    EXPECT_THROW(db.query("SELECT nope FROM t"), SQLiteUsageError);
    db.close();
    EXPECT_EQ(stateOf(path), before);
}

TEST(ReadonlySQLiteTest, MissingForeignAndLockedStoresFailWithReasons) {
    TempDir dir;
    try {
        ReadonlySQLite db(dir / "absent.db");
        FAIL() << "opened a missing database";
    } catch (const SQLiteUsageError& e) {
        EXPECT_EQ(e.kind(), SQLiteUsageError::Kind::open);
        EXPECT_TRUE(std::string(e.what()).starts_with("open failed")) << e.what();
    }

    corpus::writeFile(dir.path(), "notes.db", "these are notes, not a database\n");
    ReadonlySQLite foreign(dir / "notes.db");
    EXPECT_THROW(foreign.hasTable("t"), SQLiteUsageError);

    // An agent holding a write lock: the read gives up after the busy timeout instead of hanging.
    const auto path = dir / "busy.db";
    corpus::FixtureDB writer(path);
    writer.exec("PRAGMA journal_mode=DELETE; CREATE TABLE t(x); INSERT INTO t VALUES(1);");
    writer.exec("BEGIN EXCLUSIVE; INSERT INTO t VALUES(2);");
    ReadonlySQLite reader(path);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(reader.query("SELECT x FROM t"), SQLiteUsageError);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(ReadonlySQLite::kBusyTimeoutMs - 20));
    EXPECT_LT(waited, std::chrono::seconds(3));
    writer.exec("COMMIT;");
    EXPECT_EQ(reader.query("SELECT x FROM t").size(), 2u);
}

TEST(SQLiteCumulativeContextTest, YieldsWhatWasAddedSinceTheLastTotals) {
    SQLiteCumulativeContext context;
    const TokenSnapshot first{100, 10, 5, 20, 0, 0};
    EXPECT_EQ(context.advance("s1", first, 1), first) << "a new key yields its totals";
    EXPECT_EQ(context.advance("s1", first, 2), std::nullopt) << "unchanged";
    const auto grown = context.advance("s1", TokenSnapshot{150, 12, 5, 30, 0, 0}, 3);
    EXPECT_EQ(grown, (TokenSnapshot{50, 2, 0, 10, 0, 0}));
    // Reset by the agent: no negative usage; the next growth counts from the new totals.
    EXPECT_EQ(context.advance("s1", TokenSnapshot{40, 0, 0, 5, 0, 0}, 4), std::nullopt);
    EXPECT_EQ(context.advance("s1", TokenSnapshot{60, 0, 0, 9, 0, 0}, 5),
              (TokenSnapshot{20, 0, 0, 4, 0, 0}));
    EXPECT_EQ(context.advance("empty", TokenSnapshot{}, 6), std::nullopt);

    const auto decoded = SQLiteCumulativeContext::decode(context.encode());
    EXPECT_EQ(decoded, context);
    EXPECT_EQ(decoded.entries.at("s1").sequence, 5);
    for (const char* text : {"", "not json", "[]", R"({"entries":{"k":{"snapshot":1}}})"}) {
        EXPECT_TRUE(SQLiteCumulativeContext::decode(text).entries.empty()) << text;
    }
}

// The reader's event carries everything the record says, project label included, and no
// price: the ledger side applies the user's choices (see event_finishing_test).
TEST(EventDraftTest, BuildsUnpricedEventsWithTheSourcesTokenRule) {
    EventDraft draft;
    draft.source = AgentSource::codex;  // subset family: cached inside input, reasoning in output
    draft.id = "codex:s:1";
    draft.occurredAt = 1'767'323'045;
    draft.model = "gpt-5";
    draft.sessionID = "s";
    draft.cwd = "/home/u/work/app";
    draft.input = 1000;
    draft.cachedInput = 400;
    draft.output = 300;
    draft.reasoning = 100;

    const auto e = buildEvent(draft);
    EXPECT_EQ(e.provider, "openai");
    EXPECT_EQ(e.exclusive.inputUncached, 600);
    EXPECT_EQ(e.exclusive.cacheRead, 400);
    EXPECT_EQ(e.exclusive.outputVisible, 200);
    EXPECT_EQ(e.exclusive.reasoning, 100);
    EXPECT_EQ(e.promptTokens, 1000);
    EXPECT_EQ(e.projectDisplayName, "app");
    EXPECT_EQ(e.cwdHash, Privacy::cwdHash("/home/u/work/app"));
    EXPECT_FALSE(e.estimatedCostUSDMicros.has_value());
    EXPECT_EQ(e.costSource, CostSource::unknown);

    draft.cwd.clear();
    draft.projectName = "named\xff";
    draft.rawExtras = R"({"costUSD":0.5})";
    draft.model = "claude\xff-x";
    const auto named = buildEvent(draft);
    EXPECT_FALSE(named.cwdHash);
    EXPECT_EQ(named.projectDisplayName, "named\xEF\xBF\xBD") << "bad UTF-8 replaced";
    EXPECT_EQ(named.model, "claude\xEF\xBF\xBD-x");
    EXPECT_EQ(named.rawExtras, draft.rawExtras) << "the agent's cost waits for pricing";
    EXPECT_FALSE(named.estimatedCostUSDMicros.has_value());
}

TEST(EventDraftTest, ProviderFollowsTheModelName) {
    const struct {
        const char* model;
        const char* provider;
    } cases[] = {{"claude-sonnet-4-5", "anthropic"},
                 {"us.anthropic.claude-x-v1", "anthropic"},
                 {"gpt-5-codex", "openai"},
                 {"o3-mini", "openai"},
                 {"gemini-2.5-pro", "google"},
                 {"openrouter/google/gemini-3", "google"},
                 {"kimi-for-coding", "moonshot"},
                 {"deepseek-chat", "deepseek"},
                 {"grok-code-fast", "xai"},
                 {"GLM-4.6", "zhipu"},
                 {"llama3", "unknown"},
                 {"", "unknown"}};
    for (const auto& c : cases) {
        EXPECT_EQ(providerForModel(c.model), c.provider) << c.model;
    }
}

TEST(LineSourceTest, ResumesAtTheOffsetAndCountsWhatTheParserMadeOfEachLine) {
    TempDir dir;
    corpus::writeFile(dir.path(), "s.jsonl", "usage\nother\n\nbroken\nusage\npartial");
    const auto parse = [](std::string_view line, int64_t) {
        if (line.empty()) {
            return LineSource::LineKind::blank;
        }
        if (line == "usage") {
            return LineSource::LineKind::usage;
        }
        return line == "broken" ? LineSource::LineKind::malformed : LineSource::LineKind::noUsage;
    };
    auto first = LineSource::read(AgentSource::pi, 3, dir / "s.jsonl", std::nullopt, parse);
    ASSERT_TRUE(first) << first.error().description();
    EXPECT_EQ(first->stats.lines, 5);
    EXPECT_EQ(first->stats.malformed, 1);
    EXPECT_EQ(first->stats.withoutUsage, 1);
    EXPECT_EQ(first->checkpoint.byteOffset, 26);
    EXPECT_EQ(first->checkpoint.partialLineStart, 26);
    EXPECT_EQ(first->checkpoint.parserVersion, 3);
    EXPECT_EQ(first->checkpoint.source, AgentSource::pi);
    EXPECT_FALSE(first->formatChanged);

    first->checkpoint.parserContext = "kept";
    corpus::appendFile(dir.path(), "s.jsonl", "\nusage\n");
    int seen = 0;
    const auto next = LineSource::read(AgentSource::pi, 3, dir / "s.jsonl", first->checkpoint,
                                       [&](std::string_view line, int64_t offset) {
                                           ++seen;
                                           EXPECT_GE(offset, 26);
                                           return parse(line, offset);
                                       });
    ASSERT_TRUE(next);
    EXPECT_EQ(seen, 2) << "only the completed line and the new one";
    EXPECT_EQ(next->checkpoint.parserContext, "kept");

    // A whole file of usage records none of which could be read has changed format.
    corpus::writeFile(dir.path(), "odd.jsonl", "a\nb\n");
    const auto odd = LineSource::read(
        AgentSource::pi, 3, dir / "odd.jsonl", std::nullopt,
        [](std::string_view, int64_t) { return LineSource::LineKind::unreadableUsage; });
    ASSERT_TRUE(odd);
    EXPECT_TRUE(odd->formatChanged);
    EXPECT_FALSE(LineSource::read(AgentSource::pi, 3, dir / "gone.jsonl", std::nullopt, parse));
}

TEST(LineSourceTest, SmallFilesAreReadWholeOrRefusedWithTheCause) {
    TempDir dir;
    corpus::writeFile(dir.path(), "a.json", R"({"a":1})");
    EXPECT_EQ(LineSource::readSmallFile(dir / "a.json", 100), R"({"a":1})");
    const auto big = LineSource::readSmallFile(dir / "a.json", 3);
    ASSERT_FALSE(big);
    EXPECT_NE(big.error().description().find("larger than 3 bytes"), std::string::npos);
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    EXPECT_FALSE(LineSource::readSmallFile(dir / "fifo", 100)) << "a FIFO never stalls a scan";
    EXPECT_FALSE(LineSource::readSmallFile(dir.path(), 100));
}

}  // namespace
}  // namespace kestrel
