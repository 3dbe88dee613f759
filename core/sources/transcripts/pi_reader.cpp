#include "core/sources/transcripts/pi_reader.hpp"

#include "core/sources/pi_session_format.hpp"

namespace kestrel::PiReader {

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    return PiSessionFormat::discoverSessions(root, errors);
}

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    return PiSessionFormat::ingestLines(AgentSource::pi, parserVersion, context);
}

SourceReader reader() {
    return {SourceReaderKind::jsonLines, parserVersion, discover, ingest};
}

}  // namespace kestrel::PiReader
