#include "core/integrations/hook_agent.hpp"

namespace kestrel {

bool isCommandHookAgent(HookAgent agent) {
    switch (agent) {
        case HookAgent::claude:
        case HookAgent::codex:
        case HookAgent::grok:
        case HookAgent::kimi:
        case HookAgent::cursor:
            return true;
        case HookAgent::opencode:
        case HookAgent::pi:
        case HookAgent::omp:
            return false;
    }
    return false;
}

AgentSource agentSource(HookAgent agent) {
    // Every hook agent is an AgentSource case of the same name.
    return *fromRawValue<AgentSource>(rawValue(agent));
}

std::optional<HookAgent> hookAgent(AgentSource source) {
    return fromRawValue<HookAgent>(rawValue(source));
}

}  // namespace kestrel
