#pragma once
// Whether a file must be read again, from where, or not at all. A file is read from its start
// when it was replaced (other inode), shrank below the stored offset, was rewritten in place
// (the fingerprint of the consumed prefix differs) or the parser changed; re-reading is safe
// because commits upsert on event identity. An unchanged size-and-mtime stamp skips the file
// without opening it.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>

#include "core/model/source_checkpoint.hpp"

namespace kestrel {

enum class FileReadPlan {
    skipUnchanged,  // same stamp as at the last read: nothing new
    resume,         // read on from the checkpoint's offset
    fromStart,      // read everything again
};

struct FileReadDecision {
    FileReadPlan plan = FileReadPlan::fromStart;
    int64_t startOffset = 0;
    std::optional<std::string> fileStamp;  // "<size>:<mtime ns>" now; absent when stat failed
    // (device, inode) now, telling two paths to one file apart; absent when stat failed
    std::optional<std::pair<uint64_t, uint64_t>> identity;
    std::string reason;  // why, for diagnostics ("new file", "replaced", ...)
};

// "<size>:<mtime ns>" of the file, or absent when it cannot be examined.
std::optional<std::string> fileStamp(const std::filesystem::path& path);

// The plan for `path` given its stored checkpoint (absent: never read) and the parser's version.
FileReadDecision decideFileRead(const std::filesystem::path& path,
                                const std::optional<SourceCheckpoint>& checkpoint,
                                int64_t parserVersion);

// The stamp of an agent's SQLite store: the database and its write-ahead log, since a store in
// WAL mode may change only in the latter for a long time (an empty log counts as none). Absent
// when the database cannot be examined.
std::optional<std::string> storeStamp(const std::filesystem::path& database);

}  // namespace kestrel
