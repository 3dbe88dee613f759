#include "tools/agent_corpus/cumulative_corpus.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "tools/agent_corpus/corpus_writer.hpp"
#include "tools/corpus_text.hpp"

namespace kestrel::corpus {
namespace {

namespace fs = std::filesystem;
using Value = FixtureDB::Value;

Value orNull(const std::optional<int64_t>& v) {
    return v ? Value(*v) : Value(std::monostate{});
}

Value textOrNull(const std::string& s) {
    return s.empty() ? Value(std::monostate{}) : Value(s);
}

bool hasColumn(FixtureDB& db, const std::string& table, const std::string& column) {
    sqlite3_stmt* statement = nullptr;
    const std::string sql = "SELECT " + column + " FROM " + table + " LIMIT 0";
    const bool ok =
        sqlite3_prepare_v2(db.handle(), sql.c_str(), -1, &statement, nullptr) == SQLITE_OK;
    sqlite3_finalize(statement);
    return ok;
}

std::string filler(detail::Rng& rng, std::size_t bytes) {
    static constexpr std::string_view kWords[] = {
        "the",   "parser", "returns", "a",      "value", "when",   "cache", "is",
        "empty", "fix",    "test",    "module", "build", "config", "path",  "thread"};
    std::string out;
    while (out.size() < bytes) {
        out += kWords[rng.below(std::size(kWords))];
        out += ' ';
    }
    out.resize(bytes);
    return out;
}

std::string dump(const nlohmann::json& j) {
    return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

// ---- goose

void createGooseDB(const fs::path& database, bool modern) {
    FixtureDB db(database);
    if (modern) {
        db.exec(
            "CREATE TABLE sessions (id TEXT PRIMARY KEY, name TEXT, session_type TEXT, "
            "working_dir TEXT, created_at TEXT, updated_at TEXT, total_tokens INTEGER, "
            "input_tokens INTEGER, output_tokens INTEGER, accumulated_total_tokens INTEGER, "
            "accumulated_input_tokens INTEGER, accumulated_output_tokens INTEGER, "
            "provider_name TEXT, model_config_json TEXT, archived_at TEXT, accumulated_cost REAL);"
            "CREATE TABLE messages (id INTEGER PRIMARY KEY, session_id TEXT, role TEXT, "
            "content_json TEXT, created_timestamp INTEGER);");
    } else {
        db.exec(
            "CREATE TABLE sessions (id TEXT PRIMARY KEY, working_dir TEXT, created_at TEXT, "
            "accumulated_total_tokens INTEGER, accumulated_input_tokens INTEGER, "
            "accumulated_output_tokens INTEGER);");
    }
}

void putGooseSession(const fs::path& database, const GooseSession& s) {
    FixtureDB db(database);
    if (hasColumn(db, "sessions", "model_config_json")) {
        const std::string config =
            s.model.empty() ? std::string() : dump({{"model_name", s.model}, {"temperature", 0}});
        db.run(
            "INSERT INTO sessions (id, name, session_type, working_dir, created_at, updated_at, "
            "accumulated_total_tokens, accumulated_input_tokens, accumulated_output_tokens, "
            "provider_name, model_config_json) VALUES (?, 'session', 'user', ?, ?, ?, ?, ?, ?, "
            "?, ?) ON CONFLICT(id) DO UPDATE SET working_dir = excluded.working_dir, "
            "updated_at = excluded.updated_at, "
            "accumulated_total_tokens = excluded.accumulated_total_tokens, "
            "accumulated_input_tokens = excluded.accumulated_input_tokens, "
            "accumulated_output_tokens = excluded.accumulated_output_tokens, "
            "provider_name = excluded.provider_name, model_config_json = "
            "excluded.model_config_json",
            {s.id, textOrNull(s.workingDir), textOrNull(s.updatedAt), textOrNull(s.updatedAt),
             orNull(s.total), orNull(s.input), orNull(s.output), textOrNull(s.provider),
             textOrNull(config)});
    } else {
        db.run(
            "INSERT INTO sessions (id, working_dir, created_at, accumulated_total_tokens, "
            "accumulated_input_tokens, accumulated_output_tokens) VALUES (?, ?, ?, ?, ?, ?) "
            "ON CONFLICT(id) DO UPDATE SET "
            "accumulated_total_tokens = excluded.accumulated_total_tokens, "
            "accumulated_input_tokens = excluded.accumulated_input_tokens, "
            "accumulated_output_tokens = excluded.accumulated_output_tokens",
            {s.id, textOrNull(s.workingDir), textOrNull(s.updatedAt), orNull(s.total),
             orNull(s.input), orNull(s.output)});
    }
}

void writeGooseLegacyFile(const fs::path& sessionsFolder, const GooseSession& s) {
    nlohmann::json meta{{"working_dir", s.workingDir},
                        {"description", "legacy session"},
                        {"schedule_id", nullptr},
                        {"message_count", 2}};
    for (const auto& [key, value] : {std::pair{"accumulated_total_tokens", s.total},
                                     std::pair{"accumulated_input_tokens", s.input},
                                     std::pair{"accumulated_output_tokens", s.output}}) {
        meta[key] = value ? nlohmann::json(*value) : nlohmann::json(nullptr);
    }
    std::string text = dump(meta) + "\n";
    text += dump({{"role", "user"},
                  {"created", 1755770400},
                  {"content", {{{"type", "text"}, {"text", "hello"}}}}}) +
            "\n";
    text += dump({{"role", "assistant"},
                  {"created", 1755770410},
                  {"content", {{{"type", "text"}, {"text", "done"}}}}}) +
            "\n";
    writeFile(sessionsFolder, s.id + ".jsonl", text);
}

// ---- Hermes

void createHermesDB(const fs::path& database, const HermesSchema& schema) {
    FixtureDB db(database);
    std::string sessions =
        "CREATE TABLE sessions (id TEXT PRIMARY KEY, source TEXT, model TEXT, model_config TEXT, "
        "parent_session_id TEXT, started_at REAL NOT NULL, input_tokens INTEGER DEFAULT 0, "
        "output_tokens INTEGER DEFAULT 0, cache_read_tokens INTEGER DEFAULT 0, "
        "cache_write_tokens INTEGER DEFAULT 0, reasoning_tokens INTEGER DEFAULT 0";
    if (schema.optionalColumns) {
        sessions +=
            ", ended_at REAL, billing_provider TEXT, computed_total_tokens INTEGER, cwd TEXT, "
            "estimated_cost_usd REAL, actual_cost_usd REAL";
    }
    db.exec(sessions + ");");
    db.exec(
        "CREATE TABLE messages (id INTEGER PRIMARY KEY AUTOINCREMENT, session_id TEXT, "
        "role TEXT, content TEXT, timestamp REAL);");
    if (schema.modelUsageTable) {
        db.exec(
            "CREATE TABLE session_model_usage (session_id TEXT NOT NULL, model TEXT NOT NULL, "
            "billing_provider TEXT NOT NULL DEFAULT '', billing_base_url TEXT NOT NULL DEFAULT "
            "'', billing_mode TEXT NOT NULL DEFAULT '', task TEXT NOT NULL DEFAULT '', "
            "api_call_count INTEGER DEFAULT 0, input_tokens INTEGER DEFAULT 0, output_tokens "
            "INTEGER DEFAULT 0, cache_read_tokens INTEGER DEFAULT 0, cache_write_tokens INTEGER "
            "DEFAULT 0, reasoning_tokens INTEGER DEFAULT 0, estimated_cost_usd REAL, "
            "actual_cost_usd REAL, first_seen REAL, last_seen REAL, PRIMARY KEY (session_id, "
            "model, billing_provider, billing_base_url, billing_mode, task));");
    }
}

void putHermesSession(const fs::path& database, const HermesSession& s) {
    FixtureDB db(database);
    if (hasColumn(db, "sessions", "billing_provider")) {
        db.run(
            "INSERT INTO sessions (id, source, model, started_at, ended_at, input_tokens, "
            "output_tokens, cache_read_tokens, cache_write_tokens, reasoning_tokens, "
            "billing_provider, cwd) VALUES (?, 'cli', ?, ?, ?, ?, ?, ?, ?, ?, ?, ?) "
            "ON CONFLICT(id) DO UPDATE SET model = excluded.model, ended_at = excluded.ended_at, "
            "input_tokens = excluded.input_tokens, output_tokens = excluded.output_tokens, "
            "cache_read_tokens = excluded.cache_read_tokens, "
            "cache_write_tokens = excluded.cache_write_tokens, "
            "reasoning_tokens = excluded.reasoning_tokens",
            {s.id, s.model, s.startedAt, s.endedAt ? Value(*s.endedAt) : Value(std::monostate{}),
             s.input, s.output, s.cacheRead, s.cacheWrite, s.reasoning,
             textOrNull(s.billingProvider), textOrNull(s.cwd)});
    } else {
        db.run(
            "INSERT INTO sessions (id, source, model, started_at, input_tokens, output_tokens, "
            "cache_read_tokens, cache_write_tokens, reasoning_tokens) VALUES (?, 'cli', ?, ?, ?, "
            "?, ?, ?, ?) ON CONFLICT(id) DO UPDATE SET input_tokens = excluded.input_tokens, "
            "output_tokens = excluded.output_tokens, cache_read_tokens = "
            "excluded.cache_read_tokens, cache_write_tokens = excluded.cache_write_tokens, "
            "reasoning_tokens = excluded.reasoning_tokens",
            {s.id, s.model, s.startedAt, s.input, s.output, s.cacheRead, s.cacheWrite,
             s.reasoning});
    }
}

void putHermesModelUsage(const fs::path& database, const HermesModelUsage& u) {
    FixtureDB db(database);
    db.run(
        "INSERT INTO session_model_usage (session_id, model, billing_provider, task, "
        "api_call_count, input_tokens, output_tokens, cache_read_tokens, cache_write_tokens, "
        "reasoning_tokens, first_seen, last_seen) VALUES (?, ?, ?, ?, 1, ?, ?, ?, ?, ?, ?, ?) "
        "ON CONFLICT(session_id, model, billing_provider, billing_base_url, billing_mode, task) "
        "DO UPDATE SET api_call_count = api_call_count + 1, input_tokens = excluded.input_tokens, "
        "output_tokens = excluded.output_tokens, cache_read_tokens = excluded.cache_read_tokens, "
        "cache_write_tokens = excluded.cache_write_tokens, "
        "reasoning_tokens = excluded.reasoning_tokens, last_seen = excluded.last_seen",
        {u.sessionID, u.model, u.billingProvider, u.task, u.input, u.output, u.cacheRead,
         u.cacheWrite, u.reasoning, u.firstSeen, u.lastSeen});
}

// ---- Zed

std::string zedThreadText(const ZedThreadJSON& t) {
    detail::Rng rng(t.messages * 7919 + t.messageBytes);
    nlohmann::json messages = nlohmann::json::array();
    nlohmann::json perRequest = t.legacy ? nlohmann::json::array() : nlohmann::json::object();
    for (int i = 0; i < t.messages; ++i) {
        const std::string id = "m" + std::to_string(i);
        const std::string text = filler(rng, t.messageBytes);
        if (i % 2 == 0) {
            messages.push_back({{"User", {{"id", id}, {"content", {{{"Text", text}}}}}}});
            const nlohmann::json usage{{"input_tokens", 1000 + i},
                                       {"output_tokens", 0},
                                       {"cache_creation_input_tokens", 0},
                                       {"cache_read_input_tokens", 0}};
            if (t.legacy) {
                perRequest.push_back(usage);
            } else {
                perRequest[id] = usage;
            }
        } else {
            messages.push_back(
                {{"Agent", {{"content", {{{"Text", text}}}}, {"tool_results", {}}}}});
        }
    }
    nlohmann::json thread{{"title", "Fix the parser"},
                          {"messages", messages},
                          {"updated_at", t.updatedAt},
                          {"detailed_summary", nullptr},
                          {"initial_project_snapshot", nullptr},
                          {"request_token_usage", perRequest},
                          {"model", {{"provider", t.provider}, {"model", t.model}}},
                          {"completion_mode", nullptr},
                          {"profile", "write"},
                          {"imported", t.imported}};
    if (t.cumulative) {
        thread["cumulative_token_usage"] = {
            {"input_tokens", t.cumulative->input},
            {"output_tokens", t.cumulative->output},
            {"cache_creation_input_tokens", t.cumulative->cacheCreation},
            {"cache_read_input_tokens", t.cumulative->cacheRead}};
    }
    if (!t.legacy) {
        thread["version"] = "0.3.0";
    }
    return dump(thread);
}

void createZedDB(const fs::path& database, bool optionalColumns) {
    FixtureDB db(database);
    db.exec(optionalColumns
                ? "CREATE TABLE threads (id TEXT PRIMARY KEY, summary TEXT NOT NULL, updated_at "
                  "TEXT NOT NULL, data_type TEXT NOT NULL, data BLOB NOT NULL, parent_id TEXT, "
                  "folder_paths TEXT, folder_paths_order TEXT, created_at TEXT);"
                : "CREATE TABLE threads (id TEXT PRIMARY KEY, summary TEXT NOT NULL, updated_at "
                  "TEXT NOT NULL, data_type TEXT NOT NULL, data BLOB NOT NULL);");
}

void putZedThread(const fs::path& database, const std::string& id, const std::string& updatedAt,
                  const std::string& dataType, const std::vector<unsigned char>& data,
                  const std::string& folderPaths) {
    FixtureDB db(database);
    if (hasColumn(db, "threads", "folder_paths")) {
        db.run(
            "INSERT INTO threads (id, summary, updated_at, data_type, data, folder_paths, "
            "created_at) VALUES (?, 'Fix the parser', ?, ?, ?, ?, ?) ON CONFLICT(id) DO UPDATE "
            "SET updated_at = excluded.updated_at, data_type = excluded.data_type, "
            "data = excluded.data",
            {id, updatedAt, dataType, data, textOrNull(folderPaths), updatedAt});
    } else {
        db.run(
            "INSERT INTO threads (id, summary, updated_at, data_type, data) VALUES (?, 'Fix the "
            "parser', ?, ?, ?) ON CONFLICT(id) DO UPDATE SET updated_at = excluded.updated_at, "
            "data_type = excluded.data_type, data = excluded.data",
            {id, updatedAt, dataType, data});
    }
}

// ---- droid

fs::path writeDroidSettings(const fs::path& root, const std::string& folder,
                            const std::string& sessionID, const std::string& model,
                            const DroidTotals& totals, const std::optional<DroidTotals>& inclusive,
                            const std::string& cwd) {
    const auto usage = [](const DroidTotals& t) {
        return nlohmann::json{{"inputTokens", t.input},
                              {"outputTokens", t.output},
                              {"cacheCreationTokens", t.cacheCreation},
                              {"cacheReadTokens", t.cacheRead},
                              {"thinkingTokens", t.thinking},
                              {"factoryCredits", 0.5}};
    };
    nlohmann::json doc{{"model", model},
                       {"reasoningEffort", "medium"},
                       {"autonomyMode", "auto-low"},
                       {"tokenUsage", usage(totals)}};
    if (inclusive) {
        doc["inclusiveTokenUsage"] = usage(*inclusive);
        doc["childInclusiveTokenUsageBySessionId"] = {{"child-1", usage(*inclusive)}};
    }
    const fs::path relative = fs::path("sessions") / folder;
    writeFile(root, relative / (sessionID + ".settings.json"), dump(doc));
    const auto transcript = root / relative / (sessionID + ".jsonl");
    if (!cwd.empty() && !fs::exists(transcript)) {
        writeFile(root, relative / (sessionID + ".jsonl"),
                  dump({{"type", "session_start"},
                        {"sessionId", sessionID},
                        {"title", "work"},
                        {"cwd", cwd}}) +
                      "\n");
    }
    return root / relative / (sessionID + ".settings.json");
}

// ---- homes

int64_t writeGooseHome(const fs::path& home, int sessions, uint64_t seed) {
    detail::Rng rng(seed);
    const auto folder = home / ".local/share/goose/sessions";
    const auto database = folder / "sessions.db";
    fs::remove(database);
    createGooseDB(database);
    int64_t events = 0;
    FixtureDB bulk(database);
    bulk.exec("BEGIN");
    for (int i = 0; i < sessions; ++i) {
        GooseSession s;
        s.id = "20260821_" + std::to_string(i + 1);
        s.model = rng.chance(0.5) ? "claude-sonnet-4-5" : "gpt-5";
        s.provider = s.model.starts_with("claude") ? "anthropic" : "openai";
        s.workingDir = "/home/u/project" + std::to_string(i % 7);
        s.updatedAt = "2026-08-21 10:" + std::to_string(10 + i % 50) + ":00";
        s.input = rng.logUniform(1'000, 2'000'000);
        s.output = rng.logUniform(100, 200'000);
        s.total = *s.input + *s.output;
        const bool legacyOnly = i % 8 == 7;
        const bool imported = i % 8 == 3;
        if (legacyOnly || imported) {
            writeGooseLegacyFile(folder, s);
        }
        if (!legacyOnly) {
            bulk.run(
                "INSERT INTO sessions (id, name, working_dir, created_at, updated_at, "
                "accumulated_total_tokens, accumulated_input_tokens, accumulated_output_tokens, "
                "provider_name, model_config_json) VALUES (?, 'session', ?, ?, ?, ?, ?, ?, ?, ?)",
                {s.id, s.workingDir, s.updatedAt, s.updatedAt, *s.total, *s.input, *s.output,
                 s.provider, dump({{"model_name", s.model}})});
            const int messages = 20;
            for (int m = 0; m < messages; ++m) {
                bulk.run(
                    "INSERT INTO messages (session_id, role, content_json, created_timestamp) "
                    "VALUES (?, ?, ?, ?)",
                    {s.id, std::string(m % 2 ? "assistant" : "user"),
                     dump({{{"type", "text"}, {"text", filler(rng, 2'000)}}}),
                     int64_t{1755770400} + m});
            }
        }
        ++events;
    }
    bulk.exec("COMMIT");
    return events;
}

int64_t writeHermesHome(const fs::path& home, int sessions, uint64_t seed) {
    detail::Rng rng(seed);
    int64_t events = 0;
    for (const auto& relative :
         {fs::path(".hermes/state.db"), fs::path(".hermes/profiles/work/state.db")}) {
        const auto database = home / relative;
        fs::remove(database);
        createHermesDB(database);
    }
    for (int i = 0; i < sessions; ++i) {
        const auto database =
            home / (i % 4 == 3 ? ".hermes/profiles/work/state.db" : ".hermes/state.db");
        HermesSession s;
        s.id = "20260821_10" + std::to_string(1000 + i);
        s.model = "anthropic/claude-sonnet-4.5";
        s.startedAt = 1755770400.0 + i * 60;
        s.endedAt = s.startedAt + 50.5;
        s.billingProvider = "openrouter";
        s.cwd = "/home/u/project" + std::to_string(i % 5);
        s.input = rng.logUniform(1'000, 500'000);
        s.output = rng.logUniform(100, 50'000);
        s.cacheRead = rng.logUniform(1'000, 2'000'000);
        putHermesSession(database, s);
        if (i % 2 == 0) {
            // Per-model counters: the main model and a side model for titles.
            HermesModelUsage main{s.id,    s.model,     "openrouter", "",
                                  s.input, s.output,    s.cacheRead,  0,
                                  0,       s.startedAt, *s.endedAt};
            HermesModelUsage side{s.id,
                                  "google/gemini-2.5-flash",
                                  "openrouter",
                                  "title",
                                  200,
                                  12,
                                  0,
                                  0,
                                  0,
                                  s.startedAt,
                                  s.startedAt + 2};
            putHermesModelUsage(database, main);
            putHermesModelUsage(database, side);
            events += 2;
        } else {
            events += 1;
        }
        FixtureDB db(database);
        for (int m = 0; m < 10; ++m) {
            db.run(
                "INSERT INTO messages (session_id, role, content, timestamp) VALUES (?, ?, ?, ?)",
                {s.id, std::string(m % 2 ? "assistant" : "user"), filler(rng, 2'000),
                 s.startedAt + m});
        }
    }
    return events;
}

int64_t writeZedHome(const fs::path& home, int threads, int messagesPerThread, uint64_t seed) {
    detail::Rng rng(seed);
    const auto database = home / ".local/share/zed/threads/threads.db";
    fs::remove(database);
    createZedDB(database);
    int64_t events = 0;
    FixtureDB db(database);
    db.exec("BEGIN");
    for (int i = 0; i < threads; ++i) {
        ZedThreadJSON t;
        t.messages = messagesPerThread;
        t.messageBytes = static_cast<std::size_t>(rng.logUniform(200, 4'000));
        t.imported = i % 10 == 9;
        t.legacy = i % 10 == 8;
        if (!t.legacy) {
            t.cumulative = ZedUsage{rng.logUniform(1'000, 400'000), rng.logUniform(100, 40'000),
                                    rng.logUniform(0, 100'000), rng.logUniform(0, 2'000'000)};
        }
        t.updatedAt = "2026-08-21T10:" + std::to_string(10 + i % 50) + ":00Z";
        const std::string text = zedThreadText(t);
        const bool compressed = i % 3 != 0;
        const std::vector<unsigned char> data =
            compressed ? zstdFrame(text) : std::vector<unsigned char>(text.begin(), text.end());
        db.run(
            "INSERT INTO threads (id, summary, updated_at, data_type, data, folder_paths) VALUES "
            "(?, 'Fix the parser', ?, ?, ?, ?)",
            {"thread-" + std::to_string(i), t.updatedAt, std::string(compressed ? "zstd" : "json"),
             data, "/home/u/project" + std::to_string(i % 4)});
        if (!t.imported && !t.legacy) {
            ++events;
        }
    }
    db.exec("COMMIT");
    return events;
}

int64_t writeDroidHome(const fs::path& home, int sessions, int messagesPerSession, uint64_t seed) {
    detail::Rng rng(seed);
    const auto root = home / ".factory";
    int64_t events = 0;
    for (int i = 0; i < sessions; ++i) {
        const std::string cwd = "/home/u/project" + std::to_string(i % 6);
        std::string folder = cwd;
        std::ranges::replace(folder, '/', '-');
        const std::string id = detail::uuid(rng);
        const DroidTotals totals{rng.logUniform(1'000, 300'000), rng.logUniform(100, 50'000),
                                 rng.logUniform(0, 50'000), rng.logUniform(0, 2'000'000),
                                 rng.logUniform(0, 5'000)};
        std::optional<DroidTotals> inclusive;
        if (i % 5 == 4) {
            inclusive = totals;
            inclusive->input *= 2;
        }
        writeDroidSettings(root, folder, id, i % 7 == 6 ? "custom:my-model-0" : "claude-sonnet-4-5",
                           totals, inclusive, cwd);
        std::string transcript;
        for (int m = 0; m < messagesPerSession; ++m) {
            transcript +=
                dump({{"type", "message"},
                      {"id", "msg-" + std::to_string(m)},
                      {"timestamp", "2026-08-21T10:00:00Z"},
                      {"message",
                       {{"role", m % 2 ? "assistant" : "user"},
                        {"content", {{{"type", "text"}, {"text", filler(rng, 1'500)}}}}}}}) +
                "\n";
        }
        appendFile(root, fs::path("sessions") / folder / (id + ".jsonl"), transcript);
        ++events;
    }
    return events;
}

}  // namespace kestrel::corpus
