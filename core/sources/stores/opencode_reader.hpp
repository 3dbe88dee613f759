#pragma once
// The opencode family of agents: opencode itself, Kilo CLI and MiMo Code share one store layout
// (a SQLite database with `session`, `message` or `session_message`, and `part` tables holding
// JSON, plus older per-message JSON files under storage/), so one reader serves all three with a
// few differences per agent.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

#include "core/model/agent_source.hpp"
#include "core/model/source_checkpoint.hpp"
#include "core/sources/file_error.hpp"
#include "core/sources/ingest_result.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel::OpencodeFamily {

// Bumped when the reading rules change, so that stores are read again from their start.
inline constexpr int64_t parserVersion = 1;

// How one agent of the family differs.
struct Flavor {
    AgentSource source = AgentSource::opencode;
    std::string_view databasePrefix;  // "opencode" finds opencode.db and opencode-<channel>.db
    bool anyDatabase = false;         // also read other *.db files that carry the tables
    bool skipImported = false;        // the agent copies other agents' history into its store
    bool childCostsFolded = false;    // a parent's cost may already include its sub-sessions'
};

// The flavour of opencode, kiloCLI or mimo (opencode's for any other source).
Flavor flavor(AgentSource source);

// The databases directly in `root` (or `root` itself when it is a file, as an environment
// override names one) and the older per-message JSON files below root/storage/message.
std::vector<std::filesystem::path> discover(const Flavor& flavor, const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// Reads one database (from the row after the checkpoint's logicalHighWater) or one message file
// as `context.source`'s (its flavour). Fails when a database cannot be opened or queried.
std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

// The two kinds of store, for the dispatcher above. readDatabase throws SQLiteUsageError when
// the database refuses.
IngestResult readDatabase(const Flavor& flavor, const std::filesystem::path& database,
                          const std::optional<SourceCheckpoint>& checkpoint,
                          const SourceEventSink& sink);
std::expected<IngestResult, FileError> readLegacyMessage(const Flavor& flavor,
                                                         const std::filesystem::path& file,
                                                         const SourceEventSink& sink);

// The file's modification time in epoch seconds (now when it cannot be examined): the time of
// a message that carries none.
double modificationTime(const std::filesystem::path& file);

// A message that has not finished is read again on later scans until it does; one that never
// finishes (the agent was killed) is taken as it stands once it is this old.
inline constexpr double kUnfinishedGiveUpSeconds = 6 * 3600;

}  // namespace kestrel::OpencodeFamily

namespace kestrel::OpencodeReader {
SourceReader reader();
}
namespace kestrel::KiloCLIReader {
SourceReader reader();
}
namespace kestrel::MimoReader {
SourceReader reader();
}
