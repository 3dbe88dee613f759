#pragma once
// Incremental reading of append-only JSON-lines files. A read consumes complete lines only: an
// unterminated last line (one the agent is still writing) is left for the next scan, which
// starts at the returned offset and so sees it whole. Files are streamed in chunks, so memory
// is bounded by the chunk size plus the longest line, never by the file size.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/sources/file_error.hpp"

namespace kestrel::JSONL {

struct Slice {
    std::vector<std::string> lines;       // complete lines in file order, without terminators
    int64_t nextOffset = 0;               // just past the last line feed consumed
    std::optional<int64_t> partialStart;  // where an unterminated trailing line begins

    bool operator==(const Slice&) const = default;
};

// Where a streamed read ended; the same offsets as Slice.
struct ReadEnd {
    int64_t nextOffset = 0;
    std::optional<int64_t> partialStart;
    int64_t lines = 0;           // complete lines delivered
    int64_t oversizedLines = 0;  // complete lines longer than the limit, skipped undelivered
    // Filled by forEachCompleteLineSealed only: the file's inode and the boundary fingerprint at
    // `nextOffset`, taken through the file as it was opened for the read.
    std::optional<uint64_t> inode;
    std::optional<std::string> fingerprint;
};

// Lines longer than this are skipped (and counted) instead of being held in memory whole.
inline constexpr std::size_t kDefaultMaxLineBytes = std::size_t{256} << 20;

// Bytes guaranteed readable after the end of every line handed to a LineHandler (their content
// is unspecified). Lets a parser that reads ahead in blocks work on the buffer without copying.
inline constexpr std::size_t kLinePadding = 64;

// One complete line without its "\n" (a trailing "\r" is removed too) and the offset of its
// first byte. The view is valid only during the call.
using LineHandler = std::function<void(std::string_view line, int64_t offset)>;

// The offset just past the line feed of a line handed to a LineHandler (`line` and `offset` as
// given to it; a "\r" removed before the line feed counts too).
int64_t offsetAfter(std::string_view line, int64_t offset);

// Streams the complete lines from `from` to the end of the file through `onLine`. Empty lines
// are delivered too; lines longer than `maxLineBytes` are consumed but not delivered. Fails only
// when the file cannot be opened or read.
std::expected<ReadEnd, FileError> forEachCompleteLine(
    const std::filesystem::path& path, int64_t from, const LineHandler& onLine,
    std::size_t chunkSize = std::size_t{1} << 20, std::size_t maxLineBytes = kDefaultMaxLineBytes);

// As forEachCompleteLine, and fills the result's `inode` and `fingerprint` through the same open
// file: what a checkpoint after the read needs, without opening the file again.
std::expected<ReadEnd, FileError> forEachCompleteLineSealed(const std::filesystem::path& path,
                                                            int64_t from,
                                                            const LineHandler& onLine);

// Reads the complete lines from `from` into memory. For small files and tests; scans of large
// files use forEachCompleteLine.
std::expected<Slice, FileError> readCompleteLines(const std::filesystem::path& path, int64_t from);

// SHA-256 (lowercase hex) over: the decimal text of `through`, the first min(4096, through)
// bytes, and, when `through` > 4096, the last 4096 bytes before `through` not already taken.
// Absent when the file is shorter than `through` or cannot be read.
std::optional<std::string> boundaryFingerprint(const std::filesystem::path& path, int64_t through);

// The file's inode number; absent when the file cannot be examined.
std::optional<uint64_t> inode(const std::filesystem::path& path);

}  // namespace kestrel::JSONL
