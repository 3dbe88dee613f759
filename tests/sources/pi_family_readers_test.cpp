// The pi session format family: pi, omp, Prime Agent, OpenClaw (files, database, cold archives)
// and Craft Agents' pi backend, all through one line parser.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "core/ledger/event_finishing.hpp"
#include "core/ledger/ingestor.hpp"
#include "core/ledger/usage_merge.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/model/privacy.hpp"
#include "core/sources/checkpoint_reuse.hpp"
#include "core/sources/openclaw_reader.hpp"
#include "core/sources/pi_session_format.hpp"
#include "core/sources/readonly_sqlite.hpp"
#include "core/sources/transcripts/craft_reader.hpp"
#include "core/sources/transcripts/omp_reader.hpp"
#include "core/sources/transcripts/pi_reader.hpp"
#include "core/sources/transcripts/prime_agent_reader.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/agent_corpus/corpus_writer.hpp"
#include "tools/agent_corpus/pi_corpus.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
namespace pc = corpus::pi;
using test_support::TempDir;

constexpr int64_t kT0 = 1772359200000;  // 2026-03-01T10:00:00Z

SourceReader readerOf(AgentSource source) {
    return *SourceReaders::reader(source);
}

// An event as the ingestor commits it under the default settings.
UsageEvent finished(UsageEvent e) {
    return finishEvent(std::move(e), AppSettings{}, PriceTable::empty());
}

// The ingestor's handling of one source across scans, reduced to what matters here: which
// files are read and from where (the same decisions the scan makes), and the ledger's one
// event per id, its records merged as the ledger merges them.
struct MiniLedger {
    explicit MiniLedger(AgentSource source) : source(source), reader(readerOf(source)) {}

    AgentSource source;
    SourceReader reader;
    std::map<std::string, SourceCheckpoint> checkpoints;
    std::map<std::string, UsageEvent> ledger;
    std::vector<UsageEvent> lastEvents;  // handed over by the last scan
    std::map<std::string, FileReadPlan> lastPlans;
    ReadStats lastStats;
    std::vector<FileError> errors;

    void scan(const std::vector<fs::path>& roots) {
        lastEvents.clear();
        lastPlans.clear();
        lastStats = {};
        std::set<std::pair<uint64_t, uint64_t>> identities;
        for (const auto& root : roots) {
            for (const auto& file : reader.discover(root, &errors)) {
                std::optional<SourceCheckpoint> previous;
                if (auto it = checkpoints.find(SourceCheckpoint::stableIDFor(file));
                    it != checkpoints.end()) {
                    previous = it->second;
                }
                FileReadDecision decision;
                if (reader.kind == SourceReaderKind::store) {
                    decision.fileStamp = storeStamp(file);
                    decision.plan = !previous ? FileReadPlan::fromStart
                                    : previous->fileStamp == decision.fileStamp
                                        ? FileReadPlan::skipUnchanged
                                        : FileReadPlan::resume;
                } else {
                    decision = decideFileRead(file, previous, reader.parserVersion);
                }
                if (decision.identity && !identities.insert(*decision.identity).second) {
                    continue;
                }
                lastPlans[file.string()] = decision.plan;
                if (decision.plan == FileReadPlan::skipUnchanged) {
                    continue;
                }
                if (decision.plan == FileReadPlan::fromStart) {
                    previous.reset();
                }
                std::vector<UsageEvent> events;
                SourceReadContext context;
                context.source = source;
                context.file = file;
                context.checkpoint = previous;
                context.sink = [&](UsageEvent&& e) { events.push_back(finished(std::move(e))); };
                auto result = reader.ingest(context);
                if (!result) {
                    errors.push_back(result.error());
                    continue;
                }
                lastStats.lines += result->stats.lines;
                lastStats.malformed += result->stats.malformed;
                lastStats.withoutUsage += result->stats.withoutUsage;
                for (auto& e : result->events)
                    events.push_back(finished(e));
                for (auto& e : events) {
                    lastEvents.push_back(e);
                    if (auto [it, added] = ledger.try_emplace(e.id, e); !added) {
                        UsageMerge::merge(it->second, UsageEvent(e));
                    }
                }
                result->checkpoint.fileStamp = decision.fileStamp;
                checkpoints[result->checkpoint.stableID] = result->checkpoint;
            }
        }
    }

    int64_t sum(int64_t ExclusiveTokens::*bucket) const {
        int64_t total = 0;
        for (const auto& [id, e] : ledger)
            total += e.exclusive.*bucket;
        return total;
    }
};

// Reads one file from scratch with the reader of `source`, collecting its events.
struct OneRead {
    std::vector<UsageEvent> events;
    IngestResult result;
};

OneRead readOnce(AgentSource source, const fs::path& file,
                 const std::optional<SourceCheckpoint>& checkpoint = std::nullopt) {
    SourceReadContext context;
    context.source = source;
    context.file = file;
    context.checkpoint = checkpoint;
    OneRead out;
    context.sink = [&](UsageEvent&& e) { out.events.push_back(finished(std::move(e))); };
    auto result = readerOf(source).ingest(context);
    EXPECT_TRUE(result.has_value()) << (result ? "" : result.error().description());
    if (result) {
        out.result = std::move(*result);
    }
    return out;
}

pc::Request request(std::string id, int64_t ms, pc::Usage usage,
                    std::string model = "claude-sonnet-4-5") {
    pc::Request r;
    r.entryID = std::move(id);
    r.epochMs = ms;
    r.usage = usage;
    r.model = std::move(model);
    return r;
}

// Kernel file times advance in coarse ticks: a test's second write could look unchanged.
void touchLater(const fs::path& file) {
    static int step = 0;
    fs::last_write_time(file, fs::file_time_type::clock::now() + std::chrono::seconds(++step));
}

std::string asText(const std::vector<unsigned char>& bytes) {
    return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// ---------------------------------------------------------------------------------------------
// One line parser for the family: token buckets, cost, what is not a usage.

TEST(PiSessionFormatTest, MapsEachApisCountsIntoBuckets) {
    struct Case {
        const char* name;
        const char* api;
        pc::Usage usage;
        ExclusiveTokens expected;
    };
    const std::vector<Case> cases{
        {"anthropic input excludes cache",
         "anthropic-messages",
         {.input = 12, .output = 340, .cacheRead = 18000, .cacheWrite = 900, .cost = 0.0139},
         {.inputUncached = 12, .cacheRead = 18000, .cacheWrite = 900, .outputVisible = 340}},
        {"gemini input includes cache",
         "google-generative-ai",
         {.input = 5000, .output = 200, .cacheRead = 4096, .cost = 0.002},
         {.inputUncached = 904, .cacheRead = 4096, .outputVisible = 200}},
        {"vertex never below zero",
         "google-vertex",
         {.input = 100, .output = 7, .cacheRead = 4096},
         {.inputUncached = 0, .cacheRead = 4096, .outputVisible = 7}},
        {"reasoning stays inside output",
         "openai-responses",
         {.input = 50, .output = 900, .reasoning = 600},
         {.inputUncached = 50, .outputVisible = 900}},
    };
    TempDir home;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto r = request("a1b2c3d4", kT0, c.usage);
        r.api = c.api;
        corpus::writeFile(home.path(), "s.jsonl", pc::assistantMessage(r));
        auto read = readOnce(AgentSource::pi, home / "s.jsonl");
        ASSERT_EQ(read.events.size(), 1u);
        const auto& e = read.events[0];
        EXPECT_EQ(e.exclusive.inputUncached, c.expected.inputUncached);
        EXPECT_EQ(e.exclusive.cacheRead, c.expected.cacheRead);
        EXPECT_EQ(e.exclusive.cacheWrite, c.expected.cacheWrite);
        EXPECT_EQ(e.exclusive.outputVisible + e.exclusive.reasoning, c.expected.outputVisible);
        EXPECT_EQ(e.raw.reasoning, 0);
        EXPECT_NEAR(e.occurredAt, static_cast<double>(kT0 + 120) / 1000.0, 1e-6);  // the entry's
        EXPECT_EQ(e.usagePrecision, UsagePrecision::nativeExact);
        EXPECT_EQ(e.granularity, UsageGranularity::request);
        if (c.usage.cost > 0) {
            // The agent's own figure stands; the empty price table could not have priced it.
            EXPECT_EQ(e.costSource, CostSource::vendorReported);
            EXPECT_EQ(e.estimatedCostUSDMicros, std::llround(c.usage.cost * 1e6));
        } else {
            EXPECT_NE(e.costSource, CostSource::vendorReported);
        }
    }
}

TEST(PiSessionFormatTest, SkipsWhatIsNotUsageAndCountsWhatIsBroken) {
    const auto good = pc::assistantMessage(request("a1b2c3d4", kT0, {.input = 1, .output = 2}));
    auto replaceIn = [&](const std::string& from, const std::string& to) {
        std::string line = good;
        line.replace(line.find(from), from.size(), to);
        return line;
    };
    pc::Request aborted = request("0000aaaa", kT0, {});
    aborted.stopReason = "aborted";
    struct Case {
        std::string name;
        std::string line;
        int64_t malformed;
        int64_t withoutUsage;
    };
    const std::vector<Case> cases{
        {"zero usage of a failed request", pc::assistantMessage(aborted), 0, 0},
        {"user turn", pc::userMessage("u1", kT0, "hi"), 0, 1},
        {"header", pc::sessionHeader("s", "/w", kT0), 0, 1},
        {"task result aggregate", pc::taskResult("t1", kT0, {.input = 9, .output = 9}), 0, 1},
        {"input as text", replaceIn("\"input\":1", "\"input\":\"1\""), 1, 0},
        {"output as bool", replaceIn("\"output\":2", "\"output\":true"), 1, 0},
        {"negative count", replaceIn("\"input\":1", "\"input\":-5"), 1, 0},
        {"count beyond reason", replaceIn("\"input\":1", "\"input\":5000000000000"), 1, 0},
        {"cost total as text", replaceIn("\"total\":0.0", "\"total\":\"x\""), 1, 0},
        {"usage as array",
         "{\"type\":\"message\",\"id\":\"z\",\"message\":{\"role\":\"assistant\","
         "\"usage\":[1,2]}}\n",
         1, 0},
        {"not json", "{\"type\":\"message\",\n", 1, 0},
        {"not an object", "[1,2,3]\n", 1, 0},
    };
    TempDir home;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        corpus::writeFile(home.path(), "s.jsonl", c.line + good);
        auto read = readOnce(AgentSource::pi, home / "s.jsonl");
        EXPECT_EQ(read.events.size(), 1u);  // the good line after it still counts
        EXPECT_EQ(read.result.stats.malformed, c.malformed);
        EXPECT_EQ(read.result.stats.withoutUsage, c.withoutUsage);
    }
}

TEST(PiSessionFormatTest, BadBytesInTextDoNotCostTheRecord) {
    TempDir home;
    std::string line = pc::assistantMessage(request("a1b2c3d4", kT0, {.input = 1, .output = 2}));
    line.replace(line.find("done"), 4, "d\xff\xfe");
    corpus::writeFile(home.path(), "s.jsonl", line);
    auto read = readOnce(AgentSource::pi, home / "s.jsonl");
    ASSERT_EQ(read.events.size(), 1u);
    EXPECT_EQ(read.result.stats.malformed, 0);
    EXPECT_EQ(read.events[0].exclusive.outputVisible, 2);
}

TEST(PiSessionFormatTest, OnlyUnreadableUsageIsAFormatChange) {
    TempDir home;
    const auto bad = std::string(
        "{\"type\":\"message\",\"id\":\"x\",\"message\":{\"role\":\"assistant\",\"usage\":"
        "{\"input\":\"many\"}}}\n");
    corpus::writeFile(home.path(), "s.jsonl", bad + bad);
    auto read = readOnce(AgentSource::pi, home / "s.jsonl");
    EXPECT_TRUE(read.events.empty());
    EXPECT_TRUE(read.result.formatChanged);
}

// ---------------------------------------------------------------------------------------------
// pi: sessions, forks.

TEST(PiReaderTest, ForkedCopiesAreOneRequest) {
    TempDir home;
    const fs::path dir = ".pi/agent/sessions/--home-dev-app--";
    const auto first = request("a1b2c3d4", kT0 + 2000, {.input = 10, .output = 100});
    const auto second = request("b2c3d4e5", kT0 + 6000, {.input = 20, .output = 200});
    corpus::writeFile(home.path(), dir / "2026-03-01T10-00-00-000Z_s1.jsonl",
                      pc::sessionHeader("s1", "/home/dev/app", kT0) + pc::assistantMessage(first) +
                          pc::assistantMessage(second));
    // The fork keeps both entries (ids and times) and adds its own request.
    const auto own = request("c3d4e5f6", kT0 + 9000, {.input = 30, .output = 300});
    corpus::writeFile(home.path(), dir / "2026-03-01T10-05-00-000Z_s2.jsonl",
                      pc::sessionHeader("s2", "/home/dev/app", kT0 + 8000) +
                          pc::assistantMessage(first) + pc::assistantMessage(second) +
                          pc::assistantMessage(own));
    // A different model under the same entry id and time is not a copy.
    corpus::writeFile(home.path(), dir / "2026-03-01T10-06-00-000Z_s3.jsonl",
                      pc::sessionHeader("s3", "/home/dev/app", kT0) +
                          pc::assistantMessage(request("a1b2c3d4", kT0 + 2000,
                                                       {.input = 10, .output = 100}, "gpt-5")));

    MiniLedger ledger(AgentSource::pi);
    ledger.scan({home / ".pi/agent"});
    EXPECT_TRUE(ledger.errors.empty());
    EXPECT_EQ(ledger.lastEvents.size(), 6u);
    EXPECT_EQ(ledger.ledger.size(), 4u);
    EXPECT_EQ(ledger.sum(&ExclusiveTokens::outputVisible), 100 + 200 + 300 + 100);
    for (const auto& [id, e] : ledger.ledger) {
        EXPECT_EQ(e.cwdHash, Privacy::cwdHash("/home/dev/app")) << id;
    }
    // A scan with nothing new reads nothing.
    ledger.scan({home / ".pi/agent"});
    EXPECT_TRUE(ledger.lastEvents.empty());
}

// Every generated home holds exactly the events its writer announces, read once, and a second
// scan over unchanged files reads none of them again.
TEST(PiFamilyCorpusTest, GeneratedHomesMatchTheirAnnouncedCounts) {
    struct Case {
        AgentSource source;
        void (*write)(const fs::path&, int, int, uint64_t);
        int64_t (*expected)(int, int);
        std::vector<fs::path> roots;
    };
    const std::vector<Case> cases{
        {AgentSource::pi, pc::writePiHome, pc::piHomeEvents, {".pi/agent"}},
        {AgentSource::omp, pc::writeOmpHome, pc::ompHomeEvents, {".omp"}},
        {AgentSource::primeAgent, pc::writePrimeAgentHome, pc::primeAgentHomeEvents, {".prime"}},
        {AgentSource::openclaw, pc::writeOpenClawHome, pc::openClawHomeEvents, {".openclaw"}},
        // The configuration folder and the workspace it names, as the catalogue lists them.
        {AgentSource::craft,
         pc::writeCraftHome,
         pc::craftHomeEvents,
         {".craft-agent", "craft/main"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(rawValue(c.source)));
        TempDir home;
        c.write(home.path(), 7, 5, 42);
        std::vector<fs::path> roots;
        for (const auto& r : c.roots)
            roots.push_back(home / r);
        MiniLedger ledger(c.source);
        ledger.scan(roots);
        EXPECT_TRUE(ledger.errors.empty());
        EXPECT_EQ(ledger.lastStats.malformed, 0);
        EXPECT_EQ(static_cast<int64_t>(ledger.ledger.size()), c.expected(7, 5));
        for (const auto& [id, e] : ledger.ledger) {
            EXPECT_EQ(e.source, c.source);
            EXPECT_GT(e.exclusive.billedTokens(), 0);
        }
        ledger.scan(roots);
        EXPECT_TRUE(ledger.lastEvents.empty());
    }
}

// The same homes through the real scan and ledger, with the readers as registered: each
// usage lands once, and a second scan adds nothing. Estimates (Craft's session headers) are kept
// as observations but, being estimates, never enter the ledger's totals.
TEST(PiFamilyCorpusTest, RegisteredReadersFillTheLedgerOnce) {
    struct Case {
        AgentSource source;
        void (*write)(const fs::path&, int, int, uint64_t);
        int64_t (*expected)(int, int);
        int64_t estimates;  // of 4 sessions
    };
    const std::vector<Case> cases{
        {AgentSource::pi, pc::writePiHome, pc::piHomeEvents, 0},
        {AgentSource::omp, pc::writeOmpHome, pc::ompHomeEvents, 0},
        {AgentSource::primeAgent, pc::writePrimeAgentHome, pc::primeAgentHomeEvents, 0},
        {AgentSource::openclaw, pc::writeOpenClawHome, pc::openClawHomeEvents, 0},
        {AgentSource::craft, pc::writeCraftHome, pc::craftHomeEvents, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(rawValue(c.source)));
        TempDir home, support;
        c.write(home.path(), 4, 3, 9);
        UsageStore store(support.path());
        Ingestor ingestor(store, PriceTable::bundled(), nullptr);
        LedgerQuery query;
        query.source = c.source;
        for (int scan = 0; scan < 2; ++scan) {
            ingestor.scan(home.path(), AppSettings{}, std::set{c.source}, false);
            const auto reports = ingestor.lastReports();
            ASSERT_EQ(reports.size(), 1u);
            const auto& r = reports[0];
            EXPECT_EQ(r.status, SourceStatus::healthy)
                << "roots " << r.roots.size() << ", files " << r.filesSeen << " seen, "
                << r.filesRead << " read, " << r.events << " events, " << r.malformed
                << " malformed, " << r.errors.size() << " errors";
            EXPECT_EQ(store.ledgerEventCount(query), c.expected(4, 3) - c.estimates);
            EXPECT_EQ(store.usageObservationCount(), c.expected(4, 3));
        }
    }
}

// ---------------------------------------------------------------------------------------------
// omp: the title slot, side calls, sub-agents.

TEST(OmpReaderTest, RewrittenTitleSlotNeitherLosesNorDoublesUsage) {
    TempDir home;
    const fs::path file = home / ".omp/agent/sessions/-work/2026-03-01T10-00-00-000Z_s1.jsonl";
    const auto header = pc::sessionHeader("s1", "/home/dev/work", kT0);
    const auto m1 =
        pc::assistantMessage(request("aaaa0001", kT0 + 1000, {.input = 1, .output = 10}));
    const auto m2 =
        pc::assistantMessage(request("aaaa0002", kT0 + 2000, {.input = 2, .output = 20}));
    const auto m3 =
        pc::assistantMessage(request("aaaa0003", kT0 + 3000, {.input = 3, .output = 30}));
    const auto untitled = pc::titleSlot("", kT0, 120);
    const auto titled = pc::titleSlot("Fix the build", kT0 + 5000, 120);
    ASSERT_EQ(untitled.size(), titled.size());
    corpus::writeFile(home.path(), file.lexically_relative(home.path()),
                      untitled + header + m1 + m2);

    MiniLedger ledger(AgentSource::omp);
    ledger.scan({home / ".omp"});
    ASSERT_EQ(ledger.ledger.size(), 2u);

    // Only the title changes: same size, new first bytes. The file is read again, not skipped,
    // and its requests keep their identities.
    corpus::writeFile(home.path(), file.lexically_relative(home.path()), titled + header + m1 + m2);
    touchLater(file);
    EXPECT_EQ(
        decideFileRead(file, ledger.checkpoints.begin()->second, OmpReader::parserVersion).reason,
        "rewritten");
    ledger.scan({home / ".omp"});
    EXPECT_EQ(ledger.lastPlans[file.string()], FileReadPlan::fromStart);
    EXPECT_EQ(ledger.lastEvents.size(), 2u);
    EXPECT_EQ(ledger.ledger.size(), 2u);

    // Retitled again while a request was appended: still one of each.
    corpus::writeFile(home.path(), file.lexically_relative(home.path()),
                      untitled + header + m1 + m2 + m3);
    touchLater(file);
    ledger.scan({home / ".omp"});
    EXPECT_EQ(ledger.ledger.size(), 3u);
    EXPECT_EQ(ledger.sum(&ExclusiveTokens::outputVisible), 60);

    // A plain append resumes: only the new request is read.
    const auto m4 =
        pc::assistantMessage(request("aaaa0004", kT0 + 4000, {.input = 4, .output = 40}));
    corpus::appendFile(home.path(), file.lexically_relative(home.path()), m4);
    touchLater(file);
    ledger.scan({home / ".omp"});
    EXPECT_EQ(ledger.lastPlans[file.string()], FileReadPlan::resume);
    ASSERT_EQ(ledger.lastEvents.size(), 1u);
    EXPECT_EQ(ledger.lastEvents[0].exclusive.outputVisible, 40);
    EXPECT_EQ(ledger.lastEvents[0].sessionID, "s1");  // the header's id survived the resume
    EXPECT_EQ(ledger.ledger.size(), 4u);
}

TEST(OmpReaderTest, SideCallsAndSubAgentsCountOnceTaskAggregateNever) {
    TempDir home;
    const fs::path dir = ".omp/profiles/work/agent/sessions/-work";
    const auto parent = request("aaaa0001", kT0 + 1000, {.input = 5, .output = 50});
    auto side = request("aaaa0002", kT0 + 2000, {.input = 7, .output = 3}, "claude-haiku-4-5");
    auto sub1 = request("bbbb0001", kT0 + 3000, {.input = 100, .output = 1000, .reasoning = 400});
    auto sub2 = request("bbbb0002", kT0 + 4000, {.input = 200, .output = 2000});
    corpus::writeFile(
        home.path(), dir / "2026-03-01T10-00-00-000Z_p1.jsonl",
        pc::titleSlot("t", kT0, 100) + pc::sessionHeader("p1", "/w", kT0) +
            pc::assistantMessage(parent) + pc::modelUsage(side, "title") +
            pc::taskResult("aaaa0003", kT0 + 5000, {.input = 300, .output = 3000, .cost = 1.0}));
    corpus::writeFile(home.path(), dir / "2026-03-01T10-00-00-000Z_p1" / "agent-x1.jsonl",
                      pc::sessionHeader("x1", "/w", kT0 + 2500) + pc::assistantMessage(sub1) +
                          pc::assistantMessage(sub2));

    MiniLedger ledger(AgentSource::omp);
    ledger.scan({home / ".omp"});
    EXPECT_EQ(ledger.ledger.size(), 4u);
    EXPECT_EQ(ledger.sum(&ExclusiveTokens::inputUncached), 5 + 7 + 100 + 200);
    EXPECT_EQ(ledger.sum(&ExclusiveTokens::outputVisible) + ledger.sum(&ExclusiveTokens::reasoning),
              50 + 3 + 1000 + 2000);
    std::set<std::string> models;
    for (const auto& [id, e] : ledger.ledger)
        models.insert(e.model);
    EXPECT_TRUE(models.contains("claude-haiku-4-5"));
}

// ---------------------------------------------------------------------------------------------
// Prime Agent: child usage.

TEST(PrimeAgentReaderTest, CountsEachChildUsageNeverTheAggregate) {
    TempDir home;
    const auto own = request("aaaa0001", kT0 + 1000, {.input = 10, .output = 100});
    auto child1 = request("cccc0001", kT0 + 2000, {.input = 1, .output = 11, .cost = 0.5});
    auto child2 = request("cccc0002", kT0 + 3000, {.input = 2, .output = 22}, "gpt-5");
    corpus::writeFile(
        home.path(), ".prime/agent/sessions/0198c1a2-1111-7222-8333-444455556666.jsonl",
        pc::sessionHeader("0198c1a2-1111-7222-8333-444455556666", "/p", kT0) +
            pc::assistantMessage(own) +
            pc::childUsage("dddd0001", kT0 + 2100, "t1", child1, {.input = 11, .output = 111}) +
            pc::childUsage("dddd0002", kT0 + 3100, "t2", child2, {.input = 13, .output = 133}));
    MiniLedger ledger(AgentSource::primeAgent);
    ledger.scan({home / ".prime"});
    ASSERT_EQ(ledger.ledger.size(), 3u);
    EXPECT_EQ(ledger.sum(&ExclusiveTokens::outputVisible), 100 + 11 + 22);
    int vendorCosts = 0;
    for (const auto& [id, e] : ledger.ledger) {
        vendorCosts += e.costSource == CostSource::vendorReported;
        EXPECT_EQ(e.sessionID, "0198c1a2-1111-7222-8333-444455556666");
    }
    EXPECT_EQ(vendorCosts, 1);
}

// ---------------------------------------------------------------------------------------------
// OpenClaw: the same entries in a transcript, the database (plain and compressed) and a cold
// archive.

struct OpenClawFixture {
    TempDir home;
    fs::path database = home / ".openclaw/agents/main/agent/openclaw-agent.sqlite";
    std::vector<std::string> lines;

    explicit OpenClawFixture(int requests) {
        lines.push_back(pc::sessionHeader("s1", "/home/dev/claw", kT0));
        for (int i = 0; i < requests; ++i) {
            lines.push_back(pc::userMessage("u" + std::to_string(i), kT0 + i * 10, "q"));
            lines.push_back(pc::assistantMessage(request(
                "e000000" + std::to_string(i), kT0 + i * 10 + 5, {.input = 1 + i, .output = 10})));
        }
        fs::create_directories(database.parent_path());
        corpus::FixtureDB db(database);
        db.exec(
            "CREATE TABLE transcript_events (id INTEGER PRIMARY KEY, session_id TEXT, "
            "event_json TEXT, event_zstd BLOB)");
    }

    void insert(std::size_t from, std::size_t to) {
        corpus::FixtureDB db(database);
        for (std::size_t i = from; i < to; ++i) {
            const auto line = lines[i].substr(0, lines[i].size() - 1);
            if (i % 2 == 0) {
                db.run("INSERT INTO transcript_events (session_id, event_json) VALUES (?, ?)",
                       {std::string("s1"), line});
            } else {
                db.run("INSERT INTO transcript_events (session_id, event_zstd) VALUES (?, ?)",
                       {std::string("s1"), corpus::zstdFrame(line)});
            }
        }
    }

    std::string joined() const {
        std::string all;
        for (const auto& l : lines)
            all += l;
        return all;
    }
};

TEST(OpenClawReaderTest, OneEntryInEveryFormIsCountedOnce) {
    OpenClawFixture f(4);
    f.insert(0, f.lines.size());
    corpus::writeFile(f.home.path(), ".openclaw/agents/main/sessions/s1.jsonl", f.joined());
    corpus::writeFile(f.home.path(), ".openclaw/agents/main/sessions/s1.jsonl.reset.1772359999",
                      f.joined());
    corpus::writeFile(f.home.path(), ".openclaw/agents/main/sessions/cold/ab12.jsonl.zst",
                      asText(corpus::zstdFrame(f.joined())));
    corpus::writeFile(f.home.path(), ".openclaw/agents/main/sessions/sessions.json",
                      "{\"agent:main:s1\":{\"sessionId\":\"s1\"}}");

    MiniLedger ledger(AgentSource::openclaw);
    ledger.scan({f.home / ".openclaw"});
    EXPECT_TRUE(ledger.errors.empty());
    EXPECT_EQ(ledger.lastPlans.size(), 4u);  // database, transcript, reset archive, cold archive
    EXPECT_EQ(ledger.lastEvents.size(), 16u);
    EXPECT_EQ(ledger.ledger.size(), 4u);
    EXPECT_EQ(ledger.sum(&ExclusiveTokens::inputUncached), 1 + 2 + 3 + 4);
    for (const auto& [id, e] : ledger.ledger) {
        EXPECT_EQ(e.sessionID, "s1");
        EXPECT_EQ(e.cwdHash, Privacy::cwdHash("/home/dev/claw"));
    }
}

TEST(OpenClawReaderTest, ResumesAfterTheLastRowAndTheLastLine) {
    OpenClawFixture f(6);
    f.insert(0, 5);  // header and the first two requests
    const fs::path transcript = ".openclaw/agents/main/sessions/s2-topic-7.jsonl";
    corpus::writeFile(f.home.path(), transcript, f.lines[0] + f.lines[1] + f.lines[2]);

    MiniLedger ledger(AgentSource::openclaw);
    ledger.scan({f.home / ".openclaw"});
    EXPECT_EQ(ledger.lastEvents.size(), 3u);  // two rows, one line
    EXPECT_EQ(ledger.checkpoints[SourceCheckpoint::stableIDFor(f.database)].logicalHighWater, "5");

    f.insert(5, 9);
    corpus::appendFile(f.home.path(), transcript, f.lines[3] + f.lines[4]);
    touchLater(f.home / transcript);
    touchLater(f.database);
    ledger.scan({f.home / ".openclaw"});
    std::set<std::string> read;
    for (const auto& e : ledger.lastEvents)
        read.insert(e.id);
    EXPECT_EQ(read.size(), 3u);  // rows of requests 3 and 4, the transcript's request 2
    EXPECT_EQ(ledger.lastStats.lines, 4 + 2);
    EXPECT_EQ(ledger.ledger.size(), 4u);
    // The rows after the header still know the session's folder.
    for (const auto& e : ledger.lastEvents) {
        EXPECT_EQ(e.cwdHash, Privacy::cwdHash("/home/dev/claw"));
    }

    // Nothing changed: neither is read.
    ledger.scan({f.home / ".openclaw"});
    EXPECT_TRUE(ledger.lastEvents.empty());
    EXPECT_EQ(ledger.lastPlans[(f.home / transcript).string()], FileReadPlan::skipUnchanged);
}

TEST(OpenClawReaderTest, DamagedFramesCostOnlyThemselves) {
    OpenClawFixture f(2);
    f.insert(0, f.lines.size());
    {
        corpus::FixtureDB db(f.database);
        db.run("INSERT INTO transcript_events (session_id, event_zstd) VALUES (?, ?)",
               {std::string("s1"), std::vector<unsigned char>{0x28, 0xb5, 0x2f, 0xfd, 1, 2, 3}});
        db.run("INSERT INTO transcript_events (session_id, event_zstd) VALUES (?, ?)",
               {std::string("s1"), std::vector<unsigned char>{'n', 'o', 'p', 'e'}});
        db.run("INSERT INTO transcript_events (session_id) VALUES (?)", {std::string("s1")});
    }
    auto fromDB = readOnce(AgentSource::openclaw, f.database);
    EXPECT_EQ(fromDB.events.size(), 2u);
    EXPECT_EQ(fromDB.result.stats.malformed, 3);

    // A cold archive cut off mid-frame: a counted problem, not a failed scan.
    auto frame = corpus::zstdFrame(f.joined());
    frame.resize(frame.size() / 2);
    corpus::writeFile(f.home.path(), ".openclaw/agents/main/sessions/cold/cut.jsonl.zst",
                      asText(frame));
    auto cold = readOnce(AgentSource::openclaw,
                         f.home / ".openclaw/agents/main/sessions/cold/cut.jsonl.zst");
    EXPECT_GE(cold.result.stats.malformed, 1);
    corpus::writeFile(f.home.path(), ".openclaw/agents/main/sessions/cold/junk.jsonl.zst",
                      "plain text, not zstd");
    auto junk = readOnce(AgentSource::openclaw,
                         f.home / ".openclaw/agents/main/sessions/cold/junk.jsonl.zst");
    EXPECT_TRUE(junk.events.empty());
    EXPECT_EQ(junk.result.stats.malformed, 1);
}

TEST(OpenClawReaderTest, DatabaseShapes) {
    TempDir home;
    const fs::path db = home / "openclaw-agent.sqlite";
    const auto line = pc::assistantMessage(request("e0000001", kT0, {.input = 3, .output = 4}));
    struct Case {
        const char* name;
        const char* schema;
        bool formatChanged;
        std::size_t events;
    };
    const std::vector<Case> cases{
        {"text column only, no session column", "CREATE TABLE transcript_events (event_json TEXT)",
         false, 1},
        {"neither event column", "CREATE TABLE transcript_events (id INTEGER, payload TEXT)", true,
         0},
        {"no such table", "CREATE TABLE other (event_json TEXT)", true, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove(db);
        {
            corpus::FixtureDB fixture(db);
            fixture.exec(c.schema);
            if (!c.formatChanged) {
                fixture.run("INSERT INTO transcript_events (event_json) VALUES (?)",
                            {line.substr(0, line.size() - 1)});
            }
        }
        auto read = readOnce(AgentSource::openclaw, db);
        EXPECT_EQ(read.result.formatChanged, c.formatChanged);
        EXPECT_EQ(read.events.size(), c.events);
    }
    corpus::writeFile(home.path(), "openclaw-agent.sqlite", "not a database at all, just text");
    SourceReadContext context;
    context.source = AgentSource::openclaw;
    context.file = db;
    context.sink = [](UsageEvent&&) {};
    const auto notADatabase = OpenClawReader::ingest(context);
    ASSERT_FALSE(notADatabase.has_value());
    EXPECT_EQ(notADatabase.error().sqliteCode, SQLITE_NOTADB);
}

// ---------------------------------------------------------------------------------------------
// Craft: the header only where nothing exact exists.

TEST(CraftReaderTest, SessionHeaderIsAnEstimateOnlyWithoutPerRequestData) {
    TempDir home;
    pc::writeCraftHome(home.path(), 3, 2, 7);  // one pi-backend, one Claude, one header-only
    MiniLedger ledger(AgentSource::craft);
    ledger.scan({home / ".craft-agent", home / "craft/main"});
    EXPECT_TRUE(ledger.errors.empty());
    int estimates = 0, exact = 0;
    for (const auto& [id, e] : ledger.ledger) {
        if (e.usagePrecision == UsagePrecision::estimateOnly) {
            ++estimates;
            EXPECT_EQ(e.granularity, UsageGranularity::sessionAggregate);
            EXPECT_EQ(e.timeQuality, ObservationTimeQuality::inferred);
            EXPECT_EQ(e.costSource, CostSource::vendorReported);
            EXPECT_EQ(e.exclusive.outputVisible, 900 * 2);
        } else {
            ++exact;
            EXPECT_EQ(e.granularity, UsageGranularity::request);
        }
    }
    EXPECT_EQ(exact, 2);      // the pi backend's requests, without its header on top
    EXPECT_EQ(estimates, 1);  // the Claude backend's header is left to the Claude reader

    // The header is rewritten with higher totals: the same estimate, updated, not a second one.
    for (const auto& dir : fs::directory_iterator(home / "craft/main/sessions")) {
        const auto file = dir.path() / "session.jsonl";
        const auto text = *LineSource::readSmallFile(file, 1 << 20);
        auto header = nlohmann::json::parse(text.substr(0, text.find('\n')));
        if (header.contains("sdkSessionId") || fs::exists(dir.path() / ".pi-sessions"))
            continue;
        header["tokenUsage"]["outputTokens"] = 5000;
        corpus::writeFile(home.path(), file.lexically_relative(home.path()),
                          header.dump() + "\n" + text.substr(text.find('\n') + 1));
        touchLater(file);
    }
    ledger.scan({home / ".craft-agent", home / "craft/main"});
    EXPECT_EQ(ledger.ledger.size(), 3u);
    int64_t estimatedOutput = 0;
    for (const auto& [id, e] : ledger.ledger) {
        if (e.usagePrecision == UsagePrecision::estimateOnly)
            estimatedOutput += e.exclusive.outputVisible;
    }
    EXPECT_EQ(estimatedOutput, 5000);
}

// ---------------------------------------------------------------------------------------------
// What each reader finds below its root.

TEST(PiFamilyDiscoveryTest, FindsEachAgentsFilesAndNothingElse) {
    TempDir home;
    const std::vector<std::string> files{
        ".pi/agent/sessions/--w--/a_1.jsonl",
        ".pi/agent/settings.jsonl",
        ".omp/agent/sessions/-w/b_2.jsonl",
        ".omp/agent/sessions/-w/b_2/agent-1.jsonl",
        ".omp/profiles/p/agent/sessions/-w/c_3.jsonl",
        ".omp/agent/logs/x.jsonl",
        ".prime/agent/sessions/0198.jsonl",
        ".openclaw/agents/main/sessions/s.jsonl",
        ".openclaw/agents/main/sessions/s-topic-9.jsonl",
        ".openclaw/agents/main/sessions/s.jsonl.reset.1772359999",
        ".openclaw/agents/main/sessions/sessions.json",
        ".openclaw/agents/main/sessions/cold/ff.jsonl.zst",
        ".openclaw/agents/main/agent/openclaw-agent.sqlite",
        ".openclaw/agents/main/agent/openclaw-agent.sqlite-wal",
        ".openclaw/logs/gateway.jsonl",
        "ws/sessions/260301-a/session.jsonl",
        "ws/sessions/260301-a/.pi-sessions/d_4.jsonl",
        "ws/sessions/260301-a/attachments/x.jsonl",
    };
    for (const auto& f : files)
        corpus::writeFile(home.path(), f, "{}\n");
    auto found = [&](AgentSource source, const char* root) {
        std::vector<FileError> errors;
        std::vector<std::string> out;
        for (const auto& p : readerOf(source).discover(home / root, &errors)) {
            out.push_back(p.lexically_relative(home.path()).string());
        }
        std::ranges::sort(out);
        return out;
    };
    using V = std::vector<std::string>;
    EXPECT_EQ(found(AgentSource::pi, ".pi/agent"), V{".pi/agent/sessions/--w--/a_1.jsonl"});
    EXPECT_EQ(found(AgentSource::omp, ".omp"),
              (V{".omp/agent/sessions/-w/b_2.jsonl", ".omp/agent/sessions/-w/b_2/agent-1.jsonl",
                 ".omp/profiles/p/agent/sessions/-w/c_3.jsonl"}));
    EXPECT_EQ(found(AgentSource::primeAgent, ".prime"), V{".prime/agent/sessions/0198.jsonl"});
    EXPECT_EQ(found(AgentSource::openclaw, ".openclaw"),
              (V{".openclaw/agents/main/agent/openclaw-agent.sqlite",
                 ".openclaw/agents/main/sessions/cold/ff.jsonl.zst",
                 ".openclaw/agents/main/sessions/s-topic-9.jsonl",
                 ".openclaw/agents/main/sessions/s.jsonl",
                 ".openclaw/agents/main/sessions/s.jsonl.reset.1772359999"}));
    EXPECT_EQ(found(AgentSource::craft, "ws"), (V{"ws/sessions/260301-a/.pi-sessions/d_4.jsonl",
                                                  "ws/sessions/260301-a/session.jsonl"}));
}

}  // namespace
}  // namespace kestrel
