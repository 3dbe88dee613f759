// `kestrel scan` over a home holding every other agent's records at once: each agent's usage is
// found, lands in the ledger once however often the scan runs, and not one of the agents' files
// is changed by it.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

#include "core/ledger/usage_store.hpp"
#include "tests/support/command_run.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/agent_corpus/all_agents.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;

// Every file below `folder` with its bytes and modification time.
std::map<std::string, std::pair<std::string, int64_t>> snapshot(const fs::path& folder) {
    std::map<std::string, std::pair<std::string, int64_t>> out;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (!entry.is_regular_file()) {
            continue;
        }
        std::ifstream in(entry.path(), std::ios::binary);
        struct stat st {};
        ::stat(entry.path().c_str(), &st);
        out[entry.path().string()] = {
            std::string(std::istreambuf_iterator<char>(in), {}),
            static_cast<int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec};
    }
    return out;
}

std::map<std::string, int64_t> ledgerCounts(const fs::path& support) {
    UsageStore store(support);
    std::map<std::string, int64_t> out;
    for (const auto& [source, summary] : store.ledgerSummariesBySource({})) {
        out[std::string(rawValue(source))] = summary.eventCount;
    }
    return out;
}

TEST(AllAgentsScan, EveryAgentsUsageLandsOnceAndNoFileIsTouched) {
    test_support::TempDir home, support;
    std::map<std::string, int64_t> expected;
    for (const auto& agent : corpus::otherAgents()) {
        expected[std::string(rawValue(agent.source))] = agent.write(home.path(), 2);
    }
    const auto before = snapshot(home.path());

    const auto first = test_support::runKestrel({"scan", "--json"}, home.path(), support.path());
    ASSERT_EQ(first.code, 0) << first.err;
    // Each usage is one observation, whichever files repeat it (forks, copies, migrated
    // stores); the eligible ones are the ledger's events.
    std::map<std::string, int64_t> observed, accepted;
    const auto firstDoc = nlohmann::json::parse(first.out);
    for (const auto& row : firstDoc["sources"]) {
        const auto source = row["source"].get<std::string>();
        observed[source] = row["accepted"].get<int64_t>() + row["rejected"].get<int64_t>();
        accepted[source] = row["accepted"].get<int64_t>();
        EXPECT_TRUE(row["errors"].empty()) << row.dump();
    }
    for (const auto& [source, count] : expected) {
        EXPECT_EQ(observed[source], count) << source;
    }
    const auto afterFirst = ledgerCounts(support.path());
    for (const auto& [source, count] : accepted) {
        EXPECT_EQ(afterFirst.contains(source) ? afterFirst.at(source) : 0, count) << source;
    }

    // Again, and again after forgetting every checkpoint kept in memory: nothing is new, and
    // nothing is counted twice.
    const auto second = test_support::runKestrel({"scan", "--json"}, home.path(), support.path());
    ASSERT_EQ(second.code, 0) << second.err;
    const auto secondDoc = nlohmann::json::parse(second.out);
    for (const auto& row : secondDoc["sources"]) {
        EXPECT_EQ(row["filesRead"], 0) << row.dump();
    }
    const auto forced =
        test_support::runKestrel({"scan", "--force", "--yes"}, home.path(), support.path());
    ASSERT_EQ(forced.code, 0) << forced.err;
    EXPECT_EQ(ledgerCounts(support.path()), afterFirst);
    // SQLite itself adds the shared-memory index and an empty log beside a WAL store it opens
    // (as the agent does); the agents' own files stay as they were.
    auto after = snapshot(home.path());
    std::erase_if(after, [&](const auto& file) {
        return !before.contains(file.first) &&
               (file.first.ends_with("-shm") ||
                (file.first.ends_with("-wal") && file.second.first.empty()));
    });
    EXPECT_EQ(after, before) << "an agent's file was changed by a scan";
}

}  // namespace
}  // namespace kestrel
