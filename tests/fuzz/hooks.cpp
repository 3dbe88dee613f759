// The hook pulse files and the agents' hook configurations (JSON and TOML). The first input byte
// picks the parser and, for the configurations, the agent. A configuration that holds none of
// our entries must come back byte for byte (TOML) or value for value (JSON) after an install and
// an uninstall, and an install must leave a TOML file that still parses.
#include <algorithm>
#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "core/integrations/hook_installer.hpp"
#include "core/integrations/hook_json_config.hpp"
#include "core/integrations/hook_toml_config.hpp"
#include "core/integrations/live_agent_hub.hpp"
#include "tests/fuzz/fuzz_support.hpp"

using namespace kestrel;

namespace {

const HookPaths& paths() {
    static const HookPaths p{"/home/u/.kestrel/hooks/ks-hook.sh", "/home/u/.kestrel/hooks/session-salt",
                             "/home/u/.kestrel/hooks/enabled/x", "/home/u/.kestrel/live"};
    return p;
}

void pulse(std::string_view text) {
    (void)LiveAgentHub::parse(text);
}

void jsonConfig(HookAgent agent, std::string_view text) {
    const auto root = nlohmann::ordered_json::parse(text, nullptr, false);
    if (root.is_discarded()) {
        return;
    }
    auto edited = root;
    const bool hadOurs = !ourJsonHooks(root, agent).empty();
    const auto added = addOurJsonHooks(edited, agent, hookEventRows(agent), paths(), false);
    if (!added) {
        return;
    }
    // In any order: entries of ours join event lists the file already had where those stand.
    auto have = ourJsonHooks(edited, agent);
    auto want = expectedHooks(agent, paths(), false);
    std::ranges::sort(have);
    std::ranges::sort(want);
    if (have != want) {
        fuzz::fail("an install does not leave exactly the expected hooks");
    }
    (void)removeOurJsonHooks(edited, agent);
    if (!ourJsonHooks(edited, agent).empty()) {
        fuzz::fail("an uninstall leaves hooks of ours");
    }
    if (!hadOurs && edited != root) {
        fuzz::fail("install then uninstall changed a configuration");
    }
}

void kimiConfig(const std::string& text) {
    (void)kimiHookCommands(text);
    (void)removeKimiHookTables(text);
    if (tomlParseError(text) || !kimiHookCommands(text).empty()) {
        return;
    }
    const auto rows = hookEventRows(HookAgent::kimi);
    const auto installed = appendKimiHookTables(text, rows, paths(), false);
    if (tomlParseError(installed)) {
        fuzz::fail("an install leaves a Kimi config that does not parse");
    }
    if (kimiHookCommands(installed).size() != rows.size()) {
        fuzz::fail("an install does not leave one Kimi hook per event");
    }
    if (removeKimiHookTables(installed) != text) {
        fuzz::fail("install then uninstall changed a Kimi config");
    }
}

void codexConfig(const std::string& text) {
    if (tomlParseError(text)) {
        return;
    }
    const auto enabled = enableCodexHooksFeature(text);
    if (tomlParseError(enabled.text)) {
        fuzz::fail("switching the hooks feature on leaves a Codex config that does not parse");
    }
    if (revertCodexHooksFeature(enabled.text, enabled.edit) != text) {
        fuzz::fail("switching the hooks feature on and back changed a Codex config");
    }
}

constexpr std::array kJsonAgents{HookAgent::claude, HookAgent::codex, HookAgent::grok,
                                 HookAgent::cursor};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const auto input = fuzz::select(data, size);
    switch (input.selector % 4) {
    case 0:
        pulse(input.rest);
        break;
    case 1:
        jsonConfig(kJsonAgents[(input.selector / 4) % kJsonAgents.size()], input.rest);
        break;
    case 2:
        kimiConfig(std::string(input.rest));
        break;
    default:
        codexConfig(std::string(input.rest));
        break;
    }
    return 0;
}
