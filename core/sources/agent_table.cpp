#include "core/sources/agent_table.hpp"

#include <array>

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
#include "core/sources/openclaw_reader.hpp"
#include "core/sources/transcripts/pi_reader.hpp"
#include "core/sources/transcripts/prime_agent_reader.hpp"
#include "core/sources/transcripts/reasonix_reader.hpp"

namespace kestrel::AgentTable {
namespace {

using S = AgentSource;
using F = AgentDataFormat;
using P = UsagePrecision;

// Craft keeps sessions in its config folder and in every workspace its config.json lists.
void craftRoots(AgentRoots& r) {
    std::vector<std::filesystem::path> configDirs{r.home() / ".craft-agent"};
    if (auto dir = r.lookup("CRAFT_CONFIG_DIR")) {
        configDirs.push_back(resolveAgainstHome(*dir, r.home()));
    }
    for (const auto& dir : configDirs) {
        r.add(dir);
    }
    for (const auto& dir : configDirs) {
        for (const auto& workspace : CraftReader::workspaceRoots(dir, r.home())) {
            r.add(workspace);
        }
    }
}

constexpr std::array<AgentTableRow, 37> kRows{{
    {.source = S::claude,
     .format = F::claudeJSONL,
     .roots =
         [](AgentRoots& r) {
             r.addHome(".claude");
             r.addConfig("claude");
             r.addEnv("CLAUDE_CONFIG_DIR");
         },
     .reader = ClaudeParser::reader,
     .hooksManaged = true,
     .subscriptionsKnown = true},
    {.source = S::codex,
     .format = F::codexJSONL,
     .roots =
         [](AgentRoots& r) {
             r.addHome(".codex");
             r.addEnv("CODEX_HOME");
         },
     .reader = CodexParser::reader,
     .defaultModel = CodexParser::configuredModel,
     .hooksManaged = true,
     .subscriptionsKnown = true,
     .productDatabase = true},
    {.source = S::cursor,
     .format = F::sqlite,
     .roots =
         [](AgentRoots& r) {
             r.addHome(".cursor");
             r.addApp("Cursor/User/globalStorage");
         },
     .reader = CursorReader::reader,
     .hooksManaged = true},
    {.source = S::gemini,
     .format = F::geminiSession,
     .roots =
         [](AgentRoots& r) {
             r.addHome(".gemini");
             r.addEnvHome("GEMINI_CLI_HOME", ".gemini");
         },
     .reader = GeminiReader::reader},
    {.source = S::antigravity,
     .format = F::antigravityTranscript,
     .roots =
         [](AgentRoots& r) {
             r.addHome(".gemini/antigravity");
             r.addHome(".gemini/antigravity-ide");
             r.addHome(".gemini/antigravity-cli");
         },
     .reader = AntigravityReader::reader,
     .precision = P::estimateOnly},
    {.source = S::kiro,
     .format = F::sqlite,
     .roots =
         [](AgentRoots& r) {
             r.addHome(".kiro");
             r.addHome("kiro-cli");
             r.addApp("Kiro/User/globalStorage/kiro.kiroagent");
             // The CLI's database: application support on macOS, XDG data on Linux, where the
             // CLI's former name may still hold it.
             r.addAppSupport("kiro-cli");
             r.addData("kiro-cli");
             r.addData("amazon-q");
         },
     .reader = KiroReader::reader},
    {.source = S::opencode,
     .format = F::openCode,
     .roots =
         [](AgentRoots& r) {
             r.addData("opencode");
             r.addConfig("opencode");
             r.addEnv("OPENCODE_DB");
         },
     .reader = OpencodeReader::reader,
     .hooksManaged = true,
     .subscriptionsKnown = true},
    {.source = S::openclaw,
     .format = F::openClaw,
     .roots = [](AgentRoots& r) { r.addHome(".openclaw"); },
     .reader = OpenClawReader::reader},
    {.source = S::everyCode,
     .format = F::codexJSONL,
     .roots =
         [](AgentRoots& r) {
             r.addHome(".code");
             r.addEnv("CODE_HOME");
         },
     // The fork writes Codex's rollouts. Its config.toml is not read: rollouts name their
     // model in turn_context.
     .reader = CodexParser::reader},
    {.source = S::hermes,
     .format = F::sqlite,
     .roots =
         [](AgentRoots& r) {
             r.addHome(".hermes");
             r.addEnv("HERMES_HOME");
         },
     .reader = HermesReader::reader,
     .precision = P::derivedExact},
    {.source = S::copilot,
     .format = F::copilot,
     .roots =
         [](AgentRoots& r) {
             r.addHome(".copilot");
             r.addEnv("COPILOT_HOME");
         },
     .reader = CopilotReader::reader},
    {.source = S::kimi,
     .format = F::genericJSONL,
     .roots =
         [](AgentRoots& r) {
             r.addHome(".kimi");
             r.addHome(".kimi-code");
             r.addEnv("KIMI_SHARE_DIR");
             r.addEnv("KIMI_CODE_HOME");
         },
     .reader = KimiReader::reader,
     .defaultModel = KimiReader::configuredModel,
     .hooksManaged = true,
     .subscriptionsKnown = true},
    {.source = S::codebuddy,
     .format = F::genericJSONL,
     .roots = [](AgentRoots& r) { r.addHome(".codebuddy"); },
     .reader = BuddyReader::reader},
    {.source = S::workbuddy,
     .format = F::genericJSONL,
     .roots =
         [](AgentRoots& r) {
             r.addHome(".workbuddy");
             r.addHome(".workbuddy-ai");
         },
     .reader = BuddyReader::reader},
    {.source = S::grok,
     .format = F::genericJSONL,
     .roots =
         [](AgentRoots& r) {
             r.addHome(".grok");
             r.addEnv("GROK_HOME");
         },
     .reader = GrokReader::reader,
     .hooksManaged = true,
     .subscriptionsKnown = true},
    {.source = S::omp,
     .format = F::piJSONL,
     .roots =
         [](AgentRoots& r) {
             // Whole folder: profiles keep their own sessions beside agent/.
             r.addHome(".omp");
             r.addEnv("OMP_CODING_AGENT_DIR");
         },
     .reader = OmpReader::reader,
     .hooksManaged = true},
    {.source = S::pi,
     .format = F::piJSONL,
     .roots =
         [](AgentRoots& r) {
             r.addHome(".pi/agent");
             r.addEnv("PI_CODING_AGENT_DIR");
         },
     .reader = PiReader::reader,
     .hooksManaged = true,
     .subscriptionsKnown = true},
    {.source = S::dots,
     .format = F::genericJSONL,
     .roots = [](AgentRoots& r) { r.addHome(".dots"); },
     .precision = P::unsupported,
     .fileActivity = false},
    {.source = S::primeAgent,
     .format = F::piJSONL,
     .roots =
         [](AgentRoots& r) {
             r.addHome(".prime");
             r.addEnv("PRIME_AGENT_CODING_AGENT_DIR");
         },
     .reader = PrimeAgentReader::reader},
    {.source = S::craft, .format = F::piJSONL, .roots = craftRoots, .reader = CraftReader::reader},
    {.source = S::reasonix,
     .format = F::genericJSONL,
     .roots =
         [](AgentRoots& r) {
             r.addHome(".reasonix");
             r.addConfig("reasonix");
         },
     .reader = ReasonixReader::reader},
    {.source = S::kiloCLI,
     .format = F::openCode,
     .roots =
         [](AgentRoots& r) {
             r.addData("kilo");
             r.addEnv("KILO_DB");
         },
     .reader = KiloCLIReader::reader},
    {.source = S::kiloCode,
     .format = F::editorTasks,
     .roots = [](AgentRoots& r) { r.addEditorExtension("kilocode.kilo-code"); },
     .reader = EditorTasksReader::reader},
    {.source = S::rooCode,
     .format = F::editorTasks,
     .roots = [](AgentRoots& r) { r.addEditorExtension("rooveterinaryinc.roo-cline"); },
     .reader = EditorTasksReader::reader},
    {.source = S::zed,
     .format = F::sqlite,
     .roots =
         [](AgentRoots& r) {
             r.addAppSupport("Zed/threads");
             r.addData("zed/threads");
         },
     .reader = ZedReader::reader,
     .precision = P::derivedExact},
    {.source = S::goose,
     .format = F::sqlite,
     .roots =
         [](AgentRoots& r) {
             r.addData("goose");
             r.addData("Block/goose");
             r.addEnv("GOOSE_PATH_ROOT");
         },
     .reader = GooseReader::reader,
     .precision = P::derivedExact},
    {.source = S::droid,
     .format = F::cumulativeJSON,
     .roots = [](AgentRoots& r) { r.addHome(".factory"); },
     .reader = DroidReader::reader},
    {.source = S::mimo,
     .format = F::openCode,
     .roots = [](AgentRoots& r) { r.addData("mimocode"); },
     .reader = MimoReader::reader},
    {.source = S::zcode,
     .format = F::sqlite,
     .roots = [](AgentRoots& r) { r.addHome(".zcode"); },
     .reader = ZCodeReader::reader,
     .subscriptionsKnown = true},
    {.source = S::qoder,
     .format = F::sqlite,
     .roots = [](AgentRoots& r) { r.addApp("Qoder/SharedClientCache/cache/db"); },
     .reader = ChatMessageReader::reader},
    {.source = S::qoderCN,
     .format = F::sqlite,
     .roots = [](AgentRoots& r) { r.addApp("QoderCN/SharedClientCache/cache/db"); },
     .reader = ChatMessageReader::reader},
    {.source = S::anythingLLM,
     .format = F::sqlite,
     .roots = [](AgentRoots& r) { r.addApp("anythingllm-desktop/storage"); },
     .reader = AnythingLLMReader::reader},
    {.source = S::claudeScience,
     .format = F::genericJSONL,
     .roots = [](AgentRoots& r) { r.addHome(".claude-science"); }},
    {.source = S::deepseekHarness,
     .format = F::deepseekHarness,
     .roots =
         [](AgentRoots& r) {
             r.addHome(".dsh");
             r.addEnv("DSH_HOME");
         },
     .reader = DshReader::reader},
    {.source = S::traeWorkCN,
     .format = F::sqlite,
     .roots = [](AgentRoots& r) { r.addApp("TRAE SOLO CN"); },
     .reader = ChatMessageReader::reader},
    // Accounts read over the network: nothing on disk.
    {.source = S::openrouter, .format = F::accountAPI},
    {.source = S::deepseek, .format = F::accountAPI},
}};

// Rows are looked up by the case's position, and every case has one.
static_assert(kRows.size() == allCases<AgentSource>().size());
static_assert([] {
    for (std::size_t i = 0; i < kRows.size(); ++i) {
        if (static_cast<std::size_t>(kRows[i].source) != i) {
            return false;
        }
    }
    return true;
}());

}  // namespace

std::span<const AgentTableRow> rows() {
    return kRows;
}

const AgentTableRow& row(AgentSource source) {
    return kRows[static_cast<std::size_t>(source)];
}

}  // namespace kestrel::AgentTable
