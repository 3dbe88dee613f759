#include "core/sources/transcripts/prime_agent_reader.hpp"

#include "core/sources/pi_session_format.hpp"

namespace kestrel::PrimeAgentReader {

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>& errors) {
    return PiSessionFormat::discoverSessions(root, errors);
}

SourceReader reader() {
    SourceReader r;
    r.kind = SourceReaderKind::jsonLines;
    r.parserVersion = parserVersion;
    r.discover = [](const std::filesystem::path& root, std::vector<FileError>& errors) {
        return discover(root, errors);
    };
    r.ingest = [](const std::filesystem::path& file,
                  const std::optional<SourceCheckpoint>& checkpoint,
                  const SourceReadContext& context, const SourceEventSink& sink) {
        return PiSessionFormat::ingestLines(AgentSource::primeAgent, parserVersion, file,
                                            checkpoint, context, sink);
    };
    return r;
}

}  // namespace kestrel::PrimeAgentReader
