#include "core/sources/source_readers.hpp"

#include "core/sources/claude_parser.hpp"
#include "core/sources/codex_parser.hpp"
#include "core/sources/stores/anythingllm_reader.hpp"
#include "core/sources/stores/chat_message_reader.hpp"
#include "core/sources/stores/cursor_reader.hpp"
#include "core/sources/stores/goose_reader.hpp"
#include "core/sources/stores/hermes_reader.hpp"
#include "core/sources/stores/kiro_reader.hpp"
#include "core/sources/stores/opencode_reader.hpp"
#include "core/sources/stores/zcode_reader.hpp"
#include "core/sources/stores/zed_reader.hpp"
#include "core/sources/transcripts/antigravity_reader.hpp"
#include "core/sources/transcripts/buddy_reader.hpp"
#include "core/sources/transcripts/copilot_reader.hpp"
#include "core/sources/transcripts/craft_reader.hpp"
#include "core/sources/transcripts/droid_reader.hpp"
#include "core/sources/transcripts/dsh_reader.hpp"
#include "core/sources/transcripts/editor_tasks_reader.hpp"
#include "core/sources/transcripts/gemini_reader.hpp"
#include "core/sources/transcripts/grok_reader.hpp"
#include "core/sources/transcripts/kimi_reader.hpp"
#include "core/sources/transcripts/omp_reader.hpp"
#include "core/sources/transcripts/openclaw_reader.hpp"
#include "core/sources/transcripts/pi_reader.hpp"
#include "core/sources/transcripts/prime_agent_reader.hpp"
#include "core/sources/transcripts/reasonix_reader.hpp"

namespace kestrel::SourceReaders {

std::optional<SourceReader> reader(AgentSource source) {
    switch (source) {
        case AgentSource::claude:
            return ClaudeParser::reader();
        case AgentSource::codex:
        case AgentSource::everyCode:
            return CodexParser::reader();
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
        case AgentSource::qoderCN:
        case AgentSource::traeWorkCN:
            return ChatMessageReader::reader();
        case AgentSource::anythingLLM:
            return AnythingLLMReader::reader();
        case AgentSource::codebuddy:
        case AgentSource::workbuddy:
            return BuddyReader::reader();
        case AgentSource::reasonix:
            return ReasonixReader::reader();
        case AgentSource::kiloCode:
        case AgentSource::rooCode:
            return EditorTasksReader::reader();
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

std::string defaultModel(AgentSource source, const std::vector<std::filesystem::path>& roots) {
    switch (source) {
        case AgentSource::codex:
            return CodexParser::configuredModel(roots);
        case AgentSource::kimi:
            return KimiReader::configuredModel(roots);
        default:
            // Every Code's config.toml is not read: its rollouts name the model in turn_context.
            return {};
    }
}

std::expected<IngestResult, FileError> collect(const SourceIngest& ingest,
                                               SourceReadContext context) {
    std::vector<UsageEvent> events;
    context.sink = [&](UsageEvent&& e) { events.push_back(std::move(e)); };
    auto result = ingest(context);
    if (result) {
        // Readers that collect a store's rows themselves hand them back in the result.
        events.insert(events.end(), std::make_move_iterator(result->events.begin()),
                      std::make_move_iterator(result->events.end()));
        result->events = std::move(events);
    }
    return result;
}

}  // namespace kestrel::SourceReaders
