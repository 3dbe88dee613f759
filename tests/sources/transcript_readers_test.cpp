// The JSON transcript readers: Gemini CLI, Antigravity, Kimi, Grok Build and Copilot CLI.

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>

#include "core/ledger/ingestor.hpp"
#include "core/ledger/usage_merge.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/model/event_id.hpp"
#include "core/model/privacy.hpp"
#include "core/sources/transcripts/antigravity_reader.hpp"
#include "core/sources/transcripts/copilot_reader.hpp"
#include "core/sources/transcripts/gemini_reader.hpp"
#include "core/sources/transcripts/grok_reader.hpp"
#include "core/sources/transcripts/kimi_reader.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/agent_corpus/corpus_writer.hpp"
#include "tools/agent_corpus/transcript_corpus.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
namespace tc = corpus::transcripts;
using test_support::TempDir;

struct Read {
    IngestResult result;
    std::vector<UsageEvent> events;
};

Read readFile(const SourceReader& reader, const fs::path& file,
              const std::optional<SourceCheckpoint>& checkpoint = std::nullopt,
              const std::string& defaultModel = "") {
    SourceReadContext context;
    context.file = file;
    context.checkpoint = checkpoint;
    context.defaultModel = defaultModel;
    Read read;
    context.sink = [&](UsageEvent&& e) { read.events.push_back(std::move(e)); };
    auto result = reader.ingest(context);
    EXPECT_TRUE(result.has_value()) << file;
    if (result) {
        read.result = std::move(*result);
    }
    return read;
}

// What the ledger keeps: one event per id, its records merged as the ledger merges them.
std::map<std::string, UsageEvent> ledgerOf(const std::vector<UsageEvent>& events,
                                           std::map<std::string, UsageEvent> ledger = {}) {
    for (const auto& e : events) {
        if (auto [it, added] = ledger.try_emplace(e.id, e); !added) {
            UsageMerge::merge(it->second, UsageEvent(e));
        }
    }
    return ledger;
}

// Every file the reader finds below `roots`, read from the start, as the ledger keeps them.
std::map<std::string, UsageEvent> scanAll(const SourceReader& reader,
                                          const std::vector<fs::path>& roots,
                                          const std::string& defaultModel = "") {
    std::map<std::string, UsageEvent> ledger;
    for (const auto& root : roots) {
        std::vector<FileError> errors;
        for (const auto& file : reader.discover(root, &errors)) {
            ledger = ledgerOf(readFile(reader, file, std::nullopt, defaultModel).events,
                              std::move(ledger));
        }
        EXPECT_TRUE(errors.empty());
    }
    return ledger;
}

int64_t fileSize(const fs::path& file) {
    return static_cast<int64_t>(fs::file_size(file));
}

// ---- Gemini CLI ----

TEST(GeminiReader, LastRecordPerMessageWinsAcrossScansAndInputExcludesCache) {
    TempDir home;
    const auto rel = fs::path(".gemini/tmp/kestrel/chats/session-2026-08-21T10-15-0b5e1f2a.jsonl");
    const auto file = home / rel;
    tc::GeminiMessage reply{"m1", "2026-08-21T10:15:30.512Z", "gemini", "gemini-2.5-pro",
                            std::nullopt};
    std::string text = tc::geminiMetadataLine("sess-1", "2026-08-21T10:15:00Z") +
                       tc::geminiMessageLine({"u1", "2026-08-21T10:15:01Z", "user", "", {}}) +
                       tc::geminiMessageLine(reply);  // still streaming: tokens null
    reply.tokens = tc::GeminiTokens{48211, 512, 40960, 903, 0};
    text += tc::geminiMessageLine(reply);
    text += "{\"$rewindTo\":\"m1\"}\n";
    tc::GeminiMessage second{"m2", "2026-08-21T10:16:00Z", "gemini", "gemini-2.5-flash",
                             tc::GeminiTokens{1000, 50, 0, 0, 120}};
    text += tc::geminiMessageLine(second);  // after the rewind: spent all the same
    corpus::writeFile(home.path(), rel, text);
    corpus::writeFile(home.path(), ".gemini/projects.json",
                      R"({"projects":{"/home/dev/kestrel":"kestrel"}})");

    const auto reader = GeminiReader::reader();
    auto first = readFile(reader, file);
    auto ledger = ledgerOf(first.events);
    ASSERT_EQ(ledger.size(), 2u);
    const auto& m1 =
        ledger.at(EventID::local(AgentSource::gemini, "sess-1", "m1", "gemini-2.5-pro"));
    EXPECT_EQ(m1.exclusive.inputUncached, 48211 - 40960);
    EXPECT_EQ(m1.exclusive.cacheRead, 40960);
    EXPECT_EQ(m1.exclusive.outputVisible, 512);
    EXPECT_EQ(m1.exclusive.reasoning, 903);
    EXPECT_EQ(m1.rawExtras, R"({"total":49626})");
    EXPECT_EQ(m1.provider, "google");
    EXPECT_EQ(m1.timeQuality, ObservationTimeQuality::trusted);
    EXPECT_EQ(m1.cwdHash, Privacy::cwdHash("/home/dev/kestrel"));
    const auto& m2 =
        ledger.at(EventID::local(AgentSource::gemini, "sess-1", "m2", "gemini-2.5-flash"));
    EXPECT_EQ(m2.exclusive.inputUncached, 1000 + 120);  // tool-use prompt tokens are input too
    EXPECT_EQ(first.result.stats.malformed, 0);

    // The reply grows again in a later scan: only the new line is read, and it replaces the
    // earlier counts under the same id (the session id comes from the checkpoint).
    reply.tokens = tc::GeminiTokens{50000, 700, 40960, 903, 0};
    corpus::appendFile(home.path(), rel, tc::geminiMessageLine(reply));
    auto second_ = readFile(reader, file, first.result.checkpoint);
    ASSERT_EQ(second_.events.size(), 1u);
    EXPECT_EQ(second_.result.stats.lines, 1);
    ledger = ledgerOf(second_.events, std::move(ledger));
    ASSERT_EQ(ledger.size(), 2u);
    EXPECT_EQ(ledger.at(m1.id).exclusive.inputUncached, 50000 - 40960);
    EXPECT_EQ(ledger.at(m1.id).exclusive.outputVisible, 700);
}

TEST(GeminiReader, LegacySessionsReadWholeAndSkippedBesideTheirCopy) {
    TempDir home;
    const fs::path chats = ".gemini/tmp/webapp/chats";
    corpus::writeFile(home.path(), ".gemini/tmp/webapp/.project_root", "/home/dev/webapp\n");
    const std::vector<tc::GeminiMessage> messages{
        {"u1", "2026-08-21T10:15:01Z", "user", "", {}},
        {"g1", "2026-08-21T10:15:02Z", "gemini", "gemini-2.5-pro", tc::GeminiTokens{900, 40, 600}},
        {"g2", "2026-08-21T10:15:09Z", "gemini", "gemini-2.5-pro", std::nullopt},
        {"g3", "2026-08-21T10:15:19Z", "gemini", "gemini-2.5-pro", tc::GeminiTokens{300, 10}},
    };
    corpus::writeFile(home.path(), chats / "session-a.json",
                      tc::geminiLegacySession("sa", messages));
    corpus::writeFile(home.path(), chats / "session-b.json",
                      tc::geminiLegacySession("sb", messages));
    corpus::writeFile(home.path(), chats / "session-b.jsonl",
                      tc::geminiMetadataLine("sb", "2026-08-21T10:15:00Z"));
    corpus::writeFile(home.path(), chats / "sb/sub-1.jsonl",
                      tc::geminiMetadataLine("sub-1", "2026-08-21T10:15:00Z", "subagent"));
    corpus::writeFile(home.path(), ".gemini/tmp/webapp/logs.json", "[]");

    const auto reader = GeminiReader::reader();
    std::vector<FileError> errors;
    const auto files = reader.discover(home / ".gemini", &errors);
    const std::vector<fs::path> expected{home / chats / "sb/sub-1.jsonl",
                                         home / chats / "session-a.json",
                                         home / chats / "session-b.jsonl"};
    EXPECT_EQ(files, expected);

    auto legacy = readFile(reader, home / chats / "session-a.json");
    ASSERT_EQ(legacy.events.size(), 2u);
    EXPECT_EQ(legacy.events[0].id,
              EventID::local(AgentSource::gemini, "sa", "g1", "gemini-2.5-pro"));
    EXPECT_EQ(legacy.events[0].exclusive.inputUncached, 300);
    EXPECT_EQ(legacy.events[0].projectDisplayName, "webapp");
    EXPECT_FALSE(legacy.result.checkpoint.byteOffset.has_value());  // read whole on every change

    // Rewritten with one more reply: everything comes out again under the same ids.
    auto grown = messages;
    grown.push_back(
        {"g4", "2026-08-21T10:16:00Z", "gemini", "gemini-2.5-pro", tc::GeminiTokens{5, 5}});
    corpus::writeFile(home.path(), chats / "session-a.json", tc::geminiLegacySession("sa", grown));
    auto again = readFile(reader, home / chats / "session-a.json", legacy.result.checkpoint);
    EXPECT_EQ(ledgerOf(again.events, ledgerOf(legacy.events)).size(), 3u);

    // A legacy file whose JSON-lines copy exists yields nothing even when asked directly.
    EXPECT_TRUE(readFile(reader, home / chats / "session-b.json").events.empty());

    // A half-written document is counted as damage, not read as an empty session.
    corpus::writeFile(home.path(), chats / "session-c.json",
                      "{\"sessionId\":\"sc\",\"messages\":[");
    auto torn = readFile(reader, home / chats / "session-c.json");
    EXPECT_TRUE(torn.events.empty());
    EXPECT_EQ(torn.result.stats.malformed, 1);
}

// ---- Antigravity ----

TEST(AntigravityReader, SelectedModelNames) {
    const std::vector<std::pair<std::string, std::optional<std::string>>> cases{
        {"Model Selection from None to Gemini 3.5 Flash (Medium)", "gemini-3.5-flash"},
        {"Model Selection from Gemini 3 Pro to Claude Sonnet 4.5 (Thinking)", "claude-sonnet-4.5"},
        {"<note>Model Selection from None to GPT-OSS 120B (Medium)</note>", "gpt-oss-120b"},
        {"Model Selection from None to Nebula Large", "antigravity-nebula-large"},
        {"Model Selection from Gemini 3 Pro to None", std::nullopt},
        {"please refactor the parser", std::nullopt},
    };
    for (const auto& [text, model] : cases) {
        EXPECT_EQ(AntigravityReader::selectedModel(text), model) << text;
    }
}

TEST(AntigravityReader, EstimatesFromTextSizeAndCarriesTheModelAcrossScans) {
    TempDir home;
    const fs::path rel = ".gemini/antigravity/brain/conv-1/.system_generated/logs/transcript.jsonl";
    const std::string content(401, 'a'), thinking(80, 'b');
    corpus::writeFile(
        home.path(), rel,
        tc::antigravityUserLine(0, "2026-06-26T21:16:00Z",
                                "Model Selection from None to Gemini 3.5 Flash (Medium)") +
            tc::antigravityModelLine(1, "2026-06-26T21:16:17Z", content, thinking) +
            tc::antigravityModelLine(2, "2026-06-26T21:16:18Z", "", ""));
    const auto reader = AntigravityReader::reader();
    std::vector<FileError> errors;
    ASSERT_EQ(reader.discover(home / ".gemini/antigravity", &errors),
              std::vector<fs::path>{home / rel});
    auto first = readFile(reader, home / rel);
    ASSERT_EQ(first.events.size(), 1u);
    const auto& e = first.events[0];
    EXPECT_EQ(e.usagePrecision, UsagePrecision::estimateOnly);
    EXPECT_EQ(e.provider, "google");
    EXPECT_EQ(e.model, "gemini-3.5-flash");
    EXPECT_EQ(e.exclusive.outputVisible, 101);  // 401 bytes at 4 per token, rounded up
    EXPECT_EQ(e.exclusive.reasoning, 20);
    EXPECT_EQ(e.exclusive.inputUncached, 0);
    EXPECT_EQ(e.sessionID, "conv-1");
    EXPECT_EQ(e.id,
              EventID::local(AgentSource::antigravity, "conv-1", "step-1", "gemini-3.5-flash"));

    // The model chosen in the first scan applies to replies read in the next.
    corpus::appendFile(home.path(), rel,
                       tc::antigravityModelLine(3, "2026-06-26T21:17:00Z", "done", ""));
    auto second = readFile(reader, home / rel, first.result.checkpoint);
    ASSERT_EQ(second.events.size(), 1u);
    EXPECT_EQ(second.events[0].model, "gemini-3.5-flash");
    EXPECT_EQ(second.events[0].exclusive.outputVisible, 1);
}

// ---- Kimi ----

TEST(KimiReader, CLIForksAndForwardedSubagentStepsCountOnce) {
    TempDir home;
    const fs::path parent = ".kimi/sessions/0a1b/sess-A";
    const tc::KimiUsage a{1200, 350, 29800, 100}, b{800, 90, 31000, 0}, sub{400, 60, 1000, 0};
    const std::string parentLog =
        "{\"type\":\"metadata\",\"protocol_version\":\"1.10\"}\n" +
        tc::kimiStatusLine(1755771330.48, a, "chatcmpl-a") +
        tc::kimiStatusLine(1755771339.0, std::nullopt, "chatcmpl-null") +
        tc::kimiStatusLine(1755771340.0, tc::KimiUsage{}, "chatcmpl-zero") +
        tc::kimiSubagentLine(1755771345.5, sub, "chatcmpl-sub");
    corpus::writeFile(home.path(), parent / "wire.jsonl",
                      parentLog + tc::kimiStatusLine(1755771350.0, b, "chatcmpl-b"));
    corpus::writeFile(home.path(), parent / "subagents/agent-1/wire.jsonl",
                      tc::kimiStatusLine(1755771345.0, sub, "chatcmpl-sub"));
    corpus::writeFile(home.path(), ".kimi/sessions/0a1b/sess-fork/wire.jsonl", parentLog);

    const auto ledger = scanAll(KimiReader::reader(), {home / ".kimi"}, "kimi-k2-turbo");
    ASSERT_EQ(ledger.size(), 3u);
    const auto& first = ledger.at(EventID::kimi("chatcmpl-a", 0, "", "step"));
    EXPECT_EQ(first.exclusive.inputUncached, 1200);  // additive: cache counts come on top
    EXPECT_EQ(first.exclusive.cacheRead, 29800);
    EXPECT_EQ(first.exclusive.cacheWrite, 100);
    EXPECT_EQ(first.exclusive.outputVisible, 350);
    EXPECT_EQ(first.model, "kimi-k2-turbo");
    EXPECT_DOUBLE_EQ(first.occurredAt, 1755771330.48);
    EXPECT_EQ(first.usageSemanticsVersion, usageSemanticsVersion(AgentSource::kimi));
    EXPECT_EQ(ledger.at(EventID::kimi("chatcmpl-sub", 0, "", "step")).exclusive.inputUncached, 400);
}

TEST(KimiReader, CodeIgnoresRecordsBeforeTheLastForkMarkerAndZeroRecords) {
    TempDir home;
    const fs::path dir = ".kimi-code/sessions/wd_webapp_3f2a9c1b7d4e/session_s1";
    corpus::writeFile(home.path(), ".kimi-code/session_index.jsonl",
                      "{\"sessionId\":\"s1\",\"sessionDir\":\"x/session_s1\",\"workDir\":\"/home/"
                      "dev/webapp\"}\n");
    const tc::KimiUsage copied{900, 420, 31000, 0}, own{100, 20, 3000, 10};
    corpus::writeFile(
        home.path(), dir / "agents/main/wire.jsonl",
        tc::kimiCodeUsageLine(1755771330480, "kimi-for-coding", copied) +
            tc::kimiCodeForkedLine(1755771331000) +
            tc::kimiCodeUsageLine(1755771331480, "kimi-for-coding", copied) +
            tc::kimiCodeForkedLine(1755771332000) +
            tc::kimiCodeUsageLine(1755771333000, "kimi-for-coding", tc::KimiUsage{}) +
            tc::kimiCodeUsageLine(1755771334000, "kimi-for-coding", own) +
            tc::kimiCodeUsageLine(1755771335000, "kimi-for-coding", own, "session", "agent-1"));
    const auto file = home / dir / "agents/main/wire.jsonl";
    auto read = readFile(KimiReader::reader(), file);
    ASSERT_EQ(read.events.size(), 2u);
    EXPECT_EQ(read.events[0].id,
              EventID::kimi("s1", 1755771334000, "kimi-for-coding", "turn@main"));
    EXPECT_EQ(read.events[1].id,
              EventID::kimi("s1", 1755771335000, "kimi-for-coding", "session@agent-1"));
    EXPECT_DOUBLE_EQ(read.events[0].occurredAt, 1755771334.0);
    EXPECT_EQ(read.events[0].exclusive.cacheWrite, 10);
    EXPECT_EQ(read.events[0].cwdHash, Privacy::cwdHash("/home/dev/webapp"));
    EXPECT_EQ(read.result.stats.withoutUsage, 3);  // two markers and the all-zero record

    // Appended after the fork: only the new record.
    corpus::appendFile(home.path(), dir / "agents/main/wire.jsonl",
                       tc::kimiCodeUsageLine(1755771336000, "kimi-for-coding", own));
    auto next = readFile(KimiReader::reader(), file, read.result.checkpoint);
    ASSERT_EQ(next.events.size(), 1u);
    EXPECT_EQ(next.events[0].id,
              EventID::kimi("s1", 1755771336000, "kimi-for-coding", "turn@main"));
}

TEST(KimiReader, ConfiguredModelResolvesAliases) {
    TempDir home;
    const std::vector<std::pair<std::string, std::string>> cases{
        {"default_model = \"k2\"\n[models.k2]\nprovider = \"moonshot\"\nmodel = \"kimi-k2-0905\"\n",
         "kimi-k2-0905"},
        {"default_model = 'kimi-for-coding'\n", "kimi-for-coding"},
        {"[models.k2]\nmodel = \"kimi-k2\"\n", ""},
        {"", ""},
    };
    for (const auto& [config, model] : cases) {
        corpus::writeFile(home.path(), ".kimi/config.toml", config);
        EXPECT_EQ(KimiReader::configuredModel({home / ".kimi-code", home / ".kimi"}), model)
            << config;
    }
}

// ---- Grok ----

TEST(GrokReader, FindsNestedUsageAsSubsetFamilyWithPromptModels) {
    TempDir home;
    const fs::path dir = ".grok/sessions/%2Fhome%2Fdev%2Fkestrel/0198c1a2-7777";
    corpus::writeFile(
        home.path(), dir / "chat_history.jsonl",
        tc::grokChatRow(0, "user", "grok-4") + tc::grokChatRow(1, "user", "grok-code-fast-1"));
    tc::GrokUsage u0{20000, 900, 15000, 500, 300};
    tc::GrokUsage u1{5000, 100, 0, std::nullopt, std::nullopt};
    const std::string updates = tc::grokChunkLine("s", "thinking about it") +
                                tc::grokTurnLine("s", 0, u0, "2026-08-21T10:15:30Z") +
                                tc::grokTurnLine("s", 1, u1, "2026-08-21T10:16:30Z");
    corpus::writeFile(home.path(), dir / "updates.jsonl", updates);
    // No prompt index at all: the line's place stands in for it.
    corpus::appendFile(
        home.path(), dir / "updates.jsonl",
        R"({"result":{"stopReason":"end_turn","usage":{"inputTokens":10,"outputTokens":2,"totalTokens":12,"cachedReadTokens":0}}})"
        "\n");
    const auto reader = GrokReader::reader();
    std::vector<FileError> errors;
    ASSERT_EQ(reader.discover(home / ".grok", &errors),
              std::vector<fs::path>{home / dir / "updates.jsonl"});
    auto read = readFile(reader, home / dir / "updates.jsonl");
    ASSERT_EQ(read.events.size(), 3u);
    const auto& e0 = read.events[0];
    EXPECT_EQ(e0.id, EventID::grok("0198c1a2-7777", "0", "grok-4"));
    EXPECT_EQ(e0.exclusive.inputUncached, 20000 - 15000 - 500);
    EXPECT_EQ(e0.exclusive.cacheRead, 15000);
    EXPECT_EQ(e0.exclusive.cacheWrite, 500);
    EXPECT_EQ(e0.exclusive.outputVisible, 600);
    EXPECT_EQ(e0.exclusive.reasoning, 300);
    EXPECT_EQ(e0.cwdHash, Privacy::cwdHash("/home/dev/kestrel"));
    EXPECT_EQ(read.events[1].model, "grok-code-fast-1");
    EXPECT_EQ(read.events[2].id,
              EventID::grok("0198c1a2-7777", "@" + std::to_string(updates.size()),
                            "grok-code-fast-1"));  // the session's latest model
    // A re-read from the start gives the same identities.
    auto again = readFile(reader, home / dir / "updates.jsonl");
    ASSERT_EQ(again.events.size(), 3u);
    EXPECT_EQ(again.events[2].id, read.events[2].id);
    EXPECT_FALSE(read.result.formatChanged);
}

TEST(GrokReader, EnvelopesWithoutUsageMeanTheFormatChanged) {
    TempDir home;
    const fs::path dir = ".grok/sessions/%2Ftmp/s2";
    corpus::writeFile(home.path(), dir / "updates.jsonl",
                      tc::grokChunkLine("s2", "a") + tc::grokChunkLine("s2", "b"));
    const auto reader = GrokReader::reader();
    auto whole = readFile(reader, home / dir / "updates.jsonl");
    EXPECT_TRUE(whole.result.formatChanged);
    EXPECT_TRUE(whole.events.empty());
    // More chunks appended to a file already read are just a turn in progress.
    corpus::appendFile(home.path(), dir / "updates.jsonl", tc::grokChunkLine("s2", "c"));
    EXPECT_FALSE(readFile(reader, home / dir / "updates.jsonl", whole.result.checkpoint)
                     .result.formatChanged);
    // An empty file is a session just begun.
    corpus::writeFile(home.path(), ".grok/sessions/%2Ftmp/s3/updates.jsonl", "");
    EXPECT_FALSE(
        readFile(reader, home / ".grok/sessions/%2Ftmp/s3/updates.jsonl").result.formatChanged);
    EXPECT_EQ(GrokReader::percentDecoded("%2Fhome%2Fdev%2Fa%20b%zz"), "/home/dev/a b%zz");
}

// ---- Copilot ----

TEST(CopilotReader, EachShutdownSegmentIsItsOwnEventPerModel) {
    TempDir home;
    const fs::path rel = ".copilot/session-state/sess-9/events.jsonl";
    tc::CopilotUsage sonnet{50000, 1200, 40000, 2000, 300};
    tc::CopilotUsage mini{100, 50, 400, 0, std::nullopt};  // cache above input: floor at zero
    corpus::writeFile(
        home.path(), rel,
        tc::copilotMessageLine("e1", "2026-08-21T10:00:00Z", "hello") +
            tc::copilotShutdownLine("sd-1", "2026-08-21T10:30:00Z",
                                    {{"claude-sonnet-4.5", sonnet}, {"gpt-5-mini", mini}}));
    const auto reader = CopilotReader::reader();
    auto first = readFile(reader, home / rel);
    ASSERT_EQ(first.events.size(), 2u);
    const auto& e = first.events[0];
    EXPECT_EQ(e.id, EventID::local(AgentSource::copilot, "sess-9", "sd-1", "claude-sonnet-4.5"));
    EXPECT_EQ(e.exclusive.inputUncached, 8000);
    EXPECT_EQ(e.exclusive.cacheRead, 40000);
    EXPECT_EQ(e.exclusive.cacheWrite, 2000);
    EXPECT_EQ(e.exclusive.outputVisible, 1200);
    EXPECT_EQ(e.exclusive.reasoning, 0);  // already inside output
    EXPECT_EQ(e.granularity, UsageGranularity::sessionAggregate);
    EXPECT_EQ(first.events[1].exclusive.inputUncached, 0);

    // The resumed session's own shutdown: read alone, and added rather than replacing.
    corpus::appendFile(home.path(), rel,
                       tc::copilotShutdownLine("sd-2", "2026-08-22T09:00:00Z",
                                               {{"claude-sonnet-4.5", {3000, 100, 0, 0, {}}}}));
    auto second = readFile(reader, home / rel, first.result.checkpoint);
    ASSERT_EQ(second.events.size(), 1u);
    const auto ledger = ledgerOf(second.events, ledgerOf(first.events));
    int64_t sonnetOutput = 0;
    for (const auto& [id, ev] : ledger) {
        if (ev.model == "claude-sonnet-4.5") {
            sonnetOutput += ev.exclusive.outputVisible;
        }
    }
    EXPECT_EQ(ledger.size(), 3u);
    EXPECT_EQ(sonnetOutput, 1300);
}

TEST(CopilotReader, TelemetrySpansInBothSpellingsAndShapes) {
    TempDir home;
    const fs::path rel = ".copilot/otel/copilot-otel.jsonl";
    const tc::CopilotUsage u{10000, 800, 6000, 1000, 200};
    struct Case {
        tc::OtelSpelling spelling;
        tc::OtelShape shape;
        int64_t uncached, cacheWrite;  // the older spelling has no cache-creation count
    };
    const std::vector<Case> cases{
        {tc::OtelSpelling::current, tc::OtelShape::objectAttributes, 3000, 1000},
        {tc::OtelSpelling::current, tc::OtelShape::otlpList, 3000, 1000},
        {tc::OtelSpelling::older, tc::OtelShape::objectAttributes, 4000, 0},
        {tc::OtelSpelling::older, tc::OtelShape::otlpList, 4000, 0},
    };
    std::string text;
    for (std::size_t i = 0; i < cases.size(); ++i) {
        text += tc::copilotSpanLine("trace-1", "span-" + std::to_string(i), "gpt-5", u,
                                    cases[i].spelling, cases[i].shape);
    }
    // The agent span above the calls repeats their usage.
    text += tc::copilotSpanLine("trace-1", "span-agent", "gpt-5", u, tc::OtelSpelling::current,
                                tc::OtelShape::objectAttributes, "invoke_agent");
    corpus::writeFile(home.path(), rel, text);
    const auto reader = CopilotReader::reader();
    std::vector<FileError> errors;
    EXPECT_EQ(reader.discover(home / ".copilot", &errors), std::vector<fs::path>{home / rel});
    auto read = readFile(reader, home / rel);
    ASSERT_EQ(read.events.size(), cases.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const auto& e = read.events[i];
        SCOPED_TRACE(i);
        EXPECT_EQ(e.id, EventID::local(AgentSource::copilot, "trace-1", "span-" + std::to_string(i),
                                       "gpt-5"));
        EXPECT_EQ(e.exclusive.inputUncached, cases[i].uncached);
        EXPECT_EQ(e.exclusive.cacheRead, 6000);
        EXPECT_EQ(e.exclusive.cacheWrite, cases[i].cacheWrite);
        EXPECT_EQ(e.exclusive.outputVisible, 800);
        EXPECT_EQ(e.timeQuality, ObservationTimeQuality::trusted);
        EXPECT_DOUBLE_EQ(e.occurredAt, 1755771331.5);
    }
}

// ---- Through the ingestor, scan after scan ----

TEST(TranscriptReaders, RepeatedScansCountEachUsageOnceAndEstimatesStayOutOfTheLedger) {
    TempDir home, support;
    const fs::path chats = ".gemini/tmp/kestrel/chats";
    std::vector<tc::GeminiMessage> legacy{
        {"g1", "2026-08-21T10:15:02Z", "gemini", "gemini-2.5-pro", tc::GeminiTokens{900, 40, 600}},
        {"g2", "2026-08-21T10:15:09Z", "gemini", "gemini-2.5-pro", tc::GeminiTokens{300, 10}},
    };
    corpus::writeFile(home.path(), chats / "session-old.json",
                      tc::geminiLegacySession("so", legacy));
    tc::GeminiMessage reply{"n1", "2026-08-21T11:00:00Z", "gemini", "gemini-2.5-pro",
                            tc::GeminiTokens{100, 10}};
    corpus::writeFile(
        home.path(), chats / "session-new.jsonl",
        tc::geminiMetadataLine("sn", "2026-08-21T11:00:00Z") + tc::geminiMessageLine(reply));
    tc::writeKimiHome(home.path(), 2, 3, 11);
    tc::writeAntigravityHome(home.path(), 1, 2, 11);
    tc::writeGrokHome(home.path(), 2, 3, 11);
    tc::writeCopilotHome(home.path(), 2, 2, 11);

    UsageStore store(support.path());
    Ingestor ingestor(store, PriceTable::bundled(), nullptr);
    const std::set<AgentSource> sources{AgentSource::gemini, AgentSource::kimi,
                                        AgentSource::antigravity, AgentSource::grok,
                                        AgentSource::copilot};
    ingestor.scan(home.path(), AppSettings{}, sources, false);
    auto count = [&](AgentSource source) {
        LedgerQuery q;
        q.source = source;
        return store.ledgerEventCount(q);
    };
    EXPECT_EQ(count(AgentSource::gemini), 3);
    EXPECT_EQ(count(AgentSource::kimi), tc::kimiExpectedEvents(2, 3));
    // Every exact event passes the ledger's token invariants; estimates are observations only.
    EXPECT_EQ(count(AgentSource::grok), tc::grokExpectedEvents(2, 3));
    EXPECT_EQ(count(AgentSource::copilot), tc::copilotExpectedEvents(2, 2));
    EXPECT_EQ(count(AgentSource::antigravity), 0);
    EXPECT_EQ(store.usageObservationCount(),
              count(AgentSource::gemini) + count(AgentSource::kimi) + count(AgentSource::grok) +
                  count(AgentSource::copilot) + tc::antigravityExpectedEvents(1, 2));

    // The legacy session rewritten with one more reply, the new one's reply appended again with
    // final counts: one more event, none twice.
    legacy.push_back(
        {"g3", "2026-08-21T10:16:00Z", "gemini", "gemini-2.5-pro", tc::GeminiTokens{50, 5}});
    corpus::writeFile(home.path(), chats / "session-old.json",
                      tc::geminiLegacySession("so", legacy));
    reply.tokens = tc::GeminiTokens{120, 30};
    corpus::appendFile(home.path(), chats / "session-new.jsonl", tc::geminiMessageLine(reply));
    ingestor.scan(home.path(), AppSettings{}, sources, false);
    EXPECT_EQ(count(AgentSource::gemini), 4);
    EXPECT_EQ(count(AgentSource::kimi), tc::kimiExpectedEvents(2, 3));
    EXPECT_EQ(ingestor.status(AgentSource::gemini), SourceStatus::healthy);
}

// ---- What every reader must survive ----

struct HostileCase {
    std::string name;
    std::function<SourceReader()> reader;
    fs::path file;
    std::string usageLine;   // one usage event
    std::string wrongTypes;  // a usage record whose counts are not numbers
    std::string badUTF8;     // one usage event with invalid bytes in its text
};

std::vector<HostileCase> hostileCases() {
    const std::string bad = "\xff\xfe broken \xc3";
    return {
        {"gemini", GeminiReader::reader, ".gemini/tmp/p/chats/session-x.jsonl",
         tc::geminiMessageLine(
             {"g1", "2026-08-21T10:00:00Z", "gemini", "gemini-2.5-pro", tc::GeminiTokens{100, 10}}),
         R"({"id":"g2","type":"gemini","model":"gemini-2.5-pro","tokens":{"input":"100","output":10}})"
         "\n",
         R"({"id":"g3","type":"gemini","model":"gemini-2.5-pro","content":")" + bad +
             R"(","tokens":{"input":7,"output":1}})"
             "\n"},
        {"antigravity", AntigravityReader::reader,
         ".gemini/antigravity/brain/c/.system_generated/logs/transcript.jsonl",
         tc::antigravityModelLine(1, "2026-06-26T21:16:17Z", "done", ""), "[1,2,3]\n",
         R"({"step_index":4,"source":"MODEL","type":"PLANNER_RESPONSE","content":")" + bad +
             "\"}\n"},
        {"kimi", KimiReader::reader, ".kimi/sessions/m/s/wire.jsonl",
         tc::kimiStatusLine(1755771330.5, tc::KimiUsage{10, 2, 0, 0}, "c1"),
         R"({"timestamp":1755771331,"message":{"type":"StatusUpdate","payload":{"token_usage":{"input_other":[1],"output":2},"message_id":"c2"}}})"
         "\n",
         R"({"timestamp":1755771332,"note":")" + bad +
             R"(","message":{"type":"StatusUpdate","payload":{"token_usage":{"input_other":3,"output":1},"message_id":"c3"}}})"
             "\n"},
        {"grok", GrokReader::reader, ".grok/sessions/%2Ft/s/updates.jsonl",
         tc::grokTurnLine("s", 0, tc::GrokUsage{100, 10, 0, {}, {}}, "2026-08-21T10:00:00Z"),
         R"({"params":{"update":{"prompt_index":1,"usage":{"inputTokens":true,"outputTokens":1}}}})"
         "\n",
         R"({"params":{"text":")" + bad +
             R"(","update":{"prompt_index":2,"usage":{"inputTokens":5,"outputTokens":1}}}})"
             "\n"},
        {"copilot", CopilotReader::reader, ".copilot/session-state/s/events.jsonl",
         tc::copilotShutdownLine("sd1", "2026-08-21T10:00:00Z", {{"gpt-5", {100, 10, 0, 0, {}}}}),
         R"({"type":"session.shutdown","id":"sd2","data":{"modelMetrics":{"gpt-5":{"usage":{"inputTokens":1e15,"outputTokens":1}}}}})"
         "\n",
         R"({"type":"session.shutdown","id":"sd3","data":{"note":")" + bad +
             R"(","modelMetrics":{"gpt-5":{"usage":{"inputTokens":5,"outputTokens":1}}}}})"
             "\n"},
    };
}

TEST(TranscriptReaders, HostileLinesAreSkippedAndCountedAndPartialLinesWait) {
    for (const auto& c : hostileCases()) {
        SCOPED_TRACE(c.name);
        TempDir home;
        const auto reader = c.reader();
        const auto file = home / c.file;
        const std::string complete = c.usageLine + c.wrongTypes + "not json at all\n" + c.badUTF8;
        const std::string partial = c.usageLine.substr(0, c.usageLine.size() / 2);
        corpus::writeFile(home.path(), c.file, complete + partial);

        auto first = readFile(reader, file);
        EXPECT_EQ(first.events.size(), 2u);
        EXPECT_EQ(first.result.stats.malformed, 2);
        EXPECT_FALSE(first.result.formatChanged);
        EXPECT_EQ(first.result.checkpoint.byteOffset, static_cast<int64_t>(complete.size()));
        EXPECT_EQ(first.result.checkpoint.partialLineStart, static_cast<int64_t>(complete.size()));
        for (const auto& e : first.events) {
            EXPECT_GT(e.exclusive.outputVisible, 0);
        }

        // The agent finishes the line: the next read starts there and sees it whole, once.
        corpus::appendFile(home.path(), c.file, c.usageLine.substr(partial.size()));
        auto second = readFile(reader, file, first.result.checkpoint);
        EXPECT_EQ(second.events.size(), 1u);
        EXPECT_EQ(second.result.stats.malformed, 0);
        EXPECT_EQ(second.result.checkpoint.byteOffset, fileSize(file));
        // Each reader takes the record's identity from the record itself (message, step,
        // prompt or event id), so the line read again de-duplicates with its first reading.
        if (!second.events.empty() && !first.events.empty()) {
            EXPECT_EQ(second.events[0].id, first.events[0].id);
        }
    }
}

// ---- Whole synthetic homes, as the benchmark scans them ----

TEST(TranscriptReaders, CorpusHomesYieldTheirExpectedEventCounts) {
    struct Case {
        std::string name;
        std::function<SourceReader()> reader;
        std::function<void(const fs::path&)> write;
        int64_t expected;
        std::vector<fs::path> roots;
        std::string defaultModel;
    };
    const std::vector<Case> cases{
        {"gemini",
         GeminiReader::reader,
         [](const fs::path& h) { tc::writeGeminiHome(h, 8, 5, 7); },
         tc::geminiExpectedEvents(8, 5),
         {".gemini"},
         ""},
        {"antigravity",
         AntigravityReader::reader,
         [](const fs::path& h) { tc::writeAntigravityHome(h, 3, 4, 7); },
         tc::antigravityExpectedEvents(3, 4),
         {".gemini/antigravity"},
         ""},
        {"kimi",
         KimiReader::reader,
         [](const fs::path& h) { tc::writeKimiHome(h, 4, 6, 7); },
         tc::kimiExpectedEvents(4, 6),
         {".kimi", ".kimi-code"},
         "kimi-k2"},
        {"grok",
         GrokReader::reader,
         [](const fs::path& h) { tc::writeGrokHome(h, 3, 5, 7); },
         tc::grokExpectedEvents(3, 5),
         {".grok"},
         ""},
        {"copilot",
         CopilotReader::reader,
         [](const fs::path& h) { tc::writeCopilotHome(h, 3, 2, 7); },
         tc::copilotExpectedEvents(3, 2),
         {".copilot"},
         ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir home;
        c.write(home.path());
        std::vector<fs::path> roots;
        for (const auto& r : c.roots) {
            roots.push_back(home / r);
        }
        const auto ledger = scanAll(c.reader(), roots, c.defaultModel);
        EXPECT_EQ(static_cast<int64_t>(ledger.size()), c.expected);
        for (const auto& [id, e] : ledger) {
            EXPECT_TRUE(e.breakdownTrusted) << id;
            EXPECT_GT(e.exclusive.billedTokens(), 0) << id;
        }
    }
}

}  // namespace
}  // namespace kestrel
