#pragma once
// Which Codex threads have a turn in progress, read from the agent's own SQLite state databases
// (opened read-only; the agent keeps writing them in WAL mode). Used for live activity.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel::CodexLive {

struct InProgressRow {
    std::string threadID;  // the root thread: a sub-agent's turn is attributed to its spawner
    std::optional<double> startedAt;     // epoch seconds
    std::optional<std::string> project;  // the working directory of the root thread

    bool operator==(const InProgressRow&) const = default;
};

// The state databases ("*.sqlite", "*.sqlite3") directly inside `folder`, sorted by path.
std::vector<std::filesystem::path> databases(const std::filesystem::path& folder);

// The threads of one database whose latest turn is still "inProgress". Turns that started before
// `systemStartedAt` (the machine's boot time) died with the machine and are left out. A database
// that cannot be opened or lacks the tables yields nothing.
std::vector<InProgressRow> inProgressRows(const std::filesystem::path& database,
                                          std::optional<double> systemStartedAt);

// When the machine last started, in epoch seconds: `btime` of /proc/stat on Linux,
// kern.boottime on macOS; absent when the system does not say.
std::optional<double> systemStartedAt();

// The `btime` value of a /proc/stat text; absent when there is no well-formed one.
std::optional<double> bootTimeFromProcStat(std::string_view procStat);

// True when any database in `codexHome` has a thread with a turn in progress.
bool hasInProgressTurn(const std::filesystem::path& codexHome,
                       std::optional<double> systemStartedAt);

}  // namespace kestrel::CodexLive
