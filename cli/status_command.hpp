#pragma once
// `kestrel status`: where each agent stands — its list group, the health of its integration
// instance, the folders found, what is switched on and how its last scan went. The helpers below
// are shared with `kestrel integrations`.

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <set>
#include <string>
#include <vector>

#include "cli/command_context.hpp"
#include "core/integrations/integration_plugin.hpp"
#include "core/model/integration_instance.hpp"

namespace kestrel::cli {

// Short names for narrow columns ("detect,activity,import"), in declaration order; "-" when empty.
std::string capabilityLabels(const std::set<IntegrationCapability>& capabilities);

// The agent, the instance's fields under their record names and whether it is enabled. Times are
// seconds since the epoch.
nlohmann::ordered_json instanceJSON(const IntegrationInstance& instance,
                                    const IntegrationPluginDescriptor& descriptor);

// One row per plug-in: enabled agents first, then detected, then those not installed, each group
// in plug-in order; a closing line counts the agents detected and enabled. `--json` prints an
// array with every field of each row.
int runStatus(CommandContext& ctx, bool json);

}  // namespace kestrel::cli
