#include "core/sources/transcripts/omp_reader.hpp"

#include "core/sources/pi_session_format.hpp"

namespace kestrel::OmpReader {

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    return PiSessionFormat::discoverSessions(root, errors);
}

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    return PiSessionFormat::ingestLines(AgentSource::omp, parserVersion, context);
}

SourceReader reader() {
    // omp rewrites its fixed-width title line in place, so a file can change without growing.
    // The checkpoint's boundary fingerprint covers the first 4096 bytes, so such a rewrite
    // sends the file back to its start, and the re-read events keep their ids: nothing is
    // lost and nothing counted twice.
    return {SourceReaderKind::jsonLines, parserVersion, discover, ingest};
}

}  // namespace kestrel::OmpReader
