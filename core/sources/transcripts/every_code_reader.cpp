#include "core/sources/transcripts/every_code_reader.hpp"

#include "core/sources/codex_parser.hpp"

namespace kestrel::EveryCodeReader {

SourceReader reader() {
    SourceReader r;
    r.kind = SourceReaderKind::jsonLines;
    r.parserVersion = CodexParser::parserVersion;
    r.discover = [](const std::filesystem::path& root, std::vector<FileError>& errors) {
        return CodexParser::discover(root, &errors);
    };
    r.ingest = [](const std::filesystem::path& file,
                  const std::optional<SourceCheckpoint>& checkpoint,
                  const SourceReadContext& context, const SourceEventSink& sink) {
        return CodexParser::ingest(file, checkpoint, context.settings, context.prices,
                                   context.defaultModel, sink, AgentSource::everyCode);
    };
    // The fork's config.toml is not read yet: rollouts name their model in turn_context.
    return r;
}

}  // namespace kestrel::EveryCodeReader
