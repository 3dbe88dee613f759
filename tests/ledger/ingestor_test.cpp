#include "core/ledger/ingestor.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "core/integrations/in_memory_instance_repository.hpp"
#include "core/integrations/integration_instance_coordinator.hpp"
#include "core/sources/claude_parser.hpp"
#include "tests/support/ledger_connection.hpp"
#include "tests/support/temp_dir.hpp"
#include "tests/support/unprivileged.hpp"
#include "tools/agent_corpus/misc_corpus.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;

constexpr const char* kClaudeFile = ".claude/projects/-home-u-app/sess-1.jsonl";
constexpr const char* kCodexFile =
    ".codex/sessions/2026/08/21/rollout-2026-08-21T10-00-00-0198c1a2-1111-7222-8333-444455556666"
    ".jsonl";

std::string claudeLine(const std::string& id, int64_t output) {
    return R"({"type":"assistant","sessionId":"sess-1","cwd":"/home/u/app",)"
           R"("timestamp":"2026-08-21T10:15:30.123Z","message":{"id":")" +
           id +
           R"(","model":"claude-sonnet-4-5-20250929","role":"assistant",)"
           R"("content":[{"type":"text","text":"ok"}],"usage":{"input_tokens":4,)"
           R"("cache_creation_input_tokens":10,"cache_read_input_tokens":20,"output_tokens":)" +
           std::to_string(output) + "}}}\n";
}

std::string codexLine(const std::string& ts, const std::string& type,
                      const nlohmann::json& payload) {
    return nlohmann::json{{"timestamp", ts}, {"type", type}, {"payload", payload}}.dump() + "\n";
}

std::string codexReport(const std::string& ts, int64_t input, int64_t output,
                        double usedPercent = 0) {
    nlohmann::json usage{{"input_tokens", input},
                         {"cached_input_tokens", 0},
                         {"output_tokens", output},
                         {"reasoning_output_tokens", 0},
                         {"total_tokens", input + output}};
    nlohmann::json limits = nullptr;
    if (usedPercent > 0) {
        limits = {
            {"primary",
             {{"used_percent", usedPercent}, {"window_minutes", 300}, {"resets_at", 1787310000}}},
            {"secondary", nullptr}};
    }
    return codexLine(ts, "event_msg",
                     {{"type", "token_count"},
                      {"info", {{"total_token_usage", usage}, {"model_context_window", 272000}}},
                      {"rate_limits", limits}});
}

std::string codexRollout(int reports, double usedPercent = 0) {
    std::string s = codexLine("2026-08-21T10:00:00.000Z", "session_meta",
                              {{"id", "0198c1a2-1111-7222-8333-444455556666"}, {"cwd", "/home/u"}});
    s += codexLine("2026-08-21T10:00:01.000Z", "turn_context",
                   {{"cwd", "/home/u"}, {"model", "gpt-5-codex"}});
    for (int i = 1; i <= reports; ++i) {
        s += codexReport("2026-08-21T10:0" + std::to_string(i) + ":00.000Z", 100 * i, 10 * i,
                         usedPercent);
    }
    return s;
}

class IngestorTest : public ::testing::Test {
  protected:
    IngestorTest()
        : store(support.path()),
          coordinator(PluginRegistry::builtIn(), repository),
          ingestor(store, PriceTable::bundled(), &coordinator) {
        // As at start-up: every plug-in has its instance before the first scan.
        coordinator.reconcileInstallations(home.path(), 1000.0);
    }

    ScanProgress scan(std::optional<std::set<AgentSource>> sources = std::nullopt,
                      bool force = false, const Ingestor::FileProgress& progress = {},
                      std::stop_token stop = {}) {
        return ingestor.scan(home.path(), settings, sources, force, progress, {}, stop);
    }

    SourceScanReport reportOf(AgentSource source) const {
        for (const auto& r : ingestor.lastReports()) {
            if (r.source == source) {
                return r;
            }
        }
        ADD_FAILURE() << "no report for " << rawValue(source);
        return {};
    }

    int64_t ledgerEvents(std::optional<AgentSource> source = std::nullopt) {
        LedgerQuery q;
        q.source = source;
        return store.ledgerEventCount(q);
    }

    TempDir home;
    TempDir support;
    UsageStore store;
    InMemoryIntegrationInstanceRepository repository;
    IntegrationInstanceCoordinator coordinator;
    Ingestor ingestor;
    AppSettings settings;
};

TEST_F(IngestorTest, FirstScanCommitsEverySourceAndASecondReadsNothing) {
    home.write(kClaudeFile, claudeLine("m1", 5) + claudeLine("m2", 7));
    home.write(kCodexFile, codexRollout(3));

    std::vector<std::pair<int64_t, int64_t>> ticks;
    const auto first = scan(std::nullopt, false, [&](int64_t done, int64_t total, auto) {
        ticks.emplace_back(done, total);
    });
    EXPECT_EQ(first.files, 2);
    EXPECT_EQ(first.events, 5);
    EXPECT_TRUE(first.changed);
    EXPECT_EQ(ledgerEvents(AgentSource::claude), 2);
    EXPECT_EQ(ledgerEvents(AgentSource::codex), 3);
    EXPECT_EQ(ingestor.status(AgentSource::claude), SourceStatus::healthy);
    EXPECT_EQ(ingestor.status(AgentSource::codex), SourceStatus::healthy);
    ASSERT_FALSE(ticks.empty());
    EXPECT_EQ(ticks.front(), std::make_pair(int64_t{0}, int64_t{2}));
    EXPECT_EQ(ticks.back(), std::make_pair(int64_t{2}, int64_t{2}));

    // The scan is recorded on the instances, with the commit's counts.
    const auto instance = repository.activeInstance(*PluginRegistry::stableID(AgentSource::codex));
    ASSERT_TRUE(instance && instance->lastScanResult);
    EXPECT_EQ(instance->lastScanResult->acceptedObservationCount, 3);
    EXPECT_EQ(instance->lastScanResult->installedRootCount, 1);
    EXPECT_EQ(instance->health.state, IntegrationHealthState::healthy);

    const auto again = scan();
    EXPECT_EQ(again.files, 0);
    EXPECT_EQ(again.events, 0);
    EXPECT_FALSE(again.changed);
    EXPECT_EQ(reportOf(AgentSource::claude).filesUnchanged, 1);
    EXPECT_FALSE(reportOf(AgentSource::claude).committed);
    // Still healthy: the usage is in the ledger even though nothing new was read.
    EXPECT_EQ(ingestor.status(AgentSource::claude), SourceStatus::healthy);

    // An appended line is read from the checkpoint, and only it.
    home.append(kClaudeFile, claudeLine("m3", 9));
    const auto appended = scan();
    EXPECT_EQ(appended.events, 1);
    EXPECT_EQ(ledgerEvents(AgentSource::claude), 3);
}

TEST_F(IngestorTest, SourceStatusFollowsWhatTheScanMet) {
    // No roots at all: not installed, nothing read.
    scan();
    EXPECT_EQ(ingestor.status(AgentSource::claude), SourceStatus::notInstalled);
    EXPECT_EQ(reportOf(AgentSource::claude).filesSeen, 0);

    // A root without usage.
    std::filesystem::create_directories(home / ".claude/projects");
    scan();
    EXPECT_EQ(ingestor.status(AgentSource::claude), SourceStatus::authorizedEmpty);

    // Usage records none of which can be read: the agent changed its format.
    home.write(".claude/projects/p/s.jsonl",
               R"({"type":"assistant","message":{"id":"m","usage":{"output_tokens":"5"}}})"
               "\n");
    scan();
    EXPECT_EQ(ingestor.status(AgentSource::claude), SourceStatus::formatChanged);
    EXPECT_EQ(
        repository.activeInstance(*PluginRegistry::stableID(AgentSource::claude))->health.state,
        IntegrationHealthState::formatChanged);

    // An empty selection reads nothing and leaves statuses alone.
    const auto none = scan(std::set<AgentSource>{});
    EXPECT_EQ(none, ScanProgress{});
    EXPECT_EQ(ingestor.status(AgentSource::claude), SourceStatus::formatChanged);
}

TEST_F(IngestorTest, AnUnreadableRootIsUnauthorized) {
    home.write(kClaudeFile, claudeLine("m1", 5));
    std::filesystem::permissions(home / ".claude", std::filesystem::perms::none);
    {
        test_support::Unprivileged asUser;
        scan();
    }
    std::filesystem::permissions(home / ".claude", std::filesystem::perms::owner_all);
    EXPECT_EQ(ingestor.status(AgentSource::claude), SourceStatus::unauthorized);
    EXPECT_EQ(coordinator.canRun(IntegrationCapability::usageImport, AgentSource::claude), true);
    const auto instance = repository.activeInstance(*PluginRegistry::stableID(AgentSource::claude));
    EXPECT_EQ(instance->health.state, IntegrationHealthState::permissionDenied);
}

TEST_F(IngestorTest, TheLedgerOutlivesFilesThatShrinkVanishOrAreReplaced) {
    home.write(kClaudeFile, claudeLine("m1", 5) + claudeLine("m2", 7));
    home.write(".claude/projects/-home-u-app/old.jsonl", claudeLine("o1", 3));
    scan();
    ASSERT_EQ(ledgerEvents(), 3);

    // Compaction rewrites a file shorter, under a new inode; an old transcript is deleted.
    std::filesystem::remove(home / kClaudeFile);
    home.write(kClaudeFile, claudeLine("m9", 1));
    std::filesystem::remove(home / ".claude/projects/-home-u-app/old.jsonl");
    const auto after = scan();
    EXPECT_EQ(reportOf(AgentSource::claude).filesFromStart, 1);
    EXPECT_EQ(after.events, 1);
    EXPECT_EQ(ledgerEvents(), 4);  // nothing removed, the new line added

    // Only an explicit full rescan replaces the source with what its files prove.
    const auto forced = scan(std::set{AgentSource::claude}, true);
    EXPECT_TRUE(reportOf(AgentSource::claude).replaced);
    EXPECT_TRUE(forced.changed);
    EXPECT_EQ(ledgerEvents(AgentSource::claude), 1);
}

TEST_F(IngestorTest, AForcedRescanOfUnchangedFilesKeepsTheTotals) {
    home.write(kClaudeFile, claudeLine("m1", 5) + claudeLine("m1", 8) + claudeLine("m2", 7));
    home.write(kCodexFile, codexRollout(4));
    scan();
    const auto before = store.ledgerSummary({});
    scan(std::nullopt, true);
    EXPECT_EQ(store.ledgerSummary({}), before);
    EXPECT_EQ(reportOf(AgentSource::codex).filesFromStart, 1);
}

TEST_F(IngestorTest, AFileThatVanishesMidScanIsCountedNotAnError) {
    home.write(".claude/projects/a/1.jsonl", claudeLine("a1", 1));
    home.write(".claude/projects/b/2.jsonl", claudeLine("b1", 1));
    scan(std::set{AgentSource::claude}, false, [&](int64_t done, int64_t, auto) {
        if (done == 1) {
            std::filesystem::remove(home / ".claude/projects/b/2.jsonl");
        }
    });
    const auto r = reportOf(AgentSource::claude);
    EXPECT_EQ(r.filesVanished, 1);
    EXPECT_TRUE(r.errors.empty());
    EXPECT_EQ(r.status, SourceStatus::healthy);
    EXPECT_EQ(ledgerEvents(), 1);
}

TEST_F(IngestorTest, AnUnreadableFileIsAReadErrorAndForceThenRemovesNothing) {
    home.write(".claude/projects/a/1.jsonl", claudeLine("a1", 1));
    const auto locked = home.write(".claude/projects/b/2.jsonl", claudeLine("b1", 1));
    scan();
    ASSERT_EQ(ledgerEvents(), 2);
    std::filesystem::permissions(locked, std::filesystem::perms::none);
    {
        test_support::Unprivileged asUser;
        scan(std::nullopt, true);
    }
    std::filesystem::permissions(locked, std::filesystem::perms::owner_all);
    const auto r = reportOf(AgentSource::claude);
    EXPECT_EQ(r.status, SourceStatus::readError);
    EXPECT_TRUE(r.replaceWithheld);
    EXPECT_EQ(ledgerEvents(), 2);  // the unread file's usage was not removed
}

// The agent's config.toml is read for the default model: neither a FIFO in its place nor bytes
// that are not UTF-8 may stall or fail the scan.
TEST_F(IngestorTest, AHostileCodexConfigDoesNotStopTheScan) {
    home.write(kClaudeFile, claudeLine("m1", 5));
    // No turn_context: the model comes from the configuration.
    const std::string rollout =
        codexLine("2026-08-21T10:00:00.000Z", "session_meta",
                  {{"id", "0198c1a2-1111-7222-8333-444455556666"}, {"cwd", "/home/u"}}) +
        codexReport("2026-08-21T10:01:00.000Z", 100, 10);
    home.write(kCodexFile, rollout);

    ASSERT_EQ(::mkfifo((home / ".codex/config.toml").c_str(), 0600), 0);
    scan();
    EXPECT_EQ(ingestor.status(AgentSource::codex), SourceStatus::healthy);
    std::filesystem::remove(home / ".codex/config.toml");

    home.write(".codex/config.toml", "model = \"gpt-\xff\xfe\"\n");
    scan(std::nullopt, true);
    EXPECT_EQ(ingestor.status(AgentSource::codex), SourceStatus::healthy);
    EXPECT_EQ(ingestor.status(AgentSource::claude), SourceStatus::healthy);
    LedgerQuery q;
    q.model = "gpt-\xef\xbf\xbd\xef\xbf\xbd";  // each bad byte became U+FFFD
    EXPECT_EQ(store.ledgerEventCount(q), 1);
}

// A reader that fails in a way nobody foresaw costs its file, not the scan.
TEST(IngestorReaderTest, AReaderThatThrowsIsAReadErrorOfItsFileOnly) {
    TempDir home, support;
    home.write(kClaudeFile, claudeLine("m1", 5));
    home.write(kCodexFile, codexRollout(1));
    UsageStore store(support.path());
    Ingestor ingestor(
        store, PriceTable::bundled(), nullptr, emptyEnvironment(),
        [](AgentSource s) -> std::optional<SourceReader> {
            auto reader = SourceReaders::reader(s);
            if (reader && s == AgentSource::claude) {
                reader->ingest = [](auto&&...) -> std::expected<IngestResult, FileError> {
                    throw std::runtime_error("unforeseen");
                };
            }
            return reader;
        });
    ingestor.scan(home.path(), AppSettings{}, std::nullopt, false);
    EXPECT_EQ(ingestor.status(AgentSource::claude), SourceStatus::readError);
    EXPECT_EQ(ingestor.status(AgentSource::codex), SourceStatus::healthy);
    const auto reports = ingestor.lastReports();
    ASSERT_EQ(reports.front().errors.size(), 1u);
    EXPECT_NE(reports.front().errors[0].description().find("unforeseen"), std::string::npos);
}

// A folder inside the agent's data that cannot be listed makes the list partial: the scan says
// so, and a full rescan must not take the unlisted files' usage for gone.
TEST_F(IngestorTest, AClosedFolderBelowARootHoldsBackAFullRescan) {
    home.write(".claude/projects/a/1.jsonl", claudeLine("a1", 1));
    home.write(".claude/projects/b/2.jsonl", claudeLine("b1", 1));
    scan();
    ASSERT_EQ(ledgerEvents(), 2);
    std::filesystem::permissions(home / ".claude/projects/b", std::filesystem::perms::none);
    {
        test_support::Unprivileged asUser;
        scan(std::set{AgentSource::claude}, true);
    }
    std::filesystem::permissions(home / ".claude/projects/b", std::filesystem::perms::owner_all);
    const auto r = reportOf(AgentSource::claude);
    EXPECT_EQ(r.status, SourceStatus::unauthorized);
    EXPECT_TRUE(r.replaceWithheld);
    ASSERT_EQ(r.errors.size(), 1u);
    EXPECT_EQ(r.errors[0].path, (home / ".claude/projects/b").string());
    EXPECT_EQ(ledgerEvents(), 2);
}

TEST_F(IngestorTest, CancellationLeavesTheLedgerAsCommittedSoFar) {
    home.write(".claude/projects/a/1.jsonl", claudeLine("a1", 1));
    home.write(".claude/projects/b/2.jsonl", claudeLine("b1", 1));
    home.write(kCodexFile, codexRollout(2));
    std::stop_source stopper;
    // Claude is scanned first; cancel inside Codex's files, after Claude was committed.
    EXPECT_THROW(scan(
                     std::nullopt, false,
                     [&](int64_t, int64_t, std::optional<AgentSource> source) {
                         if (source == AgentSource::codex) {
                             stopper.request_stop();
                         }
                     },
                     stopper.get_token()),
                 ScanCancelled);
    EXPECT_EQ(ledgerEvents(AgentSource::claude), 2);
    EXPECT_EQ(ledgerEvents(AgentSource::codex), 0);
    // Nothing of Codex was checkpointed, so the next scan reads it whole.
    const auto next = scan();
    EXPECT_EQ(next.events, 2);
    EXPECT_EQ(ledgerEvents(AgentSource::codex), 2);
}

// A source's usage is committed in shares of whole files while the reading goes on; however
// the files fall into shares, the ledger and the counts are those of one commit of the source.
TEST_F(IngestorTest, CommittingInSharesGivesTheLedgerOfOneCommit) {
    // "dup" is one usage logged twice: early with a placeholder count, complete in a later file.
    home.write(".claude/projects/p/a.jsonl", claudeLine("a1", 1) + claudeLine("dup", 1));
    home.write(".claude/projects/p/b.jsonl", claudeLine("b1", 2) + claudeLine("b2", 4));
    home.write(".claude/projects/p/c.jsonl", claudeLine("c1", 8) + claudeLine("dup", 16));
    const std::set<AgentSource> claude{AgentSource::claude};

    std::optional<SourceScanReport> reference;
    for (std::size_t perCommit :
         {std::size_t{8192}, std::size_t{1}, std::size_t{2}, std::size_t{3}}) {
        SCOPED_TRACE("usages per commit: " + std::to_string(perCommit));
        TempDir ledger;
        UsageStore own(ledger.path());
        Ingestor reader(own, PriceTable::bundled(), nullptr);
        reader.setEventsPerCommit(perCommit);
        reader.scan(home.path(), settings, claude, false);
        const auto report = reader.lastReports().at(0);
        EXPECT_EQ(report.counts.accepted, 5) << "one observation per usage, not per share";
        EXPECT_EQ(report.counts.rejected, 0);
        EXPECT_EQ(report.events, 6);
        EXPECT_TRUE(report.committed);
        const auto summary = own.ledgerSummariesBySource({});
        ASSERT_EQ(summary.count(AgentSource::claude), 1u);
        EXPECT_EQ(summary.at(AgentSource::claude).eventCount, 5);
        EXPECT_EQ(summary.at(AgentSource::claude).outputVisible, 1 + 2 + 4 + 8 + 16);
        if (!reference) {
            reference = report;
        } else {
            EXPECT_EQ(report.counts, reference->counts);
        }
        // Every file's checkpoint landed: nothing is read again.
        reader.scan(home.path(), settings, claude, false);
        EXPECT_EQ(reader.lastReports().at(0).filesUnchanged, 3);
        EXPECT_EQ(reader.lastReports().at(0).filesRead, 0);
    }
}

// A commit that fails in the middle of a source keeps the shares committed before it, with their
// checkpoints: the next scan reads only the files whose usage did not land.
TEST_F(IngestorTest, ACommitFailingMidSourceKeepsTheSharesBeforeIt) {
    home.write(".claude/projects/p/a.jsonl", claudeLine("a1", 1));
    home.write(".claude/projects/p/b.jsonl", claudeLine("b1", 2));
    home.write(".claude/projects/p/c.jsonl", claudeLine("c1", 4));
    ingestor.setEventsPerCommit(1);
    {
        test_support::LedgerConnection db(support.path() / UsageStore::kFileName);
        sqlite::exec(db.get(),
                     "CREATE TRIGGER refuse_second BEFORE INSERT ON usage_observations\n"
                     "WHEN (SELECT count(*) FROM usage_observations) >= 1\n"
                     "BEGIN SELECT RAISE(ABORT, 'refused'); END;");
    }
    const std::set<AgentSource> claude{AgentSource::claude};
    EXPECT_ANY_THROW(scan(claude));
    EXPECT_EQ(ledgerEvents(AgentSource::claude), 1);
    {
        test_support::LedgerConnection db(support.path() / UsageStore::kFileName);
        sqlite::exec(db.get(), "DROP TRIGGER refuse_second;");
    }
    scan(claude);
    const auto again = reportOf(AgentSource::claude);
    EXPECT_EQ(again.filesUnchanged, 1) << "the first file's checkpoint was committed";
    EXPECT_EQ(again.filesRead, 2);
    EXPECT_EQ(ledgerEvents(AgentSource::claude), 3);
    const auto summary = store.ledgerSummariesBySource({});
    EXPECT_EQ(summary.at(AgentSource::claude).outputVisible, 7);
}

// One file with more usage than a share goes in parts, each with the checkpoint of a line inside
// the file: the ledger ends as after one commit (a usage logged twice, once on each side of a
// part's end, is still one), no line is read twice, and appending later reads on from the end.
TEST_F(IngestorTest, OneLargeFileIsCommittedInPartsAsIfWhole) {
    std::string text;
    for (int i = 0; i < 9; ++i) {
        text += claudeLine("m" + std::to_string(i), 1 << i);
        if (i == 1) {
            text += claudeLine("dup", 3);  // a streaming placeholder...
        }
    }
    text += "{\"type\":\"user\"}\n" + claudeLine("dup", 1000);  // ...and its complete line
    home.write(kClaudeFile, text);
    const std::set<AgentSource> claude{AgentSource::claude};
    const int64_t expectedOutput = 511 + 1000;

    for (std::size_t perCommit :
         {std::size_t{8192}, std::size_t{1}, std::size_t{2}, std::size_t{4}}) {
        SCOPED_TRACE("usages per commit: " + std::to_string(perCommit));
        TempDir ledger;
        UsageStore own(ledger.path());
        Ingestor reader(own, PriceTable::bundled(), nullptr);
        reader.setEventsPerCommit(perCommit);
        reader.scan(home.path(), settings, claude, false);
        const auto report = reader.lastReports().at(0);
        EXPECT_EQ(report.counts.accepted, 10);
        EXPECT_EQ(report.events, 11);
        EXPECT_EQ(own.ledgerSummary({}).outputVisible, expectedOutput);
        {
            test_support::LedgerConnection db(own.databasePath());
            sqlite::Statement runs(db.get(), "SELECT COUNT(*) FROM ingest_runs;");
            runs.step();
            if (perCommit < 11) {
                EXPECT_GE(runs.int64(0), 10 / static_cast<int64_t>(perCommit))
                    << "the file was committed in parts";
            } else {
                EXPECT_EQ(runs.int64(0), 1);
            }
        }
        reader.scan(home.path(), settings, claude, false);
        EXPECT_EQ(reader.lastReports().at(0).filesUnchanged, 1) << "its last checkpoint landed";

        const std::string more = claudeLine("m9", 1 << 9) + claudeLine("m3", 1 << 3);
        home.append(kClaudeFile, more);
        reader.scan(home.path(), settings, claude, false);
        EXPECT_EQ(reader.lastReports().at(0).bytes, static_cast<int64_t>(more.size()));
        EXPECT_EQ(own.ledgerSummary({}).eventCount, 11);
        EXPECT_EQ(own.ledgerSummary({}).outputVisible, expectedOutput + 512);
        home.write(kClaudeFile, text);  // as it was, for the next round
    }
}

// Stopped after some parts of a file landed, the next scan reads on from the last of them.
TEST_F(IngestorTest, AFileCutShortAfterSomePartsResumesInsideIt) {
    std::string text;
    for (int i = 0; i < 8; ++i) {
        text += claudeLine("m" + std::to_string(i), 1 << i);
    }
    home.write(kClaudeFile, text);
    ingestor.setEventsPerCommit(2);
    {
        test_support::LedgerConnection db(support.path() / UsageStore::kFileName);
        sqlite::exec(db.get(),
                     "CREATE TRIGGER refuse_third BEFORE INSERT ON usage_observations\n"
                     "WHEN (SELECT count(*) FROM usage_observations) >= 4\n"
                     "BEGIN SELECT RAISE(ABORT, 'refused'); END;");
    }
    const std::set<AgentSource> claude{AgentSource::claude};
    EXPECT_ANY_THROW(scan(claude));
    EXPECT_EQ(ledgerEvents(AgentSource::claude), 4);
    {
        test_support::LedgerConnection db(support.path() / UsageStore::kFileName);
        sqlite::exec(db.get(), "DROP TRIGGER refuse_third;");
    }
    scan(claude);
    const auto again = reportOf(AgentSource::claude);
    EXPECT_EQ(again.filesRead, 1);
    EXPECT_GT(again.bytes, 0);
    EXPECT_LT(again.bytes, static_cast<int64_t>(text.size())) << "resumed inside the file";
    EXPECT_EQ(ledgerEvents(AgentSource::claude), 8);
    EXPECT_EQ(store.ledgerSummariesBySource({}).at(AgentSource::claude).outputVisible, 255);
}

TEST_F(IngestorTest, CodexRateLimitsAreStoredAndDroppedWithTheAgent) {
    home.write(kCodexFile, codexRollout(2, 42.0));
    const auto first = scan();
    EXPECT_TRUE(first.quotaChanged);
    auto quota = store.quota(AgentSource::codex);
    ASSERT_TRUE(quota.has_value());
    EXPECT_EQ(quota->provenance, QuotaProvenance::localSession);
    ASSERT_FALSE(quota->windows.empty());
    EXPECT_DOUBLE_EQ(*quota->windows.front().usedPercent, 42.0);

    EXPECT_FALSE(scan().quotaChanged);  // nothing re-read, nothing new said

    std::filesystem::remove_all(home / ".codex");
    const auto gone = scan();
    EXPECT_TRUE(gone.quotaChanged);
    EXPECT_FALSE(store.quota(AgentSource::codex).has_value());
}

TEST_F(IngestorTest, ASwitchedOffOrPausedSourceIsNotRead) {
    home.write(kClaudeFile, claudeLine("m1", 5));
    home.write(kCodexFile, codexRollout(1));
    scan();
    const auto codex = repository.activeInstance(*PluginRegistry::stableID(AgentSource::codex));
    ASSERT_TRUE(codex.has_value());
    ASSERT_TRUE(coordinator.setInstanceEnabled(false, codex->id, 1.0).has_value());

    home.append(kCodexFile, codexReport("2026-08-21T10:09:00.000Z", 5000, 500));
    home.append(kClaudeFile, claudeLine("m2", 5));
    const auto progress = scan();
    EXPECT_EQ(progress.events, 1);  // Claude's line only
    EXPECT_EQ(ledgerEvents(AgentSource::codex), 1);

    ingestor.setPaused(true);
    home.append(kClaudeFile, claudeLine("m3", 5));
    std::filesystem::create_directories(home / ".gemini");  // installed meanwhile
    const auto instances = repository.loadAll();
    EXPECT_EQ(scan(), ScanProgress{});
    EXPECT_EQ(ingestor.status(AgentSource::claude), SourceStatus::paused);
    EXPECT_EQ(ledgerEvents(AgentSource::claude), 2);
    EXPECT_EQ(repository.loadAll(), instances) << "a paused scan writes nothing";
    ingestor.setPaused(false);
    EXPECT_EQ(scan().events, 1);
}

TEST_F(IngestorTest, WithoutACoordinatorEverySourceWithAReaderIsEligible) {
    Ingestor bare(store, PriceTable::bundled(), nullptr);
    home.write(kCodexFile, codexRollout(2));
    const auto progress = bare.scan(home.path(), settings, std::nullopt, false);
    EXPECT_EQ(progress.events, 2);
    EXPECT_EQ(bare.status(AgentSource::codex), SourceStatus::healthy);
    EXPECT_EQ(bare.status(AgentSource::claude), SourceStatus::notInstalled);
}

// Readers hand over unpriced events that keep their project names; the ingestor applies the
// user's billing mode, prices and privacy choices to every source alike before the commit.
class IngestorSettingsTest : public ::testing::Test {
  protected:
    IngestorSettingsTest() {
        home.write(kClaudeFile, claudeLine("m1", 5) + claudeVendorCostLine("m2"));
        home.write(kCodexFile, codexRollout(2));
        // Built through the shared event draft, unlike the two above.
        corpus::writeBuddyHome(home.path(), ".codebuddy", 2, 2, 3);
    }

    static std::string claudeVendorCostLine(const std::string& id) {
        auto line = claudeLine(id, 9);
        line.insert(1, R"("costUSD":0.0123,)");
        return line;
    }

    // Scans the home into a fresh ledger; its entries by observation id.
    std::map<std::string, LedgerEntry> scanWith(const AppSettings& settings) {
        TempDir support;
        UsageStore store(support.path());
        Ingestor ingestor(store, PriceTable::bundled(), nullptr);
        ingestor.scan(home.path(), settings, kSources, false);
        std::map<std::string, LedgerEntry> out;
        for (auto& entry :
             store.ledgerEvents({}, LedgerSortOrder::ascending, std::nullopt, 1000).entries) {
            out.emplace(entry.event.observationID, std::move(entry));
        }
        return out;
    }

    const std::set<AgentSource> kSources{AgentSource::claude, AgentSource::codex,
                                         AgentSource::codebuddy};
    static constexpr int64_t kEvents = 2 + 2 + 4;
    TempDir home;
};

TEST_F(IngestorSettingsTest, DefaultsKeepProjectsAndPriceAsTheTableSays) {
    const auto ledger = scanWith(AppSettings{});
    ASSERT_EQ(static_cast<int64_t>(ledger.size()), kEvents);
    std::set<AgentSource> sources;
    for (const auto& [id, entry] : ledger) {
        SCOPED_TRACE(id);
        sources.insert(entry.event.source);
        EXPECT_TRUE(entry.event.projectDisplayName.has_value());
        EXPECT_TRUE(entry.event.sessionKey.has_value());
        EXPECT_EQ(entry.cost.billingMode, BillingMode::apiEquivalent);
    }
    EXPECT_EQ(sources, kSources);
    EXPECT_EQ(ledger.at("claude:m1").event.projectDisplayName, "app");

    // The costs the reader's own events come to under the table, and the agent's own figure
    // where it gave one.
    SourceReadContext read;
    read.file = home / kClaudeFile;
    const auto events = SourceReaders::collect(ClaudeParser::ingest, read);
    ASSERT_TRUE(events && events->events.size() == 2u);
    const auto priced =
        PriceTable::bundled().applied(events->events[0], BillingMode::apiEquivalent);
    ASSERT_GT(priced.estimatedCostUSDMicros.value_or(0), 0);
    EXPECT_EQ(ledger.at("claude:m1").cost.amountUSDMicros, priced.estimatedCostUSDMicros);
    EXPECT_EQ(ledger.at("claude:m1").cost.source, CostSource::priceTable);
    EXPECT_EQ(ledger.at("claude:m2").cost.amountUSDMicros, 12'300);
    EXPECT_EQ(ledger.at("claude:m2").cost.source, CostSource::vendorReported);
    for (const auto& [id, entry] : ledger) {
        if (entry.event.source == AgentSource::codex) {
            EXPECT_GT(entry.cost.amountUSDMicros.value_or(0), 0) << id;
        }
    }
}

TEST_F(IngestorSettingsTest, PrivacySettingsKeepNamesOutOfTheLedgerForEverySource) {
    const auto open = scanWith(AppSettings{});
    AppSettings settings;
    settings.storeProject = false;
    settings.storeSession = false;
    const auto closed = scanWith(settings);
    ASSERT_EQ(static_cast<int64_t>(closed.size()), kEvents);
    for (const auto& [id, entry] : closed) {
        SCOPED_TRACE(id);
        EXPECT_FALSE(entry.event.projectDisplayName.has_value());
        EXPECT_FALSE(entry.event.sessionKey.has_value());
        // Privacy takes names only: counts and costs stay what they were.
        EXPECT_EQ(entry.event.tokens, open.at(id).event.tokens);
        EXPECT_EQ(entry.cost.amountUSDMicros, open.at(id).cost.amountUSDMicros);
    }
}

TEST_F(IngestorSettingsTest, LocalZeroMakesEveryCostZero) {
    AppSettings settings;
    settings.billingMode = BillingMode::localZero;
    const auto ledger = scanWith(settings);
    ASSERT_EQ(static_cast<int64_t>(ledger.size()), kEvents);
    for (const auto& [id, entry] : ledger) {
        SCOPED_TRACE(id);
        EXPECT_EQ(entry.cost.amountUSDMicros, 0);  // the agent's own figure included
        EXPECT_EQ(entry.cost.billingMode, BillingMode::localZero);
        EXPECT_TRUE(entry.event.projectDisplayName.has_value());
    }
}

// A database-backed agent is read as one pseudo-file per store: a store whose file and
// write-ahead log are unchanged is not opened; a change to either hands the reader its previous
// checkpoint, whose cursor says where to go on; a full rescan starts it from nothing.
TEST(IngestorStoreTest, AStoreIsOnePseudoFileReadWhenItOrItsLogChanged) {
    TempDir home, support;
    const auto db = home.write(".local/share/opencode/opencode.db", "row\nrow\n");
    UsageStore store(support.path());
    std::vector<std::optional<SourceCheckpoint>> calls;
    SourceReader fake;
    fake.kind = SourceReaderKind::store;
    fake.parserVersion = 3;
    fake.discover = [](const std::filesystem::path& root, std::vector<FileError>*) {
        std::vector<std::filesystem::path> out;
        if (std::filesystem::exists(root / "opencode.db")) {
            out.push_back(root / "opencode.db");
        }
        return out;
    };
    fake.ingest = [&](const SourceReadContext& context) -> std::expected<IngestResult, FileError> {
        const auto& file = context.file;
        const auto& checkpoint = context.checkpoint;
        calls.push_back(checkpoint);
        // Each line of the database or its log is a row; the cursor is the number of rows
        // already turned into events.
        std::stringstream all;
        all << std::ifstream(file).rdbuf();
        if (std::ifstream wal(file.string() + "-wal"); wal) {
            all << wal.rdbuf();
        }
        std::string row;
        int64_t rows = 0;
        const int64_t done = checkpoint ? std::stoll(checkpoint->parserContext) : 0;
        while (std::getline(all, row)) {
            if (++rows > done) {
                UsageEvent e;
                e.id = "opencode:row" + std::to_string(rows);
                e.source = AgentSource::opencode;
                e.occurredAt = 1.7e9 + static_cast<double>(rows);
                e.provider = "anthropic";
                e.model = "claude-sonnet-4-5";
                e.sessionID = "s";
                e.raw.input = 10;
                e.raw.output = 1;
                e.exclusive.inputUncached = 10;
                e.exclusive.outputVisible = 1;
                e.providerInputTotal = 10;
                e.providerOutputTotal = 1;
                e.providerTotal = 11;
                context.sink(std::move(e));
            }
        }
        IngestResult result;
        result.checkpoint.source = AgentSource::opencode;
        result.checkpoint.stableID = file.string();
        result.checkpoint.parserVersion = 3;
        result.checkpoint.parserContext = std::to_string(rows);
        return result;
    };
    Ingestor ingestor(store, PriceTable::bundled(), nullptr, emptyEnvironment(),
                      [&](AgentSource s) -> std::optional<SourceReader> {
                          if (s == AgentSource::opencode) {
                              return fake;
                          }
                          return std::nullopt;
                      });
    const AppSettings settings;
    const auto scan = [&](bool force = false) {
        return ingestor.scan(home.path(), settings, std::nullopt, force);
    };
    const auto events = [&] { return store.ledgerEventCount({}); };

    scan();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_FALSE(calls[0].has_value());
    EXPECT_EQ(events(), 2);

    const auto unchanged = scan();
    EXPECT_EQ(calls.size(), 1u) << "an unchanged store is not opened";
    EXPECT_FALSE(unchanged.changed);

    // The agent writes into its log only: the store is read on from its cursor.
    const auto dbStamp = std::filesystem::last_write_time(db);
    home.write(".local/share/opencode/opencode.db-wal", "row\n");
    ASSERT_EQ(std::filesystem::last_write_time(db), dbStamp);
    scan();
    ASSERT_EQ(calls.size(), 2u);
    ASSERT_TRUE(calls[1].has_value());
    EXPECT_EQ(calls[1]->parserContext, "2");
    EXPECT_EQ(events(), 3);

    scan(true);
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_FALSE(calls[2].has_value()) << "a full rescan starts the store from nothing";
    EXPECT_EQ(events(), 3);
    EXPECT_EQ(ingestor.status(AgentSource::opencode), SourceStatus::healthy);
}

}  // namespace
}  // namespace kestrel
