#pragma once
// The part every JSON-lines reader shares: resume at the checkpoint's offset, hand each
// complete line to the agent's own parser, count what it made of the lines, and write the next
// checkpoint. Also the checkpoint of a file or store that is read whole whenever it changes.

#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string_view>

#include "core/model/agent_source.hpp"
#include "core/model/source_checkpoint.hpp"
#include "core/sources/file_error.hpp"
#include "core/sources/ingest_result.hpp"

namespace kestrel::LineSource {

enum class LineKind {
    usage,            // a usage record (events may or may not have been emitted for it)
    noUsage,          // a record of another kind
    malformed,        // not JSON, or not an object
    unreadableUsage,  // a usage record whose counts cannot be read
    blank,
};

// Parses one complete line (without its terminator) at byte `offset`.
using LineParser = std::function<LineKind(std::string_view line, int64_t offset)>;

// Reads `file` from `checkpoint`'s byte offset (from the start without one) through `parse`.
// The result's checkpoint carries the source, the file's stable id, inode, next offset, the
// partial-line start, the boundary fingerprint and `parserVersion`; its parser context is the
// previous one (the caller replaces it when it keeps state). `formatChanged` is set when a
// whole file read from its start held usage records of which none could be read.
std::expected<IngestResult, FileError> read(AgentSource source, int64_t parserVersion,
                                            const std::filesystem::path& file,
                                            const std::optional<SourceCheckpoint>& checkpoint,
                                            const LineParser& parse);

// The checkpoint of a file or database read whole: no offsets, just who and which parser.
SourceCheckpoint wholeFileCheckpoint(AgentSource source, int64_t parserVersion,
                                     const std::filesystem::path& file);

// A whole small file (JSON documents, settings): at most `maxBytes`, else a FileError naming
// the size. Regular files only, so that a FIFO in an agent's folder cannot stall a scan.
std::expected<std::string, FileError> readSmallFile(const std::filesystem::path& file,
                                                    std::uintmax_t maxBytes);

// The file's modification time in seconds since the epoch; 0 when it cannot be examined.
double modificationTime(const std::filesystem::path& file);

}  // namespace kestrel::LineSource
