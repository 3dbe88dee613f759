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
#include "core/sources/source_readers.hpp"

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

// What a reader gives so that the ingestor may take a file's events over after any line, as
// if the file had ended there and grown since: one huge file then never has to sit in memory.
struct HandOver {
    // The ingestor's request and receiver (SourceReadContext::wantsHandOver / handOver); null,
    // or a context without them, reads the file in one go.
    const SourceReadContext* context = nullptr;
    // The parser context that resumes exactly after the current line. Unset for readers that
    // keep no state between lines: the previous checkpoint's context is carried on.
    std::function<std::string()> state = {};
    // Whether the reader may hand over after the current line; unset: after any line. A reader
    // that holds events back until something later in the file decides about them says no
    // while it holds them.
    std::function<bool()> ready = {};
};

// Reads `file` from `checkpoint`'s byte offset (from the start without one) through `parse`.
// The result's checkpoint carries the source, the file's stable id, inode, next offset, the
// partial-line start, the boundary fingerprint and `parserVersion`; its parser context is the
// previous one (the caller replaces it when it keeps state). `formatChanged` is set when a
// whole file read from its start held usage records of which none could be read. After each
// line the ingestor behind `handOver` may take over the events so far, with a checkpoint just
// past that line.
std::expected<IngestResult, FileError> read(AgentSource source, int64_t parserVersion,
                                            const std::filesystem::path& file,
                                            const std::optional<SourceCheckpoint>& checkpoint,
                                            const LineParser& parse, const HandOver& handOver = {});

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
