#pragma once
// `kestrel integrations ...`: switching an agent's integration on or off, and the one-click
// presets over every agent a scan has found.

#include <string>

#include "cli/command_context.hpp"

namespace kestrel::cli {

// `integrations enable|disable SOURCE`: SOURCE is an agent's raw value or display name, in any
// case. Unknown names and the account-only sources are usage errors. Switching an integration to
// the state it already has changes nothing and succeeds.
int runIntegrationsSetEnabled(CommandContext& ctx, const std::string& source, bool enabled,
                              bool json);

// `integrations preset recommended|all|disabled`: applies the preset to every instance whose
// last scan found its agent installed, and lists those that changed.
int runIntegrationsPreset(CommandContext& ctx, const std::string& preset, bool json);

}  // namespace kestrel::cli
