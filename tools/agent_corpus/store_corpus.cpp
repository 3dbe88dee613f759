#include "tools/agent_corpus/store_corpus.hpp"

#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>

namespace kestrel::corpus::stores {

namespace fs = std::filesystem;

namespace {

// 2026-03-02T09:00:00Z, the first record's time in every generated home.
constexpr int64_t kBaseMs = 1772442000000;

// A small deterministic generator (splitmix64): the same seed writes the same home.
struct Random {
    uint64_t state;
    uint64_t next() {
        uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        return z ^ (z >> 31);
    }
    int64_t between(int64_t low, int64_t high) {
        return low + static_cast<int64_t>(next() % static_cast<uint64_t>(high - low + 1));
    }
};

std::string iso(int64_t ms) {
    const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%S", &tm);
    return std::string(buffer) + "." + std::to_string(1000 + ms % 1000).substr(1) + "Z";
}

// A bound value that is NULL when absent.
template <class T>
FixtureDB::Value orNull(const std::optional<T>& value) {
    FixtureDB::Value out;
    if (value) {
        out = *value;
    }
    return out;
}

}  // namespace

// ---- Kiro CLI ----

void createKiroSchema(FixtureDB& db) {
    db.exec(
        "CREATE TABLE IF NOT EXISTS conversations_v2 (key TEXT NOT NULL, conversation_id TEXT "
        "NOT NULL, value TEXT NOT NULL, created_at INTEGER NOT NULL, updated_at INTEGER NOT "
        "NULL, PRIMARY KEY (key, conversation_id));");
}

std::string kiroConversationJSON(std::string_view conversationID,
                                 const std::vector<KiroRequest>& requests) {
    nlohmann::json history = nlohmann::json::array();
    for (const auto& r : requests) {
        nlohmann::json metadata{{"request_id", r.requestID},
                                {"message_id", "msg-" + r.requestID},
                                {"request_start_timestamp_ms", r.startMs},
                                {"stream_end_timestamp_ms", r.startMs + 4200},
                                {"model_id", r.modelID},
                                {"user_prompt_length", r.promptBytes},
                                {"response_size", r.responseBytes},
                                {"chat_conversation_type", "NotToolUse"}};
        const std::pair<const char*, const std::optional<int64_t>*> exact[] = {
            {"uncached_input_tokens", &r.uncachedInput},
            {"output_tokens", &r.output},
            {"cache_read_input_tokens", &r.cacheRead},
            {"cache_write_input_tokens", &r.cacheWrite},
            {"total_tokens", &r.total}};
        for (const auto& [key, value] : exact) {
            if (*value) {
                metadata[key] = **value;
            }
        }
        // The texts' sizes follow the recorded byte counts, up to a few kilobytes.
        const auto text = [](char c, int64_t bytes) {
            return std::string(static_cast<size_t>(std::clamp<int64_t>(bytes, 0, 4096)), c);
        };
        nlohmann::json user{{"content", {{"Prompt", {{"prompt", text('p', r.promptBytes)}}}}}};
        nlohmann::json assistant{
            {"Response",
             {{"message_id", "msg-" + r.requestID}, {"content", text('r', r.responseBytes)}}}};
        history.push_back(
            {{"user", user}, {"assistant", assistant}, {"request_metadata", metadata}});
    }
    const std::string model = requests.empty() ? "claude-sonnet-4" : requests.back().modelID;
    return nlohmann::json{{"conversation_id", conversationID},
                          {"model_info", {{"model_name", model}, {"model_id", model}}},
                          {"history", history},
                          {"valid_history_range", {0, requests.size()}}}
        .dump();
}

void putKiroConversation(FixtureDB& db, std::string_view cwd, std::string_view conversationID,
                         const std::vector<KiroRequest>& requests, int64_t updatedMs) {
    db.run(
        "INSERT INTO conversations_v2 (key, conversation_id, value, created_at, updated_at) "
        "VALUES (?, ?, ?, ?, ?) ON CONFLICT (key, conversation_id) DO UPDATE SET value = "
        "excluded.value, updated_at = excluded.updated_at",
        {std::string(cwd), std::string(conversationID),
         kiroConversationJSON(conversationID, requests), updatedMs, updatedMs});
}

fs::path writeKiroHome(const fs::path& home, int conversations, int requests, uint64_t seed) {
    const auto path = home / ".local/share/kiro-cli/data.sqlite3";
    FixtureDB db(path);
    createKiroSchema(db);
    db.exec("BEGIN");
    Random random{seed};
    for (int c = 0; c < conversations; ++c) {
        const std::string id = "conv-" + std::to_string(seed) + "-" + std::to_string(c);
        std::vector<KiroRequest> list;
        int64_t at = kBaseMs + int64_t{c} * 3'600'000;
        for (int r = 0; r < requests; ++r) {
            KiroRequest q;
            q.requestID = id + "-req-" + std::to_string(r);
            q.startMs = at += random.between(20'000, 200'000);
            q.promptBytes = random.between(40, 4000);
            q.responseBytes = random.between(200, 12000);
            if (c % 2 == 1) {
                q.uncachedInput = random.between(100, 3000);
                q.cacheRead = random.between(0, 40000);
                q.cacheWrite = random.between(0, 2000);
                q.output = random.between(50, 3000);
                q.total = *q.uncachedInput + *q.cacheRead + *q.cacheWrite + *q.output;
            }
            list.push_back(std::move(q));
        }
        putKiroConversation(db, "/home/dev/project-" + std::to_string(c % 5), id, list, at + 5000);
    }
    db.exec("COMMIT");
    return path;
}

int64_t kiroExpectedEvents(int conversations, int requests) {
    return int64_t{conversations} * requests;
}

// ---- Cursor ----

void createCursorSchema(FixtureDB& db) {
    db.exec(
        "CREATE TABLE IF NOT EXISTS ItemTable (key TEXT UNIQUE ON CONFLICT REPLACE, value BLOB);"
        "CREATE TABLE IF NOT EXISTS cursorDiskKV (key TEXT UNIQUE ON CONFLICT REPLACE, value "
        "BLOB);");
}

void putCursorValue(FixtureDB& db, std::string_view key, std::string_view json) {
    db.run("INSERT INTO cursorDiskKV (key, value) VALUES (?, ?)",
           {std::string(key), std::string(json)});
}

std::string cursorBubbleJSON(int type, int64_t createdMs, int64_t inputTokens,
                             int64_t outputTokens) {
    return nlohmann::json{
        {"_v", 3},
        {"type", type},
        {"text", type == 1 ? "please fix the failing test" : "Done: the test passes."},
        {"createdAt", iso(createdMs)},
        {"tokenCount", {{"inputTokens", inputTokens}, {"outputTokens", outputTokens}}}}
        .dump();
}

fs::path writeCursorHome(const fs::path& home, int composers, int bubbles, uint64_t seed) {
    const auto path = home / ".config/Cursor/User/globalStorage/state.vscdb";
    FixtureDB db(path);
    createCursorSchema(db);
    db.exec("BEGIN");
    db.run("INSERT INTO ItemTable (key, value) VALUES ('cursorAuth/accessToken', ?)",
           {std::string(kCursorFakeAccessToken)});
    db.run("INSERT INTO ItemTable (key, value) VALUES ('cursorAuth/cachedEmail', ?)",
           {std::string("dev@example.invalid")});
    db.run("INSERT INTO ItemTable (key, value) VALUES ('cursorAuth/stripeMembershipType', 'pro')",
           {});
    Random random{seed};
    static constexpr const char* kModels[] = {"claude-4-sonnet", "gpt-5", "default"};
    for (int c = 0; c < composers; ++c) {
        const std::string composer = "cmp-" + std::to_string(seed) + "-" + std::to_string(c);
        const int64_t start = kBaseMs + int64_t{c} * 7'200'000;
        putCursorValue(
            db, "composerData:" + composer,
            nlohmann::json{{"composerId", composer},
                           {"createdAt", start},
                           {"lastUpdatedAt", start + 600'000},
                           {"modelConfig", {{"modelName", kModels[c % 3]}, {"maxMode", false}}}}
                .dump());
        int assistants = 0;
        for (int b = 0; b < bubbles; ++b) {
            const bool assistant = b % 2 == 1;
            int64_t input = 0, output = 0;
            if (assistant && assistants++ % 4 != 3) {
                input = random.between(500, 60000);
                output = random.between(20, 4000);
            }
            putCursorValue(
                db, "bubbleId:" + composer + ":b" + std::to_string(b),
                cursorBubbleJSON(assistant ? 2 : 1, start + int64_t{b} * 15'000, input, output));
        }
    }
    db.exec("COMMIT");
    return path;
}

int64_t cursorExpectedEvents(int composers, int bubbles) {
    const int assistants = bubbles / 2;
    return int64_t{composers} * (assistants - assistants / 4);
}

// ---- Qoder, Qoder CN, TRAE SOLO CN ----

void createChatSchema(FixtureDB& db, const ChatSchema& schema) {
    if (schema.sessionTable) {
        db.exec(
            "CREATE TABLE IF NOT EXISTS chat_session (session_id TEXT PRIMARY KEY, project_name "
            "TEXT, project_uri TEXT, preferred_model_info TEXT, gmt_create INTEGER);");
    }
    if (schema.recordTable) {
        db.exec(
            "CREATE TABLE IF NOT EXISTS chat_record (request_id TEXT PRIMARY KEY, session_id "
            "TEXT, extra TEXT);");
    }
    std::string sql =
        "CREATE TABLE IF NOT EXISTS chat_message (id TEXT PRIMARY KEY, session_id TEXT, "
        "request_id TEXT, role TEXT NOT NULL, content TEXT, token_info TEXT";
    if (schema.recordExtraOnMessage) {
        sql += ", record_extra TEXT";
    }
    if (schema.createdAt) {
        sql += ", created_at INTEGER";
    }
    db.exec(sql + ");");
}

void putChatMessage(FixtureDB& db, const ChatSchema& schema, std::string_view id,
                    std::string_view sessionID, std::string_view requestID, std::string_view role,
                    const std::optional<std::string>& tokenInfo, int64_t createdMs) {
    const FixtureDB::Value info = orNull(tokenInfo);
    const std::string content = role == "user" ? "explain this function" : "It parses the header.";
    if (schema.createdAt) {
        db.run(
            "INSERT INTO chat_message (id, session_id, request_id, role, content, token_info, "
            "created_at) VALUES (?, ?, ?, ?, ?, ?, ?)",
            {std::string(id), std::string(sessionID), std::string(requestID), std::string(role),
             content, info, createdMs});
    } else {
        db.run(
            "INSERT INTO chat_message (id, session_id, request_id, role, content, token_info) "
            "VALUES (?, ?, ?, ?, ?, ?)",
            {std::string(id), std::string(sessionID), std::string(requestID), std::string(role),
             content, info});
    }
}

void putChatRecord(FixtureDB& db, std::string_view requestID, std::string_view extraJSON) {
    db.run("INSERT OR REPLACE INTO chat_record (request_id, extra) VALUES (?, ?)",
           {std::string(requestID), std::string(extraJSON)});
}

void putChatSession(FixtureDB& db, std::string_view sessionID, std::string_view projectName,
                    std::string_view projectURI, std::string_view preferredModelInfo) {
    db.run(
        "INSERT OR REPLACE INTO chat_session (session_id, project_name, project_uri, "
        "preferred_model_info, gmt_create) VALUES (?, ?, ?, ?, ?)",
        {std::string(sessionID), std::string(projectName), std::string(projectURI),
         std::string(preferredModelInfo), kBaseMs});
}

fs::path writeChatHome(AgentSource source, const fs::path& home, int sessions, int pairs,
                       uint64_t seed) {
    const fs::path folder = source == AgentSource::qoderCN ? "QoderCN/SharedClientCache/cache/db"
                            : source == AgentSource::traeWorkCN
                                ? "TRAE SOLO CN/User/globalStorage"
                                : "Qoder/SharedClientCache/cache/db";
    const auto path = home / ".config" / folder / "local.db";
    FixtureDB db(path);
    const ChatSchema schema;
    createChatSchema(db, schema);
    db.exec("BEGIN");
    Random random{seed};
    int assistants = 0;
    for (int s = 0; s < sessions; ++s) {
        const std::string session = "s-" + std::to_string(seed) + "-" + std::to_string(s);
        putChatSession(db, session, "project-" + std::to_string(s % 4),
                       "file:///home/dev/project-" + std::to_string(s % 4),
                       R"({"model":"qwen3-coder-plus","name":"Qwen3 Coder"})");
        for (int p = 0; p < pairs; ++p) {
            const std::string request = session + "-r" + std::to_string(p);
            const int64_t at = kBaseMs + int64_t{s} * 3'600'000 + int64_t{p} * 30'000;
            putChatMessage(db, schema, request + "-u", session, request, "user", std::nullopt, at);
            std::string info;
            if (assistants++ % 5 == 4) {
                info = "{}";
            } else if (p % 2 == 0) {
                info = nlohmann::json{{"input_tokens", random.between(100, 5000)},
                                      {"output_tokens", random.between(20, 2000)},
                                      {"cache_read_input_tokens", random.between(0, 30000)}}
                           .dump();
            } else {
                const int64_t cached = random.between(0, 20000);
                info = nlohmann::json{{"prompt_tokens", cached + random.between(100, 5000)},
                                      {"completion_tokens", random.between(20, 2000)},
                                      {"prompt_tokens_details", {{"cached_tokens", cached}}},
                                      {"model", "qwen3-coder-plus"}}
                           .dump();
            }
            putChatRecord(db, request, R"({"mode":"agent"})");
            putChatMessage(db, schema, request + "-a", session, request, "assistant", info,
                           at + 9000);
        }
    }
    db.exec("COMMIT");
    return path;
}

int64_t chatExpectedEvents(int sessions, int pairs) {
    const int64_t assistants = int64_t{sessions} * pairs;
    return assistants - assistants / 5;
}

// ---- AnythingLLM ----

void createAnythingLLMSchema(FixtureDB& db) {
    db.exec(
        "CREATE TABLE IF NOT EXISTS workspaces (id INTEGER PRIMARY KEY AUTOINCREMENT, name TEXT "
        "NOT NULL, slug TEXT NOT NULL, chatProvider TEXT, chatModel TEXT);"
        "CREATE TABLE IF NOT EXISTS workspace_chats (id INTEGER PRIMARY KEY AUTOINCREMENT, "
        "workspaceId INTEGER NOT NULL, prompt TEXT NOT NULL, response TEXT, include BOOLEAN "
        "DEFAULT true, user_id INTEGER, thread_id INTEGER, api_session_id TEXT, createdAt "
        "DATETIME DEFAULT CURRENT_TIMESTAMP, lastUpdatedAt DATETIME DEFAULT CURRENT_TIMESTAMP);");
}

void putAnythingLLMChat(FixtureDB& db, int64_t workspaceID, std::optional<int64_t> threadID,
                        const std::optional<std::string>& response,
                        const FixtureDB::Value& createdAt, bool include) {
    db.run(
        "INSERT INTO workspace_chats (workspaceId, prompt, response, include, thread_id, "
        "createdAt, lastUpdatedAt) VALUES (?, 'summarise the notes', ?, ?, ?, ?, ?)",
        {workspaceID, orNull(response), int64_t{include ? 1 : 0}, orNull(threadID), createdAt,
         createdAt});
}

std::string anythingLLMResponseJSON(int64_t promptTokens, int64_t completionTokens,
                                    std::string_view model) {
    nlohmann::json metrics{{"prompt_tokens", promptTokens},
                           {"completion_tokens", completionTokens},
                           {"total_tokens", promptTokens + completionTokens},
                           {"outputTps", 41.5},
                           {"duration", 3.2}};
    if (!model.empty()) {
        metrics["model"] = model;
        metrics["provider"] = "openai";
    }
    return nlohmann::json{{"text", "Here is the summary."},
                          {"sources", nlohmann::json::array()},
                          {"type", "chat"},
                          {"attachments", nlohmann::json::array()},
                          {"metrics", metrics}}
        .dump();
}

fs::path writeAnythingLLMHome(const fs::path& home, int workspaces, int chats, uint64_t seed) {
    const auto path = home / ".config/anythingllm-desktop/storage/anythingllm.db";
    FixtureDB db(path);
    createAnythingLLMSchema(db);
    db.exec("BEGIN");
    Random random{seed};
    for (int w = 1; w <= workspaces; ++w) {
        db.run(
            "INSERT INTO workspaces (id, name, slug, chatProvider, chatModel) VALUES (?, ?, ?, "
            "'ollama', 'llama3.1:8b')",
            {int64_t{w}, "Workspace " + std::to_string(w), "ws-" + std::to_string(w)});
        for (int c = 0; c < chats; ++c) {
            const int64_t at = kBaseMs + int64_t{w} * 86'400'000 + int64_t{c} * 60'000;
            std::string response;
            if (c % 6 == 5) {
                response = R"({"text":"an answer from before metrics were kept","sources":[]})";
            } else {
                response =
                    anythingLLMResponseJSON(random.between(50, 8000), random.between(20, 1500),
                                            c % 2 == 0 ? "gpt-4o-mini" : "");
            }
            // Newer rows carry epoch milliseconds, older ones text.
            FixtureDB::Value created = at;
            if (c % 3 == 0) {
                created = iso(at).substr(0, 19);
            }
            putAnythingLLMChat(db, w, c % 4 == 0 ? std::optional<int64_t>(c) : std::nullopt,
                               response, created, c % 7 != 3);
        }
    }
    db.exec("COMMIT");
    return path;
}

int64_t anythingLLMExpectedEvents(int workspaces, int chats) {
    return int64_t{workspaces} * (chats - chats / 6);
}

// ---- Z Code ----

void createZCodeSchema(FixtureDB& db, bool completedAt, bool sessionTable) {
    if (sessionTable) {
        db.exec(
            "CREATE TABLE IF NOT EXISTS session (id TEXT PRIMARY KEY, directory TEXT, title TEXT, "
            "parent_id TEXT, time_created INTEGER, time_updated INTEGER);");
    }
    db.exec(
        std::string("CREATE TABLE IF NOT EXISTS model_usage (id TEXT PRIMARY KEY, session_id TEXT, "
                    "model_id TEXT, provider_id TEXT, input_tokens INTEGER, output_tokens INTEGER, "
                    "cache_read_input_tokens INTEGER, cache_creation_input_tokens INTEGER, "
                    "reasoning_tokens INTEGER, status TEXT, started_at INTEGER") +
        (completedAt ? ", completed_at INTEGER" : "") + ");");
}

void putZCodeSession(FixtureDB& db, std::string_view id, std::string_view directory) {
    db.run(
        "INSERT OR REPLACE INTO session (id, directory, title, time_created, time_updated) "
        "VALUES (?, ?, 'fix build', ?, ?)",
        {std::string(id), std::string(directory), kBaseMs, kBaseMs});
}

void putZCodeUsage(FixtureDB& db, const ZCodeUsage& u, bool completedAt) {
    std::vector<FixtureDB::Value> values{u.id,        u.sessionID, u.modelID,   u.providerID,
                                         u.input,     u.output,    u.cacheRead, u.cacheWrite,
                                         u.reasoning, u.status,    u.startedMs};
    std::string sql =
        "INSERT OR REPLACE INTO model_usage (id, session_id, model_id, provider_id, "
        "input_tokens, output_tokens, cache_read_input_tokens, cache_creation_input_tokens, "
        "reasoning_tokens, status, started_at";
    if (completedAt) {
        sql += ", completed_at) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
        values.push_back(orNull(u.completedMs));
    } else {
        sql += ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
    }
    db.run(sql, values);
}

fs::path writeZCodeHome(const fs::path& home, int sessions, int requests, uint64_t seed) {
    const auto path = home / ".zcode/cli/db/db.sqlite";
    FixtureDB db(path);
    createZCodeSchema(db);
    db.exec("BEGIN");
    Random random{seed};
    for (int s = 0; s < sessions; ++s) {
        const std::string session = "ses_" + std::to_string(seed) + "_" + std::to_string(s);
        putZCodeSession(db, session, "/home/dev/zproject-" + std::to_string(s % 3));
        int64_t at = kBaseMs + int64_t{s} * 3'600'000;
        for (int r = 0; r <= requests; ++r) {
            ZCodeUsage u;
            u.id = session + "_mu" + std::to_string(r);
            u.sessionID = session;
            u.cacheRead = random.between(0, 40000);
            u.cacheWrite = random.between(0, 3000);
            u.input = u.cacheRead + u.cacheWrite + random.between(10, 4000);
            u.output = random.between(10, 3000);
            u.reasoning = random.between(0, 500);
            u.startedMs = at += random.between(5'000, 90'000);
            if (r == requests) {
                u.status = "running";  // the request in flight: not final yet
            } else {
                u.completedMs = u.startedMs + random.between(1'000, 30'000);
            }
            putZCodeUsage(db, u);
        }
    }
    db.exec("COMMIT");
    return path;
}

int64_t zcodeExpectedEvents(int sessions, int requests) {
    return int64_t{sessions} * requests;
}

}  // namespace kestrel::corpus::stores
