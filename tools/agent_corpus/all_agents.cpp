#include "tools/agent_corpus/all_agents.hpp"

#include "tools/agent_corpus/cumulative_corpus.hpp"
#include "tools/agent_corpus/misc_corpus.hpp"
#include "tools/agent_corpus/opencode_corpus.hpp"
#include "tools/agent_corpus/pi_corpus.hpp"
#include "tools/agent_corpus/store_corpus.hpp"
#include "tools/agent_corpus/transcript_corpus.hpp"

namespace kestrel::corpus {

namespace fs = std::filesystem;

std::vector<AgentCorpus> otherAgents() {
    namespace oc = opencode;
    namespace st = stores;
    namespace tr = transcripts;
    constexpr uint64_t seed = 7;
    return {
        {AgentSource::gemini,
         [](const fs::path& h, int n) {
             tr::writeGeminiHome(h, n, 40, seed);
             return tr::geminiExpectedEvents(n, 40);
         }},
        {AgentSource::antigravity,
         [](const fs::path& h, int n) {
             tr::writeAntigravityHome(h, n, 40, seed);
             return tr::antigravityExpectedEvents(n, 40);
         }},
        {AgentSource::kimi,
         [](const fs::path& h, int n) {
             tr::writeKimiHome(h, n, 40, seed);
             return tr::kimiExpectedEvents(n, 40);
         }},
        {AgentSource::grok,
         [](const fs::path& h, int n) {
             tr::writeGrokHome(h, n, 40, seed);
             return tr::grokExpectedEvents(n, 40);
         }},
        {AgentSource::copilot,
         [](const fs::path& h, int n) {
             tr::writeCopilotHome(h, n, 3, seed);
             return tr::copilotExpectedEvents(n, 3);
         }},
        {AgentSource::pi,
         [](const fs::path& h, int n) {
             pi::writePiHome(h, n, 40, seed);
             return pi::piHomeEvents(n, 40);
         }},
        {AgentSource::omp,
         [](const fs::path& h, int n) {
             pi::writeOmpHome(h, n, 40, seed);
             return pi::ompHomeEvents(n, 40);
         }},
        {AgentSource::primeAgent,
         [](const fs::path& h, int n) {
             pi::writePrimeAgentHome(h, n, 40, seed);
             return pi::primeAgentHomeEvents(n, 40);
         }},
        {AgentSource::openclaw,
         [](const fs::path& h, int n) {
             pi::writeOpenClawHome(h, n, 40, seed);
             return pi::openClawHomeEvents(n, 40);
         }},
        {AgentSource::craft,
         [](const fs::path& h, int n) {
             pi::writeCraftHome(h, n, 40, seed);
             return pi::craftHomeEvents(n, 40);
         }},
        {AgentSource::codebuddy,
         [](const fs::path& h, int n) {
             writeBuddyHome(h, ".codebuddy", n, 40, seed);
             return buddyEventCount(n, 40);
         }},
        {AgentSource::workbuddy,
         [](const fs::path& h, int n) {
             writeBuddyHome(h, ".workbuddy", n, 40, seed);
             return buddyEventCount(n, 40);
         }},
        {AgentSource::everyCode,
         [](const fs::path& h, int n) {
             writeEveryCodeHome(h, n, 40, seed);
             return everyCodeEventCount(n, 40);
         }},
        {AgentSource::reasonix,
         [](const fs::path& h, int n) {
             writeReasonixHome(h, n, 40, seed);
             return reasonixEventCount(n, 40);
         }},
        {AgentSource::deepseekHarness,
         [](const fs::path& h, int n) {
             writeDshHome(h, 2, n, 40, seed);
             return dshEventCount(2, n, 40);
         }},
        {AgentSource::kiloCode,
         [](const fs::path& h, int n) {
             writeEditorTasksHome(h, "kilocode.kilo-code", n, 40, seed);
             return editorTasksEventCount(n, 40);
         }},
        {AgentSource::rooCode,
         [](const fs::path& h, int n) {
             writeEditorTasksHome(h, "rooveterinaryinc.roo-cline", n, 40, seed);
             return editorTasksEventCount(n, 40);
         }},
        {AgentSource::opencode,
         [](const fs::path& h, int n) {
             oc::writeOpencodeHome(h, n, 40, seed);
             return oc::opencodeHomeEvents(n, 40);
         }},
        {AgentSource::kiloCLI,
         [](const fs::path& h, int n) {
             oc::writeKiloHome(h, n, 40, seed);
             return oc::kiloHomeEvents(n, 40);
         }},
        {AgentSource::mimo,
         [](const fs::path& h, int n) {
             oc::writeMimoHome(h, n, 40, seed);
             return oc::mimoHomeEvents(n, 40);
         }},
        {AgentSource::kiro,
         [](const fs::path& h, int n) {
             st::writeKiroHome(h, n, 40, seed);
             return st::kiroExpectedEvents(n, 40);
         }},
        {AgentSource::cursor,
         [](const fs::path& h, int n) {
             st::writeCursorHome(h, n, 40, seed);
             return st::cursorExpectedEvents(n, 40);
         }},
        {AgentSource::qoder,
         [](const fs::path& h, int n) {
             st::writeChatHome(AgentSource::qoder, h, n, 40, seed);
             return st::chatExpectedEvents(n, 40);
         }},
        {AgentSource::qoderCN,
         [](const fs::path& h, int n) {
             st::writeChatHome(AgentSource::qoderCN, h, n, 40, seed);
             return st::chatExpectedEvents(n, 40);
         }},
        {AgentSource::traeWorkCN,
         [](const fs::path& h, int n) {
             st::writeChatHome(AgentSource::traeWorkCN, h, n, 40, seed);
             return st::chatExpectedEvents(n, 40);
         }},
        {AgentSource::anythingLLM,
         [](const fs::path& h, int n) {
             st::writeAnythingLLMHome(h, 2, n * 20, seed);
             return st::anythingLLMExpectedEvents(2, n * 20);
         }},
        {AgentSource::zcode,
         [](const fs::path& h, int n) {
             st::writeZCodeHome(h, n, 40, seed);
             return st::zcodeExpectedEvents(n, 40);
         }},
        {AgentSource::goose, [](const fs::path& h, int n) { return writeGooseHome(h, n, seed); }},
        {AgentSource::hermes, [](const fs::path& h, int n) { return writeHermesHome(h, n, seed); }},
        {AgentSource::zed, [](const fs::path& h, int n) { return writeZedHome(h, n, 40, seed); }},
        {AgentSource::droid,
         [](const fs::path& h, int n) { return writeDroidHome(h, n, 40, seed); }},
    };
}

}  // namespace kestrel::corpus
