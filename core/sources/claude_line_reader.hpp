#pragma once
// Reads the usage-relevant keys of one Claude Code transcript line. Kept apart from the parser so
// that the hot path (pre-filter, zero-copy JSON walk) can be measured and tested on its own.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kestrel {

// The keys of one assistant line that carries usage. Counts that are absent are 0.
struct ClaudeRecord {
    std::string messageID;
    std::string model;
    std::string timestamp;  // as written; empty when absent
    std::string sessionID;  // empty when absent
    std::string cwd;        // empty when absent
    int64_t inputTokens = 0;
    int64_t cacheCreationInputTokens = 0;
    int64_t cacheReadInputTokens = 0;
    int64_t outputTokens = 0;
    std::optional<int64_t> cacheWrite5m;  // usage.cache_creation split, when present
    std::optional<int64_t> cacheWrite1h;
    std::optional<double> costUSD;  // the agent's own figure (older versions)
    std::string serviceTier;
    std::string agentID;  // sub-agent transcripts
    bool isSidechain = false;
    bool isApiErrorMessage = false;
    bool unreadableCount = false;  // a usage count of the wrong type or beyond any real request
};

enum class ClaudeLineKind {
    usage,            // an assistant record with a usage object: `record` is filled
    noUsage,          // a well-formed record of another kind, or without usage
    blank,            // nothing but whitespace
    malformed,        // not JSON, or not an object
    unreadableUsage,  // an assistant record whose usage cannot be read: a count of the wrong
                      // type or out of range, or no message id
};

class ClaudeLineReader {
  public:
    ClaudeLineReader();
    ~ClaudeLineReader();
    ClaudeLineReader(const ClaudeLineReader&) = delete;
    ClaudeLineReader& operator=(const ClaudeLineReader&) = delete;

    // Classifies `line` and, for a usage record, fills `record`. `paddingAfter` is the number of
    // readable bytes after the line's end (at least 64 avoids a copy). Invalid UTF-8 inside the
    // line is repaired rather than rejected.
    ClaudeLineKind read(std::string_view line, std::size_t paddingAfter, ClaudeRecord& record);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kestrel
