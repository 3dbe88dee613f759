#include "core/sources/openclaw_reader.hpp"

#include <algorithm>
#include <string>

#include "core/sources/checkpoint_reuse.hpp"
#include "core/sources/file_discovery.hpp"
#include "core/sources/jsonl.hpp"
#include "core/sources/line_source.hpp"
#include "core/sources/pi_session_format.hpp"
#include "core/sources/stores/openclaw_store_reader.hpp"
#include "core/sources/zstd_reader.hpp"

namespace kestrel::OpenClawReader {

namespace {

constexpr std::string_view kDatabaseName = "openclaw-agent.sqlite";

enum class Form { transcript, coldArchive, database };

Form formOf(const std::filesystem::path& file) {
    const std::string name = file.filename().string();
    if (name == kDatabaseName) {
        return Form::database;
    }
    if (name.ends_with(".jsonl.zst")) {
        return Form::coldArchive;
    }
    return Form::transcript;
}

bool belowSessions(const std::filesystem::path& root, const std::filesystem::path& file) {
    const auto relative = file.lexically_relative(root).parent_path();
    return std::ranges::any_of(relative, [](const auto& part) { return part == "sessions"; });
}

// A live transcript, read on from its offset. The ingestor treats every file of a store reader
// as changed-or-unchanged only, so the offset, inode and boundary checks a JSON-lines reader
// gets from the ingestor are made here: a rewritten or replaced file is read from its start.
std::expected<IngestResult, FileError> ingestTranscript(const SourceReadContext& context) {
    const auto& checkpoint = context.checkpoint;
    std::optional<SourceCheckpoint> from;
    if (checkpoint && checkpoint->byteOffset &&
        decideFileRead(context.file, checkpoint, parserVersion).plan != FileReadPlan::fromStart) {
        from = checkpoint;
    }
    return PiSessionFormat::ingestLines(AgentSource::openclaw, parserVersion, context, from);
}

// A cold archive, read whole whenever it changed (a compressed file has no offset to resume
// from); its entries keep their identities, so a re-read adds nothing. Damaged data ends the
// read where it starts: what came before counts, the damage is counted as one malformed line.
std::expected<IngestResult, FileError> ingestColdArchive(const SourceReadContext& context) {
    const auto& file = context.file;
    IngestResult result;
    PiSessionFormat::SessionState session{PiSessionFormat::sessionIDFromFileName(file), {}};
    PiSessionFormat::LineReader reader;
    const double fallbackTime = PiSessionFormat::modificationTime(file);
    int64_t usable = 0, unreadable = 0;
    auto end = Zstd::forEachLine(file, [&](std::string_view line, int64_t offset) {
        switch (PiSessionFormat::consume(reader, line, JSONL::kLinePadding, offset,
                                         AgentSource::openclaw, session, context.sink,
                                         fallbackTime)) {
            case LineSource::LineKind::usage:
                ++usable;
                break;
            case LineSource::LineKind::unreadableUsage:
                ++unreadable;
                ++result.stats.malformed;
                break;
            case LineSource::LineKind::malformed:
                ++result.stats.malformed;
                break;
            case LineSource::LineKind::noUsage:
                ++result.stats.withoutUsage;
                break;
            case LineSource::LineKind::blank:
                break;
        }
        ++result.stats.lines;
    });
    if (!end) {
        if (end.error().operation != "decompress") {
            return std::unexpected(end.error());
        }
        ++result.stats.malformed;
    } else {
        result.stats.bytes = end->nextOffset;
        result.stats.malformed += end->oversizedLines;
    }
    result.formatChanged = unreadable > 0 && usable == 0;
    result.checkpoint = LineSource::wholeFileCheckpoint(AgentSource::openclaw, parserVersion, file);
    return result;
}

}  // namespace

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    DiscoveryOptions options;
    options.errors = errors;
    options.accept = [&root](const std::filesystem::path& p) {
        const std::string name = p.filename().string();
        if (name == kDatabaseName) {
            return true;
        }
        const bool transcript = name.ends_with(".jsonl") || name.ends_with(".jsonl.zst") ||
                                name.find(".jsonl.reset.") != std::string::npos;
        return transcript && belowSessions(root, p);
    };
    return discoverFiles(root, options);
}

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    switch (formOf(context.file)) {
        case Form::database:
            return OpenClawStoreReader::ingest(context, parserVersion);
        case Form::coldArchive:
            return ingestColdArchive(context);
        case Form::transcript:
            break;
    }
    return ingestTranscript(context);
}

SourceReader reader() {
    // One source, one reader kind, three forms. A database is not lines, so the JSON-lines
    // kind (whose offsets and fingerprints the ingestor manages) cannot serve it. The store kind
    // hands every changed file its previous checkpoint and leaves the cursor to the reader:
    // the database keeps the last rowid, a transcript its byte offset (checked here as the
    // ingestor would), and only a cold archive is read whole, which its stable identities make
    // harmless. Unchanged files of every form are skipped on their stamp.
    return {SourceReaderKind::store, parserVersion, discover, ingest};
}

}  // namespace kestrel::OpenClawReader
