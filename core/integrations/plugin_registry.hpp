#pragma once
// The built-in integration plug-ins, one per agent that produces usage, and the rule that decides
// whether an instance may run a capability now.

#include <filesystem>
#include <map>
#include <optional>
#include <unordered_map>
#include <vector>

#include "core/model/integration_instance.hpp"
#include "core/integrations/integration_plugin.hpp"
#include "core/model/usage_enums.hpp"
#include "core/sources/agent_catalog.hpp"

namespace kestrel {

class PluginRegistry {
  public:
    explicit PluginRegistry(std::vector<IntegrationPlugin> plugins);

    // The shared registry of built-in plug-ins, built on first use.
    static const PluginRegistry& builtIn();

    // "com.nordwick.kestrel.agent.<raw value>"; absent for the account-only sources.
    static std::optional<IntegrationPluginID> stableID(AgentSource source);

    // The descriptor derived for `source`; absent for the account-only sources.
    static std::optional<IntegrationPluginDescriptor> builtInDescriptor(AgentSource source);

    // The candidate roots of the source's catalogue entry that exist.
    static std::vector<std::filesystem::path> installedRoots(
        AgentSource source, const std::filesystem::path& home,
        const EnvironmentLookup& env = emptyEnvironment());

    const std::vector<IntegrationPlugin>& plugins() const { return plugins_; }
    // Look-ups; the pointer stays valid as long as this registry.
    const IntegrationPlugin* plugin(AgentSource source) const;
    const IntegrationPlugin* plugin(const IntegrationPluginID& id) const;

    // One installation per plug-in, in plug-in order.
    std::vector<IntegrationInstallation> detectInstallations(
        const std::filesystem::path& home, double now,
        const EnvironmentLookup& env = emptyEnvironment()) const;

    // True only when the instance is enabled, has the capability switched on, belongs to a known
    // plug-in that declares it, and holds every permission the capability needs.
    bool canRun(IntegrationCapability capability, const IntegrationInstance& instance) const;

  private:
    std::vector<IntegrationPlugin> plugins_;
    std::unordered_map<IntegrationPluginID, std::size_t> pluginsByID_;
    std::map<AgentSource, std::size_t> pluginsBySource_;
};

// The section of the integrations list an agent belongs in. `instance` may be null.
IntegrationListGroup classify(const IntegrationInstance* instance,
                              std::optional<SourceStatus> sourceStatus);

// Applies a one-click preset to one instance of `plugin` (which may be null for an unknown
// plug-in). Only instances whose last scan found at least one installed root are touched;
// returns whether the instance changed. Presets never switch hook management on.
bool applyBulkPreset(IntegrationBulkPreset preset, IntegrationInstance& instance,
                     const IntegrationPlugin* plugin, double now);

// The capabilities a preset switches on for a plug-in.
std::set<IntegrationCapability> presetCapabilities(IntegrationBulkPreset preset,
                                                   const IntegrationPluginDescriptor& descriptor);

}  // namespace kestrel
