#include "core/sources/transcripts/omp_reader.hpp"

#include "core/sources/pi_session_format.hpp"

namespace kestrel::OmpReader {

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>& errors) {
    return PiSessionFormat::discoverSessions(root, errors);
}

SourceReader reader() {
    SourceReader r;
    r.kind = SourceReaderKind::jsonLines;
    // omp rewrites its fixed-width title line in place, so a file can change without growing.
    // The checkpoint's boundary fingerprint covers the first 4096 bytes, so such a rewrite
    // sends the file back to its start, and the re-read events keep their ids: nothing is
    // lost and nothing counted twice.
    r.parserVersion = parserVersion;
    r.discover = [](const std::filesystem::path& root, std::vector<FileError>& errors) {
        return discover(root, errors);
    };
    r.ingest = [](const std::filesystem::path& file,
                  const std::optional<SourceCheckpoint>& checkpoint,
                  const SourceReadContext& context, const SourceEventSink& sink) {
        return PiSessionFormat::ingestLines(AgentSource::omp, parserVersion, file, checkpoint,
                                            context, sink);
    };
    return r;
}

}  // namespace kestrel::OmpReader
