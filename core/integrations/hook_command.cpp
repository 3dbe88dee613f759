#include "core/integrations/hook_command.hpp"

namespace kestrel {

std::string shellQuote(std::string_view text) {
    std::string out = "'";
    for (char c : text) {
        if (c == '\'') {
            out += "'\"'\"'";
        } else {
            out += c;
        }
    }
    out += '\'';
    return out;
}

std::string hookCommandLine(HookAgent agent, const HookPaths& paths, const HookEventRow& row,
                            bool includesProjectNames) {
    std::string line = "KS_LIVE_DIR=" + shellQuote(paths.liveDir.string());
    line += " KS_SESSION_SALT_FILE=" + shellQuote(paths.salt.string());
    line += " KS_HOOK_GATE=" + shellQuote(paths.gate.string());
    if (includesProjectNames) {
        line += " KS_CAPTURE_PROJECT='1'";
    }
    line += ' ';
    line += shellQuote(paths.script.string());
    line += ' ';
    line += rawValue(agent);
    line += ' ';
    line += row.state;
    // Claude and Grok put the session id in every payload; the others may not, and their
    // process id is then what tells concurrent sessions apart.
    if (agent != HookAgent::claude && agent != HookAgent::grok) {
        line += " \"$PPID\"";
    }
    if (row.extra) {
        line += ' ';
        line += *row.extra;
    }
    line += " 2>/dev/null || :";
    return line;
}

std::vector<HookEventRow> hookEventRows(HookAgent agent) {
    using namespace std::string_view_literals;
    if (agent == HookAgent::cursor) {
        return {
            {"sessionStart", "idle", std::nullopt, std::nullopt},
            {"beforeSubmitPrompt", "processing", "hint=prompt"sv, std::nullopt},
            {"preToolUse", "processing", std::nullopt, std::nullopt},
            {"postToolUse", "processing", std::nullopt, std::nullopt},
            {"stop", "idle", "notice=completed"sv, std::nullopt},
            {"sessionEnd", "idle", "notice=completed"sv, std::nullopt},
        };
    }
    if (!isCommandHookAgent(agent)) {
        return {};
    }
    std::vector<HookEventRow> rows = {
        {"SessionStart", "idle", std::nullopt, std::nullopt},
        {"UserPromptSubmit", "processing", "hint=prompt"sv, std::nullopt},
        {"PreToolUse", "processing", std::nullopt, std::nullopt},
        {"PostToolUse", "processing", std::nullopt, std::nullopt},
        {"Stop", "idle", "notice=completed"sv, std::nullopt},
        {"SessionEnd", "idle", "notice=completed"sv, std::nullopt},
        {"PermissionRequest", "awaiting", "notice=permission"sv, std::nullopt},
        {"StopFailure", "idle", "notice=failed"sv, std::nullopt},
    };
    // Kimi's Notification events are about its own sinks, not approval prompts.
    if (agent != HookAgent::kimi) {
        rows.push_back({"Notification", "awaiting", "notice=permission"sv, "permission_prompt"sv});
        rows.push_back({"Notification", "awaiting", "notice=question"sv, "elicitation_dialog"sv});
    }
    if (agent == HookAgent::grok) {
        rows.push_back({"Notification", "idle", std::nullopt, "idle_prompt"sv});
    }
    return rows;
}

bool isOurCommand(HookAgent agent, std::string_view command) {
    if (command.find(kHookCommandMarker) == std::string_view::npos) {
        return false;
    }
    return agent != HookAgent::cursor || command.find(" cursor ") != std::string_view::npos;
}

}  // namespace kestrel
