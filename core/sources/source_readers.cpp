#include "core/sources/source_readers.hpp"

#include <fstream>
#include <string_view>

#include "core/sources/claude_parser.hpp"
#include "core/sources/codex_parser.hpp"
#include "core/sources/utf8.hpp"
#include "core/sources/stores/goose_reader.hpp"
#include "core/sources/stores/hermes_reader.hpp"
#include "core/sources/stores/zed_reader.hpp"
#include "core/sources/transcripts/droid_reader.hpp"
#include "core/sources/transcripts/reasonix_reader.hpp"
#include "core/sources/transcripts/every_code_reader.hpp"
#include "core/sources/transcripts/editor_tasks_reader.hpp"
#include "core/sources/transcripts/dsh_reader.hpp"
#include "core/sources/transcripts/buddy_reader.hpp"
#include "core/sources/stores/anythingllm_reader.hpp"
#include "core/sources/stores/chat_message_reader.hpp"
#include "core/sources/stores/cursor_reader.hpp"
#include "core/sources/stores/kiro_reader.hpp"
#include "core/sources/stores/zcode_reader.hpp"
#include "core/sources/transcripts/gemini_reader.hpp"
#include "core/sources/transcripts/antigravity_reader.hpp"
#include "core/sources/transcripts/copilot_reader.hpp"
#include "core/sources/transcripts/kimi_reader.hpp"
#include "core/sources/transcripts/grok_reader.hpp"
#include "core/sources/transcripts/pi_reader.hpp"
#include "core/sources/transcripts/omp_reader.hpp"
#include "core/sources/transcripts/prime_agent_reader.hpp"
#include "core/sources/openclaw_reader.hpp"
#include "core/sources/transcripts/craft_reader.hpp"
#include "core/sources/stores/opencode_reader.hpp"

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
        case AgentSource::opencode:
            return OpencodeReader::reader();
        case AgentSource::kiloCLI:
            return KiloCLIReader::reader();
        case AgentSource::mimo:
            return MimoReader::reader();
        case AgentSource::goose:
            return GooseReader::reader();
        case AgentSource::hermes:
            return HermesReader::reader();
        case AgentSource::zed:
            return ZedReader::reader();
        case AgentSource::droid:
            return DroidReader::reader();
        // The other agents' readers, one factory each, in the order of the sources.
        case AgentSource::gemini:
            return GeminiReader::reader();
        case AgentSource::antigravity:
            return AntigravityReader::reader();
        case AgentSource::copilot:
            return CopilotReader::reader();
        case AgentSource::kimi:
            return KimiReader::reader();
        case AgentSource::grok:
            return GrokReader::reader();
        case AgentSource::openclaw:
            return OpenClawReader::reader();
        case AgentSource::omp:
            return OmpReader::reader();
        case AgentSource::pi:
            return PiReader::reader();
        case AgentSource::primeAgent:
            return PrimeAgentReader::reader();
        case AgentSource::craft:
            return CraftReader::reader();
        case AgentSource::cursor:
            return CursorReader::reader();
        case AgentSource::kiro:
            return KiroReader::reader();
        case AgentSource::zcode:
            return ZCodeReader::reader();
        case AgentSource::qoder:
            return ChatMessageReader::reader(AgentSource::qoder);
        case AgentSource::qoderCN:
            return ChatMessageReader::reader(AgentSource::qoderCN);
        case AgentSource::anythingLLM:
            return AnythingLLMReader::reader();
        case AgentSource::traeWorkCN:
            return ChatMessageReader::reader(AgentSource::traeWorkCN);
        case AgentSource::everyCode:
            return EveryCodeReader::reader();
        case AgentSource::codebuddy:
            return BuddyReader::reader(AgentSource::codebuddy);
        case AgentSource::workbuddy:
            return BuddyReader::reader(AgentSource::workbuddy);
        case AgentSource::reasonix:
            return ReasonixReader::reader();
        case AgentSource::kiloCode:
            return EditorTasksReader::reader(AgentSource::kiloCode);
        case AgentSource::rooCode:
            return EditorTasksReader::reader(AgentSource::rooCode);
        case AgentSource::deepseekHarness:
            return DshReader::reader();
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
