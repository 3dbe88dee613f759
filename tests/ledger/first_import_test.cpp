// A first import (indexes and rollup triggers dropped while an empty ledger fills) must leave
// the ledger a commit-by-commit import leaves, answer reports correctly while it runs, and be
// finished by the next open when its process is stopped halfway.

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_store.hpp"
#include "tests/support/ledger_connection.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::LedgerConnection;
using test_support::TempDir;

constexpr double kDay = 86'400;
constexpr double kStart = 1'780'000'000.0;

UsageObservation observation(const std::string& id, double at, int64_t output,
                             AgentSource source = AgentSource::claude,
                             ObservationTimeQuality time = ObservationTimeQuality::trusted) {
    UsageObservation o;
    o.id = std::string(rawValue(source)) + ":" + id;
    o.source = source;
    o.provider = "anthropic";
    o.model = output % 2 ? "claude-sonnet-4-5" : "claude-opus-4-1";
    o.occurredAt = at;
    o.observedAt = at + 5;
    o.timeQuality = time;
    o.precision = UsagePrecision::nativeExact;
    o.granularity = UsageGranularity::request;
    o.sessionKey = "s-" + id;
    o.tokens = {10, 100, 5, output, 0, 10, output, 115 + output, true};
    o.cost = {output * 7,   CostCompleteness::complete, CostSource::priceTable, 3,
              std::nullopt, BillingMode::apiEquivalent};
    return o;
}

UsageBatch batchOf(const std::string& runID, AgentSource source,
                   std::vector<UsageObservation> observations) {
    UsageBatch b;
    b.id = runID;
    b.adapterID = std::string(rawValue(source));
    b.source = source;
    b.startedAt = kStart;
    b.completedAt = kStart + 1;
    b.observations = std::move(observations);
    b.checkpoint = AdapterCheckpoint{std::nullopt, b.adapterID, "cursor-" + runID, 1, 1.0};
    return b;
}

// Commits that exercise every path of the write: new rows, a later record with more complete
// counts and an earlier time, a record that becomes ineligible and one that becomes eligible
// again, findings, and a second source.
std::vector<UsageBatch> commits() {
    using Q = ObservationTimeQuality;
    const auto claude = AgentSource::claude;
    const auto codex = AgentSource::codex;
    std::vector<UsageObservation> first;
    for (int i = 0; i < 150; ++i) {
        first.push_back(observation("m" + std::to_string(i), kStart + i * 3'600.0, 40 + i));
    }
    return {
        batchOf("run-1", claude, first),
        batchOf("run-2", claude,
                {observation("m3", kStart - kDay, 900),  // earlier and more complete
                 observation("m4", kStart + 2 * kDay, 1),
                 observation("m5", kStart, 60, claude, Q::inferred),
                 observation("new", kStart + 3 * kDay, 33)}),
        batchOf("run-3", codex,
                {observation("c1", kStart + 0.5 * kDay, 71, codex),
                 observation("c2", kStart + 4 * kDay, 72, codex, Q::inferred)}),
        batchOf("run-4", claude, {observation("m5", kStart + 20, 61)}),
    };
}

std::vector<std::string> rows(sqlite3* db, const std::string& sql) {
    sqlite::Statement s(db, sql);
    std::vector<std::string> out;
    const int columns = sqlite3_column_count(s.handle());
    while (s.step()) {
        std::string row;
        for (int c = 0; c < columns; ++c) {
            row += (s.isNull(c) ? std::string("NULL") : s.text(c)) + "|";
        }
        out.push_back(row);
    }
    return out;
}

// What must be the same however the ledger was filled (times of writing left out).
std::vector<std::vector<std::string>> contents(const UsageStore& store) {
    LedgerConnection ledger(store.databasePath());
    std::vector<std::vector<std::string>> out;
    for (const char* sql : {
             "SELECT type, name, sql FROM sqlite_master WHERE type IN ('index', 'trigger') "
             "ORDER BY name;",
             "SELECT id, run_id, occurred_at, time_quality, output_visible, cost_usd_micros, "
             "model FROM usage_observations ORDER BY id;",
             "SELECT id, observation_id, occurred_at, output_visible, model, session_key FROM "
             "ledger_events ORDER BY id;",
             "SELECT ledger_event_id, amount_usd_micros FROM ledger_costs ORDER BY 1;",
             "SELECT id, observation_id, code, origin FROM coverage_issues ORDER BY id;",
             "SELECT * FROM ledger_rollups ORDER BY 1, 2, 3, 4, 5, 6;",
             "SELECT * FROM ledger_rollups_hour ORDER BY 1, 2, 3, 4, 5, 6;",
             "SELECT * FROM ledger_rollups_day ORDER BY 1, 2, 3, 4, 5, 6;",
             "SELECT COUNT(*) FROM ledger_rollup_dirty;",
         }) {
        out.push_back(rows(ledger.get(), sql));
    }
    return out;
}

LedgerSummary summaryFromEvents(const UsageStore& store) {
    LedgerConnection ledger(store.databasePath());
    sqlite::Statement s(ledger.get(),
                        "SELECT COUNT(*), SUM(e.output_visible), SUM(c.amount_usd_micros) FROM "
                        "ledger_events e LEFT JOIN ledger_costs c ON c.ledger_event_id = e.id;");
    s.step();
    LedgerSummary out;
    out.eventCount = s.int64(0);
    out.outputVisible = s.optionalInt64(1);
    out.knownCostUSDMicros = s.optionalInt64(2);
    return out;
}

void expectReportsMatchEvents(UsageStore& store) {
    const auto expected = summaryFromEvents(store);
    const auto summary = store.ledgerSummary({});
    EXPECT_EQ(summary.eventCount, expected.eventCount);
    EXPECT_EQ(summary.outputVisible, expected.outputVisible);
    EXPECT_EQ(summary.knownCostUSDMicros, expected.knownCostUSDMicros);
    int64_t byDay = 0;
    for (const auto& b : store.ledgerTimeBuckets({}, LedgerBucketUnit::day)) {
        byDay += b.summary.eventCount;
    }
    EXPECT_EQ(byDay, expected.eventCount);
}

// The ledger of the same commits made one by one into indexed tables.
std::vector<std::vector<std::string>> committedPlainly() {
    TempDir dir;
    UsageStore store(dir.path());
    for (const auto& batch : commits()) {
        store.ingest({}, {}, std::nullopt, batch);
    }
    store.refreshRollups();
    return contents(store);
}

TEST(FirstImportTest, EndsWithTheLedgerOfPlainCommitsHoweverItIsFinished) {
    const auto expected = committedPlainly();
    ASSERT_FALSE(expected[0].empty());
    enum class End { finish, reopen, nextImport };
    struct Case {
        const char* name;
        End end;
        bool reportsMeanwhile;
    };
    for (const auto& c : std::vector<Case>{
             {"finished by the scan", End::finish, false},
             {"reports read while it runs", End::finish, true},
             {"stopped, finished by the next open", End::reopen, false},
             {"stopped, finished by this process's next import", End::nextImport, true},
         }) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        {
            UsageStore store(dir.path());
            ASSERT_TRUE(store.beginFirstImport());
            EXPECT_TRUE(store.firstImportPending());
            for (const auto& batch : commits()) {
                store.ingest({}, {}, std::nullopt, batch);
                if (c.reportsMeanwhile) {
                    expectReportsMatchEvents(store);
                }
            }
            if (c.end == End::finish) {
                store.finishFirstImport();
            } else if (c.end == End::nextImport) {
                EXPECT_FALSE(store.beginFirstImport());  // the ledger holds usage now
                store.refreshRollups();
            }
            if (c.end != End::reopen) {
                EXPECT_FALSE(store.firstImportPending());
                EXPECT_EQ(contents(store), expected);
            }
        }
        UsageStore reopened(dir.path());
        EXPECT_FALSE(reopened.firstImportPending());
        reopened.refreshRollups();
        EXPECT_EQ(contents(reopened), expected);
        expectReportsMatchEvents(reopened);
    }
}

TEST(FirstImportTest, OnlyAnEmptyLedgerStartsOne) {
    TempDir dir;
    UsageStore store(dir.path());
    store.ingest({}, {}, std::nullopt, commits().front());
    const auto before = contents(store);
    EXPECT_FALSE(store.beginFirstImport());
    EXPECT_FALSE(store.firstImportPending());
    EXPECT_EQ(contents(store), before);

    // Finishing without a first import under way changes nothing either.
    store.finishFirstImport();
    EXPECT_EQ(contents(store), before);

    TempDir readerDir;
    { UsageStore create(readerDir.path()); }
    UsageStore reader(readerDir.path(), ReadOnlyLedger{});
    EXPECT_FALSE(reader.beginFirstImport());
}

}  // namespace
}  // namespace kestrel
