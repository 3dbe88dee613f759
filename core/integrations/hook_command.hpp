#pragma once
// The shell command every command-style hook runs, and the events each agent gets it for.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/integrations/hook_agent.hpp"

namespace kestrel {

// Where the command points: all below our support folder.
struct HookPaths {
    std::filesystem::path script;   // hooks/ks-hook.sh
    std::filesystem::path salt;     // hooks/session-salt
    std::filesystem::path gate;     // hooks/enabled/<agent id>
    std::filesystem::path liveDir;  // live/
    bool operator==(const HookPaths&) const = default;
};

// One event an agent's configuration hooks.
struct HookEventRow {
    std::string_view event;                   // the agent's own event name
    std::string_view state;                   // processing | idle | awaiting
    std::optional<std::string_view> extra;    // "notice=completed", "hint=prompt"
    std::optional<std::string_view> matcher;  // for Notification events
    bool operator==(const HookEventRow&) const = default;
};

// `text` in single quotes, each single quote inside written as '"'"'.
std::string shellQuote(std::string_view text);

// The whole command line for one event of `agent`.
std::string hookCommandLine(HookAgent agent, const HookPaths& paths, const HookEventRow& row,
                            bool includesProjectNames);

// The events written for a command-style agent, in the order they are written; empty for the
// plug-in agents.
std::vector<HookEventRow> hookEventRows(HookAgent agent);

// The marker every command of ours carries (the script's name), and Cursor's extra one: its
// entries are flat, so the agent word tells ours apart from a hook of another tool that happens
// to use a script of the same name.
constexpr std::string_view kHookCommandMarker = "ks-hook.";
bool isOurCommand(HookAgent agent, std::string_view command);

}  // namespace kestrel
