#pragma once
// A synthetic Codex data folder for benchmarks and reader checks: session rollouts with the line
// shapes and sizes the agent really writes (a large session header, reasoning and tool output
// making up most of the bytes, running token totals with repeated and rate-limit-only reports),
// forked sessions that replay their parent's history, and archived rollouts, some compressed.
// Deterministic for a seed. Shared by kestrel-gen-home and the tests.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <string>
#include <vector>

namespace kestrel::corpus {

struct CodexCorpusOptions {
    std::filesystem::path home;  // the corpus goes to home/.codex/{sessions,archived_sessions}
    int64_t targetBytes = 0;     // JSON-lines bytes aimed at, before compression; the result
                                 // lands within a few percent
    uint64_t seed = 1;
    int64_t files = 0;       // rollouts to write, forks and archived ones included; 0 picks one
                             // per ~4 MB (at least 6)
    bool overwrite = false;  // replace existing rollouts below home/.codex
};

// One rollout and what a correct reader makes of it when it reads the file from its start.
struct CodexRollout {
    std::filesystem::path path;
    std::string sessionID;
    std::string forkedFromID;  // empty unless the session is a fork
    bool archived = false;     // below archived_sessions
    bool compressed = false;   // .jsonl.zst
    int64_t bytes = 0;         // on disk
    int64_t lines = 0;
    int64_t tokenCountLines = 0;  // every token_count report, replayed ones included
    int64_t replayedLines = 0;    // lines a fork copied from its parent
    int64_t replayedReports = 0;  // token_count reports among them
    // Reports of the session itself (not replayed) whose running totals changed: one usage
    // event each. The sums are those of the events' counts.
    int64_t expectedEvents = 0;
    int64_t expectedInput = 0;  // cached input included
    int64_t expectedCached = 0;
    int64_t expectedOutput = 0;  // reasoning included

    bool operator==(const CodexRollout&) const = default;
};

struct CodexCorpusSummary {
    int64_t files = 0;  // rollouts written, compressed ones included
    int64_t forkedFiles = 0;
    int64_t archivedFiles = 0;
    int64_t compressedFiles = 0;
    int64_t bytes = 0;      // on disk
    int64_t textBytes = 0;  // JSON lines before compression
    int64_t lines = 0;
    int64_t tokenCountLines = 0;  // replayed ones included
    // Reports a session wrote itself (replays not counted) without usage: rate limits only, or
    // totals unchanged since the previous report.
    int64_t nullInfoReports = 0;
    int64_t repeatedReports = 0;
    int64_t replayedLines = 0;
    int64_t expectedEvents = 0;          // summed over the rollouts
    int64_t longestLine = 0;             // bytes, without the line feed
    int64_t largeOutputs = 0;            // tool outputs of 100 KB or more
    std::vector<CodexRollout> rollouts;  // sorted by path
};

// Writes the corpus. Fails when the target folder cannot be written, or when it already holds
// rollouts and `overwrite` is off.
std::expected<CodexCorpusSummary, std::string> writeCodexCorpus(const CodexCorpusOptions& options);

}  // namespace kestrel::corpus
