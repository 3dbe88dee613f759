// The smaller transcript readers: CodeBuddy/WorkBuddy, Every Code (through the Codex parser),
// Reasonix, the DeepSeek harness and the Roo Code / Kilo Code editor tasks.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "core/ledger/ingestor.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/model/event_id.hpp"
#include "core/model/privacy.hpp"
#include "core/sources/codex_parser.hpp"
#include "core/sources/transcripts/buddy_reader.hpp"
#include "core/sources/transcripts/dsh_reader.hpp"
#include "core/sources/transcripts/editor_tasks_reader.hpp"
#include "core/sources/transcripts/reasonix_reader.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/agent_corpus/corpus_writer.hpp"
#include "tools/agent_corpus/misc_corpus.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
using test_support::TempDir;

struct Read {
    IngestResult result;
    std::vector<UsageEvent> events;
};

// Runs the reader of `source` on one file, collecting what it streams.
Read readWith(AgentSource source, const fs::path& file,
              const std::optional<SourceCheckpoint>& checkpoint = std::nullopt) {
    SourceReadContext context;
    context.source = source;
    context.file = file;
    context.checkpoint = checkpoint;
    Read out;
    context.sink = [&](UsageEvent&& e) { out.events.push_back(std::move(e)); };
    auto result = SourceReaders::reader(source)->ingest(context);
    EXPECT_TRUE(result.has_value()) << (result ? "" : result.error().description());
    if (result) {
        out.result = std::move(*result);
    }
    return out;
}

std::vector<fs::path> discoverWith(AgentSource source, const fs::path& root) {
    std::vector<FileError> errors;
    auto files = SourceReaders::reader(source)->discover(root, &errors);
    EXPECT_TRUE(errors.empty());
    return files;
}

int64_t totalOutput(const UsageEvent& e) {
    return e.exclusive.outputVisible + e.exclusive.reasoning;
}

// ---- CodeBuddy / WorkBuddy ------------------------------------------------------------------

TEST(BuddyReader, EachReplyIsCountedOnceWhicheverUsageCopiesItCarries) {
    const corpus::BuddyUsage usage{5000, 3000, 700, 100};
    struct Case {
        AgentSource source;
        corpus::BuddyCopies copies;
        int64_t reasoning;  // only the camelCase copy names it separately
    };
    for (const Case& c : {Case{AgentSource::workbuddy, corpus::BuddyCopies::both, 0},
                          Case{AgentSource::workbuddy, corpus::BuddyCopies::messageOnly, 0},
                          Case{AgentSource::workbuddy, corpus::BuddyCopies::providerDataOnly, 100},
                          Case{AgentSource::codebuddy, corpus::BuddyCopies::both, 0},
                          Case{AgentSource::codebuddy, corpus::BuddyCopies::providerDataOnly, 0}}) {
        SCOPED_TRACE(std::string(rawValue(c.source)) + " copies " +
                     std::to_string(static_cast<int>(c.copies)));
        TempDir home;
        const fs::path file = home / "projects/-home-dev-app/s1.jsonl";
        corpus::writeFile(home.path(), "projects/-home-dev-app/s1.jsonl",
                          corpus::buddyRecord("u1", "s1", "message", 1787300000000) +
                              corpus::buddyReply("r1", "s1", "/home/dev/app", 1787300004000,
                                                 "hunyuan-turbos", usage, c.copies));
        const auto read = readWith(c.source, file);
        ASSERT_EQ(read.events.size(), 1u);
        const auto& e = read.events[0];
        EXPECT_EQ(e.source, c.source);
        EXPECT_EQ(e.exclusive.inputUncached, 2000);  // input includes the cache reads
        EXPECT_EQ(e.exclusive.cacheRead, 3000);
        EXPECT_EQ(totalOutput(e), 700);  // reasoning is inside output, never added to it
        EXPECT_EQ(e.exclusive.reasoning, c.reasoning);
        EXPECT_EQ(e.model, "hunyuan-turbos");
        EXPECT_EQ(e.sessionID, "s1");
        EXPECT_EQ(e.cwdHash, Privacy::cwdHash("/home/dev/app"));
        EXPECT_DOUBLE_EQ(e.occurredAt, 1787300004.0);
        EXPECT_EQ(e.timeQuality, ObservationTimeQuality::trusted);
        EXPECT_EQ(read.result.stats.withoutUsage, 1);
    }
}

TEST(BuddyReader, ARecordWrittenTwiceKeepsOneIdentity) {
    TempDir home;
    const auto reply = corpus::buddyReply("r1", "s1", "/a", 1787300004000, "m", {100, 0, 10, 0});
    corpus::writeFile(home.path(), "projects/x/s1.jsonl", reply + reply);
    const auto read = readWith(AgentSource::workbuddy, home / "projects/x/s1.jsonl");
    ASSERT_EQ(read.events.size(), 2u);
    EXPECT_EQ(read.events[0].id, read.events[1].id);  // the ledger keeps one
    EXPECT_EQ(read.events[0].id, EventID::local(AgentSource::workbuddy, "s1", "r1", ""));
}

TEST(BuddyReader, ReadsACorpusHomeAndResumesWithNewLinesOnly) {
    TempDir home;
    corpus::writeBuddyHome(home.path(), ".codebuddy", 3, 4, 7);
    const auto agent = AgentSource::codebuddy;
    const auto files = discoverWith(agent, home / ".codebuddy");
    ASSERT_EQ(files.size(), 3u);
    int64_t events = 0;
    std::optional<SourceCheckpoint> last;
    for (const auto& f : files) {
        auto read = readWith(agent, f);
        events += static_cast<int64_t>(read.events.size());
        EXPECT_EQ(read.result.stats.malformed, 0);
        last = read.result.checkpoint;
    }
    EXPECT_EQ(events, corpus::buddyEventCount(3, 4));

    corpus::appendFile(files.back().parent_path(), files.back().filename(),
                       corpus::buddyReply("late", "s9", "/a", 1787400000000, "m", {50, 0, 5, 0}));
    const auto again = readWith(agent, files.back(), last);
    ASSERT_EQ(again.events.size(), 1u);
    EXPECT_EQ(again.result.stats.lines, 1);
    EXPECT_EQ(again.events[0].exclusive.inputUncached, 50);
}

TEST(BuddyReader, DamagedRecordsAreSkippedAndCounted) {
    TempDir home;
    nlohmann::json wrongType = nlohmann::json::parse(corpus::buddyReply(
        "r2", "s1", "/a", 1787300005000, "m", {1, 0, 1, 0}, corpus::BuddyCopies::messageOnly));
    wrongType["message"]["usage"]["input_tokens"] = "1200";
    nlohmann::json huge = wrongType;
    huge["message"]["usage"]["input_tokens"] = 5'000'000'000'000LL;
    const auto good = corpus::buddyReply("r1", "s1", "/a", 1787300004000, "m", {100, 0, 10, 0});
    const auto partial = corpus::buddyReply("r3", "s1", "/a", 1787300006000, "m", {9, 0, 9, 0});
    corpus::writeFile(home.path(), "projects/x/s1.jsonl",
                      good + wrongType.dump() + "\n" + huge.dump() + "\n" + "{not json\n" +
                          partial.substr(0, partial.size() / 2));
    const auto read = readWith(AgentSource::workbuddy, home / "projects/x/s1.jsonl");
    ASSERT_EQ(read.events.size(), 1u);
    EXPECT_EQ(read.result.stats.malformed, 3);
    EXPECT_FALSE(read.result.formatChanged);  // one good record: damage, not a new layout
    // The half-written last line waits for the next scan.
    EXPECT_EQ(read.result.checkpoint.partialLineStart.has_value(), true);
}

TEST(BuddyReader, WorkBuddyTakesTheDirectoryFromItsDatabaseWhenARecordLacksIt) {
    TempDir home;
    {
        corpus::FixtureDB db(home / "workbuddy.db");
        db.exec("CREATE TABLE sessions (id TEXT PRIMARY KEY, cwd TEXT, title TEXT)");
        db.run("INSERT INTO sessions VALUES (?, ?, ?)",
               {std::string("s1"), std::string("/home/dev/from-db"), std::string("t")});
    }
    auto record = nlohmann::json::parse(
        corpus::buddyReply("r1", "s1", "", 1787300004000, "m", {100, 0, 10, 0}));
    record.erase("cwd");
    corpus::writeFile(home.path(), "projects/slug/s1.jsonl", record.dump() + "\n");
    const auto read = readWith(AgentSource::workbuddy, home / "projects/slug/s1.jsonl");
    ASSERT_EQ(read.events.size(), 1u);
    EXPECT_EQ(read.events[0].cwdHash, Privacy::cwdHash("/home/dev/from-db"));
}

// ---- Every Code ----------------------------------------------------------------------------

TEST(EveryCodeReader, RolloutsAreReadAsEveryCodeAndNeverCollideWithCodex) {
    TempDir home;
    corpus::writeEveryCodeHome(home.path(), 2, 3, 11);
    const auto agent = AgentSource::everyCode;
    const auto files = discoverWith(agent, home / ".code");
    ASSERT_EQ(files.size(), 2u);
    int64_t events = 0;
    for (const auto& f : files) {
        const auto read = readWith(agent, f);
        events += static_cast<int64_t>(read.events.size());
        EXPECT_EQ(read.result.checkpoint.source, AgentSource::everyCode);
        // The same file taken for Codex's own.
        const auto codex = readWith(AgentSource::codex, f);
        ASSERT_EQ(codex.events.size(), read.events.size());
        for (std::size_t i = 0; i < read.events.size(); ++i) {
            const auto& e = read.events[i];
            EXPECT_EQ(e.source, AgentSource::everyCode);
            EXPECT_TRUE(e.id.starts_with("every-code:")) << e.id;
            EXPECT_NE(e.id, codex.events[i].id);
            // The same counting rule as Codex: cached inside input.
            EXPECT_EQ(e.exclusive, codex.events[i].exclusive);
            EXPECT_EQ(e.model, "gpt-5");
        }
    }
    EXPECT_EQ(events, corpus::everyCodeEventCount(2, 3));
}

TEST(EveryCodeReader, ResumesAfterTheCheckpoint) {
    TempDir home;
    corpus::writeEveryCodeHome(home.path(), 1, 2, 3);
    const auto agent = AgentSource::everyCode;
    const auto file = discoverWith(agent, home / ".code").at(0);
    const auto first = readWith(agent, file);
    ASSERT_EQ(first.events.size(), 2u);
    corpus::appendFile(file.parent_path(), file.filename(),
                       corpus::everyCodeReport("2026-08-21T12:00:00.000Z", 9,
                                               first.events[0].providerInputTotal +
                                                   first.events[1].providerInputTotal + 1000,
                                               0, 1'000'000, "gpt-5"));
    const auto second = readWith(agent, file, first.result.checkpoint);
    ASSERT_EQ(second.events.size(), 1u);
    EXPECT_EQ(second.result.stats.lines, 1);
    EXPECT_EQ(second.events[0].source, AgentSource::everyCode);
}

TEST(EveryCodeReader, ARateLimitReadingBelongsToEveryCode) {
    TempDir home;
    const fs::path rel =
        "sessions/rollout-2026-08-21T08-00-00-0198c1a2-1111-7222-8333-444455556666.jsonl";
    nlohmann::json limits{
        {"primary", {{"used_percent", 12.5}, {"window_minutes", 300}, {"resets_at", 1787320000}}}};
    nlohmann::json payload{
        {"id", "4"},
        {"event_seq", 4},
        {"msg", {{"type", "token_count"}, {"info", nullptr}, {"rate_limits", limits}}}};
    corpus::writeFile(home.path(), rel,
                      corpus::everyCodeLine("2026-08-21T08:00:01.000Z", "event", payload.dump()));
    const auto read = readWith(AgentSource::everyCode, home / rel);
    ASSERT_TRUE(read.result.quota.has_value());
    EXPECT_EQ(read.result.quota->identity.source, AgentSource::everyCode);
    EXPECT_TRUE(read.events.empty());
}

// ---- Reasonix ------------------------------------------------------------------------------

TEST(ReasonixReader, CacheHitsAndMissesBecomeCacheReadAndUncachedInput) {
    struct Case {
        std::string line;
        int64_t uncached, cached, output;
    };
    nlohmann::json promptOnly{
        {"ts", 1787300000000},
        {"model", "deepseek-chat"},
        {"usage",
         {{"promptTokens", 900}, {"promptCacheHitTokens", 600}, {"completionTokens", 40}}}};
    nlohmann::json deep{{"ts", 1787300000000},
                        {"event",
                         {{"type", "done"},
                          {"model", "deepseek-reasoner"},
                          {"usage",
                           {{"promptTokens", 10},
                            {"promptCacheHitTokens", 0},
                            {"promptCacheMissTokens", 10},
                            {"completionTokens", 5}}}}}};
    const std::vector<Case> cases{
        {corpus::reasonixReply(1787300000000, "deepseek-chat", {700, 300, 50}, false), 300, 700,
         50},
        {corpus::reasonixReply(1787300000000, "deepseek-chat", {700, 300, 50}, true), 300, 700, 50},
        {promptOnly.dump() + "\n", 300, 600, 40},
        {deep.dump() + "\n", 10, 0, 5},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        TempDir home;
        corpus::writeFile(home.path(), "sessions/a.jsonl", c.line);
        const auto read = readWith(AgentSource::reasonix, home / "sessions/a.jsonl");
        ASSERT_EQ(read.events.size(), 1u);
        const auto& e = read.events[0];
        EXPECT_EQ(e.source, AgentSource::reasonix);
        EXPECT_EQ(e.provider, "deepseek");
        EXPECT_EQ(e.exclusive.inputUncached, c.uncached);
        EXPECT_EQ(e.exclusive.cacheRead, c.cached);
        EXPECT_EQ(e.exclusive.outputVisible, c.output);
        EXPECT_FALSE(e.model.empty());
        EXPECT_EQ(e.sessionID, "a");
    }
}

TEST(ReasonixReader, ReadsACorpusHomeSkipsDamageAndResumes) {
    TempDir home;
    corpus::writeReasonixHome(home.path(), 4, 3, 5);
    const auto agent = AgentSource::reasonix;
    const auto files = discoverWith(agent, home / ".reasonix");
    ASSERT_EQ(files.size(), 4u);
    int64_t events = 0;
    for (const auto& f : files) {
        events += static_cast<int64_t>(readWith(agent, f).events.size());
    }
    EXPECT_EQ(events, corpus::reasonixEventCount(4, 3));
    EXPECT_EQ(ReasonixReader::sessionIDFromName("x/session-1.events.jsonl"), "session-1");

    const auto file = files.front();
    const auto first = readWith(agent, file);
    auto wrong = nlohmann::json::parse(corpus::reasonixReply(1, "deepseek-chat", {1, 1, 1}, true));
    wrong["usage"]["completionTokens"] = nlohmann::json::array();
    corpus::appendFile(
        file.parent_path(), file.filename(),
        wrong.dump() + "\n" +
            corpus::reasonixReply(1787400000000, "deepseek-chat", {0, 20, 2}, false) +
            "{\"promptTokens\":");
    const auto second = readWith(agent, file, first.result.checkpoint);
    ASSERT_EQ(second.events.size(), 1u);
    EXPECT_EQ(second.events[0].exclusive.inputUncached, 20);
    EXPECT_EQ(second.result.stats.lines, 2);
    EXPECT_EQ(second.result.stats.malformed, 1);
}

// ---- DeepSeek harness ----------------------------------------------------------------------

TEST(DshReader, RunningTotalsBecomeDeltasAndARestartIsNeverNegative) {
    TempDir home;
    const fs::path rel = "profiles/work/sessions/s1.jsonl";
    corpus::writeFile(
        home.path(), rel,
        corpus::dshMeterRecord("s1", 1787300000000, "deepseek-chat", {100, 0, 0, 10}) +
            corpus::dshMeterRecord("s1", 1787300010000, "deepseek-chat", {250, 50, 5, 30}) +
            // unchanged: nothing new
            corpus::dshMeterRecord("s1", 1787300020000, "deepseek-chat", {250, 50, 5, 30}) +
            // the meter restarted
            corpus::dshMeterRecord("s1", 1787300030000, "deepseek-chat", {20, 0, 0, 2}) +
            corpus::dshMeterRecord("s1", 1787300040000, "deepseek-chat", {70, 10, 0, 12}));
    const auto read = readWith(AgentSource::deepseekHarness, home / rel);
    struct Want {
        int64_t uncached, cacheRead, cacheWrite, output;
    };
    const std::vector<Want> want{{100, 0, 0, 10}, {150, 50, 5, 20}, {50, 10, 0, 10}};
    ASSERT_EQ(read.events.size(), want.size());
    for (std::size_t i = 0; i < want.size(); ++i) {
        const auto& e = read.events[i];
        EXPECT_EQ(e.exclusive.inputUncached, want[i].uncached) << i;
        EXPECT_EQ(e.exclusive.cacheRead, want[i].cacheRead) << i;
        EXPECT_EQ(e.exclusive.cacheWrite, want[i].cacheWrite) << i;
        EXPECT_EQ(e.exclusive.outputVisible, want[i].output) << i;
        EXPECT_EQ(e.granularity, UsageGranularity::sessionAggregate);
        EXPECT_EQ(e.source, AgentSource::deepseekHarness);
        EXPECT_EQ(e.sessionID, "s1");
    }
    EXPECT_FALSE(read.result.formatChanged);
}

TEST(DshReader, ResumingCountsOnlyTheGrowthSinceTheLastReading) {
    TempDir home;
    corpus::writeDshHome(home.path(), 2, 2, 3, 13);
    const auto agent = AgentSource::deepseekHarness;
    const auto files = discoverWith(agent, home / ".dsh");
    ASSERT_EQ(files.size(), 4u);
    int64_t events = 0;
    for (const auto& f : files) {
        events += static_cast<int64_t>(readWith(agent, f).events.size());
    }
    EXPECT_EQ(events, corpus::dshEventCount(2, 2, 3));

    TempDir other;
    const fs::path rel = "s.jsonl";
    corpus::writeFile(other.path(), rel,
                      corpus::dshMeterRecord("s", 1, "deepseek-chat", {1000, 0, 0, 100}));
    const auto first = readWith(agent, other / rel);
    corpus::appendFile(other.path(), rel,
                       corpus::dshMeterRecord("s", 2, "deepseek-chat", {1400, 0, 0, 130}));
    const auto second = readWith(agent, other / rel, first.result.checkpoint);
    ASSERT_EQ(second.events.size(), 1u);
    EXPECT_EQ(second.events[0].exclusive.inputUncached, 400);
    EXPECT_EQ(second.events[0].exclusive.outputVisible, 30);

    // A checkpoint whose totals are unknown re-reads from the start instead of recounting.
    auto stranger = first.result.checkpoint;
    stranger.parserContext = "{}";
    const auto fresh = readWith(agent, other / rel, stranger);
    ASSERT_EQ(fresh.events.size(), 2u);
    EXPECT_EQ(fresh.events[0].id, first.events[0].id);
}

TEST(DshReader, FilesWithoutAMeterReportAChangedFormat) {
    struct Case {
        std::string text;
        bool formatChanged;
        int64_t malformed;
    };
    const std::vector<Case> cases{
        {R"({"kind":"message","text":"hi"})"
         "\n"
         R"({"kind":"message","text":"ok"})"
         "\n",
         true, 0},
        {R"({"tokenMeter":{"uncachedInputTokens":"12","outputTokens":1}})"
         "\n",
         true, 1},
        {"\n\n", false, 0},
        {corpus::dshMeterRecord("s", 1, "m", {5, 0, 0, 1}) + "{oops\n", false, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        TempDir home;
        corpus::writeFile(home.path(), "s.jsonl", c.text);
        const auto read = readWith(AgentSource::deepseekHarness, home / "s.jsonl");
        EXPECT_EQ(read.result.formatChanged, c.formatChanged);
        EXPECT_EQ(read.result.stats.malformed, c.malformed);
    }
}

// ---- Roo Code / Kilo Code ------------------------------------------------------------------

TEST(EditorTasksReader, UncachedInputFollowsTheProtocolRule) {
    struct Case {
        std::optional<std::string> protocol;
        std::string model;
        int64_t tokensIn, reads, writes, want;
    };
    const std::vector<Case> cases{
        {"anthropic", "claude-sonnet-4", 500, 4000, 100, 500},  // raw Anthropic input
        {"openai", "gpt-5", 5000, 4000, 100, 900},              // includes the cache
        {"openai", "gpt-5", 100, 4000, 100, 100},               // cannot include it
        {std::nullopt, "anthropic/claude-sonnet-4", 500, 4000, 0, 500},
        {std::nullopt, "deepseek-chat", 5000, 4000, 0, 1000},
        {std::nullopt, "", 5000, 5000, 0, 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(
            EditorTasksReader::uncachedInput(c.tokensIn, c.reads, c.writes, c.protocol, c.model),
            c.want)
            << c.protocol.value_or("-") << " " << c.model << " " << c.tokensIn;
    }
}

TEST(EditorTasksReader, ModelIsCarriedForwardAndCostKept) {
    TempDir home;
    const fs::path task = "tasks/t1";
    corpus::writeFile(
        home.path(), task / "ui_messages.json",
        corpus::editorUIMessages({{1787300001000, 5000, 100, 4000, 200, 0.25, "openai"},
                                  {1787300041000, 300, 50, 1000, 0, 0.5, "anthropic"},
                                  {1787300081000, 900, 70, 0, 0, 0.0, std::nullopt}}));
    corpus::writeFile(home.path(), task / "api_conversation_history.json",
                      corpus::editorHistory({{1787300000000, "anthropic/claude-sonnet-4"},
                                             {1787300040000, ""},
                                             {1787300080000, "openai/gpt-5"}},
                                            "/home/dev/site"));
    const auto agent = AgentSource::rooCode;
    EXPECT_EQ(SourceReaders::reader(agent)->kind, SourceReaderKind::store);
    const auto files = discoverWith(agent, home.path());
    ASSERT_EQ(files.size(), 1u);
    const auto read = readWith(agent, files[0]);
    ASSERT_EQ(read.events.size(), 3u);
    const std::vector<std::string> models{"anthropic/claude-sonnet-4", "anthropic/claude-sonnet-4",
                                          "openai/gpt-5"};
    const std::vector<int64_t> uncached{800, 300, 900};
    for (std::size_t i = 0; i < 3; ++i) {
        const auto& e = read.events[i];
        EXPECT_EQ(e.source, AgentSource::rooCode);
        EXPECT_EQ(e.model, models[i]);
        EXPECT_EQ(e.exclusive.inputUncached, uncached[i]) << i;
        EXPECT_EQ(e.sessionID, "t1");
        EXPECT_EQ(e.cwdHash, Privacy::cwdHash("/home/dev/site"));
    }
    EXPECT_EQ(read.events[0].exclusive.cacheRead, 4000);
    EXPECT_EQ(read.events[0].exclusive.cacheWrite, 200);
    EXPECT_EQ(read.events[0].id, EventID::local(AgentSource::rooCode, "t1", "1787300001000", ""));
    EXPECT_EQ(nlohmann::json::parse(*read.events[1].rawExtras)["costUSD"], 0.5);

    // Rewritten whole with one more request: the earlier ones keep their identities.
    corpus::writeFile(
        home.path(), task / "ui_messages.json",
        corpus::editorUIMessages({{1787300001000, 5000, 100, 4000, 200, 0.25, "openai"},
                                  {1787300041000, 300, 50, 1000, 0, 0.5, "anthropic"},
                                  {1787300081000, 900, 70, 0, 0, 0.0, std::nullopt},
                                  {1787300121000, 10, 1, 0, 0, 0.0, "openai"}}));
    const auto again = readWith(agent, files[0], read.result.checkpoint);
    ASSERT_EQ(again.events.size(), 4u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(again.events[i].id, read.events[i].id);
    }
}

TEST(EditorTasksReader, DamagedRequestsAreSkippedAndCounted) {
    auto messages = nlohmann::json::parse(
        corpus::editorUIMessages({{1787300001000, 5000, 100, 0, 0, 0.1, "openai"}}));
    nlohmann::json badType = messages[1];
    badType["text"] = R"({"tokensIn":"many","tokensOut":3})";
    nlohmann::json notJSON = messages[1];
    notJSON["text"] = "{\"tokensIn\":";
    nlohmann::json unanswered = messages[1];
    unanswered["text"] = R"({"request":"<task>x</task>"})";
    struct Case {
        nlohmann::json array;
        std::size_t events;
        int64_t malformed;
        bool formatChanged;
    };
    const std::vector<Case> cases{
        {nlohmann::json::array({messages[0], messages[1], badType, notJSON, 42}), 1, 3, false},
        {nlohmann::json::array({badType, notJSON}), 0, 2, true},
        {nlohmann::json::array({unanswered}), 0, 0, false},
        {nlohmann::json::object({{"tasks", 1}}), 0, 1, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.array.dump());
        TempDir home;
        corpus::writeFile(home.path(), "tasks/t/ui_messages.json", c.array.dump());
        const auto read = readWith(AgentSource::kiloCode, home / "tasks/t/ui_messages.json");
        EXPECT_EQ(read.events.size(), c.events);
        EXPECT_EQ(read.result.stats.malformed, c.malformed);
        EXPECT_EQ(read.result.formatChanged, c.formatChanged);
    }
    // Truncated while being rewritten: no events, nothing thrown.
    TempDir home;
    const auto text = messages.dump();
    corpus::writeFile(home.path(), "tasks/t/ui_messages.json", text.substr(0, text.size() - 5));
    EXPECT_TRUE(readWith(AgentSource::kiloCode, home / "tasks/t/ui_messages.json").events.empty());
}

TEST(EditorTasksReader, ReadsACorpusHomeForBothExtensions) {
    for (auto [source, extension] : {std::pair{AgentSource::rooCode, "rooveterinaryinc.roo-cline"},
                                     std::pair{AgentSource::kiloCode, "kilocode.kilo-code"}}) {
        TempDir home;
        corpus::writeEditorTasksHome(home.path(), extension, 3, 4, 17);
        const auto files =
            discoverWith(source, home / ".config/Code/User/globalStorage" / extension);
        ASSERT_EQ(files.size(), 3u);
        int64_t events = 0;
        for (const auto& f : files) {
            const auto read = readWith(source, f);
            events += static_cast<int64_t>(read.events.size());
            ASSERT_FALSE(read.events.empty());
            EXPECT_EQ(read.events.front().model, "anthropic/claude-sonnet-4");
            EXPECT_EQ(read.events.back().model, "openai/gpt-5");
        }
        EXPECT_EQ(events, corpus::editorTasksEventCount(3, 4));
    }
}

// ---- Through a scan ------------------------------------------------------------------------

// Every reader registered, found through the catalogue's roots, and its events accepted by the
// ledger once each: a second scan of unchanged files adds nothing.
TEST(MiscReadersScan, AHomeWithEveryAgentFillsTheLedgerOncePerRecord) {
    TempDir home, support;
    corpus::writeBuddyHome(home.path(), ".codebuddy", 2, 3, 1);
    corpus::writeBuddyHome(home.path(), ".workbuddy", 2, 2, 2);
    corpus::writeEveryCodeHome(home.path(), 2, 3, 3);
    corpus::writeReasonixHome(home.path(), 2, 3, 4);
    corpus::writeDshHome(home.path(), 1, 2, 3, 5);
    corpus::writeEditorTasksHome(home.path(), "rooveterinaryinc.roo-cline", 2, 3, 6);
    corpus::writeEditorTasksHome(home.path(), "kilocode.kilo-code", 1, 4, 7);
    const std::vector<std::pair<AgentSource, int64_t>> expected{
        {AgentSource::codebuddy, corpus::buddyEventCount(2, 3)},
        {AgentSource::workbuddy, corpus::buddyEventCount(2, 2)},
        {AgentSource::everyCode, corpus::everyCodeEventCount(2, 3)},
        {AgentSource::reasonix, corpus::reasonixEventCount(2, 3)},
        {AgentSource::deepseekHarness, corpus::dshEventCount(1, 2, 3)},
        {AgentSource::rooCode, corpus::editorTasksEventCount(2, 3)},
        {AgentSource::kiloCode, corpus::editorTasksEventCount(1, 4)},
    };
    UsageStore store(support.path());
    Ingestor ingestor(store, PriceTable::bundled(), nullptr);
    std::set<AgentSource> sources;
    for (const auto& [source, count] : expected) {
        sources.insert(source);
    }
    for (int pass = 0; pass < 2; ++pass) {
        ingestor.scan(home.path(), AppSettings{}, sources, false);
        for (const auto& [source, count] : expected) {
            SCOPED_TRACE(std::string(rawValue(source)) + " pass " + std::to_string(pass));
            EXPECT_EQ(ingestor.status(source), SourceStatus::healthy);
            LedgerQuery q;
            q.source = source;
            EXPECT_EQ(store.ledgerEventCount(q), count);
        }
    }
    // Codex's own usage is untouched by the fork's rollouts.
    LedgerQuery codex;
    codex.source = AgentSource::codex;
    EXPECT_EQ(store.ledgerEventCount(codex), 0);
}

}  // namespace
}  // namespace kestrel
