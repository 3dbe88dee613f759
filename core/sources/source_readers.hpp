#pragma once
// The readers the ingestor can drive, one per agent source, behind one shape: find the files
// below a root, read one file from its checkpoint. JSON-lines readers resume inside a file; a
// store reader (an agent's SQLite database, one pseudo-file per store) is handed its previous
// checkpoint whenever the store changed and keeps its own cursor in the parser context.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "core/model/agent_source.hpp"
#include "core/model/app_settings.hpp"
#include "core/model/source_checkpoint.hpp"
#include "core/pricing/price_table.hpp"
#include "core/sources/agent_catalog.hpp"
#include "core/sources/file_error.hpp"
#include "core/sources/ingest_result.hpp"

namespace kestrel {

enum class SourceReaderKind {
    jsonLines,  // append-only files read on from a byte offset
    store,      // a database read whole (or from its own cursor) whenever it changed
};

// What a reader gets besides the file and its checkpoint.
struct SourceReadContext {
    const AppSettings& settings;
    const PriceTable& prices;
    // The model to assume until a file names one (Codex rollouts written before the model was
    // logged); empty when unknown.
    std::string defaultModel;
};

using SourceEventSink = std::function<void(UsageEvent&&)>;

struct SourceReader {
    SourceReaderKind kind = SourceReaderKind::jsonLines;
    int64_t parserVersion = 1;
    // The files (or stores) below one installed root, sorted. Folders that could not be listed
    // (so that the list may be partial) go to `errors`.
    std::function<std::vector<std::filesystem::path>(const std::filesystem::path& root,
                                                     std::vector<FileError>& errors)>
        discover;
    // Reads one file from `checkpoint` (none: from its start); events go to the sink.
    std::function<std::expected<IngestResult, FileError>(
        const std::filesystem::path& file, const std::optional<SourceCheckpoint>& checkpoint,
        const SourceReadContext& context, const SourceEventSink& sink)>
        ingest;
    // The model to assume for this source, read from the agent's configuration in its roots;
    // may be empty (no such setting). Unset for agents whose records always name the model.
    std::function<std::string(const std::vector<std::filesystem::path>& roots)> defaultModel;
};

namespace SourceReaders {

// A reader over a family's two functions in their usual shapes: `discover(root, &errors)` (or
// with the errors by reference), and
// `ingest(file, checkpoint, settings, prices, sink)` (streaming) or `ingest(file, checkpoint,
// settings, prices)` (returning its events in the result).
template <class Discover, class Ingest>
SourceReader make(SourceReaderKind kind, int64_t parserVersion, Discover discover, Ingest ingest) {
    SourceReader r;
    r.kind = kind;
    r.parserVersion = parserVersion;
    r.discover = [discover](const std::filesystem::path& root, std::vector<FileError>& errors) {
        if constexpr (std::is_invocable_v<Discover, const std::filesystem::path&,
                                          std::vector<FileError>*>) {
            return discover(root, &errors);
        } else {
            return discover(root, errors);
        }
    };
    r.ingest = [ingest](const std::filesystem::path& file,
                        const std::optional<SourceCheckpoint>& checkpoint,
                        const SourceReadContext& context,
                        const SourceEventSink& sink) -> std::expected<IngestResult, FileError> {
        if constexpr (std::is_invocable_v<Ingest, const std::filesystem::path&,
                                          const std::optional<SourceCheckpoint>&,
                                          const AppSettings&, const PriceTable&,
                                          const SourceEventSink&>) {
            return ingest(file, checkpoint, context.settings, context.prices, sink);
        } else {
            return ingest(file, checkpoint, context.settings, context.prices);
        }
    };
    return r;
}

// The reader of `source`; absent while the source has none.
std::optional<SourceReader> reader(AgentSource source);

// The sources that have a reader, in declaration order.
std::vector<AgentSource> readableSources();

}  // namespace SourceReaders

}  // namespace kestrel
