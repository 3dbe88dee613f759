// Files with more usage than a share are committed in parts, each ending at a line inside the
// file, by every reader that streams JSON lines (Codex and the other agents alike): the ledger
// comes out row for row as after one commit of the whole source, every part's checkpoint
// resumes where the next one starts, and an unchanged rescan reads nothing.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/ledger/ingestor.hpp"
#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_store.hpp"
#include "tests/support/ledger_connection.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/agent_corpus/all_agents.hpp"
#include "tools/codex_corpus.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;

struct Scanned {
    std::vector<std::string> rows;  // every observation and whether it is in the ledger, by id
    int64_t runs = 0;               // commits
    int64_t filesRead = 0;
    int64_t rescanFilesRead = -1;
    ScanIngestCounts counts;
};

Scanned scanOnce(const std::filesystem::path& home, AgentSource source, std::size_t perCommit) {
    TempDir support;
    Scanned out;
    {
        UsageStore store(support.path());
        Ingestor ingestor(store, PriceTable::bundled(), nullptr);
        ingestor.setEventsPerCommit(perCommit);
        const std::set<AgentSource> only{source};
        ingestor.scan(home, AppSettings{}, only, false);
        const auto report = ingestor.lastReports().at(0);
        EXPECT_TRUE(report.errors.empty());
        out.filesRead = report.filesRead;
        out.counts = report.counts;
        ingestor.scan(home, AppSettings{}, only, false);
        out.rescanFilesRead = ingestor.lastReports().at(0).filesRead;
    }
    test_support::LedgerConnection db(support.path() / UsageStore::kFileName);
    // Observations, so that estimates, which stay out of the ledger's events, count too.
    sqlite::Statement observations(
        db.get(),
        "SELECT o.id, IFNULL(o.occurred_at, -1), o.model, IFNULL(o.session_key, ''), "
        "IFNULL(o.input_uncached, -1), IFNULL(o.cache_read, -1), IFNULL(o.cache_write, -1), "
        "IFNULL(o.output_visible, -1), IFNULL(o.reasoning, -1), IFNULL(o.provider_total, -1), "
        "e.id IS NOT NULL FROM usage_observations o "
        "LEFT JOIN ledger_events e ON e.observation_id = o.id ORDER BY o.id;");
    while (observations.step()) {
        std::string row = observations.text(0) + " " + std::to_string(observations.real(1)) + " " +
                          observations.text(2) + " " + observations.text(3);
        for (int column = 4; column < 11; ++column) {
            row += " " + std::to_string(observations.int64(column));
        }
        out.rows.push_back(std::move(row));
    }
    sqlite::Statement runs(db.get(), "SELECT COUNT(*) FROM ingest_runs;");
    runs.step();
    out.runs = runs.int64(0);
    return out;
}

TEST(HandOverScan, FilesCommittedInPartsGiveTheLedgerOfOneCommit) {
    TempDir home;
    std::vector<AgentSource> sources{AgentSource::codex};
    corpus::CodexCorpusOptions codex;
    codex.home = home.path();
    codex.targetBytes = 300'000;
    codex.files = 6;
    codex.seed = 5;
    ASSERT_TRUE(corpus::writeCodexCorpus(codex).has_value());
    for (const auto& agent : corpus::otherAgents()) {
        const auto reader = SourceReaders::reader(agent.source);
        ASSERT_TRUE(reader.has_value());
        if (reader->kind == SourceReaderKind::jsonLines) {
            agent.write(home.path(), 3);
            sources.push_back(agent.source);
        }
    }
    int split = 0;
    for (auto source : sources) {
        SCOPED_TRACE(std::string(rawValue(source)));
        const auto whole = scanOnce(home.path(), source, 8192);
        const auto parts = scanOnce(home.path(), source, 3);
        ASSERT_FALSE(whole.rows.empty());
        EXPECT_EQ(parts.rows, whole.rows);
        EXPECT_EQ(parts.counts, whole.counts);
        EXPECT_EQ(whole.runs, 1);
        EXPECT_EQ(parts.rescanFilesRead, 0) << "the last part's checkpoint says the file is read";
        EXPECT_EQ(whole.rescanFilesRead, 0);
        // Shares of whole files would make at most one commit per file.
        if (parts.runs > parts.filesRead) {
            ++split;
        }
    }
    EXPECT_GE(split, static_cast<int>(sources.size()) - 2)
        << "nearly every source has files of more than three usages, cut inside";
}

}  // namespace
}  // namespace kestrel
