#pragma once
// Synthetic stores of the agents that keep one row per message in SQLite: Kiro CLI, Cursor,
// Qoder / TRAE, AnythingLLM and Z Code, with each agent's own tables. Row writers for the
// readers' tests, and whole homes (sized by counts) for the benchmark, each with the number of
// usage events a correct reader finds in it.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/model/agent_source.hpp"
#include "tools/agent_corpus/corpus_writer.hpp"

namespace kestrel::corpus::stores {

// ---- Kiro CLI: conversations_v2 ----

struct KiroRequest {
    std::string requestID{};
    std::string modelID = "claude-sonnet-4";
    int64_t startMs = 0;
    int64_t promptBytes = 0;
    int64_t responseBytes = 0;
    // Exact counts (newer builds): written when set.
    std::optional<int64_t> uncachedInput{}, output{}, cacheRead{}, cacheWrite{}, total{};
};

void createKiroSchema(FixtureDB& db);
// The conversation's `value` JSON: its id, session model, and one history entry per request.
std::string kiroConversationJSON(std::string_view conversationID,
                                 const std::vector<KiroRequest>& requests);
// Inserts the conversation's row, or rewrites it (value and updated_at) when it exists.
void putKiroConversation(FixtureDB& db, std::string_view cwd, std::string_view conversationID,
                         const std::vector<KiroRequest>& requests, int64_t updatedMs);

// ~/.local/share/kiro-cli/data.sqlite3 with `conversations` conversations of `requests` requests
// each, half of them with exact counts; returns the database.
std::filesystem::path writeKiroHome(const std::filesystem::path& home, int conversations,
                                    int requests, uint64_t seed);
int64_t kiroExpectedEvents(int conversations, int requests);

// ---- Cursor: state.vscdb ----

// The made-up credential the Cursor home holds, which a reader must never pick up.
inline constexpr std::string_view kCursorFakeAccessToken = "corpus-access-token-7f3c9d1e5b";

void createCursorSchema(FixtureDB& db);
// One cursorDiskKV row (text value); replaces the key's row as the editor does.
void putCursorValue(FixtureDB& db, std::string_view key, std::string_view json);
std::string cursorBubbleJSON(int type, int64_t createdMs, int64_t inputTokens,
                             int64_t outputTokens);

// globalStorage/state.vscdb under ~/.config/Cursor/User with `composers` composers of `bubbles`
// bubbles each (user and assistant by turns, every fourth assistant without counts), and the
// signed-in account's keys in ItemTable; returns the database.
std::filesystem::path writeCursorHome(const std::filesystem::path& home, int composers, int bubbles,
                                      uint64_t seed);
int64_t cursorExpectedEvents(int composers, int bubbles);

// ---- Qoder, Qoder CN, TRAE SOLO CN: chat_message ----

struct ChatSchema {
    bool sessionTable = true;
    bool recordTable = true;
    bool recordExtraOnMessage = false;  // cm.record_extra instead of chat_record.extra
    bool createdAt = true;
};

void createChatSchema(FixtureDB& db, const ChatSchema& schema = {});
// One chat_message row; `createdMs` is used only when the schema has the column.
void putChatMessage(FixtureDB& db, const ChatSchema& schema, std::string_view id,
                    std::string_view sessionID, std::string_view requestID, std::string_view role,
                    const std::optional<std::string>& tokenInfo, int64_t createdMs);
void putChatRecord(FixtureDB& db, std::string_view requestID, std::string_view extraJSON);
void putChatSession(FixtureDB& db, std::string_view sessionID, std::string_view projectName,
                    std::string_view projectURI, std::string_view preferredModelInfo);

// The database of `source` (qoder, qoderCN or traeWorkCN) below its application folder under
// ~/.config, with `sessions` sessions of `pairs` user/assistant pairs; every fifth assistant
// message has the empty token_info "{}". Returns the database.
std::filesystem::path writeChatHome(AgentSource source, const std::filesystem::path& home,
                                    int sessions, int pairs, uint64_t seed);
int64_t chatExpectedEvents(int sessions, int pairs);

// ---- AnythingLLM: workspace_chats ----

void createAnythingLLMSchema(FixtureDB& db);
void putAnythingLLMChat(FixtureDB& db, int64_t workspaceID, std::optional<int64_t> threadID,
                        const std::optional<std::string>& response,
                        const FixtureDB::Value& createdAt, bool include);
std::string anythingLLMResponseJSON(int64_t promptTokens, int64_t completionTokens,
                                    std::string_view model);

// ~/.config/anythingllm-desktop/storage/anythingllm.db with `workspaces` workspaces of `chats`
// replies each; every sixth reply predates the metrics. Returns the database.
std::filesystem::path writeAnythingLLMHome(const std::filesystem::path& home, int workspaces,
                                           int chats, uint64_t seed);
int64_t anythingLLMExpectedEvents(int workspaces, int chats);

// ---- Z Code: model_usage ----

struct ZCodeUsage {
    std::string id{};
    std::string sessionID{};
    std::string modelID = "glm-4.6";
    std::string providerID = "zhipuai";
    int64_t input = 0;  // including the cache counts, as the agent writes it
    int64_t output = 0;
    int64_t reasoning = 0;
    int64_t cacheRead = 0;
    int64_t cacheWrite = 0;
    std::string status = "completed";
    int64_t startedMs = 0;
    std::optional<int64_t> completedMs{};
};

void createZCodeSchema(FixtureDB& db, bool completedAt = true, bool sessionTable = true);
void putZCodeSession(FixtureDB& db, std::string_view id, std::string_view directory);
// Inserts the row, or replaces it (a request that completes).
void putZCodeUsage(FixtureDB& db, const ZCodeUsage& u, bool completedAt = true);

// ~/.zcode/cli/db/db.sqlite with `sessions` sessions of `requests` completed requests each, plus
// one still running per session. Returns the database.
std::filesystem::path writeZCodeHome(const std::filesystem::path& home, int sessions, int requests,
                                     uint64_t seed);
int64_t zcodeExpectedEvents(int sessions, int requests);

}  // namespace kestrel::corpus::stores
