// Records of one Claude Code message met in several places (a resumed session's replay, a
// sub-agent transcript holding the complete line of a message its parent logged while it was
// still streaming) end as one usage on the day it was first seen, with the complete counts,
// whatever the scans and the order of the files.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "core/ledger/ingestor.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/model/timestamp.hpp"
#include "tests/support/ledger_connection.hpp"
#include "tests/support/temp_dir.hpp"
#include "tests/support/time_zone.hpp"
#include "tools/agent_corpus/corpus_writer.hpp"
#include "tools/agent_corpus/transcript_corpus.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;
namespace tc = corpus::transcripts;

constexpr const char* kSession = ".claude/projects/-home-u-app/0b4c-sess.jsonl";
constexpr const char* kSubAgent = ".claude/projects/-home-u-app/0b4c-sess/subagents/agent-a1.jsonl";
// A resumed session written to a file of its own that sorts before the original.
constexpr const char* kResumed = ".claude/projects/-home-u-app/0a00-resumed.jsonl";

struct Line {
    std::string id;
    std::string timestamp;
    int64_t input = 0;
    int64_t output = 0;
};

std::string claude(const Line& l) {
    return R"({"type":"assistant","sessionId":"0b4c-sess","cwd":"/home/u/app","requestId":"req_)" +
           l.id + R"(","timestamp":")" + l.timestamp + R"(","message":{"id":")" + l.id +
           R"(","model":"claude-sonnet-4-5-20250929","role":"assistant",)"
           R"("content":[{"type":"text","text":"ok"}],"usage":{"input_tokens":)" +
           std::to_string(l.input) +
           R"(,"cache_creation_input_tokens":0,"cache_read_input_tokens":0,"output_tokens":)" +
           std::to_string(l.output) + "}}}\n";
}

std::string lines(const std::vector<Line>& all) {
    std::string out;
    for (const auto& l : all) {
        out += claude(l);
    }
    return out;
}

// Per UTC day: events and output tokens.
using Days = std::map<std::string, std::pair<int64_t, int64_t>>;

// One home and one ledger, scanned as the application does.
struct Scanner {
    explicit Scanner(AgentSource source = AgentSource::claude) : source(source) {}
    void write(const char* file, const std::string& text) { home.append(file, text); }
    void scan() { ingestor.scan(home.path(), settings, std::set{source}, false); }

    // The days as the reports see them (through the per-day rollups).
    Days days() {
        Days out;
        for (const auto& b : store.ledgerTimeBuckets({}, LedgerBucketUnit::day)) {
            auto& [events, output] = out[formatISO8601UTC(b.start).substr(0, 10)];
            events += b.summary.eventCount;
            output += b.summary.outputVisible.value_or(0);
        }
        return out;
    }

    // The same straight from the events, which the rollups must agree with.
    Days daysFromEvents() {
        test_support::LedgerConnection ledger(store.databasePath());
        sqlite::Statement s(ledger.get(),
                            "SELECT strftime('%Y-%m-%d', occurred_at, 'unixepoch'), COUNT(*), "
                            "SUM(output_visible) FROM ledger_events GROUP BY 1;");
        Days out;
        while (s.step()) {
            out[s.text(0)] = {s.int64(1), s.int64(2)};
        }
        return out;
    }

    AgentSource source;
    TempDir home;
    TempDir support;
    UsageStore store{support.path()};
    Ingestor ingestor{store, PriceTable::bundled(), nullptr};
    AppSettings settings;
};

using Files = std::vector<std::pair<const char*, std::string>>;

struct Case {
    const char* name;
    Files firstScan, secondScan;
    AgentSource source = AgentSource::claude;
};

// Runs every case in a fresh ledger: the days after the last scan, through the rollups and
// straight from the events, and the totals over all days. Each case runs twice: committed whole,
// and one usage per commit, so that copies of a usage meet across commits of one first import.
void expectDaysOfEveryCase(const std::vector<Case>& cases, const Days& expected) {
    test_support::ScopedTimeZone utc("UTC");
    int64_t events = 0, output = 0;
    for (const auto& [day, totals] : expected) {
        events += totals.first;
        output += totals.second;
    }
    for (const auto& c : cases) {
        for (const std::size_t perCommit : {std::size_t{8192}, std::size_t{1}}) {
            SCOPED_TRACE(std::string(c.name) + ", usages per commit " + std::to_string(perCommit));
            Scanner s(c.source);
            s.ingestor.setEventsPerCommit(perCommit);
            for (const auto& [file, text] : c.firstScan) {
                s.write(file, text);
            }
            s.scan();
            for (const auto& [file, text] : c.secondScan) {
                s.write(file, text);
            }
            s.scan();
            EXPECT_EQ(s.days(), expected);
            EXPECT_EQ(s.daysFromEvents(), expected);
            const auto all = s.store.ledgerSummary({});
            EXPECT_EQ(all.eventCount, events);
            EXPECT_EQ(all.outputVisible.value_or(0), output);
        }
    }
}

const std::vector<Line> kDayOne = {
    {"msg_01", "2026-08-21T09:00:00.000Z", 30, 120},
    {"msg_02", "2026-08-21T09:05:00.000Z", 40, 250},
    {"msg_03", "2026-08-21T16:30:00.000Z", 50, 75},
};
// The resume two days later appends copies of the earlier lines, stamped with its own time.
const std::vector<Line> kReplay = {
    {"msg_01", "2026-08-23T11:00:00.000Z", 30, 120},
    {"msg_02", "2026-08-23T11:00:00.000Z", 40, 250},
    {"msg_03", "2026-08-23T11:00:00.000Z", 50, 75},
};
const Line kAfterResume{"msg_04", "2026-08-23T11:02:00.000Z", 10, 60};

TEST(IdentityMergeScanTest, AResumedSessionsReplayStaysOnTheDayOfTheOriginal) {
    const Days expected = {{"2026-08-21", {3, 445}}, {"2026-08-23", {1, 60}}};
    const std::vector<Case> cases = {
        {"replay in the same file, one scan",
         {{kSession, lines(kDayOne) + lines(kReplay) + claude(kAfterResume)}},
         {}},
        {"replay appended after the first scan",
         {{kSession, lines(kDayOne)}},
         {{kSession, lines(kReplay) + claude(kAfterResume)}}},
        {"replay in a file read before the original, one scan",
         {{kSession, lines(kDayOne)}, {kResumed, lines(kReplay) + claude(kAfterResume)}},
         {}},
        {"replay scanned first, the original later",
         {{kResumed, lines(kReplay) + claude(kAfterResume)}},
         {{kSession, lines(kDayOne)}}},
    };
    expectDaysOfEveryCase(cases, expected);
}

// The parent transcript logs a message while it streams (a placeholder output count) just
// before midnight; the complete line of the same message is in the sub-agent transcript, stamped
// seconds later, on the next day.
const Line kPlaceholder{"msg_10", "2026-08-21T23:59:58.000Z", 900, 1};
const Line kComplete{"msg_10", "2026-08-22T00:00:03.000Z", 900, 640};
const Line kParentOnly{"msg_11", "2026-08-22T00:01:00.000Z", 20, 35};

TEST(IdentityMergeScanTest, TheCompleteCountOfAnotherFileWinsOverAStreamingPlaceholder) {
    const Days expected = {{"2026-08-21", {1, 640}}, {"2026-08-22", {1, 35}}};
    const std::string parent = claude(kPlaceholder) + claude(kParentOnly);
    const std::vector<Case> cases = {
        {"one scan, the parent read first",
         {{kSession, parent}, {kSubAgent, claude(kComplete)}},
         {}},
        {"one scan, the placeholder in the file read last",
         {{kSession, claude(kComplete) + claude(kParentOnly)}, {kSubAgent, claude(kPlaceholder)}},
         {}},
        {"the parent scanned first, the sub-agent later",
         {{kSession, parent}},
         {{kSubAgent, claude(kComplete)}}},
        {"the sub-agent scanned first, the parent later",
         {{kSubAgent, claude(kComplete)}},
         {{kSession, parent}}},
    };
    expectDaysOfEveryCase(cases, expected);
}

// A ledger filled before records of one message were merged holds a replayed usage on the
// replay's day; the new reading rules read every transcript again, and the stored row, compared
// with the original line, goes back to its day.
TEST(IdentityMergeScanTest, ALedgerDatedByAReplayIsCorrectedByTheNextScan) {
    test_support::ScopedTimeZone utc("UTC");
    Scanner s;
    s.write(kSession, lines(kDayOne) + lines(kReplay) + claude(kAfterResume));
    s.scan();
    {
        test_support::LedgerConnection ledger(s.store.databasePath());
        // What the last-record rule left: the replay's time, and checkpoints of that reading.
        for (const char* table : {"usage_observations", "ledger_events"}) {
            sqlite::exec(ledger.get(), std::string("UPDATE ") + table + " SET occurred_at=" +
                                           std::to_string(*parseISO8601(kReplay[0].timestamp)) +
                                           " WHERE occurred_at<" +
                                           std::to_string(*parseISO8601(kReplay[0].timestamp)) +
                                           ";");
        }
        sqlite::exec(ledger.get(),
                     "UPDATE checkpoints SET json=json_set(json, '$.parserVersion', 1);");
    }
    s.store.refreshRollups();
    ASSERT_EQ(s.days(), (Days{{"2026-08-23", {4, 505}}}));

    Ingestor upgraded{s.store, PriceTable::bundled(), nullptr};
    upgraded.scan(s.home.path(), s.settings, std::set{AgentSource::claude}, false);
    const Days expected = {{"2026-08-21", {3, 445}}, {"2026-08-23", {1, 60}}};
    EXPECT_EQ(s.days(), expected);
    EXPECT_EQ(s.daysFromEvents(), expected);
}

// The same traps in other agents' logs. Kimi CLI forwards a sub-agent's step into the parent's
// log, stamped when forwarded; pi copies entries into a fork under their id and message time; a
// Gemini CLI session appends a whole message again when it changes. The copy's later stamp must
// not move the usage, whichever file is read or scanned first.
constexpr const char* kKimiParent = ".kimi/sessions/0a1b/sess-A/wire.jsonl";
constexpr const char* kKimiSub = ".kimi/sessions/0a1b/sess-A/subagents/agent-1/wire.jsonl";
constexpr const char* kPiOriginal =
    ".pi/agent/sessions/--home-dev-app--/2026-08-21T23-00-00-000Z_s1.jsonl";
constexpr const char* kPiFork =
    ".pi/agent/sessions/--home-dev-app--/2026-08-22T09-00-00-000Z_s2.jsonl";
constexpr const char* kGemini = ".gemini/tmp/webapp/chats/session-2026-08-21T23-59-0b5e1f2a.jsonl";

std::string piHeader(const char* id, const char* iso) {
    return std::string(R"({"type":"session","version":3,"id":")") + id + R"(","timestamp":")" +
           iso + R"(","cwd":"/home/dev/app"})" + "\n";
}

// An assistant entry whose own time is `iso`; the message keeps its first time in epoch ms.
std::string piReply(const char* iso) {
    return std::string(R"({"type":"message","id":"a1b2c3d4","parentId":"9f8e7d6c","timestamp":")") +
           iso +
           R"(","message":{"role":"assistant","api":"anthropic-messages","provider":"anthropic",)"
           R"("model":"claude-sonnet-4-5","usage":{"input":12,"output":340,"cacheRead":18000,)"
           R"("cacheWrite":900,"totalTokens":19252},"stopReason":"stop","timestamp":1787356790000}})" +
           "\n";
}

TEST(IdentityMergeScanTest, OtherAgentsCopiesStayOnTheDayTheyWereFirstSeen) {
    const tc::KimiUsage step{400, 60, 1000, 0};
    // 2026-08-21T23:59:59.5Z in the sub-agent's log, forwarded a second later.
    const std::string own = tc::kimiStatusLine(1787356799.5, step, "chatcmpl-sub");
    const std::string forwarded = "{\"type\":\"metadata\",\"protocol_version\":\"1.10\"}\n" +
                                  tc::kimiSubagentLine(1787356800.5, step, "chatcmpl-sub");
    const std::string original =
        piHeader("s1", "2026-08-21T23:00:00.000Z") + piReply("2026-08-21T23:59:50.000Z");
    const std::string fork =
        piHeader("s2", "2026-08-22T09:00:00.000Z") + piReply("2026-08-22T09:00:00.100Z");
    const std::string geminiStart =
        tc::geminiMetadataLine("0b5e1f2a-1", "2026-08-21T23:59:00.000Z") +
        tc::geminiMessageLine({"g1", "2026-08-21T23:59:58.000Z", "gemini", "gemini-2.5-pro",
                               tc::GeminiTokens{4000, 340, 0, 0, 0}});
    const std::string geminiAgain =
        tc::geminiMessageLine({"g1", "2026-08-22T00:00:04.000Z", "gemini", "gemini-2.5-pro",
                               tc::GeminiTokens{4000, 340, 0, 0, 0}});

    const std::vector<Case> cases = {
        {"kimi, one scan", {{kKimiParent, forwarded}, {kKimiSub, own}}, {}, AgentSource::kimi},
        {"kimi, the parent scanned first",
         {{kKimiParent, forwarded}},
         {{kKimiSub, own}},
         AgentSource::kimi},
        {"kimi, the sub-agent scanned first",
         {{kKimiSub, own}},
         {{kKimiParent, forwarded}},
         AgentSource::kimi},
        {"pi, one scan", {{kPiOriginal, original}, {kPiFork, fork}}, {}, AgentSource::pi},
        {"pi, the fork scanned first",
         {{kPiFork, fork}},
         {{kPiOriginal, original}},
         AgentSource::pi},
        {"gemini, one scan", {{kGemini, geminiStart + geminiAgain}}, {}, AgentSource::gemini},
        {"gemini, appended again after a scan",
         {{kGemini, geminiStart}},
         {{kGemini, geminiAgain}},
         AgentSource::gemini},
    };
    for (const auto& c : cases) {
        const int64_t output = c.source == AgentSource::kimi ? 60 : 340;
        expectDaysOfEveryCase({c}, {{"2026-08-21", {1, output}}});
    }
}

}  // namespace
}  // namespace kestrel
