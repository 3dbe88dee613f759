#pragma once
// Synthetic JSON-lines and JSON transcripts of Gemini CLI, Antigravity, Kimi CLI / Kimi Code,
// Grok Build and Copilot CLI, in each agent's own record shapes. Line writers for the readers'
// tests, and whole homes (sized by counts) for the benchmark, each with the number of usage
// events a correct reader finds in it.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel::corpus::transcripts {

// ---- Gemini CLI: ~/.gemini/tmp/<projectId>/chats/ ----

struct GeminiTokens {
    int64_t input = 0;  // includes cached
    int64_t output = 0;
    int64_t cached = 0;
    int64_t thoughts = 0;
    int64_t tool = 0;
    int64_t total() const { return input + output + thoughts + tool; }
};

struct GeminiMessage {
    std::string id;
    std::string timestamp;
    std::string type = "gemini";  // "user" for prompts
    std::string model = "gemini-2.5-pro";
    std::optional<GeminiTokens> tokens;  // written as null when absent on a reply
};

std::string geminiMetadataLine(std::string_view sessionID, std::string_view startTime,
                               std::string_view kind = "main");
std::string geminiMessageLine(const GeminiMessage& message);
// A whole legacy session document, pretty-printed as the agent wrote it.
std::string geminiLegacySession(std::string_view sessionID,
                                const std::vector<GeminiMessage>& messages);

// `sessions` sessions of `messages` replies each in two projects (one registered in
// projects.json, one with a .project_root marker); every third reply is appended twice (first
// still without final counts), every fourth session is a legacy .json, and one session has
// both files.
void writeGeminiHome(const std::filesystem::path& home, int sessions, int messages, uint64_t seed);
int64_t geminiExpectedEvents(int sessions, int messages);

// ---- Antigravity: ~/.gemini/antigravity/brain/<id>/.system_generated/logs/transcript.jsonl ----

std::string antigravityUserLine(int step, std::string_view createdAt, std::string_view content);
std::string antigravityModelLine(int step, std::string_view createdAt, std::string_view content,
                                 std::string_view thinking);

void writeAntigravityHome(const std::filesystem::path& home, int conversations, int steps,
                          uint64_t seed);
int64_t antigravityExpectedEvents(int conversations, int steps);

// ---- Kimi CLI (~/.kimi) and Kimi Code (~/.kimi-code) ----

struct KimiUsage {
    int64_t inputOther = 0;  // excludes both cache counts
    int64_t output = 0;
    int64_t cacheRead = 0;
    int64_t cacheCreation = 0;
};

std::string kimiStatusLine(double timestamp, const std::optional<KimiUsage>& usage,
                           std::string_view messageID);
// A sub-agent's StatusUpdate forwarded into its parent's wire log.
std::string kimiSubagentLine(double timestamp, const KimiUsage& usage, std::string_view messageID);
std::string kimiCodeUsageLine(int64_t timeMs, std::string_view model, const KimiUsage& usage,
                              std::string_view scope = "turn", std::string_view agent = "main");
std::string kimiCodeForkedLine(int64_t timeMs, std::string_view agent = "main");

// Half the sessions Kimi CLI, half Kimi Code, `steps` steps each with a usage-less record among
// them; plus, from two sessions on, a Kimi CLI fork, a sub-agent (own log and forwarded copies)
// and a Kimi Code fork with one step of its own.
void writeKimiHome(const std::filesystem::path& home, int sessions, int steps, uint64_t seed);
int64_t kimiExpectedEvents(int sessions, int steps);

// ---- Grok Build: ~/.grok/sessions/<enc cwd>/<id>/ ----

struct GrokUsage {
    int64_t input = 0;  // includes cache read and write
    int64_t output = 0;
    int64_t cachedRead = 0;
    std::optional<int64_t> cachedWrite;
    std::optional<int64_t> thoughts;
    int64_t total() const { return input + output; }
};

// A JSON-RPC session/update envelope whose turn-completion update carries the usage.
std::string grokTurnLine(std::string_view sessionID, std::optional<int> promptIndex,
                         const GrokUsage& usage, std::string_view timestamp);
std::string grokChunkLine(std::string_view sessionID, std::string_view text);
std::string grokChatRow(int promptIndex, std::string_view role, std::string_view model);

void writeGrokHome(const std::filesystem::path& home, int sessions, int turns, uint64_t seed);
int64_t grokExpectedEvents(int sessions, int turns);

// ---- Copilot CLI: ~/.copilot ----

struct CopilotUsage {
    int64_t input = 0;  // includes cache read and write
    int64_t output = 0;
    int64_t cacheRead = 0;
    int64_t cacheWrite = 0;
    std::optional<int64_t> reasoning;
};

std::string copilotShutdownLine(std::string_view eventID, std::string_view timestamp,
                                const std::vector<std::pair<std::string, CopilotUsage>>& models);
std::string copilotMessageLine(std::string_view eventID, std::string_view timestamp,
                               std::string_view text);
enum class OtelSpelling { current, older };
enum class OtelShape { objectAttributes, otlpList };
std::string copilotSpanLine(std::string_view traceID, std::string_view spanID,
                            std::string_view model, const CopilotUsage& usage,
                            OtelSpelling spelling, OtelShape shape,
                            std::string_view operation = "chat");

// `sessions` sessions with `segments` runs each, every run ending in a shutdown with two
// models, and one telemetry export holding a span per run (spellings and shapes alternating).
void writeCopilotHome(const std::filesystem::path& home, int sessions, int segments, uint64_t seed);
int64_t copilotExpectedEvents(int sessions, int segments);

}  // namespace kestrel::corpus::transcripts
