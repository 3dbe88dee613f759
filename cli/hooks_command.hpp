#pragma once
// `kestrel hooks ...`: installing, removing and checking the live hooks in the agents' own
// configuration files. Each change names the file it wrote and where the original was saved.

#include <string>
#include <vector>

#include "cli/command_context.hpp"

namespace kestrel::cli {

struct HooksOptions {
    std::vector<std::string> agents;  // hook agent ids (claude, codex, ...)
    bool all = false;
    std::string language;  // en, zh-Hans or empty (the settings' language)
};

// `hooks status`: per agent, whether its CLI is found, the hook installed, the gate open, the
// health and trust, and the newest pulse.
int runHooksStatus(CommandContext& ctx, const HooksOptions& options, bool json);
// `hooks install AGENT...|--all`; --all skips agents whose CLI is not found.
int runHooksInstall(CommandContext& ctx, const HooksOptions& options, bool json);
// `hooks uninstall AGENT...|--all`.
int runHooksUninstall(CommandContext& ctx, const HooksOptions& options, bool json);
// `hooks repair`: re-writes installed hooks that differ from the current form.
int runHooksRepair(CommandContext& ctx, const HooksOptions& options, bool json);

}  // namespace kestrel::cli
