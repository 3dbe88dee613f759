// The JSON-lines readers of the agents other than Claude Code and Codex. The first input byte
// picks the reader (and the place its files have, since some readers take facts from the path);
// the rest is the file.
#include <array>
#include <cstdint>
#include <string_view>

#include "core/sources/source_readers.hpp"
#include "tests/fuzz/fuzz_support.hpp"

using namespace kestrel;

namespace {

struct Target {
    AgentSource source;
    std::string_view file;
};

constexpr std::array kTargets{
    Target{AgentSource::gemini, ".gemini/tmp/p/chats/session-x.jsonl"},
    Target{AgentSource::antigravity, ".gemini/antigravity/brain/c/.system_generated/logs/transcript.jsonl"},
    Target{AgentSource::copilot, ".copilot/session-state/s/events.jsonl"},
    Target{AgentSource::copilot, ".copilot/otel/copilot-otel.jsonl"},
    Target{AgentSource::kimi, ".kimi/sessions/m/s/wire.jsonl"},
    Target{AgentSource::codebuddy, "projects/-home-dev-app/s1.jsonl"},
    Target{AgentSource::workbuddy, "projects/-home-dev-app/s1.jsonl"},
    Target{AgentSource::grok, ".grok/sessions/%2Ft/s/updates.jsonl"},
    Target{AgentSource::omp, ".omp/agent/sessions/-w/b_2.jsonl"},
    Target{AgentSource::pi, ".pi/agent/sessions/--w--/a_1.jsonl"},
    Target{AgentSource::primeAgent, ".prime/agent/sessions/0198.jsonl"},
    Target{AgentSource::craft, "w/sessions/s1/session.jsonl"},
    Target{AgentSource::reasonix, ".reasonix/sessions/s.jsonl"},
    Target{AgentSource::deepseekHarness, "profiles/work/sessions/s1.jsonl"},
    Target{AgentSource::openclaw, ".openclaw/agents/main/sessions/s1.jsonl"},
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const auto input = fuzz::select(data, size);
    const auto& target = kTargets[input.selector % kTargets.size()];
    const auto reader = SourceReaders::reader(target.source);
    if (!reader) {
        fuzz::fail("a listed source has no reader");
    }
    const auto file = fuzz::scratch().write(target.file, input.rest);
    fuzz::readTwice(*reader, target.source, file);
    return 0;
}
