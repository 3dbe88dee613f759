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
#include "core/integrations/integration_instance_coordinator.hpp"
#include "core/ledger/usage_store.hpp"

namespace kestrel::cli {

// The ledger and its integration instances, reconciled with what is installed below home.
struct IntegrationsSession {
    std::unique_ptr<UsageStore> store;
    std::unique_ptr<IntegrationInstanceCoordinator> coordinator;  // refers to *store
    std::vector<IntegrationInstance> instances;  // one per plug-in, in plug-in order
    double now = 0;                              // the time the instances were reconciled at
};

// Opens the ledger and reconciles the instances; null after printing why the ledger could not be
// opened.
std::unique_ptr<IntegrationsSession> openIntegrations(CommandContext& ctx);

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
