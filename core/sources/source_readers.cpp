#include "core/sources/source_readers.hpp"

#include <fstream>
#include <string_view>

#include "core/sources/claude_parser.hpp"
#include "core/sources/codex_parser.hpp"
#include "core/sources/utf8.hpp"

namespace kestrel {
namespace {

std::string_view trim(std::string_view s) {
    const auto first = s.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return {};
    }
    const auto last = s.find_last_not_of(" \t\r");
    return s.substr(first, last - first + 1);
}

// The top-level `model = "..."` of Codex's config.toml (before the first table header). A full
// TOML parser is not worth it for one quoted string. Only a small regular file is read: a FIFO
// or a device in its place must not stall the scan.
std::string codexConfiguredModel(const std::vector<std::filesystem::path>& roots) {
    constexpr std::uintmax_t kMaxConfigBytes = 1 << 20;
    for (const auto& root : roots) {
        const auto config = root / "config.toml";
        std::error_code ec;
        if (!std::filesystem::is_regular_file(config, ec) ||
            std::filesystem::file_size(config, ec) > kMaxConfigBytes || ec) {
            continue;
        }
        std::ifstream in(config);
        std::string line;
        while (in && std::getline(in, line)) {
            const auto text = trim(line);
            if (text.starts_with('[')) {
                break;
            }
            if (!text.starts_with("model")) {
                continue;
            }
            auto rest = trim(text.substr(5));
            if (!rest.starts_with('=')) {
                continue;  // model_provider, model_reasoning_effort, ...
            }
            rest = trim(rest.substr(1));
            if (rest.size() >= 2 && (rest.front() == '"' || rest.front() == '\'')) {
                const auto close = rest.find(rest.front(), 1);
                if (close != std::string_view::npos && close > 1) {
                    // The name lands in checkpoints and the ledger, which hold valid UTF-8 only.
                    return utf8::replaceInvalid(rest.substr(1, close - 1));
                }
            }
        }
    }
    return {};
}

SourceReader claudeReader() {
    SourceReader r;
    r.kind = SourceReaderKind::jsonLines;
    r.parserVersion = ClaudeParser::parserVersion;
    r.discover = [](const std::filesystem::path& root, std::vector<FileError>& errors) {
        return ClaudeParser::discover(root, &errors);
    };
    r.ingest = [](const std::filesystem::path& file,
                  const std::optional<SourceCheckpoint>& checkpoint,
                  const SourceReadContext& context, const SourceEventSink& sink) {
        return ClaudeParser::ingest(file, checkpoint, context.settings, context.prices, sink);
    };
    r.defaultModel = [](const std::vector<std::filesystem::path>&) { return std::string(); };
    return r;
}

SourceReader codexReader() {
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
                                   context.defaultModel, sink);
    };
    r.defaultModel = codexConfiguredModel;
    return r;
}

}  // namespace

namespace SourceReaders {

std::optional<SourceReader> reader(AgentSource source) {
    switch (source) {
        case AgentSource::claude:
            return claudeReader();
        case AgentSource::codex:
            return codexReader();
        // The other agents' readers, one factory each, in the order of the sources.
        default:
            return std::nullopt;
    }
}

std::vector<AgentSource> readableSources() {
    std::vector<AgentSource> out;
    for (auto s : allAgentSources()) {
        if (reader(s)) {
            out.push_back(s);
        }
    }
    return out;
}

}  // namespace SourceReaders
}  // namespace kestrel
