#pragma once
// Synthetic records of the pi session format family: pi, omp, Prime Agent, OpenClaw (JSON-lines
// transcripts, the agent database with plain and compressed events, cold archives) and Craft
// Agents (workspaces with pi-backend transcripts and session headers). Line builders for the
// readers' tests, and whole homes for the benchmark.

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace kestrel::corpus::pi {

// One request's usage as these agents write it.
struct Usage {
    int64_t input = 0;
    int64_t output = 0;
    int64_t cacheRead = 0;
    int64_t cacheWrite = 0;
    double cost = 0;         // usage.cost.total
    int64_t reasoning = -1;  // omp's reasoningTokens; negative: not written
};

struct Request {
    std::string entryID;  // 8 hex characters
    int64_t epochMs = 0;  // message.timestamp; the entry's ISO time is derived from it
    std::string api = "anthropic-messages";
    std::string provider = "anthropic";
    std::string model = "claude-sonnet-4-5";
    Usage usage;
    std::string stopReason = "stop";
};

// "2026-03-01T10:00:02.120Z" for an epoch-millisecond time.
std::string isoTime(int64_t epochMs);

// Each builder returns one line with its "\n".
std::string sessionHeader(std::string_view sessionID, std::string_view cwd, int64_t epochMs);
std::string userMessage(std::string_view entryID, int64_t epochMs, std::string_view text);
std::string assistantMessage(const Request& r);
// omp: a side call outside the transcript.
std::string modelUsage(const Request& r, std::string_view purpose);
// omp: the parent's tool result for a sub-agent task, repeating the sub-agent's total.
std::string taskResult(std::string_view entryID, int64_t epochMs, const Usage& aggregate);
// omp: the title slot, padded to `width` bytes before its line feed.
std::string titleSlot(std::string_view title, int64_t updatedMs, std::size_t width);
// Prime Agent: a child's usage attributed to the session, with the running aggregate beside it.
std::string childUsage(std::string_view entryID, int64_t epochMs, std::string_view targetID,
                       const Request& child, const Usage& aggregate);

// Whole homes: `sessions` sessions of `messagesPerSession` requests each, plus what each agent
// adds around them (forks, zero-usage failures, side calls, sub-agents, migrated copies, cold
// archives, headers). The matching *Events function is the number of usage events a correct
// reader finds in that home.
void writePiHome(const std::filesystem::path& home, int sessions, int messagesPerSession,
                 uint64_t seed);
int64_t piHomeEvents(int sessions, int messagesPerSession);

void writeOmpHome(const std::filesystem::path& home, int sessions, int messagesPerSession,
                  uint64_t seed);
int64_t ompHomeEvents(int sessions, int messagesPerSession);

void writePrimeAgentHome(const std::filesystem::path& home, int sessions, int messagesPerSession,
                         uint64_t seed);
int64_t primeAgentHomeEvents(int sessions, int messagesPerSession);

void writeOpenClawHome(const std::filesystem::path& home, int sessions, int messagesPerSession,
                       uint64_t seed);
int64_t openClawHomeEvents(int sessions, int messagesPerSession);

void writeCraftHome(const std::filesystem::path& home, int sessions, int messagesPerSession,
                    uint64_t seed);
int64_t craftHomeEvents(int sessions, int messagesPerSession);

}  // namespace kestrel::corpus::pi
