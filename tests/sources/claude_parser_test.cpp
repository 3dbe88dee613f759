#include "core/sources/claude_parser.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "core/ledger/event_finishing.hpp"
#include "core/model/privacy.hpp"
#include "core/sources/jsonl.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;

// One assistant line as the agent writes it; `extra` is spliced into the top-level object.
std::string assistantLine(const std::string& id, int64_t output, const std::string& extra = "",
                          const std::string& usageExtra = "") {
    return R"({"type":"assistant","sessionId":"sess-1","cwd":"/home/u/app",)"
           R"("timestamp":"2026-08-21T10:15:30.123Z",)" +
           extra + R"("message":{"id":")" + id +
           R"(","model":"claude-sonnet-4-5-20250929","role":"assistant",)"
           R"("content":[{"type":"text","text":"ok"}],"usage":{"input_tokens":4,)"
           R"("cache_creation_input_tokens":1200,"cache_read_input_tokens":45000,"output_tokens":)" +
           std::to_string(output) + usageExtra + "}}}\n";
}

std::expected<IngestResult, FileError> read(const std::filesystem::path& file,
                                            std::optional<SourceCheckpoint> checkpoint = {}) {
    SourceReadContext context;
    context.file = file;
    context.checkpoint = std::move(checkpoint);
    return SourceReaders::collect(ClaudeParser::ingest, std::move(context));
}

IngestResult ingestFile(const std::filesystem::path& file,
                        const std::optional<SourceCheckpoint>& checkpoint = std::nullopt) {
    auto result = read(file, checkpoint);
    EXPECT_TRUE(result.has_value()) << (result ? "" : result.error().description());
    return result ? *result : IngestResult{};
}

TEST(ClaudeProjectKey, FollowsTheProjectsFolderOrTheParent) {
    const struct {
        const char* path;
        const char* key;
    } cases[] = {
        {"/Users/ann/.claude/projects/-Users-ann-src-app/s1.jsonl", "ann-src-app"},
        {"/tmp/x/s1.jsonl", "x"},
        {"/h/.claude/projects/-home-u-app/sess/subagents/agent-1.jsonl", "-home-u-app"},
        {"/h/projects/-Users-a-Users-b/s.jsonl", "ab"},
        {"/h/.claude/projects", ".claude"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ClaudeParser::projectKey(c.path), c.key) << c.path;
    }
}

TEST(ClaudeDiscover, FindsTranscriptsAtAnyDepthBelowProjects) {
    TempDir home;
    home.write(".claude/projects/-home-u-app/s1.jsonl", "");
    home.write(".claude/projects/-home-u-app/s1/subagents/agent-a1.jsonl", "");
    home.write(".claude/projects/-home-u-app/s1/subagents/agent-a1.meta.json", "{}");
    home.write(".claude/projects/-home-u-app/notes.txt", "");
    home.write(".claude/todos/t.jsonl", "");  // not below projects
    const auto files = ClaudeParser::discover(home / ".claude");
    ASSERT_EQ(files.size(), 2u);
    // Sorted by path component by component: the session's folder comes before its file.
    EXPECT_EQ(files[0].filename(), "agent-a1.jsonl");
    EXPECT_EQ(files[1].filename(), "s1.jsonl");
}

TEST(ClaudeIngest, BuildsTheEventFromAnAssistantLine) {
    TempDir dir;
    const auto file = dir.write("projects/-home-u-app/sess-1.jsonl",
                                assistantLine("msg_01", 310, R"("costUSD":0.0123,)",
                                              R"(,"cache_creation":{"ephemeral_5m_input_tokens":)"
                                              R"(200,"ephemeral_1h_input_tokens":1000})"));
    const auto result = ingestFile(file);
    ASSERT_EQ(result.events.size(), 1u);
    const UsageEvent& e = result.events[0];
    EXPECT_EQ(e.id, "claude:msg_01");
    EXPECT_DOUBLE_EQ(e.occurredAt, 1787307330.123);
    EXPECT_EQ(e.timeQuality, ObservationTimeQuality::trusted);
    EXPECT_EQ(e.source, AgentSource::claude);
    EXPECT_EQ(e.provider, "anthropic");
    EXPECT_EQ(e.model, "claude-sonnet-4-5-20250929");
    EXPECT_EQ(e.sessionID, "sess-1");
    EXPECT_EQ(e.cwdHash, Privacy::cwdHash("/home/u/app"));
    EXPECT_EQ(e.projectDisplayName, "app");
    EXPECT_EQ(e.raw, (TokenSnapshot{4, 45000, 1200, 310, 0, 0}));
    EXPECT_EQ(e.exclusive, (ExclusiveTokens{4, 45000, 1200, 310, 0}));
    EXPECT_EQ(e.providerInputTotal, 4);
    EXPECT_EQ(e.providerOutputTotal, 310);
    EXPECT_EQ(e.providerTotal, 314);
    EXPECT_TRUE(e.breakdownTrusted);
    EXPECT_EQ(e.promptTokens, 46204);
    // Finished for the ledger, the agent's own figure wins over the price table.
    const auto priced = finishEvent(e, AppSettings{}, PriceTable::bundled());
    EXPECT_EQ(priced.estimatedCostUSDMicros, 12'300);
    EXPECT_EQ(priced.costSource, CostSource::vendorReported);
    EXPECT_EQ(priced.costCompleteness, CostCompleteness::complete);
    ASSERT_TRUE(e.rawExtras.has_value());
    const auto extras = nlohmann::json::parse(*e.rawExtras);
    EXPECT_DOUBLE_EQ(extras.at("costUSD").get<double>(), 0.0123);
    EXPECT_EQ(extras.at("cacheWrite1h").get<int64_t>(), 1000);
}

// Every line shape met in real transcripts, and what each must give.
TEST(ClaudeIngest, ClassifiesEveryLineShape) {
    const struct {
        const char* name;
        std::string line;
        int events;
        int malformed;
        int withoutUsage;
    } cases[] = {
        {"user turn", R"({"type":"user","message":{"role":"user","content":"see usage"}})", 0, 0,
         1},
        {"summary", R"({"type":"summary","summary":"x","leafUuid":"u"})", 0, 0, 1},
        {"assistant", assistantLine("m1", 5), 1, 0, 0},
        {"spaced JSON",
         R"({ "type" : "assistant" , "message" : { "id" : "m2" , "model" : "m" ,)"
         R"( "usage" : { "input_tokens" : 1 , "output_tokens" : 2 } } })",
         1, 0, 0},
        {"blank line", "   ", 0, 0, 0},
        {"not JSON", "usage assistant {", 0, 1, 0},
        {"array", R"([{"type":"assistant","usage":{}}])", 0, 1, 0},
        {"cut line", R"({"type":"assistant","message":{"id":"m","usage":{"input_tokens":1})", 0, 1,
         0},
        {"usage not an object", R"({"type":"assistant","message":{"id":"m3","usage":"assistant"}})",
         0, 0, 1},
        {"assistant without id",
         R"({"type":"assistant","message":{"model":"m","usage":{"output_tokens":3}}})", 0, 1, 0},
        {"count as text", assistantLine("m6", 5, "", R"(,"input_tokens":"12")"), 0, 1, 0},
        {"count beyond any request",
         R"({"type":"assistant","message":{"id":"m7","usage":{"input_tokens":9000000000000000000,)"
         R"("cache_read_input_tokens":9000000000000000000,"output_tokens":1}}})",
         0, 1, 0},
        {"null count is absent",
         R"({"type":"assistant","message":{"id":"m8","usage":{"input_tokens":null,)"
         R"("output_tokens":2}}})",
         1, 0, 0},
        {"API error line",
         R"({"type":"assistant","isApiErrorMessage":true,"message":{"id":"m4",)"
         R"("model":"<synthetic>","usage":{"input_tokens":0,"output_tokens":0}}})",
         0, 0, 1},
        {"invalid UTF-8 in content",
         "{\"type\":\"assistant\",\"message\":{\"id\":\"m5\",\"content\":\"bad \xff\xfe byte\","
         "\"usage\":{\"output_tokens\":7}}}",
         1, 0, 0},
    };
    for (const auto& c : cases) {
        TempDir dir;
        std::string text = c.line;
        if (text.empty() || text.back() != '\n') {
            text += '\n';
        }
        const auto result = ingestFile(dir.write("projects/p/s.jsonl", text));
        EXPECT_EQ(static_cast<int>(result.events.size()), c.events) << c.name;
        EXPECT_EQ(result.stats.malformed, c.malformed) << c.name;
        EXPECT_EQ(result.stats.withoutUsage, c.withoutUsage) << c.name;
        EXPECT_EQ(result.stats.lines, 1) << c.name;
    }
}

// Usage records that are all unreadable tell of a changed format; one readable record among them
// says the format holds and the others are damage.
TEST(ClaudeIngest, OnlyUnreadableUsageIsAFormatChange) {
    const std::string bad = assistantLine("b1", 5, "", R"(,"output_tokens":{"n":5})");
    const struct {
        std::string text;
        bool formatChanged;
    } cases[] = {
        {bad + bad, true},
        {bad + assistantLine("g1", 5), false},
        {R"({"type":"user","message":{"content":"no usage at all"}})"
         "\n",
         false},
        {"not json\n", false},
    };
    for (const auto& c : cases) {
        TempDir dir;
        EXPECT_EQ(ingestFile(dir.write("projects/p/s.jsonl", c.text)).formatChanged,
                  c.formatChanged)
            << c.text;
    }
    // An odd record appended to a file that read well is damage, not a new format.
    TempDir dir;
    const auto file = dir.write("projects/p/s.jsonl", assistantLine("g1", 5));
    const auto first = ingestFile(file);
    dir.append("projects/p/s.jsonl", bad);
    const auto next = ingestFile(file, first.checkpoint);
    EXPECT_EQ(next.stats.malformed, 1);
    EXPECT_FALSE(next.formatChanged);
}

TEST(ClaudeIngest, AbsentCountsAreZeroAndFloatSpellingsCount) {
    TempDir dir;
    const auto file = dir.write(
        "projects/p/s.jsonl",
        R"({"type":"assistant","message":{"id":"m","model":"x","usage":{"input_tokens":12.0,)"
        R"("output_tokens":3}}})"
        "\n");
    const auto result = ingestFile(file);
    ASSERT_EQ(result.events.size(), 1u);
    EXPECT_EQ(result.events[0].exclusive, (ExclusiveTokens{12, 0, 0, 3, 0}));
}

TEST(ClaudeIngest, FallsBackForMissingTimeSessionAndDirectory) {
    TempDir dir;
    const auto file =
        dir.write("projects/-home-u-tool/abc-123.jsonl",
                  R"({"type":"assistant","timestamp":"yesterday","message":{"id":"m","model":"x",)"
                  R"("usage":{"output_tokens":3}}})"
                  "\n");
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    const auto result = ingestFile(file);
    ASSERT_EQ(result.events.size(), 1u);
    const auto& e = result.events[0];
    EXPECT_EQ(e.timeQuality, ObservationTimeQuality::inferred);
    EXPECT_NEAR(e.occurredAt, static_cast<double>(st.st_mtim.tv_sec), 1.0);
    EXPECT_EQ(e.sessionID, "abc-123");
    EXPECT_EQ(e.cwdHash, Privacy::cwdHash("-home-u-tool"));
    EXPECT_EQ(e.projectDisplayName, "home-u-tool");
}

// The reader keeps the project label and leaves pricing alone; the settings apply when the
// event is finished for the ledger.
TEST(ClaudeIngest, ProjectNamesOnlyWhenAllowed) {
    TempDir dir;
    const auto file = dir.write("projects/p/s.jsonl", assistantLine("m", 1));
    const auto result = ingestFile(file);
    ASSERT_EQ(result.events.size(), 1u);
    EXPECT_EQ(result.events[0].projectDisplayName, "app");
    EXPECT_FALSE(result.events[0].estimatedCostUSDMicros.has_value());

    AppSettings settings;
    settings.storeProject = false;
    settings.billingMode = BillingMode::localZero;
    const auto finished = finishEvent(result.events[0], settings, PriceTable::bundled());
    EXPECT_FALSE(finished.projectDisplayName.has_value());
    EXPECT_TRUE(finished.cwdHash.has_value());
    EXPECT_EQ(finished.billingMode, BillingMode::localZero);
    EXPECT_EQ(finished.estimatedCostUSDMicros, 0);
}

// Older agent versions wrote placeholder output counts on all but the last line of a message.
// Each line is its own event with one shared identity; the ledger keeps the last one.
TEST(ClaudeIngest, PlaceholderLinesShareOneIdentityInFileOrder) {
    TempDir dir;
    const auto file =
        dir.write("projects/p/s.jsonl", assistantLine("msg_X", 1) + assistantLine("msg_X", 12) +
                                            assistantLine("msg_X", 480));
    const auto result = ingestFile(file);
    ASSERT_EQ(result.events.size(), 3u);
    for (const auto& e : result.events) {
        EXPECT_EQ(e.id, "claude:msg_X");
    }
    EXPECT_EQ(result.events[0].raw.output, 1);
    EXPECT_EQ(result.events[2].raw.output, 480);
}

TEST(ClaudeIngest, UnfinishedLastLineWaitsForTheNextScan) {
    TempDir dir;
    const std::string first = assistantLine("m1", 5);
    const std::string second = assistantLine("m2", 9);
    const std::string half = second.substr(0, second.size() / 2);
    const auto file = dir.write("projects/p/s.jsonl", first + half);

    const auto r1 = ingestFile(file);
    ASSERT_EQ(r1.events.size(), 1u);
    const auto& cp = r1.checkpoint;
    EXPECT_EQ(cp.source, AgentSource::claude);
    EXPECT_EQ(cp.byteOffset, static_cast<int64_t>(first.size()));
    EXPECT_EQ(cp.partialLineStart, static_cast<int64_t>(first.size()));
    EXPECT_EQ(cp.inode, JSONL::inode(file));
    EXPECT_EQ(cp.contentFingerprint, JSONL::boundaryFingerprint(file, first.size()));
    EXPECT_EQ(cp.parserVersion, ClaudeParser::parserVersion);
    EXPECT_EQ(cp.stableID, file.string());

    dir.append("projects/p/s.jsonl", second.substr(half.size()));
    const auto r2 = ingestFile(file, cp);
    ASSERT_EQ(r2.events.size(), 1u);
    EXPECT_EQ(r2.events[0].id, "claude:m2");
    EXPECT_EQ(r2.events[0].raw.output, 9);
    EXPECT_EQ(r2.checkpoint.byteOffset, static_cast<int64_t>(first.size() + second.size()));
    EXPECT_FALSE(r2.checkpoint.partialLineStart.has_value());

    // Nothing new: no events, same place.
    const auto r3 = ingestFile(file, r2.checkpoint);
    EXPECT_TRUE(r3.events.empty());
    EXPECT_EQ(r3.checkpoint.byteOffset, r2.checkpoint.byteOffset);
}

TEST(ClaudeIngest, FileWithoutUsageStillAdvances) {
    TempDir dir;
    const std::string text = R"({"type":"user","message":{"content":"a"}})"
                             "\n"
                             R"({"type":"user","message":{"content":"b"}})"
                             "\n";
    const auto result = ingestFile(dir.write("projects/p/s.jsonl", text));
    EXPECT_TRUE(result.events.empty());
    EXPECT_EQ(result.checkpoint.byteOffset, static_cast<int64_t>(text.size()));
}

TEST(ClaudeIngest, ReadsLinesOfTensOfMegabytes) {
    TempDir dir;
    const std::string blob(24 << 20, 'x');
    const std::string big = assistantLine("big", 77, R"("toolUseResult":")" + blob + R"(",)");
    const auto file =
        dir.write("projects/p/s.jsonl", assistantLine("a", 1) + big + assistantLine("b", 2));
    const auto result = ingestFile(file);
    ASSERT_EQ(result.events.size(), 3u);
    EXPECT_EQ(result.events[1].id, "claude:big");
    EXPECT_EQ(result.events[1].raw.output, 77);
    EXPECT_EQ(result.events[2].id, "claude:b");
}

TEST(ClaudeIngest, UnreadableFileIsATypedErrorNamingThePath) {
    TempDir dir;
    const auto missing = dir / "projects/p/gone.jsonl";
    auto result = read(missing);
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().path, missing.string());
    EXPECT_NE(result.error().description().find(missing.string()), std::string::npos);

    std::filesystem::create_directories(dir / "projects/p/folder.jsonl");
    EXPECT_FALSE(read(dir / "projects/p/folder.jsonl").has_value());
}

TEST(ClaudeAccount, ReadsTheSignedInAccountMasked) {
    const auto json = nlohmann::json::parse(R"({
        "numStartups": 3,
        "oauthAccount": {"accountUuid": "u-1", "emailAddress": "alice@example.com",
                         "organizationUuid": "o-1", "organizationName": "Acme",
                         "billingType": "stripe_subscription", "displayName": "Alice"}})");
    const auto snapshot = ClaudeParser::account(json, 1000.0);
    ASSERT_TRUE(snapshot.has_value());
    EXPECT_EQ(snapshot->identity.source, AgentSource::claude);
    EXPECT_EQ(snapshot->identity.emailMasked, "a***e@example.com");
    EXPECT_EQ(snapshot->identity.organizationName, "Acme");
    EXPECT_EQ(snapshot->identity.displayName, "Alice");
    EXPECT_EQ(snapshot->identity.planLabel, "subscription");
    EXPECT_DOUBLE_EQ(snapshot->fetchedAt, 1000.0);
    EXPECT_TRUE(snapshot->windows.empty());

    EXPECT_FALSE(ClaudeParser::account(nlohmann::json::parse(R"({"numStartups":1})"), 0));
    EXPECT_FALSE(ClaudeParser::account(nlohmann::json::parse(R"({"oauthAccount":"x"})"), 0));
}

TEST(ClaudeAccount, FromFileIsAbsentWhenMissingOrBroken) {
    TempDir dir;
    EXPECT_FALSE(ClaudeParser::accountFromDotJSON(dir / ".claude.json", 0));
    EXPECT_FALSE(ClaudeParser::accountFromDotJSON(dir.write(".claude.json", "{oauth"), 0));
    const auto file = dir.write(".claude.json", R"({"oauthAccount":{"emailAddress":"bo@x.io"}})");
    const auto snapshot = ClaudeParser::accountFromDotJSON(file, 5);
    ASSERT_TRUE(snapshot.has_value());
    EXPECT_EQ(snapshot->identity.emailMasked, "b***@x.io");
}

}  // namespace
}  // namespace kestrel
