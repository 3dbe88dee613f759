#pragma once
// The readers the ingestor can drive, one per agent source, behind one shape: find the files
// below a root, read one file from its checkpoint. JSON-lines readers resume inside a file; a
// store reader (an agent's SQLite database, one pseudo-file per store) is handed its previous
// checkpoint whenever the store changed and keeps its own cursor in the parser context.
//
// Readers make unpriced events: the ingestor applies the user's billing mode, prices and
// privacy choices to them before they reach the ledger.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/model/agent_source.hpp"
#include "core/model/source_checkpoint.hpp"
#include "core/model/usage_event.hpp"
#include "core/sources/file_error.hpp"
#include "core/sources/ingest_result.hpp"

namespace kestrel {

enum class SourceReaderKind {
    jsonLines,  // append-only files read on from a byte offset
    store,      // a database read whole (or from its own cursor) whenever it changed
};

using SourceEventSink = std::function<void(UsageEvent&&)>;

// Everything one read of one file or store is given.
struct SourceReadContext {
    // The agent whose records these are; readers shared by several agents stamp it on what
    // they make.
    AgentSource source = AgentSource::claude;
    std::filesystem::path file;  // the file, or the store's database
    // Where the previous read ended; none: read from the start.
    std::optional<SourceCheckpoint> checkpoint;
    // The model to assume until a file names one (Codex rollouts written before the model was
    // logged); empty when unknown.
    std::string defaultModel;
    // Receives the events in file order as they are read. Readers that collect a store's rows
    // first may instead return them in the result's `events`.
    SourceEventSink sink;
    // When set, a reader that can resume at a line boundary (a JSON-lines reader, its state
    // between lines kept in the checkpoint) asks it after each line whether to hand over; when
    // it answers true, the reader calls `handOver` with the checkpoint of everything read so
    // far, the events of which it has all passed to `sink`. Lets one huge file be committed in
    // parts.
    std::function<bool()> wantsHandOver;
    std::function<void(SourceCheckpoint&&)> handOver;
};

// Reads one file or store. Fails with a FileError when it cannot be opened or read (for a
// store: also locked, damaged or not a database); malformed records are skipped and counted.
// Never throws for bad input.
using SourceIngest =
    std::function<std::expected<IngestResult, FileError>(const SourceReadContext& context)>;

// The files (or stores) below one installed root, sorted. Folders that could not be listed
// (so that the list may be partial) go to `errors` when it is given.
using SourceDiscover = std::function<std::vector<std::filesystem::path>(
    const std::filesystem::path& root, std::vector<FileError>* errors)>;

struct SourceReader {
    SourceReaderKind kind = SourceReaderKind::jsonLines;
    int64_t parserVersion = 1;
    SourceDiscover discover;
    SourceIngest ingest;
};

namespace SourceReaders {

// The reader of `source`; absent while the source has none.
std::optional<SourceReader> reader(AgentSource source);

// The sources that have a reader, in declaration order.
std::vector<AgentSource> readableSources();

// The model to assume for `source`, read from the agent's configuration in its `roots`; empty
// when the agent has no such setting or its records always name the model.
std::string defaultModel(AgentSource source, const std::vector<std::filesystem::path>& roots);

// Runs `ingest` on `context` (whose sink is replaced) and returns every event in the result's
// `events`, in file order: for callers that want a file's events at once (tests, tools).
std::expected<IngestResult, FileError> collect(const SourceIngest& ingest,
                                               SourceReadContext context);

}  // namespace SourceReaders

}  // namespace kestrel
