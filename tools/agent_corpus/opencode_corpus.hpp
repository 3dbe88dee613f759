#pragma once
// Synthetic stores of the opencode family (opencode, Kilo CLI, MiMo Code): the SQLite database
// with the agents' own schema, and the older per-message JSON files under storage/. Pieces for
// the readers' tests, and whole homes for the benchmark.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/agent_corpus/corpus_writer.hpp"

namespace kestrel::corpus::opencode {

// One model call's counts as these agents store them (input without the cache counts).
struct Call {
    int64_t input = 0;
    int64_t output = 0;
    int64_t reasoning = 0;
    int64_t cacheRead = 0;
    int64_t cacheWrite = 0;
    double cost = 0;
};

struct Assistant {
    std::string id;
    std::string sessionID;
    std::string modelID = "claude-sonnet-4-5";
    std::string providerID = "anthropic";
    std::string cwd = "/home/dev/project";
    int64_t createdMs = 0;
    std::optional<int64_t> completedMs;  // absent: the call is still running
    // One step-finish part per call. The message's own tokens are then the last call's and its
    // cost their sum, as the agents write them.
    std::vector<Call> steps;
    // Used when there are no steps: the message's own counts (older builds).
    std::optional<Call> own;
    // Extra top-level members merged into the message's JSON (import markers, odd types).
    std::string extraJSON;
};

// An opencode-style identifier: "<prefix>_" + 12 lowercase hex digits + 14 base-62 characters,
// derived from `n` and `seed` (the same arguments give the same id).
std::string nativeID(std::string_view prefix, uint64_t n, uint64_t seed = 1);

// The `data` JSON of a message. In the database the id and session id are columns and stay out
// of the JSON; the files carry them (`withIDs`).
std::string assistantJSON(const Assistant& a, bool withIDs);
std::string userJSON(std::string_view id, std::string_view sessionID, int64_t createdMs,
                     bool withIDs);
std::string stepFinishJSON(const Call& c);

struct Schema {
    bool sessionTable = true;
    bool sessionDirectory = true;  // the session table has its `directory` column
    bool messageTable = true;
    bool sessionMessageTable = false;
    bool partTable = true;
    bool wal = true;
};

// A database with the agents' tables, written through SQLite.
class Database {
  public:
    Database(const std::filesystem::path& path, const Schema& schema = {});

    void addSession(std::string_view id, std::string_view directory, std::string_view parentID = {},
                    std::string_view slug = "quiet-harbor");
    void addUser(std::string_view id, std::string_view sessionID, int64_t createdMs,
                 std::string_view table = "message");
    // The message row, then its parts: step-start, text, step-finish per call.
    void addAssistant(const Assistant& a, std::string_view table = "message");
    // Rewrites an existing message row in place (same rowid), as the agent does when a call
    // finishes, and adds the step-finish parts not written yet (those after `stepsWritten`).
    void updateAssistant(const Assistant& a, std::size_t stepsWritten,
                         std::string_view table = "message");
    // A row with arbitrary `data`.
    void addRawMessage(std::string_view id, std::string_view sessionID, std::string_view data,
                       std::string_view table = "message");
    void addRawPart(std::string_view messageID, std::string_view sessionID, std::string_view data);
    FixtureDB& db() { return db_; }

  private:
    void addParts(const Assistant& a, std::size_t from);
    FixtureDB db_;
    Schema schema_;
    uint64_t parts_ = 0;
};

// The older file layout below `root`/storage.
void writeLegacySession(const std::filesystem::path& root, std::string_view projectID,
                        std::string_view sessionID, std::string_view directory,
                        std::string_view extraJSON = {});
void writeLegacyAssistant(const std::filesystem::path& root, const Assistant& a);
void writeLegacyUser(const std::filesystem::path& root, std::string_view id,
                     std::string_view sessionID, int64_t createdMs);

// Whole homes: `sessions` sessions of `messagesPerSession` finished assistant replies each (with
// a user message before each), 1 to 3 calls per reply, below home/.local/share/<agent>.
// Kilo homes add one sub-agent session per session; MiMo homes add one imported Claude Code
// session per four, which a correct reader skips.
void writeOpencodeHome(const std::filesystem::path& home, int sessions, int messagesPerSession,
                       uint64_t seed);
void writeKiloHome(const std::filesystem::path& home, int sessions, int messagesPerSession,
                   uint64_t seed);
void writeMimoHome(const std::filesystem::path& home, int sessions, int messagesPerSession,
                   uint64_t seed);

// The usage events a correct reader finds in what the writers above wrote.
int64_t opencodeHomeEvents(int sessions, int messagesPerSession);
int64_t kiloHomeEvents(int sessions, int messagesPerSession);
int64_t mimoHomeEvents(int sessions, int messagesPerSession);

}  // namespace kestrel::corpus::opencode
