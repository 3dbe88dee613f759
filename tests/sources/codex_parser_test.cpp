#include "core/sources/codex_parser.hpp"

#include <gtest/gtest.h>
#include <zstd.h>

#include <nlohmann/json.hpp>

#include "core/model/base64.hpp"
#include "core/model/event_id.hpp"
#include "core/model/privacy.hpp"
#include "core/sources/zstd_reader.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;

constexpr const char* kSession = "0198c1a2-1111-7222-8333-444455556666";
constexpr const char* kFork = "0198c1a2-9999-7222-8333-444455556666";
constexpr const char* kName =
    "rollout-2026-08-21T12-15-30-0198c1a2-1111-7222-8333-444455556666.jsonl";

struct Totals {
    int64_t input = 0, cached = 0, output = 0, reasoning = 0;
};

nlohmann::json usageJSON(const Totals& t) {
    return {{"input_tokens", t.input},
            {"cached_input_tokens", t.cached},
            {"output_tokens", t.output},
            {"reasoning_output_tokens", t.reasoning},
            {"total_tokens", t.input + t.output}};
}

std::string line(const std::string& ts, const std::string& type, const nlohmann::json& payload) {
    return nlohmann::json{{"timestamp", ts}, {"type", type}, {"payload", payload}}.dump() + "\n";
}

std::string meta(const std::string& id, const std::string& ts, const std::string& forkedFrom = "") {
    nlohmann::json p{{"id", id}, {"timestamp", ts}, {"cwd", "/home/u/app"}, {"originator", "cli"}};
    if (!forkedFrom.empty()) {
        p["forked_from_id"] = forkedFrom;
    }
    return line(ts, "session_meta", p);
}

std::string turn(const std::string& ts, const std::string& model = "gpt-5-codex") {
    return line(ts, "turn_context", {{"cwd", "/home/u/app"}, {"model", model}, {"effort", "high"}});
}

std::string message(const std::string& ts) {
    return line(ts, "response_item",
                {{"type", "message"}, {"role", "assistant"}, {"content", "done"}});
}

std::string report(const std::string& ts, const Totals& total, std::optional<Totals> last = {},
                   const nlohmann::json& limits = nullptr) {
    nlohmann::json info{{"total_token_usage", usageJSON(total)}, {"model_context_window", 272000}};
    if (last) {
        info["last_token_usage"] = usageJSON(*last);
    }
    return line(ts, "event_msg",
                {{"type", "token_count"}, {"info", info}, {"rate_limits", limits}});
}

std::string ts(int second, int millis = 0) {
    char buffer[40];
    std::snprintf(buffer, sizeof buffer, "2026-08-21T10:%02d:%02d.%03dZ", second / 60, second % 60,
                  millis);
    return buffer;
}

// Reads a rollout as Codex's, with "gpt-5" as the configured model.
std::expected<IngestResult, FileError> read(const std::filesystem::path& file,
                                            std::optional<SourceCheckpoint> checkpoint = {}) {
    SourceReadContext context;
    context.source = AgentSource::codex;
    context.file = file;
    context.checkpoint = std::move(checkpoint);
    context.defaultModel = "gpt-5";
    return SourceReaders::collect(CodexParser::ingest, std::move(context));
}

IngestResult ingestFile(const std::filesystem::path& file,
                        const std::optional<SourceCheckpoint>& checkpoint = std::nullopt) {
    auto result = read(file, checkpoint);
    EXPECT_TRUE(result.has_value()) << (result ? "" : result.error().description());
    return result ? *result : IngestResult{};
}

// Field-wise sum of the events' raw counts (providerTotal excluded).
Totals sum(const std::vector<UsageEvent>& events) {
    Totals t;
    for (const auto& e : events) {
        t.input += e.raw.input;
        t.cached += e.raw.cachedInput;
        t.output += e.raw.output;
        t.reasoning += e.raw.reasoning;
    }
    return t;
}

QuotaWindow window(QuotaWindowKind kind, double used, double resetsAt) {
    QuotaWindow w;
    w.kind = kind;
    w.usedPercent = used;
    w.resetsAt = resetsAt;
    return w;
}

std::string compress(const std::string& text) {
    std::string out(ZSTD_compressBound(text.size()), '\0');
    const auto n = ZSTD_compress(out.data(), out.size(), text.data(), text.size(), 3);
    EXPECT_FALSE(ZSTD_isError(n));
    out.resize(n);
    return out;
}

// A session with a turn, two reports with new usage, one repeat, a rate-limit-only report and a
// fill-to-context-window rewrite; the last three carry no usage.
std::string basicSession() {
    std::string s = meta(kSession, ts(0)) + turn(ts(1)) + message(ts(2));
    s += report(ts(3), {100, 80, 10, 4}, Totals{100, 80, 10, 4});
    s += report(ts(9), {250, 200, 30, 10}, Totals{150, 120, 20, 6});
    s += report(ts(10), {250, 200, 30, 10}, Totals{150, 120, 20, 6});
    s += line(ts(11), "event_msg", {{"type", "token_count"}, {"info", nullptr}});
    s += line(ts(12), "event_msg",
              {{"type", "token_count"},
               {"info", {{"total_token_usage", {{"input_tokens", 0}, {"total_tokens", 272000}}}}}});
    return s;
}

TEST(CodexNames, DateAndSessionFromTheFileName) {
    const struct {
        const char* name;
        std::optional<std::string> date;
        std::string session;
    } cases[] = {
        {kName, "2026-08-21", kSession},
        {"rollout-2026-08-21T12-15-30-0198c1a2-1111-7222-8333-444455556666.jsonl.zst", "2026-08-21",
         kSession},
        {"rollout-2026-8-21T12-15-30-x.jsonl", std::nullopt, ""},
        {"rollout-2026-08-21T12-15-30-0198c1a2-1111-7222-8333-44445555666Z.jsonl", "2026-08-21",
         ""},
        {"notes.jsonl", std::nullopt, ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(CodexParser::rolloutDate(c.name), c.date) << c.name;
        EXPECT_EQ(CodexParser::sessionIDFromName(c.name), c.session) << c.name;
    }
}

TEST(CodexDiscover, FindsRolloutsInBothFoldersAndPrefersThePlainFile) {
    TempDir root;
    root.write("sessions/2026/08/21/rollout-2026-08-21T10-00-00-a.jsonl", "");
    root.write("sessions/2026/08/21/rollout-2026-08-21T10-00-00-a.jsonl.zst", "");
    root.write("sessions/2026/08/22/rollout-2026-08-22T10-00-00-b.jsonl.zst", "");
    root.write("archived_sessions/rollout-2026-08-01T10-00-00-c.jsonl", "");
    root.write("sessions/2026/08/21/history.jsonl", "");
    root.write("log/rollout-2026-08-21T10-00-00-d.jsonl", "");
    std::vector<std::string> names;
    for (const auto& p : CodexParser::discover(root.path())) {
        names.push_back(p.filename().string());
    }
    EXPECT_EQ(names, (std::vector<std::string>{"rollout-2026-08-01T10-00-00-c.jsonl",
                                               "rollout-2026-08-21T10-00-00-a.jsonl",
                                               "rollout-2026-08-22T10-00-00-b.jsonl.zst"}));
}

TEST(CodexIngest, RunningTotalsBecomePerReportUsage) {
    TempDir dir;
    const auto file = dir.write(kName, basicSession());
    const auto result = ingestFile(file);
    ASSERT_EQ(result.events.size(), 2u);
    const UsageEvent& second = result.events[1];
    EXPECT_EQ(second.raw, (TokenSnapshot{150, 120, 0, 20, 6, 170}));
    EXPECT_EQ(second.exclusive, (ExclusiveTokens{30, 120, 0, 14, 6}));
    EXPECT_EQ(second.id, EventID::codex(kSession, ts(9), TokenSnapshot{250, 200, 0, 30, 10, 280}));
    EXPECT_EQ(second.provider, "openai");
    EXPECT_EQ(second.source, AgentSource::codex);
    EXPECT_EQ(second.model, "gpt-5-codex");
    EXPECT_EQ(second.sessionID, kSession);
    EXPECT_EQ(second.cwdHash, Privacy::cwdHash("/home/u/app"));
    EXPECT_EQ(second.projectDisplayName, "app");
    EXPECT_EQ(second.timeQuality, ObservationTimeQuality::trusted);
    EXPECT_DOUBLE_EQ(second.occurredAt, 1787306409.0);
    EXPECT_EQ(sum(result.events).input, 250);
    EXPECT_EQ(result.checkpoint.lastCumulative, (TokenSnapshot{250, 200, 0, 30, 10, 280}));
    EXPECT_EQ(result.stats.lines, 8);
    EXPECT_EQ(result.stats.malformed, 0);
}

TEST(CodexIngest, DefaultModelUntilATurnContextNamesOne) {
    TempDir dir;
    const auto file = dir.write(kName, meta(kSession, ts(0)) + report(ts(1), {10, 0, 1, 0}) +
                                           turn(ts(2), "o3") + report(ts(3), {20, 0, 2, 0}));
    const auto result = ingestFile(file);
    ASSERT_EQ(result.events.size(), 2u);
    EXPECT_EQ(result.events[0].model, "gpt-5");
    EXPECT_EQ(result.events[1].model, "o3");
}

TEST(CodexIngest, CounterResetsStartANewBaselineAndNeverGoNegative) {
    const struct {
        const char* what;
        std::optional<Totals> lastAtReset;
        Totals expectedAtReset;
    } cases[] = {
        {"request counts taken", Totals{40, 10, 5, 1}, {40, 10, 5, 1}},
        {"no request counts: the new totals", std::nullopt, {60, 20, 8, 2}},
        {"request counts larger than the totals", Totals{900, 0, 90, 0}, {60, 20, 8, 2}},
    };
    for (const auto& c : cases) {
        TempDir dir;
        const auto file =
            dir.write(kName, meta(kSession, ts(0)) + report(ts(1), {1000, 500, 100, 20}) +
                                 report(ts(2), {60, 20, 8, 2}, c.lastAtReset) +
                                 report(ts(3), {90, 30, 10, 2}));
        const auto result = ingestFile(file);
        ASSERT_EQ(result.events.size(), 3u) << c.what;
        const auto& reset = result.events[1].raw;
        EXPECT_EQ(reset.input, c.expectedAtReset.input) << c.what;
        EXPECT_EQ(reset.output, c.expectedAtReset.output) << c.what;
        EXPECT_EQ(result.events[2].raw.input, 30) << c.what;
        EXPECT_EQ(result.events[2].raw.output, 2) << c.what;
        for (const auto& e : result.events) {
            EXPECT_GE(e.exclusive.inputUncached, 0) << c.what;
            EXPECT_GE(e.exclusive.outputVisible, 0) << c.what;
        }
    }
}

TEST(CodexIngest, AForkCountsOnlyItsOwnUsage) {
    TempDir dir;
    const auto parent =
        dir.write("sessions/a/" + std::string(kName), meta(kSession, ts(0)) + turn(ts(1)) +
                                                          report(ts(10), {100, 50, 10, 0}) +
                                                          report(ts(20), {300, 200, 40, 5}));
    // Created at 10:05:00; the parent's history is copied within a few milliseconds.
    std::string fork = meta(kFork, ts(300), kSession) + meta(kSession, ts(300, 2)) +
                       turn(ts(300, 3)) + report(ts(300, 4), {100, 50, 10, 0}) +
                       message(ts(300, 5)) + report(ts(300, 6), {300, 200, 40, 5});
    // The fork's own turn; its totals continue the parent's.
    fork += turn(ts(340), "o3") + report(ts(345), {420, 260, 55, 9});
    const auto child = dir.write(
        "sessions/b/rollout-2026-08-21T12-20-00-0198c1a2-9999-7222-8333-444455556666.jsonl", fork);

    const auto parentResult = ingestFile(parent);
    const auto forkResult = ingestFile(child);
    ASSERT_EQ(forkResult.events.size(), 1u);
    EXPECT_EQ(forkResult.events[0].sessionID, kFork);
    EXPECT_EQ(forkResult.events[0].model, "o3");
    const Totals p = sum(parentResult.events), f = sum(forkResult.events);
    EXPECT_EQ(p.input + f.input, 420);
    EXPECT_EQ(p.cached + f.cached, 260);
    EXPECT_EQ(p.output + f.output, 55);
    EXPECT_EQ(p.reasoning + f.reasoning, 9);
}

TEST(CodexIngest, ForkReplayStateSurvivesACheckpoint) {
    TempDir dir;
    const std::string head = meta(kFork, ts(300), kSession) + report(ts(300, 4), {100, 50, 10, 0});
    const auto file = dir.write(kName, head);
    const auto first = ingestFile(file);
    EXPECT_TRUE(first.events.empty());
    dir.append(kName, report(ts(300, 9), {300, 200, 40, 5}) + report(ts(345), {420, 260, 55, 9}));
    const auto second = ingestFile(file, first.checkpoint);
    ASSERT_EQ(second.events.size(), 1u);
    EXPECT_EQ(second.events[0].raw.input, 120);
}

TEST(CodexIngest, RateLimitsBecomeALocalSessionQuota) {
    const nlohmann::json absolute{
        {"primary", {{"used_percent", 12.0}, {"window_minutes", 300}, {"resets_at", 1787310000}}},
        {"secondary",
         {{"used_percent", 41.0}, {"window_minutes", 10080}, {"resets_at", 1787800000}}},
        {"credits", nullptr},
        {"plan_type", "plus"}};
    const nlohmann::json relative{
        {"primary", {{"used_percent", 3.5}, {"window_minutes", 300}, {"resets_in_seconds", 600}}},
        {"secondary", nullptr}};
    const struct {
        const char* what;
        nlohmann::json limits;
        std::vector<QuotaWindow> windows;
        std::string plan;
    } cases[] = {
        {"resets_at",
         absolute,
         {window(QuotaWindowKind::session5h, 12.0, 1787310000.0),
          window(QuotaWindowKind::weekly, 41.0, 1787800000.0)},
         "plus"},
        // Relative to the report's own time, 10:00:03.
        {"resets_in_seconds",
         relative,
         {window(QuotaWindowKind::session5h, 3.5, 1787306403.0 + 600)},
         "unknown"},
    };
    for (const auto& c : cases) {
        TempDir dir;
        const auto file = dir.write(
            kName,
            meta(kSession, ts(0)) +
                line(ts(3), "event_msg",
                     {{"type", "token_count"}, {"info", nullptr}, {"rate_limits", c.limits}}));
        const auto result = ingestFile(file);
        ASSERT_TRUE(result.quota.has_value()) << c.what;
        EXPECT_EQ(result.quota->windows, c.windows) << c.what;
        EXPECT_EQ(result.quota->identity.planLabel, c.plan) << c.what;
        EXPECT_EQ(result.quota->provenance, QuotaProvenance::localSession) << c.what;
        EXPECT_DOUBLE_EQ(result.quota->fetchedAt, 1787306403.0) << c.what;
        EXPECT_TRUE(result.events.empty()) << c.what;
    }
}

TEST(CodexIngest, IncrementalReadsMatchOneWholeRead) {
    const std::string all =
        basicSession() + turn(ts(20), "o3") + report(ts(25), {400, 300, 50, 10});
    TempDir whole;
    const auto reference = ingestFile(whole.write(kName, all));

    // Cut inside a line: the unfinished part waits for the next scan.
    const std::size_t cut = all.find("\n", all.size() / 2) + 20;
    TempDir dir;
    const auto file = dir.write(kName, all.substr(0, cut));
    const auto first = ingestFile(file);
    EXPECT_TRUE(first.checkpoint.partialLineStart.has_value());
    dir.append(kName, all.substr(cut));
    const auto second = ingestFile(file, first.checkpoint);

    std::vector<UsageEvent> events = first.events;
    events.insert(events.end(), second.events.begin(), second.events.end());
    EXPECT_EQ(events, reference.events);
    EXPECT_EQ(second.checkpoint.byteOffset, static_cast<int64_t>(all.size()));
    EXPECT_EQ(second.checkpoint.parserContext, reference.checkpoint.parserContext);
}

TEST(CodexIngest, CompressedRolloutReadsLikeThePlainOne) {
    TempDir dir;
    const std::string text = basicSession();
    const auto plain = ingestFile(dir.write("plain/" + std::string(kName), text));
    const auto zstFile = dir.write("zst/" + std::string(kName) + ".zst", compress(text));
    const auto packed = ingestFile(zstFile);
    EXPECT_EQ(packed.events, plain.events);
    EXPECT_EQ(packed.stats.lines, plain.stats.lines);
    EXPECT_EQ(packed.checkpoint.byteOffset,
              static_cast<int64_t>(std::filesystem::file_size(zstFile)));

    // The same stamp: nothing read again. A changed file: everything read again.
    EXPECT_TRUE(ingestFile(zstFile, packed.checkpoint).events.empty());
    dir.write("zst/" + std::string(kName) + ".zst",
              compress(text + report(ts(30), {400, 300, 50, 10})));
    SourceCheckpoint stale = packed.checkpoint;
    stale.fileStamp = "0:0";
    EXPECT_EQ(ingestFile(zstFile, stale).events.size(), 3u);
}

TEST(CodexIngest, DamagedCompressedRolloutIsAReadErrorThatSaysWhy) {
    const std::string packed = compress(basicSession());
    std::string corrupt = packed;
    corrupt[0] = 'X';  // the frame's magic number
    const struct {
        const char* name;
        std::string bytes;
        const char* says;
    } cases[] = {
        {"cut off", packed.substr(0, packed.size() / 2), "ends inside a frame"},
        {"not Zstandard", corrupt, "damaged Zstandard data"},
    };
    for (const auto& c : cases) {
        TempDir dir;
        const auto file = dir.write(std::string(kName) + ".zst", c.bytes);
        const auto result = read(file);
        ASSERT_FALSE(result.has_value()) << c.name;
        EXPECT_EQ(result.error().operation, "decompress") << c.name;
        EXPECT_NE(result.error().description().find(c.says), std::string::npos)
            << result.error().description();
    }
}

TEST(CodexIngest, MalformedLinesAreSkippedAndCounted) {
    TempDir dir;
    const std::string text = meta(kSession, ts(0)) +
                             "{\"timestamp\":\"x\",\"type\":\"event_msg\"\n" + "[1,2]\n" + "\n" +
                             "{\"type\":\"token_count\", oops}\n" + report(ts(5), {10, 0, 2, 0});
    const auto result = ingestFile(dir.write(kName, text));
    EXPECT_EQ(result.events.size(), 1u);
    EXPECT_EQ(result.stats.malformed, 3);
    EXPECT_EQ(result.stats.lines, 6);
}

// Reports whose counts cannot be trusted are malformed and change nothing, so the reports around
// them keep their meaning; a file of nothing else says the format changed.
TEST(CodexIngest, UnreadableReportsAreMalformedAndOnlyThemIsAFormatChange) {
    const auto raw = [](const nlohmann::json& total) {
        return line(ts(30), "event_msg",
                    {{"type", "token_count"}, {"info", {{"total_token_usage", total}}}});
    };
    const struct {
        const char* name;
        std::string bad;
    } cases[] = {
        {"count as text", raw({{"input_tokens", "12"}, {"output_tokens", 1}})},
        {"count beyond any request",
         raw({{"input_tokens", 9000000000000000000LL}, {"output_tokens", 1}})},
        {"large negative count", raw({{"input_tokens", -9000000000000000000LL}})},
        {"no known key", raw({{"prompt", 12}, {"completion", 3}})},
        {"token object of another type", raw("lots")},
    };
    for (const auto& c : cases) {
        TempDir dir;
        const auto alone = ingestFile(dir.write(kName, meta(kSession, ts(0)) + c.bad));
        EXPECT_TRUE(alone.events.empty()) << c.name;
        EXPECT_EQ(alone.stats.malformed, 1) << c.name;
        EXPECT_TRUE(alone.formatChanged) << c.name;

        // Between two good reports it neither counts nor moves the baseline.
        const auto mixed =
            ingestFile(dir.write(kName, meta(kSession, ts(0)) + report(ts(10), {100, 0, 10, 0}) +
                                            c.bad + report(ts(50), {160, 0, 15, 0})));
        ASSERT_EQ(mixed.events.size(), 2u) << c.name;
        EXPECT_EQ(mixed.events[1].raw.input, 60) << c.name;
        EXPECT_FALSE(mixed.formatChanged) << c.name;
    }
    // The largest count a request could plausibly carry is still read.
    TempDir dir;
    const auto huge = [](int second) {
        const nlohmann::json last{{"input_tokens", 1'000'000'000'000LL}, {"output_tokens", 1}};
        return line(ts(second), "event_msg",
                    {{"type", "token_count"}, {"info", {{"last_token_usage", last}}}});
    };
    std::string text = meta(kSession, ts(0));
    for (int i = 1; i <= 3; ++i) {
        text += huge(i);
    }
    EXPECT_EQ(ingestFile(dir.write(kName, text)).events.size(), 3u);
}

TEST(CodexIngest, EventEnvelopeWithCacheWritesIsAccepted) {
    TempDir dir;
    nlohmann::json info{{"total_token_usage",
                         {{"input_tokens", 500},
                          {"cached_input_tokens", 300},
                          {"cache_write_input_tokens", 100},
                          {"output_tokens", 40},
                          {"reasoning_output_tokens", 0},
                          {"total_tokens", 540}}},
                        {"latest_response_model", "gpt-5.1-codex"}};
    const std::string text =
        meta(kSession, ts(0)) +
        line(ts(4), "event",
             {{"id", "7"}, {"event_seq", 42}, {"msg", {{"type", "token_count"}, {"info", info}}}});
    const auto result = ingestFile(dir.write(kName, text));
    ASSERT_EQ(result.events.size(), 1u);
    EXPECT_EQ(result.events[0].model, "gpt-5.1-codex");
    // Codex does not count cache writes inside input.
    EXPECT_EQ(result.events[0].exclusive, (ExclusiveTokens{200, 300, 100, 40, 0}));
}

TEST(CodexAuth, ReadsEmailAndPlanFromTheIdToken) {
    auto jwt = [](const nlohmann::json& claims) {
        std::string body = base64::encode(claims.dump());
        for (char& c : body) {
            c = c == '+' ? '-' : c == '/' ? '_' : c;
        }
        body.erase(body.find_last_not_of('=') + 1);
        return "eyJhbGciOiJSUzI1NiJ9." + body + ".sig";
    };
    const nlohmann::json claims{{"email", "alice@example.com"},
                                {"https://api.openai.com/auth", {{"chatgpt_plan_type", "pro"}}}};
    const auto identity = CodexParser::accountIdentityFromAuthJSON(
        {{"auth_mode", "chatgpt"}, {"tokens", {{"id_token", jwt(claims)}}}});
    ASSERT_TRUE(identity.has_value());
    EXPECT_EQ(identity->emailMasked, "a***e@example.com");
    EXPECT_EQ(identity->planLabel, "pro");
    EXPECT_EQ(identity->source, AgentSource::codex);

    EXPECT_FALSE(CodexParser::accountIdentityFromAuthJSON({{"OPENAI_API_KEY", "sk"}}));
    EXPECT_FALSE(CodexParser::accountIdentityFromAuthJSON({{"tokens", {{"id_token", "x.@@.y"}}}}));
}

TEST(ZstdReader, StreamsLinesAcrossChunksWithPadding) {
    // Lines longer than the decoder's output block, and a last line without a line feed.
    std::string text;
    std::vector<std::string> expected;
    for (int i = 0; i < 40; ++i) {
        expected.push_back(std::string(static_cast<std::size_t>(1000 + i * 7919), 'a' + i % 26));
        text += expected.back() + (i % 3 == 0 ? "\r\n" : "\n");
    }
    expected.push_back("tail");
    text += "tail";
    TempDir dir;
    const auto file = dir.write("x.jsonl.zst", compress(text));
    std::vector<std::string> lines;
    std::vector<int64_t> offsets;
    const auto end = Zstd::forEachLine(file, [&](std::string_view l, int64_t offset) {
        lines.emplace_back(l);
        offsets.push_back(offset);
        volatile char past = l.data()[l.size() + JSONL::kLinePadding - 1];
        (void)past;
    });
    ASSERT_TRUE(end.has_value());
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(end->nextOffset, static_cast<int64_t>(text.size()));
    EXPECT_EQ(offsets.back(), static_cast<int64_t>(text.size() - 4));
    EXPECT_FALSE(end->partialStart.has_value());

    lines.clear();
    const auto limited = Zstd::forEachLine(
        file, [&](std::string_view l, int64_t) { lines.emplace_back(l); }, 5000);
    ASSERT_TRUE(limited.has_value());
    EXPECT_EQ(limited->oversizedLines + limited->lines, 41);
    for (const auto& l : lines) {
        EXPECT_LE(l.size(), 5000u);
    }
}

}  // namespace
}  // namespace kestrel
