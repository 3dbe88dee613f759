#include "tools/agent_corpus/opencode_corpus.hpp"

#include <nlohmann/json.hpp>

#include "tools/corpus_text.hpp"

namespace kestrel::corpus::opencode {

namespace fs = std::filesystem;
using nlohmann::ordered_json;

namespace {

constexpr std::string_view kSchema = R"sql(
CREATE TABLE project (id text PRIMARY KEY NOT NULL, worktree text NOT NULL, vcs text, name text,
  icon_url text, icon_color text, time_created integer NOT NULL, time_updated integer NOT NULL,
  time_initialized integer, sandboxes text NOT NULL);
CREATE TABLE todo (session_id text NOT NULL, content text NOT NULL, status text NOT NULL,
  priority text NOT NULL, position integer NOT NULL, time_created integer NOT NULL,
  time_updated integer NOT NULL, PRIMARY KEY (session_id, position));
CREATE TABLE permission (project_id text PRIMARY KEY NOT NULL, time_created integer NOT NULL,
  time_updated integer NOT NULL, data text NOT NULL);
)sql";

std::string sessionTableSQL(bool withDirectory) {
    return std::string(
               "CREATE TABLE session (id text PRIMARY KEY NOT NULL, project_id text NOT "
               "NULL, parent_id text, slug text NOT NULL, ") +
           (withDirectory ? "directory text NOT NULL, " : "") +
           "title text NOT NULL, version text NOT NULL, share_url text, summary_additions "
           "integer, summary_deletions integer, summary_files integer, summary_diffs text, "
           "revert text, permission text, time_created integer NOT NULL, time_updated integer "
           "NOT NULL, time_compacting integer, time_archived integer, FOREIGN KEY (project_id) "
           "REFERENCES project(id) ON DELETE cascade);"
           "CREATE INDEX session_project_idx ON session (project_id);"
           "CREATE INDEX session_parent_idx ON session (parent_id);";
}

constexpr std::string_view kMessageTableSQL =
    "CREATE TABLE message (id text PRIMARY KEY NOT NULL, session_id text NOT NULL, time_created "
    "integer NOT NULL, time_updated integer NOT NULL, data text NOT NULL, FOREIGN KEY "
    "(session_id) REFERENCES session(id) ON DELETE cascade);"
    "CREATE INDEX message_session_idx ON message (session_id);";
constexpr std::string_view kSessionMessageTableSQL =
    "CREATE TABLE session_message (id text PRIMARY KEY NOT NULL, session_id text NOT NULL, type "
    "text NOT NULL, time_created integer NOT NULL, time_updated integer NOT NULL, data text NOT "
    "NULL);"
    "CREATE INDEX session_message_session_idx ON session_message (session_id);";
constexpr std::string_view kPartTableSQL =
    "CREATE TABLE part (id text PRIMARY KEY NOT NULL, message_id text NOT NULL, session_id text "
    "NOT NULL, time_created integer NOT NULL, time_updated integer NOT NULL, data text NOT NULL, "
    "FOREIGN KEY (message_id) REFERENCES message(id) ON DELETE cascade);"
    "CREATE INDEX part_message_idx ON part (message_id);"
    "CREATE INDEX part_session_idx ON part (session_id);";

ordered_json tokensJSON(const Call& c) {
    return {{"input", c.input},
            {"output", c.output},
            {"reasoning", c.reasoning},
            {"cache", {{"read", c.cacheRead}, {"write", c.cacheWrite}}}};
}

void mergeExtra(ordered_json& j, std::string_view extra) {
    if (extra.empty()) {
        return;
    }
    const auto members = ordered_json::parse(extra);
    for (const auto& [key, value] : members.items()) {
        j[key] = value;
    }
}

std::string snapshotHash(uint64_t n) {
    detail::Rng rng(n);
    std::string out;
    detail::appendChars(out, rng, detail::kHex, 40);
    return out;
}

constexpr std::string_view kFiller =
    "I'll look at the failing test first. The parser drops the last record when the file has no "
    "trailing newline, so the fix belongs in the reader, not in the caller. Let me update the "
    "loop and add a case for it. ";

std::string fillerText(uint64_t n) {
    std::string out;
    const auto len = 120 + (n * 7919) % 1800;
    while (out.size() < len) {
        out += kFiller;
    }
    out.resize(len);
    return out;
}

void writeJSON(const fs::path& root, const fs::path& relative, const ordered_json& j) {
    writeFile(root, relative, j.dump());
}

}  // namespace

std::string nativeID(std::string_view prefix, uint64_t n, uint64_t seed) {
    detail::Rng rng(seed * 1'000'003 + n);
    std::string out(prefix);
    out += '_';
    // Creation time and a counter, as the agents encode them, then random characters.
    const uint64_t stamp = 0x19a0000000ULL + n;
    for (int shift = 44; shift >= 0; shift -= 4) {
        out += detail::kHex[(stamp >> shift) & 0xF];
    }
    detail::appendChars(out, rng, detail::kBase62, 14);
    return out;
}

std::string assistantJSON(const Assistant& a, bool withIDs) {
    ordered_json j = ordered_json::object();
    if (withIDs) {
        j["id"] = a.id;
        j["sessionID"] = a.sessionID;
    }
    j["role"] = "assistant";
    ordered_json time = {{"created", a.createdMs}};
    if (a.completedMs) {
        time["completed"] = *a.completedMs;
    }
    j["time"] = time;
    j["parentID"] = "msg_parent";
    j["modelID"] = a.modelID;
    j["providerID"] = a.providerID;
    j["mode"] = "build";
    j["agent"] = "build";
    j["path"] = {{"cwd", a.cwd}, {"root", a.cwd}};
    Call own = a.own.value_or(Call{});
    double cost = own.cost;
    if (!a.steps.empty()) {
        own = a.steps.back();
        cost = 0;
        for (const auto& s : a.steps) {
            cost += s.cost;
        }
    }
    j["cost"] = cost;
    j["tokens"] = tokensJSON(own);
    if (a.completedMs) {
        j["finish"] = "stop";
    }
    mergeExtra(j, a.extraJSON);
    return j.dump();
}

std::string userJSON(std::string_view id, std::string_view sessionID, int64_t createdMs,
                     bool withIDs) {
    ordered_json j = ordered_json::object();
    if (withIDs) {
        j["id"] = id;
        j["sessionID"] = sessionID;
    }
    j["role"] = "user";
    j["time"] = {{"created", createdMs}};
    j["agent"] = "build";
    j["model"] = {{"providerID", "anthropic"}, {"modelID", "claude-sonnet-4-5"}};
    return j.dump();
}

std::string stepFinishJSON(const Call& c) {
    ordered_json j = {{"type", "step-finish"},
                      {"reason", "stop"},
                      {"snapshot", snapshotHash(static_cast<uint64_t>(c.input + c.output))},
                      {"cost", c.cost},
                      {"tokens", tokensJSON(c)}};
    return j.dump();
}

Database::Database(const fs::path& path, const Schema& schema) : db_(path), schema_(schema) {
    db_.exec(schema.wal ? "PRAGMA journal_mode=WAL;" : "PRAGMA journal_mode=DELETE;");
    db_.exec(kSchema);
    if (schema.sessionTable) {
        db_.exec(sessionTableSQL(schema.sessionDirectory));
    }
    if (schema.messageTable) {
        db_.exec(kMessageTableSQL);
    }
    if (schema.sessionMessageTable) {
        db_.exec(kSessionMessageTableSQL);
    }
    if (schema.partTable) {
        db_.exec(kPartTableSQL);
    }
    db_.run(
        "INSERT INTO project (id, worktree, vcs, time_created, time_updated, sandboxes) "
        "VALUES ('global', '/', 'git', 0, 0, '[]')",
        {});
}

void Database::addSession(std::string_view id, std::string_view directory,
                          std::string_view parentID, std::string_view slug) {
    FixtureDB::Value parent = std::monostate{};
    if (!parentID.empty()) {
        parent = std::string(parentID);
    }
    if (schema_.sessionDirectory) {
        db_.run(
            "INSERT INTO session (id, project_id, parent_id, slug, directory, title, version, "
            "time_created, time_updated) VALUES (?, 'global', ?, ?, ?, 'Fix the parser', "
            "'1.0.0', 0, 0)",
            {std::string(id), parent, std::string(slug), std::string(directory)});
    } else {
        db_.run(
            "INSERT INTO session (id, project_id, parent_id, slug, title, version, "
            "time_created, time_updated) VALUES (?, 'global', ?, ?, 'Fix the parser', "
            "'1.0.0', 0, 0)",
            {std::string(id), parent, std::string(slug)});
    }
}

void Database::addRawMessage(std::string_view id, std::string_view sessionID, std::string_view data,
                             std::string_view table) {
    if (table == "session_message") {
        db_.run(
            "INSERT INTO session_message (id, session_id, type, time_created, time_updated, "
            "data) VALUES (?, ?, json_extract(?3, '$.role'), 0, 0, ?3)",
            {std::string(id), std::string(sessionID), std::string(data)});
    } else {
        db_.run(
            "INSERT INTO message (id, session_id, time_created, time_updated, data) VALUES "
            "(?, ?, 0, 0, ?)",
            {std::string(id), std::string(sessionID), std::string(data)});
    }
}

void Database::addUser(std::string_view id, std::string_view sessionID, int64_t createdMs,
                       std::string_view table) {
    addRawMessage(id, sessionID, userJSON(id, sessionID, createdMs, false), table);
    db_.run("UPDATE " + std::string(table) + " SET time_created = ?, time_updated = ? WHERE id = ?",
            {createdMs, createdMs, std::string(id)});
}

void Database::addRawPart(std::string_view messageID, std::string_view sessionID,
                          std::string_view data) {
    db_.run(
        "INSERT INTO part (id, message_id, session_id, time_created, time_updated, data) "
        "VALUES (?, ?, ?, 0, 0, ?)",
        {nativeID("prt", ++parts_, 7), std::string(messageID), std::string(sessionID),
         std::string(data)});
}

void Database::addParts(const Assistant& a, std::size_t from) {
    if (!schema_.partTable) {
        return;
    }
    for (std::size_t i = from; i < a.steps.size(); ++i) {
        addRawPart(a.id, a.sessionID,
                   ordered_json{{"type", "step-start"}, {"snapshot", snapshotHash(parts_)}}.dump());
        addRawPart(a.id, a.sessionID,
                   ordered_json{{"type", "text"},
                                {"text", fillerText(parts_)},
                                {"time", {{"start", a.createdMs}, {"end", a.createdMs + 900}}}}
                       .dump());
        addRawPart(a.id, a.sessionID, stepFinishJSON(a.steps[i]));
    }
}

void Database::addAssistant(const Assistant& a, std::string_view table) {
    addRawMessage(a.id, a.sessionID, assistantJSON(a, false), table);
    const int64_t updated = a.completedMs.value_or(a.createdMs);
    db_.run("UPDATE " + std::string(table) + " SET time_created = ?, time_updated = ? WHERE id = ?",
            {a.createdMs, updated, a.id});
    addParts(a, 0);
}

void Database::updateAssistant(const Assistant& a, std::size_t stepsWritten,
                               std::string_view table) {
    addParts(a, stepsWritten);
    db_.run("UPDATE " + std::string(table) + " SET data = ?, time_updated = ? WHERE id = ?",
            {assistantJSON(a, false), a.completedMs.value_or(a.createdMs), a.id});
}

void writeLegacySession(const fs::path& root, std::string_view projectID,
                        std::string_view sessionID, std::string_view directory,
                        std::string_view extraJSON) {
    ordered_json j = {{"id", sessionID},
                      {"slug", "quiet-harbor"},
                      {"version", "0.15.0"},
                      {"projectID", projectID},
                      {"directory", directory},
                      {"title", "Fix the parser"},
                      {"time", {{"created", 1760000000000}, {"updated", 1760000000000}}}};
    mergeExtra(j, extraJSON);
    writeJSON(root,
              fs::path("storage") / "session" / std::string(projectID) /
                  (std::string(sessionID) + ".json"),
              j);
}

void writeLegacyAssistant(const fs::path& root, const Assistant& a) {
    writeFile(root, fs::path("storage") / "message" / a.sessionID / (a.id + ".json"),
              assistantJSON(a, true));
    for (std::size_t i = 0; i < a.steps.size(); ++i) {
        auto part = ordered_json::parse(stepFinishJSON(a.steps[i]));
        const auto partID = nativeID("prt", i, 11);
        part["id"] = partID;
        part["messageID"] = a.id;
        part["sessionID"] = a.sessionID;
        writeJSON(root, fs::path("storage") / "part" / a.id / (partID + ".json"), part);
        ordered_json text = {{"id", nativeID("prt", i + 100, 11)},
                             {"messageID", a.id},
                             {"sessionID", a.sessionID},
                             {"type", "text"},
                             {"text", fillerText(i)}};
        writeJSON(root,
                  fs::path("storage") / "part" / a.id / (text["id"].get<std::string>() + ".json"),
                  text);
    }
}

void writeLegacyUser(const fs::path& root, std::string_view id, std::string_view sessionID,
                     int64_t createdMs) {
    writeFile(
        root,
        fs::path("storage") / "message" / std::string(sessionID) / (std::string(id) + ".json"),
        userJSON(id, sessionID, createdMs, true));
}

namespace {

constexpr int64_t kBaseMs = 1767225600000;  // 2026-01-01T00:00:00Z
constexpr std::array<std::string_view, 4> kModels{"claude-sonnet-4-5", "gpt-5", "gemini-2.5-pro",
                                                  "kimi-k2"};
constexpr std::array<std::string_view, 4> kProviders{"anthropic", "openai", "google", "moonshotai"};

Assistant randomReply(detail::Rng& rng, std::string id, std::string sessionID, int64_t createdMs) {
    Assistant a;
    a.id = std::move(id);
    a.sessionID = std::move(sessionID);
    const auto which = rng.below(kModels.size());
    a.modelID = kModels[which];
    a.providerID = kProviders[which];
    a.createdMs = createdMs;
    a.completedMs = createdMs + rng.between(800, 60000);
    const auto calls = rng.between(1, 3);
    for (int64_t c = 0; c < calls; ++c) {
        Call call;
        call.input = rng.logUniform(10, 20000);
        call.cacheRead = rng.chance(0.8) ? rng.logUniform(1000, 150000) : 0;
        call.cacheWrite = rng.chance(0.3) ? rng.logUniform(100, 20000) : 0;
        call.output = rng.logUniform(20, 8000);
        call.reasoning = rng.chance(0.3) ? rng.logUniform(10, 4000) : 0;
        call.cost = static_cast<double>(rng.between(1, 90000)) / 1'000'000.0;
        a.steps.push_back(call);
    }
    return a;
}

enum class HomeKind { opencode, kilo, mimo };

void writeHome(HomeKind kind, const fs::path& home, int sessions, int messagesPerSession,
               uint64_t seed) {
    const fs::path dir = home / ".local" / "share" /
                         (kind == HomeKind::opencode ? "opencode"
                          : kind == HomeKind::kilo   ? "kilo"
                                                     : "mimocode");
    const std::string dbName = kind == HomeKind::opencode ? "opencode.db"
                               : kind == HomeKind::kilo   ? "kilo.db"
                                                          : "mimocode.db";
    Database db(dir / dbName);
    db.db().exec("BEGIN");
    detail::Rng rng(seed);
    uint64_t ids = 0;
    for (int s = 0; s < sessions; ++s) {
        const bool imported = kind == HomeKind::mimo && s % 4 == 3;
        const std::string sessionID =
            imported ? detail::uuid(rng) : nativeID("ses", static_cast<uint64_t>(s), seed);
        const std::string directory = "/home/dev/project-" + std::to_string(s % 7);
        db.addSession(sessionID, directory);
        int64_t t = kBaseMs + static_cast<int64_t>(s) * 3'600'000;
        auto messageID = [&]() {
            if (imported) {  // the Anthropic message id Claude Code logged
                std::string id = "msg_01";
                detail::appendChars(id, rng, detail::kBase62, 22);
                return id;
            }
            return nativeID("msg", ++ids, seed);
        };
        for (int m = 0; m < messagesPerSession; ++m) {
            db.addUser(messageID(), sessionID, t);
            t += 1000;
            const auto reply = randomReply(rng, messageID(), sessionID, t);
            db.addAssistant(reply);
            t = *reply.completedMs + rng.between(5000, 120000);
        }
        if (kind == HomeKind::kilo) {
            // A sub-agent's session below this one, with one reply of its own.
            const auto childID = nativeID("ses", static_cast<uint64_t>(s) + 1'000'000, seed);
            db.addSession(childID, directory, sessionID, "child-task");
            db.addUser(nativeID("msg", ++ids, seed), childID, t);
            db.addAssistant(randomReply(rng, nativeID("msg", ++ids, seed), childID, t + 500));
        }
    }
    db.db().exec("COMMIT");
}

}  // namespace

void writeOpencodeHome(const fs::path& home, int sessions, int messagesPerSession, uint64_t seed) {
    writeHome(HomeKind::opencode, home, sessions, messagesPerSession, seed);
}
void writeKiloHome(const fs::path& home, int sessions, int messagesPerSession, uint64_t seed) {
    writeHome(HomeKind::kilo, home, sessions, messagesPerSession, seed);
}
void writeMimoHome(const fs::path& home, int sessions, int messagesPerSession, uint64_t seed) {
    writeHome(HomeKind::mimo, home, sessions, messagesPerSession, seed);
}

int64_t opencodeHomeEvents(int sessions, int messagesPerSession) {
    return static_cast<int64_t>(sessions) * messagesPerSession;
}
int64_t kiloHomeEvents(int sessions, int messagesPerSession) {
    return static_cast<int64_t>(sessions) * (messagesPerSession + 1);
}
int64_t mimoHomeEvents(int sessions, int messagesPerSession) {
    const int imported = sessions / 4;  // sessions 3, 7, 11, ...
    return static_cast<int64_t>(sessions - imported) * messagesPerSession;
}

}  // namespace kestrel::corpus::opencode
