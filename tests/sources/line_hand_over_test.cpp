// Every reader that streams JSON lines may hand a file over after any line, so that one huge
// file is committed in parts. The checkpoint it hands over must carry everything the reader
// knows at that line (Codex's model, directory and running totals, a session id read from the
// first line, a harness's meter readings): a read resumed from it, as after a scan stopped
// there, goes on with exactly the events and the final checkpoint of the read that was not
// interrupted.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/sources/agent_catalog.hpp"
#include "core/sources/source_readers.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/agent_corpus/all_agents.hpp"
#include "tools/codex_corpus.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;
namespace fs = std::filesystem;

// What identifies an event and what it counts; the rest follows from these.
struct EventKey {
    std::string id;
    double occurredAt = 0;
    std::string model;
    std::string sessionID;
    TokenSnapshot raw;

    bool operator==(const EventKey&) const = default;
};

std::vector<EventKey> keysOf(const std::vector<UsageEvent>& events) {
    std::vector<EventKey> keys;
    for (const auto& e : events) {
        keys.push_back({e.id, e.occurredAt, e.model, e.sessionID, e.raw});
    }
    return keys;
}

struct SplitRead {
    std::vector<UsageEvent> events;
    std::vector<SourceCheckpoint> points;
    std::vector<std::size_t> eventsBefore;  // per point: events sent before it
    SourceCheckpoint last;
};

SplitRead readHandingOverEverywhere(const SourceReader& reader, SourceReadContext context) {
    SplitRead out;
    context.sink = [&](UsageEvent&& e) { out.events.push_back(std::move(e)); };
    context.wantsHandOver = [] { return true; };
    context.handOver = [&](SourceCheckpoint&& point) {
        out.points.push_back(std::move(point));
        out.eventsBefore.push_back(out.events.size());
    };
    auto result = reader.ingest(context);
    EXPECT_TRUE(result.has_value());
    if (result) {
        out.last = result->checkpoint;
    }
    return out;
}

// Reads every file of `source` below `home` whole, then again handing over after every line,
// and resumes from a spread of the hand-over points. Returns how many points were checked.
int checkResumes(AgentSource source, const fs::path& home) {
    const auto reader = SourceReaders::reader(source);
    if (!reader || reader->kind != SourceReaderKind::jsonLines) {
        return 0;
    }
    const auto roots = AgentCatalog::installedRoots(source, home);
    const std::string defaultModel = SourceReaders::defaultModel(source, roots);
    int checked = 0;
    for (const auto& root : roots) {
        for (const auto& file : reader->discover(root, nullptr)) {
            SCOPED_TRACE(file.string());
            SourceReadContext context;
            context.source = source;
            context.file = file;
            context.defaultModel = defaultModel;
            const auto whole = SourceReaders::collect(reader->ingest, context);
            if (!whole) {
                ADD_FAILURE() << whole.error().description();
                continue;
            }
            const auto split = readHandingOverEverywhere(*reader, context);
            EXPECT_EQ(keysOf(split.events), keysOf(whole->events))
                << "handing over changes nothing in the read itself";
            EXPECT_EQ(split.last.byteOffset, whole->checkpoint.byteOffset);
            // About a dozen points per file, spread over it, the last one included.
            const std::size_t n = split.points.size();
            std::vector<std::size_t> picks;
            for (std::size_t i = 0; i < n; i += std::max<std::size_t>(1, n / 12)) {
                picks.push_back(i);
            }
            if (n > 0 && picks.back() != n - 1) {
                picks.push_back(n - 1);
            }
            for (const std::size_t i : picks) {
                const auto& point = split.points[i];
                SCOPED_TRACE("resumed at byte " + std::to_string(*point.byteOffset));
                auto resumedContext = context;
                resumedContext.checkpoint = point;
                const auto resumed = SourceReaders::collect(reader->ingest, resumedContext);
                if (!resumed) {
                    ADD_FAILURE() << resumed.error().description();
                    continue;
                }
                const auto before = static_cast<std::ptrdiff_t>(split.eventsBefore[i]);
                auto joined = keysOf({split.events.begin(), split.events.begin() + before});
                const auto after = keysOf(resumed->events);
                joined.insert(joined.end(), after.begin(), after.end());
                EXPECT_EQ(joined, keysOf(whole->events));
                EXPECT_EQ(resumed->checkpoint.byteOffset, whole->checkpoint.byteOffset);
                EXPECT_EQ(resumed->checkpoint.parserContext, whole->checkpoint.parserContext)
                    << "the state at the end is the same however the file was read";
                ++checked;
            }
        }
    }
    return checked;
}

TEST(LineHandOver, EveryJsonLinesReaderResumesExactlyAfterAnyLine) {
    TempDir home;
    std::vector<AgentSource> sources;
    for (const auto& agent : corpus::otherAgents()) {
        agent.write(home.path(), 3);
        sources.push_back(agent.source);
    }
    for (auto source : sources) {
        SCOPED_TRACE(std::string(rawValue(source)));
        const auto reader = SourceReaders::reader(source);
        ASSERT_TRUE(reader.has_value());
        if (reader->kind != SourceReaderKind::jsonLines) {
            continue;
        }
        const auto spec = AgentCatalog::spec(source, home.path());
        // Documents read whole (editor task histories, JSON sessions) offer no line to stop at.
        const int checked = checkResumes(source, home.path());
        if (spec && spec->format != AgentDataFormat::editorTasks &&
            spec->format != AgentDataFormat::cumulativeJSON) {
            EXPECT_GT(checked, 0) << "the reader never offered to hand over";
        }
    }
}

// Codex keeps the most state between lines: the model of the latest turn context, the
// directory, the running totals the next report is measured against, and a fork's replay of
// its parent's history, which must stay uncounted however it is cut.
TEST(LineHandOver, CodexRolloutsResumeWithTheirModelTotalsAndForkReplay) {
    TempDir home;
    corpus::CodexCorpusOptions options;
    options.home = home.path();
    options.targetBytes = 400'000;
    options.files = 6;
    options.seed = 11;
    const auto written = corpus::writeCodexCorpus(options);
    ASSERT_TRUE(written.has_value()) << written.error();
    ASSERT_GT(written->forkedFiles, 0);
    EXPECT_GT(checkResumes(AgentSource::codex, home.path()), 10);
}

}  // namespace
}  // namespace kestrel
