#pragma once
// Synthetic homes for the smaller transcript readers: CodeBuddy/WorkBuddy, Every Code, Reasonix,
// the DeepSeek harness (dsh) and the Roo Code / Kilo Code editor tasks. Each writer lays out
// records the way the agent does (paths, envelopes, the duplicated or cumulative counts that
// trip readers up), and each has a count of the usage events a correct reader finds in it.
// The single-record builders are exposed for tests that need one odd record.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel::corpus {

// ---- CodeBuddy / WorkBuddy ------------------------------------------------------------------

struct BuddyUsage {
    int64_t input = 0;      // includes the cache reads
    int64_t cacheRead = 0;  // left out of message.usage when zero, as the agents do
    int64_t output = 0;     // includes the reasoning
    int64_t reasoning = 0;
};

enum class BuddyCopies { both, messageOnly, providerDataOnly };

// One assistant reply line (with "\n"): usage in message.usage and/or its camelCase copy in
// providerData.usage, model in providerData.model.
std::string buddyReply(std::string_view id, std::string_view sessionID, std::string_view cwd,
                       int64_t timestampMs, std::string_view model, const BuddyUsage& usage,
                       BuddyCopies copies = BuddyCopies::both);
// A record without usage (user message, function call, ...).
std::string buddyRecord(std::string_view id, std::string_view sessionID, std::string_view type,
                        int64_t timestampMs);

// <home>/<dotFolder>/projects/<slug>/<session>.jsonl for `sessions` sessions of
// `repliesPerSession` replies (dotFolder ".codebuddy", ".workbuddy" or ".workbuddy-ai").
void writeBuddyHome(const std::filesystem::path& home, std::string_view dotFolder, int sessions,
                    int repliesPerSession, uint64_t seed);
int64_t buddyEventCount(int sessions, int repliesPerSession);

// ---- Every Code ----------------------------------------------------------------------------

// A Codex-style rollout line: {"timestamp", "type", "payload"}.
std::string everyCodeLine(std::string_view timestamp, std::string_view type,
                          const std::string& payloadJSON);
// A token report in Every Code's "event" envelope with running totals.
std::string everyCodeReport(std::string_view timestamp, int64_t eventSeq, int64_t totalInput,
                            int64_t totalCached, int64_t totalOutput, std::string_view model);

// <home>/.code/sessions/2026/08/21/rollout-…-<uuid>.jsonl, `reports` growing reports each.
void writeEveryCodeHome(const std::filesystem::path& home, int sessions, int reportsPerSession,
                        uint64_t seed);
int64_t everyCodeEventCount(int sessions, int reportsPerSession);

// ---- Reasonix ------------------------------------------------------------------------------

struct ReasonixUsage {
    int64_t hit = 0;
    int64_t miss = 0;
    int64_t completion = 0;
};

// One reply line; the counts at the top level or, with `nested`, inside "usage".
std::string reasonixReply(int64_t timestampMs, std::string_view model, const ReasonixUsage& usage,
                          bool nested);

// <home>/.reasonix/sessions/<name>.jsonl (and a <name>.events.jsonl for every other session).
void writeReasonixHome(const std::filesystem::path& home, int sessions, int repliesPerSession,
                       uint64_t seed);
int64_t reasonixEventCount(int sessions, int repliesPerSession);

// ---- DeepSeek harness (dsh) ----------------------------------------------------------------

struct DshMeter {
    int64_t uncachedInput = 0;
    int64_t cacheRead = 0;
    int64_t cacheWrite = 0;
    int64_t output = 0;
};

// A session record carrying the running token meter.
std::string dshMeterRecord(std::string_view sessionID, int64_t timestampMs, std::string_view model,
                           const DshMeter& totals);

// <home>/.dsh/profiles/<profile>/sessions/<session>.jsonl with `turns` growing meter readings
// (and message records between them).
void writeDshHome(const std::filesystem::path& home, int profiles, int sessionsPerProfile,
                  int turns, uint64_t seed);
int64_t dshEventCount(int profiles, int sessionsPerProfile, int turns);

// ---- Roo Code / Kilo Code ------------------------------------------------------------------

struct EditorRequest {
    int64_t ts = 0;  // epoch ms
    int64_t tokensIn = 0, tokensOut = 0, cacheReads = 0, cacheWrites = 0;
    double cost = 0;
    std::optional<std::string> apiProtocol;
};

struct EditorUserTurn {
    int64_t ts = 0;
    std::string model;  // empty: the environment details do not name it (unchanged)
};

// ui_messages.json: one "say"/"api_req_started" per request, between text messages.
std::string editorUIMessages(const std::vector<EditorRequest>& requests);
// api_conversation_history.json: a user and an assistant message per turn.
std::string editorHistory(const std::vector<EditorUserTurn>& turns, std::string_view cwd);

// <home>/.config/Code/User/globalStorage/<extensionID>/tasks/<taskId>/… for `tasks` tasks of
// `requestsPerTask` requests each.
void writeEditorTasksHome(const std::filesystem::path& home, std::string_view extensionID,
                          int tasks, int requestsPerTask, uint64_t seed);
int64_t editorTasksEventCount(int tasks, int requestsPerTask);

}  // namespace kestrel::corpus
