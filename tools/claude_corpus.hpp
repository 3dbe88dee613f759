#pragma once
// A synthetic Claude Code data folder for benchmarks and soak runs: session transcripts with the
// line shapes, size distribution and duplication the agent really produces, deterministic for a
// seed. Shared by kestrel-gen-claude-home and kestrel-bench-claude.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <string>

namespace kestrel::corpus {

struct ClaudeCorpusOptions {
    std::filesystem::path home;  // the corpus goes to home/.claude/projects
    int64_t targetBytes = 0;     // total size aimed at; the result lands within a few percent
    uint64_t seed = 1;
    int64_t files = 0;       // transcripts to write (sub-agent ones included); 0 picks one
                             // per ~3 MB
    bool overwrite = false;  // replace an existing home/.claude/projects
};

struct ClaudeCorpusSummary {
    int64_t files = 0;          // .jsonl files written
    int64_t subagentFiles = 0;  // of which sub-agent transcripts
    int64_t projects = 0;
    int64_t bytes = 0;  // .jsonl bytes
    int64_t lines = 0;
    int64_t assistantLines = 0;  // every "type":"assistant" line, API error lines included
    int64_t apiErrorLines = 0;
    int64_t distinctMessageIDs = 0;  // assistant message ids, counted once across the corpus
    int64_t copiedLines = 0;         // lines repeated from an earlier session (resume / fork)
    int64_t longestLine = 0;         // bytes, without the line feed
    int64_t largeToolResults = 0;    // tool results of 200 KB or more
};

// Writes the corpus. Fails when the target folder cannot be written, or when it already holds
// transcripts and `overwrite` is off.
std::expected<ClaudeCorpusSummary, std::string> writeClaudeCorpus(
    const ClaudeCorpusOptions& options);

}  // namespace kestrel::corpus
