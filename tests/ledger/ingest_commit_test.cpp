#include <gtest/gtest.h>

#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_batch_builder.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/pricing/price_table.hpp"
#include "core/pricing/reprice_outcome.hpp"
#include "tests/support/ledger_connection.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::LedgerConnection;
using test_support::TempDir;

UsageObservation observation(const std::string& id, int64_t output,
                             ObservationTimeQuality time = ObservationTimeQuality::trusted,
                             AgentSource source = AgentSource::claude) {
    UsageObservation o;
    o.id = id;
    o.source = source;
    o.provider = "anthropic";
    o.model = "claude-sonnet-4-5";
    o.occurredAt = 1'780'000'000.0;
    o.observedAt = 1'780'000'100.0;
    o.timeQuality = time;
    o.precision = UsagePrecision::nativeExact;
    o.granularity = UsageGranularity::request;
    o.sessionKey = "s1";
    o.tokens = {10, 100, 5, output, 0, 10, output, 10 + output, true};
    o.cost = {1234,         CostCompleteness::complete, CostSource::priceTable, 3,
              std::nullopt, BillingMode::apiEquivalent};
    return o;
}

UsageBatch batchOf(const std::string& runID, std::vector<UsageObservation> observations,
                   AgentSource source = AgentSource::claude) {
    UsageBatch b;
    b.id = runID;
    b.adapterID = "claude";
    b.source = source;
    b.startedAt = 1'780'000'200.0;
    b.completedAt = 1'780'000'201.0;
    b.observations = std::move(observations);
    b.checkpoint = AdapterCheckpoint{std::nullopt, "claude", "cursor-" + runID, 1, 1.0};
    return b;
}

class IngestCommitTest : public ::testing::Test {
  protected:
    int64_t count(const std::string& sql) {
        sqlite::Statement s(ledger.get(), sql);
        EXPECT_TRUE(s.step());
        return s.int64(0);
    }
    std::optional<int64_t> eventOutput(const std::string& observationID) {
        sqlite::Statement s(ledger.get(),
                            "SELECT output_visible FROM ledger_events WHERE observation_id=?;");
        s.bind(1, observationID);
        return s.step() ? s.optionalInt64(0) : std::nullopt;
    }
    std::vector<std::string> findings(const std::string& observationID) {
        sqlite::Statement s(
            ledger.get(), "SELECT code FROM coverage_issues WHERE observation_id=? ORDER BY code;");
        s.bind(1, observationID);
        std::vector<std::string> out;
        while (s.step()) {
            out.push_back(s.text(0));
        }
        return out;
    }

    TempDir dir;
    UsageStore store{dir.path()};
    LedgerConnection ledger{store.databasePath()};
};

TEST_F(IngestCommitTest, CommitsObservationsEventsCostsAndTheCheckpoint) {
    auto bad = observation("claude:m3", 9, ObservationTimeQuality::inferred);
    const auto outcome = store.replaceLedgerSource(
        AgentSource::claude,
        batchOf("run-1", {observation("claude:m1", 5), observation("claude:m2", 7), bad}));
    EXPECT_EQ(outcome, (LedgerIngestOutcome{false, 3, 2, 1}));
    EXPECT_EQ(count("SELECT COUNT(*) FROM usage_observations;"), 3);
    EXPECT_EQ(count("SELECT COUNT(*) FROM ledger_events;"), 2);
    EXPECT_EQ(count("SELECT COUNT(*) FROM ledger_costs WHERE amount_usd_micros=1234;"), 2);
    EXPECT_EQ(count("SELECT COUNT(*) FROM ingest_runs WHERE status='completed' AND "
                    "observation_count=3 AND ledger_event_count=2 AND issue_count=1;"),
              1);
    EXPECT_EQ(findings("claude:m3"), std::vector<std::string>{"missingTrustedTime"});
    EXPECT_EQ(count("SELECT COUNT(*) FROM adapter_checkpoints WHERE adapter_id='claude' AND "
                    "opaque_cursor='cursor-run-1';"),
              1);
}

TEST_F(IngestCommitTest, TheSameRunTwiceWritesNothingTheSecondTime) {
    const auto batch = batchOf("run-1", {observation("claude:m1", 5)});
    const auto first = *store.ingest({}, {}, std::nullopt, batch);
    auto changed = batch;
    changed.observations[0].tokens.outputVisible = 999;
    const auto second = *store.ingest({}, {}, std::nullopt, changed);
    EXPECT_TRUE(second.duplicateRun);
    EXPECT_EQ(second.observationCount, first.observationCount);
    EXPECT_EQ(second.ledgerEventCount, first.ledgerEventCount);
    EXPECT_EQ(eventOutput("claude:m1"), 5);
    EXPECT_EQ(count("SELECT COUNT(*) FROM ingest_runs;"), 1);
}

// Claude Code writes placeholder output counts on the streaming lines of a message and replays
// whole lines when a session is resumed: within one batch and across batches, the usage keeps
// the time it was first seen and the counts (and the cost priced from them) of its most complete
// record.
TEST_F(IngestCommitTest, AnIdentityKeepsItsFirstTimeAndItsMostCompleteCounts) {
    const double first = 1'780'000'000.0, twoDaysLater = first + 2 * 86400.0;
    auto at = [](UsageObservation o, double t, int64_t cost) {
        o.occurredAt = t;
        o.cost.amountUSDMicros = cost;
        return o;
    };
    auto time = [&](const std::string& id) {
        sqlite::Statement s(ledger.get(),
                            "SELECT e.occurred_at, c.amount_usd_micros, o.occurred_at FROM "
                            "ledger_events e JOIN ledger_costs c ON c.ledger_event_id=e.id JOIN "
                            "usage_observations o ON o.id=e.observation_id WHERE o.id=?;");
        s.bind(1, id);
        EXPECT_TRUE(s.step());
        EXPECT_EQ(s.real(0), s.real(2)) << "the event and its observation agree";
        return std::pair{s.real(0), s.int64(1)};
    };
    store.ingest({}, {}, std::nullopt,
                 batchOf("run-1", {at(observation("claude:mX", 1), first, 10),
                                   at(observation("claude:mX", 12), first + 3, 120),
                                   at(observation("claude:mY", 3), first, 30)}));
    EXPECT_EQ(eventOutput("claude:mX"), 12);
    EXPECT_EQ(time("claude:mX"), std::pair(first, int64_t{120}));

    // Later runs: a replay of mX's streaming line, mY complete but replayed days later.
    store.ingest({}, {}, std::nullopt,
                 batchOf("run-2", {at(observation("claude:mX", 1), twoDaysLater, 10),
                                   at(observation("claude:mY", 480), twoDaysLater, 4800)}));
    EXPECT_EQ(eventOutput("claude:mX"), 12);
    EXPECT_EQ(time("claude:mX"), std::pair(first, int64_t{120}));
    EXPECT_EQ(eventOutput("claude:mY"), 480);
    EXPECT_EQ(time("claude:mY"), std::pair(first, int64_t{4800}));

    // A record seen earlier than the stored one moves the usage back, counts untouched.
    store.ingest({}, {}, std::nullopt,
                 batchOf("run-3", {at(observation("claude:mY", 3), first - 600, 30)}));
    EXPECT_EQ(time("claude:mY"), std::pair(first - 600, int64_t{4800}));
    EXPECT_EQ(count("SELECT COUNT(*) FROM usage_observations WHERE run_id='run-3';"), 1);
    EXPECT_EQ(count("SELECT COUNT(*) FROM ledger_events;"), 2);
}

// A copy whose time is only the file's does not undate a usage whose line carried its time.
TEST_F(IngestCommitTest, ACopyWithoutItsOwnTimeKeepsTheStoredTrustedTime) {
    store.ingest({}, {}, std::nullopt, batchOf("run-A", {observation("claude:m1", 5)}));
    auto copy = observation("claude:m1", 5, ObservationTimeQuality::inferred);
    copy.occurredAt = 1'700'000'000.0;
    store.ingest({}, {}, std::nullopt, batchOf("run-B", {copy}));
    EXPECT_EQ(eventOutput("claude:m1"), 5);
    EXPECT_EQ(count("SELECT COUNT(*) FROM ledger_events WHERE occurred_at=1780000000.0;"), 1);
    EXPECT_EQ(findings("claude:m1"), std::vector<std::string>{});
}

// A full rescan stands for what the files hold now (already merged by the scan): a stored row
// from a file since removed neither dates nor counts the usage any more.
TEST_F(IngestCommitTest, AFullRescanIsNotMergedWithTheStoredRows) {
    auto old = observation("claude:m1", 50);
    store.ingest({}, {}, std::nullopt, batchOf("run-1", {old}));
    auto now = observation("claude:m1", 20);
    now.occurredAt = *old.occurredAt + 86400.0;
    store.replaceLedgerSource(AgentSource::claude, batchOf("run-2", {now}));
    EXPECT_EQ(eventOutput("claude:m1"), 20);
    EXPECT_EQ(count("SELECT COUNT(*) FROM ledger_events WHERE occurred_at=1780086400.0;"), 1);

    // An ordinary commit after it merges again.
    store.ingest({}, {}, std::nullopt, batchOf("run-3", {old}));
    EXPECT_EQ(eventOutput("claude:m1"), 50);
    EXPECT_EQ(count("SELECT COUNT(*) FROM ledger_events WHERE occurred_at=1780000000.0;"), 1);
}

TEST_F(IngestCommitTest, AnUpdateKeepsTheFirstCreationTime) {
    store.ingest({}, {}, std::nullopt, batchOf("run-1", {observation("claude:m1", 5)}));
    sqlite::exec(ledger.get(), "UPDATE ledger_events SET created_at=1, updated_at=1;");
    store.ingest({}, {}, std::nullopt, batchOf("run-2", {observation("claude:m1", 6)}));
    EXPECT_EQ(count("SELECT COUNT(*) FROM ledger_events WHERE created_at=1 AND updated_at>1;"), 1);
    EXPECT_EQ(eventOutput("claude:m1"), 6);
}

TEST_F(IngestCommitTest, AnObservationThatTurnsIneligibleLeavesTheLedger) {
    store.ingest({}, {}, std::nullopt, batchOf("run-A", {observation("claude:m1", 5)}));
    // Larger counts, so they are the ones kept, but they do not add up and have no price.
    auto broken = observation("claude:m1", 6);
    broken.tokens.breakdownTrusted = false;
    broken.cost = {};
    store.ingest({}, {}, std::nullopt, batchOf("run-B", {broken}));
    EXPECT_FALSE(eventOutput("claude:m1").has_value());
    EXPECT_EQ(count("SELECT COUNT(*) FROM ledger_costs;"), 0);
    EXPECT_EQ(findings("claude:m1"),
              (std::vector<std::string>{"invalidTokenInvariant", "unknownCost"}));
    EXPECT_EQ(count("SELECT COUNT(*) FROM coverage_issues WHERE run_id<>'run-B';"), 0);
}

TEST_F(IngestCommitTest, AFullRescanRemovesWhatItNoLongerProves) {
    store.ingest({}, {}, std::nullopt,
                 batchOf("run-1", {observation("claude:m1", 5), observation("claude:m2", 6)}));
    auto codexObservation =
        observation("codex:x", 1, ObservationTimeQuality::trusted, AgentSource::codex);
    codexObservation.tokens = {10, 100, 0, 1, 0, 110, 1, 111, true};  // codex input holds cache
    auto codex = batchOf("run-c", {codexObservation}, AgentSource::codex);
    codex.adapterID = "codex";
    codex.checkpoint->adapterID = "codex";
    store.ingest({}, {}, std::nullopt, codex);

    store.replaceLedgerSource(AgentSource::claude, batchOf("run-2", {observation("claude:m2", 6)}));
    EXPECT_FALSE(eventOutput("claude:m1").has_value());
    EXPECT_EQ(eventOutput("claude:m2"), 6);
    EXPECT_EQ(eventOutput("codex:x"), 1);

    store.replaceLedgerSource(AgentSource::claude, batchOf("run-3", {}));
    EXPECT_EQ(count("SELECT COUNT(*) FROM ledger_events WHERE source='claude';"), 0);
    EXPECT_EQ(count("SELECT COUNT(*) FROM usage_observations WHERE source='claude';"), 2);
    EXPECT_EQ(count("SELECT COUNT(*) FROM ledger_events WHERE source='codex';"), 1);
}

TEST_F(IngestCommitTest, InvalidBatchesAreRefusedBeforeAnyWrite) {
    auto wrongAdapter = batchOf("r1", {observation("claude:m1", 5)});
    wrongAdapter.checkpoint->adapterID = "x";
    auto noID = batchOf("", {observation("claude:m1", 5)});
    auto noAdapter = batchOf("r3", {});
    noAdapter.adapterID.clear();
    auto otherInstance = batchOf("r4", {});
    otherInstance.integrationInstanceID = IntegrationInstanceID("i-1");
    otherInstance.checkpoint->integrationInstanceID = IntegrationInstanceID("i-2");
    for (const auto* batch : {&wrongAdapter, &noID, &noAdapter, &otherInstance}) {
        try {
            store.ingest({}, {}, std::nullopt, *batch);
            ADD_FAILURE() << "accepted batch " << batch->id;
        } catch (const LedgerStoreError& e) {
            EXPECT_EQ(e.code(), LedgerStoreErrorCode::invalidBatch);
        }
    }
    // A full rescan of one source must not carry another's observations.
    auto mixed = batchOf(
        "r5", {observation("codex:x", 1, ObservationTimeQuality::trusted, AgentSource::codex)});
    EXPECT_THROW(store.replaceLedgerSource(AgentSource::claude, mixed), LedgerStoreError);
    EXPECT_THROW(store.replaceLedgerSource(AgentSource::codex, batchOf("r6", {})),
                 LedgerStoreError);
    EXPECT_EQ(count("SELECT COUNT(*) FROM ingest_runs;"), 0);
    EXPECT_EQ(count("SELECT COUNT(*) FROM usage_observations;"), 0);
}

TEST_F(IngestCommitTest, AFailingRowLeavesNothingOfTheBatch) {
    store.ingest({}, {}, std::nullopt, batchOf("run-0", {observation("claude:m0", 1)}));
    // A row that the database refuses halfway through the batch.
    sqlite::exec(ledger.get(),
                 "CREATE TRIGGER refuse BEFORE INSERT ON usage_observations "
                 "WHEN NEW.id = 'claude:bad' BEGIN SELECT RAISE(ABORT, 'refused'); END;");
    SourceCheckpoint fileCheckpoint;
    fileCheckpoint.stableID = "/h/.claude/projects/p/s.jsonl";
    fileCheckpoint.byteOffset = 100;
    UsageEvent legacy;
    legacy.id = "claude:legacy";
    legacy.provider = "anthropic";
    try {
        store.ingest({legacy}, {fileCheckpoint}, std::nullopt,
                     batchOf("run-1", {observation("claude:m1", 5), observation("claude:bad", 6),
                                       observation("claude:m2", 7)}));
        ADD_FAILURE() << "the refused row did not fail the commit";
    } catch (const StoreError& e) {
        EXPECT_EQ(e.code(), StoreErrorCode::sql);
    }
    EXPECT_EQ(count("SELECT COUNT(*) FROM ingest_runs;"), 1);
    EXPECT_EQ(count("SELECT COUNT(*) FROM usage_observations;"), 1);
    EXPECT_EQ(count("SELECT COUNT(*) FROM ledger_events;"), 1);
    EXPECT_EQ(count("SELECT COUNT(*) FROM events;"), 0);
    EXPECT_TRUE(store.checkpoints(AgentSource::claude).empty());
    EXPECT_EQ(count("SELECT COUNT(*) FROM adapter_checkpoints WHERE opaque_cursor='cursor-run-1';"),
              0);

    // The same batch commits once the fault is gone: nothing was left half-done.
    sqlite::exec(ledger.get(), "DROP TRIGGER refuse;");
    const auto outcome =
        store.ingest({legacy}, {fileCheckpoint}, std::nullopt,
                     batchOf("run-1", {observation("claude:m1", 5), observation("claude:bad", 6),
                                       observation("claude:m2", 7)}));
    EXPECT_EQ(outcome->ledgerEventCount, 3);
    ASSERT_EQ(store.checkpoints(AgentSource::claude).size(), 1u);
    EXPECT_EQ(store.checkpoints(AgentSource::claude)[0].byteOffset, 100);
}

TEST_F(IngestCommitTest, RowsGivenInAnyOrderKeepTheirOwnVerdicts) {
    // Descending ids, every other one without a usable breakdown or price: written in key order,
    // each row must still carry its own counts and findings.
    std::vector<UsageObservation> given;
    for (int n = 9; n >= 1; --n) {
        auto o = observation("claude:m" + std::to_string(n), n);
        if (n % 2 == 0) {
            o.tokens.breakdownTrusted = false;
            o.cost = {};
        }
        given.push_back(o);
    }
    const auto outcome = store.ingest({}, {}, std::nullopt, batchOf("run-1", given));
    EXPECT_EQ(outcome->ledgerEventCount, 5);
    for (int n = 1; n <= 9; ++n) {
        const std::string id = "claude:m" + std::to_string(n);
        SCOPED_TRACE(id);
        if (n % 2 == 0) {
            EXPECT_FALSE(eventOutput(id).has_value());
            EXPECT_FALSE(findings(id).empty());
        } else {
            EXPECT_EQ(eventOutput(id), n);
            EXPECT_TRUE(findings(id).empty());
        }
    }
    EXPECT_EQ(count("SELECT COUNT(*) FROM ledger_costs;"), 5);
}

TEST_F(IngestCommitTest, ReferencesOutsideTheBatchAreStillChecked) {
    // Commits that reference only their own rows skip the foreign key checks; any reference to a
    // row the ledger lacks must still fail the whole commit, also right after such a commit.
    struct Case {
        const char* name;
        void (*spoil)(UsageBatch&);
    };
    const Case cases[] = {
        {"observation of an unknown instance",
         [](UsageBatch& b) {
             b.observations[0].integrationInstanceID = IntegrationInstanceID("i-unknown");
         }},
        {"observation of an unknown account",
         [](UsageBatch& b) { b.observations[0].accountID = SubscriptionAccountID("a-unknown"); }},
        {"run of an unknown instance",
         [](UsageBatch& b) { b.integrationInstanceID = IntegrationInstanceID("i-unknown"); }},
        {"finding on an observation the ledger lacks",
         [](UsageBatch& b) {
             CoverageIssue issue;
             issue.id = "issue-1";
             issue.observationID = "claude:elsewhere";
             b.coverageIssues.push_back(issue);
         }},
        {"finding of another run",
         [](UsageBatch& b) {
             CoverageIssue issue;
             issue.id = "issue-2";
             issue.runID = "run-elsewhere";
             b.coverageIssues.push_back(issue);
         }},
    };
    int run = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string fine = "run-ok-" + std::to_string(run);
        const std::string spoiled = "run-bad-" + std::to_string(run++);
        store.ingest({}, {}, std::nullopt, batchOf(fine, {observation("claude:" + fine, 5)}));
        auto batch = batchOf(spoiled, {observation("claude:" + spoiled, 5)});
        c.spoil(batch);
        try {
            store.ingest({}, {}, std::nullopt, batch);
            ADD_FAILURE() << "committed a dangling reference";
        } catch (const StoreError& e) {
            EXPECT_EQ(e.code(), StoreErrorCode::sql);
        }
        sqlite::Statement written(ledger.get(), "SELECT COUNT(*) FROM ingest_runs WHERE id=?;");
        written.bind(1, spoiled);
        ASSERT_TRUE(written.step());
        EXPECT_EQ(written.int64(0), 0);
    }
    EXPECT_EQ(count("SELECT COUNT(*) FROM ledger_events;"), 5);
}

// One row at $2 / $8 per million for "claude-sonnet" since 2020.
PriceTable tableAt(const std::string& input, const std::string& output) {
    PriceTable table;
    table.version = 7;
    PriceRow row;
    row.match = "claude-sonnet";
    row.effectiveFrom = "2020-01-01";
    row.version = 7;
    row.inputUncachedPerMTokUSD = row.cacheReadPerMTokUSD = row.cacheWritePerMTokUSD = input;
    row.outputVisiblePerMTokUSD = row.reasoningPerMTokUSD = output;
    table.rows.push_back(row);
    return table;
}

TEST_F(IngestCommitTest, RepricingRewritesCostsAndTheirFindings) {
    auto unpriced = observation("claude:m2", 1'000'000);
    unpriced.cost = {};
    store.ingest({}, {}, std::nullopt,
                 batchOf("run-1", {observation("claude:m1", 1'000'000), unpriced}));
    EXPECT_EQ(findings("claude:m2"), std::vector<std::string>{"unknownCost"});

    // Only what had no cost: m1 keeps its 1234 micros.
    EXPECT_EQ(store.reprice(tableAt("2", "8"), BillingMode::apiEquivalent, false), 1);
    EXPECT_EQ(count("SELECT amount_usd_micros FROM ledger_costs WHERE ledger_event_id="
                    "'le:claude:m1';"),
              1234);
    // 115 input tokens at $2 and 1M output at $8.
    EXPECT_EQ(count("SELECT amount_usd_micros FROM ledger_costs WHERE ledger_event_id="
                    "'le:claude:m2';"),
              8'000'230);
    EXPECT_TRUE(findings("claude:m2").empty());

    const auto first =
        store.repriceIfFingerprintChanged(tableAt("2", "8"), BillingMode::apiEquivalent);
    EXPECT_EQ(first, RepriceOutcome::updated(1));  // m2 already had these prices
    EXPECT_EQ(store.repriceIfFingerprintChanged(tableAt("2", "8"), BillingMode::apiEquivalent),
              RepriceOutcome::skippedOutcome());
    EXPECT_EQ(count("SELECT SUM(amount_usd_micros) FROM ledger_costs;"), 2 * 8'000'230);

    // Without a matching row every cost goes, and the findings say so.
    EXPECT_EQ(store.repriceLedger(PriceTable::empty(), BillingMode::apiEquivalent), 2);
    EXPECT_EQ(count("SELECT COUNT(*) FROM ledger_costs WHERE amount_usd_micros IS NULL;"), 2);
    EXPECT_EQ(count("SELECT COUNT(*) FROM coverage_issues WHERE code='unknownCost';"), 2);
}

TEST(UsageBatchBuilderTest, CarriesTheEventIntoAnObservation) {
    UsageEvent e;
    e.id = "claude:m1";
    e.occurredAt = 1000;
    e.timeQuality = ObservationTimeQuality::trusted;
    e.source = AgentSource::claude;
    e.provider = "anthropic";
    e.model = "m";
    e.sessionID = "sess";
    e.exclusive = {1, 2, 3, 4, 0};
    e.providerInputTotal = 1;
    e.providerOutputTotal = 4;
    e.providerTotal = 5;
    e.estimatedCostUSDMicros = 77;
    e.costCompleteness = CostCompleteness::complete;
    e.costSource = CostSource::priceTable;
    const auto kept = UsageBatchBuilder::observation(e, 2000, true);
    EXPECT_EQ(kept.id, "claude:m1");
    EXPECT_EQ(kept.occurredAt, 1000);
    EXPECT_EQ(kept.sessionKey, "sess");
    EXPECT_EQ(kept.tokens, (ObservedTokenUsage{1, 2, 3, 4, 0, 1, 4, 5, true}));
    EXPECT_EQ(kept.cost.amountUSDMicros, 77);
    EXPECT_FALSE(UsageBatchBuilder::observation(e, 2000, false).sessionKey.has_value());
    e.timeQuality = ObservationTimeQuality::missing;
    EXPECT_FALSE(UsageBatchBuilder::observation(e, 2000, true).occurredAt.has_value());
    EXPECT_NE(UsageBatchBuilder::newRunID("claude", 1), UsageBatchBuilder::newRunID("claude", 1));
}

}  // namespace
}  // namespace kestrel
