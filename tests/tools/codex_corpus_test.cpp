#include "tools/codex_corpus.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "core/sources/codex_parser.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;

corpus::CodexCorpusSummary writeCorpus(const std::filesystem::path& home, uint64_t seed) {
    corpus::CodexCorpusOptions options;
    options.home = home;
    options.targetBytes = 3'000'000;
    options.seed = seed;
    options.files = 16;
    auto written = corpus::writeCodexCorpus(options);
    EXPECT_TRUE(written.has_value()) << (written ? "" : written.error());
    return written ? *written : corpus::CodexCorpusSummary{};
}

std::string contents(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The generator knows which reports carry new usage; the reader must find exactly those, in
// plain, archived and compressed rollouts, and leave out what a fork copied from its parent.
TEST(CodexCorpusTest, ReaderFindsExactlyTheUsageTheCorpusHolds) {
    TempDir home;
    const auto summary = writeCorpus(home.path(), 7);
    ASSERT_EQ(summary.rollouts.size(), 16u);

    // Without these the comparison below would prove less than it claims.
    int64_t replayedReports = 0;
    for (const auto& r : summary.rollouts) {
        replayedReports += r.replayedReports;
    }
    EXPECT_GT(summary.forkedFiles, 0);
    EXPECT_GT(replayedReports, 0);
    EXPECT_GT(summary.compressedFiles, 0);
    EXPECT_GT(summary.archivedFiles, summary.compressedFiles);
    EXPECT_GT(summary.repeatedReports, 0);

    const auto found = CodexParser::discover(home / ".codex");
    ASSERT_EQ(found.size(), summary.rollouts.size());
    int64_t events = 0;
    for (std::size_t i = 0; i < found.size(); ++i) {
        const auto& expected = summary.rollouts[i];
        SCOPED_TRACE(expected.path.filename().string());
        EXPECT_EQ(found[i], expected.path);
        SourceReadContext context;
        context.source = AgentSource::codex;
        context.file = found[i];
        context.defaultModel = "gpt-5";
        const auto result = SourceReaders::collect(CodexParser::ingest, context);
        ASSERT_TRUE(result.has_value()) << result.error().description();
        EXPECT_EQ(result->stats.lines, expected.lines);
        EXPECT_EQ(result->stats.malformed, 0);
        EXPECT_EQ(static_cast<int64_t>(result->events.size()), expected.expectedEvents);
        int64_t input = 0, cached = 0, output = 0;
        for (const auto& e : result->events) {
            EXPECT_EQ(e.sessionID, expected.sessionID);
            input += e.raw.input;
            cached += e.raw.cachedInput;
            output += e.raw.output;
        }
        EXPECT_EQ(input, expected.expectedInput);
        EXPECT_EQ(cached, expected.expectedCached);
        EXPECT_EQ(output, expected.expectedOutput);
        events += static_cast<int64_t>(result->events.size());
    }
    EXPECT_EQ(events, summary.expectedEvents);
}

TEST(CodexCorpusTest, SeedNamesOneCorpus) {
    TempDir first, second, other;
    const auto a = writeCorpus(first.path(), 3);
    const auto b = writeCorpus(second.path(), 3);
    const auto c = writeCorpus(other.path(), 4);
    ASSERT_EQ(a.rollouts.size(), b.rollouts.size());
    for (std::size_t i = 0; i < a.rollouts.size(); ++i) {
        const auto relative = a.rollouts[i].path.lexically_relative(first.path());
        EXPECT_EQ(relative, b.rollouts[i].path.lexically_relative(second.path()));
        EXPECT_EQ(contents(a.rollouts[i].path), contents(b.rollouts[i].path)) << relative;
    }
    EXPECT_NE(a.expectedEvents, c.expectedEvents);
}

TEST(CodexCorpusTest, RefusesToReplaceRolloutsUnlessAsked) {
    TempDir home;
    writeCorpus(home.path(), 1);
    corpus::CodexCorpusOptions options;
    options.home = home.path();
    options.targetBytes = 200'000;
    options.files = 4;
    EXPECT_FALSE(corpus::writeCodexCorpus(options).has_value());
    options.overwrite = true;
    const auto replaced = corpus::writeCodexCorpus(options);
    ASSERT_TRUE(replaced.has_value());
    EXPECT_EQ(CodexParser::discover(home / ".codex").size(), 4u);
}

}  // namespace
}  // namespace kestrel
