#pragma once
// Synthetic stores of the agents that keep running token totals (goose, Hermes, Zed, droid):
// building blocks that the reader tests combine (a store with given rows, rows updated in
// place as an agent does) and one realistic home per agent for the benchmark, with the number
// of usage events a correct reader finds in it on a first scan.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kestrel::corpus {

// ---- goose: <root>/sessions/sessions.db and legacy <root>/sessions/<id>.jsonl

struct GooseSession {
    std::string id;
    std::string model;     // goes into model_config_json
    std::string provider;  // provider_name
    std::string workingDir;
    std::string updatedAt;                        // "YYYY-MM-DD HH:MM:SS" or RFC 3339
    std::optional<int64_t> total, input, output;  // accumulated_*; absent: NULL
};

// Creates sessions.db with the current column set, or (`modern` false) only id, working_dir,
// created_at and the token columns, as early versions had.
void createGooseDB(const std::filesystem::path& database, bool modern = true);
// Inserts or replaces the session's row (keeping its rowid when it exists).
void putGooseSession(const std::filesystem::path& database, const GooseSession& session);
// A legacy session file: the metadata line, then a few message lines.
void writeGooseLegacyFile(const std::filesystem::path& sessionsFolder, const GooseSession& session);

// ---- Hermes: <root>/state.db

struct HermesSession {
    std::string id;
    std::string model;
    double startedAt = 0;
    std::optional<double> endedAt;
    std::string billingProvider;
    std::string cwd;
    int64_t input = 0, output = 0, cacheRead = 0, cacheWrite = 0, reasoning = 0;
};

struct HermesModelUsage {
    std::string sessionID, model, billingProvider, task;
    int64_t input = 0, output = 0, cacheRead = 0, cacheWrite = 0, reasoning = 0;
    double firstSeen = 0, lastSeen = 0;
};

struct HermesSchema {
    bool optionalColumns = true;  // billing_provider, computed_total_tokens, cwd, ended_at
    bool modelUsageTable = true;  // session_model_usage
};

void createHermesDB(const std::filesystem::path& database, const HermesSchema& schema = {});
void putHermesSession(const std::filesystem::path& database, const HermesSession& session);
void putHermesModelUsage(const std::filesystem::path& database, const HermesModelUsage& usage);

// ---- Zed: <root>/threads.db

struct ZedUsage {
    int64_t input = 0, output = 0, cacheCreation = 0, cacheRead = 0;
};

struct ZedThreadJSON {
    std::string model = "claude-sonnet-4-5";
    std::string provider = "zed.dev";
    std::optional<ZedUsage> cumulative;  // absent: no cumulative_token_usage key
    bool imported = false;
    bool legacy = false;  // an older thread: no version, request_token_usage as an array
    std::string updatedAt = "2026-08-21T10:00:00Z";
    int messages = 2;
    std::size_t messageBytes = 200;  // text per message
};

std::string zedThreadText(const ZedThreadJSON& thread);

// Creates threads.db; `optionalColumns` adds parent_id, folder_paths and created_at.
void createZedDB(const std::filesystem::path& database, bool optionalColumns = true);
// Inserts or replaces a thread row holding `data` as given (compress it with zstdFrame for
// data_type "zstd").
void putZedThread(const std::filesystem::path& database, const std::string& id,
                  const std::string& updatedAt, const std::string& dataType,
                  const std::vector<unsigned char>& data, const std::string& folderPaths = {});

// ---- droid: <root>/sessions/<encoded cwd>/<id>.settings.json (+ <id>.jsonl)

struct DroidTotals {
    int64_t input = 0, output = 0, cacheCreation = 0, cacheRead = 0, thinking = 0;
};

// Writes (replaces) the settings document; `inclusive` adds an inclusiveTokenUsage block of
// these totals, as droid writes for a session with sub-sessions. The transcript's first line is
// written when `cwd` is not empty and the transcript does not exist yet.
std::filesystem::path writeDroidSettings(const std::filesystem::path& root,
                                         const std::string& folder, const std::string& sessionID,
                                         const std::string& model, const DroidTotals& totals,
                                         const std::optional<DroidTotals>& inclusive = {},
                                         const std::string& cwd = {});

// ---- Whole homes for the benchmark. Each returns the number of usage events a correct reader
// yields on a first scan of what it wrote.

int64_t writeGooseHome(const std::filesystem::path& home, int sessions, uint64_t seed);
int64_t writeHermesHome(const std::filesystem::path& home, int sessions, uint64_t seed);
int64_t writeZedHome(const std::filesystem::path& home, int threads, int messagesPerThread,
                     uint64_t seed);
int64_t writeDroidHome(const std::filesystem::path& home, int sessions, int messagesPerSession,
                       uint64_t seed);

}  // namespace kestrel::corpus
