#include "cli/integrations_command.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>

#include "cli/cli.hpp"
#include "cli/collector.hpp"
#include "cli/status_command.hpp"

namespace kestrel::cli {
namespace {

constexpr std::string_view kNetworkPresetNotice =
    "Enables Local read and Online lookup for every detected Agent: reads local credentials to "
    "query official quota or account usage. Hooks are never installed by this action.";

std::string knownSources() {
    std::vector<AgentSource> sources;
    for (const auto& plugin : PluginRegistry::builtIn().plugins()) {
        sources.push_back(plugin.descriptor.legacySource);
    }
    return sourceNames(sources);
}

const IntegrationInstance* instanceOf(const IntegrationsSession& session,
                                      const IntegrationPluginID& plugin) {
    auto it = std::ranges::find(session.instances, plugin, &IntegrationInstance::pluginID);
    return it == session.instances.end() ? nullptr : &*it;
}

std::optional<IntegrationBulkPreset> parsePreset(std::string_view name) {
    if (name == "recommended") {
        return IntegrationBulkPreset::recommended;
    }
    if (name == "all") {
        return IntegrationBulkPreset::allIncludingNetwork;
    }
    if (name == "disabled") {
        return IntegrationBulkPreset::disabled;
    }
    return std::nullopt;
}

// What a preset left an instance with, for one line of output.
std::string presetOutcome(const IntegrationInstance& instance) {
    if (!instance.isEnabled()) {
        return "disabled";
    }
    return "enabled (" + capabilityLabels(instance.enabledCapabilities) + ")";
}

// Plug-in order, the order of every agent list.
std::size_t pluginIndex(const PluginRegistry& registry, const IntegrationPluginID& id) {
    const auto& plugins = registry.plugins();
    auto it = std::ranges::find(plugins, id, [](const auto& p) { return p.descriptor.id; });
    return static_cast<std::size_t>(it - plugins.begin());
}

}  // namespace

int runIntegrationsSetEnabled(CommandContext& ctx, const std::string& source, bool enabled,
                              bool json) {
    const auto found = agentSourceNamed(source);
    if (!found) {
        ctx.err << "kestrel: unknown agent \"" << source << "\" (known: " << knownSources()
                << ")\n";
        return kExitUsage;
    }
    const auto* plugin = PluginRegistry::builtIn().plugin(*found);
    if (plugin == nullptr) {
        ctx.err << "kestrel: " << displayName(*found)
                << " is an account read online, not an agent on this machine; it has no "
                   "integration to switch\n";
        return kExitUsage;
    }
    auto session = openIntegrations(ctx);
    if (!session) {
        return kExitFailure;
    }
    const auto* current = instanceOf(*session, plugin->descriptor.id);
    if (current == nullptr) {
        ctx.err << "kestrel: " << plugin->descriptor.displayName
                << " has no integration instance\n";
        return kExitFailure;
    }
    const auto& name = plugin->descriptor.displayName;
    const char* state = enabled ? "enabled" : "disabled";

    IntegrationInstance instance = *current;
    const bool changed = instance.isEnabled() != enabled;
    if (changed) {
        auto result = session->coordinator->setInstanceEnabled(enabled, instance.id, session->now);
        if (!result) {
            ctx.err << "kestrel: " << name << ": integration instance " << instance.id.rawValue
                    << " is gone from the ledger\n";
            return kExitFailure;
        }
        instance = std::move(*result);
    }

    if (json) {
        auto doc = instanceJSON(instance, plugin->descriptor);
        doc["changed"] = changed;
        ctx.out << doc.dump(2) << '\n';
        return kExitOK;
    }
    ctx.out << name << ": " << (changed ? "" : "already ") << state << '\n';
    if (changed && enabled && PluginRegistry::installedRoots(*found, ctx.home, ctx.env).empty()) {
        ctx.out << "Not installed below " << ctx.home.string()
                << ": nothing to read until it is.\n";
    }
    return kExitOK;
}

int runIntegrationsPreset(CommandContext& ctx, const std::string& preset, bool json) {
    const auto chosen = parsePreset(preset);
    if (!chosen) {
        ctx.err << "kestrel: unknown preset \"" << preset
                << "\" (known: recommended, all, disabled)\n";
        return kExitUsage;
    }
    auto session = openIntegrations(ctx);
    if (!session) {
        return kExitFailure;
    }
    const auto& registry = session->coordinator->registry();
    auto changed = session->coordinator->applyBulkPreset(*chosen, session->now);
    std::ranges::sort(changed, {}, [&](const IntegrationInstance& i) {
        return pluginIndex(registry, i.pluginID);
    });
    const bool network = *chosen == IntegrationBulkPreset::allIncludingNetwork;

    if (json) {
        nlohmann::ordered_json doc;
        doc["preset"] = std::string(rawValue(*chosen));
        doc["notice"] = network ? nlohmann::ordered_json(std::string(kNetworkPresetNotice))
                                : nlohmann::ordered_json();
        auto rows = nlohmann::ordered_json::array();
        for (const auto& instance : changed) {
            if (const auto* plugin = registry.plugin(instance.pluginID)) {
                rows.push_back(instanceJSON(instance, plugin->descriptor));
            }
        }
        doc["changed"] = rows;
        ctx.out << doc.dump(2) << '\n';
        return kExitOK;
    }

    if (network) {
        ctx.out << kNetworkPresetNotice << '\n';
    }
    if (changed.empty()) {
        const bool anyScanned =
            std::ranges::any_of(session->instances, [](const IntegrationInstance& i) {
                return i.lastScanResult && i.lastScanResult->installedRootCount > 0;
            });
        ctx.out << (anyScanned ? "Nothing changed: every agent found installed already has "
                                 "these settings.\n"
                               : "Nothing changed: presets apply only to agents a scan has "
                                 "found installed.\n");
        return kExitOK;
    }
    for (const auto& instance : changed) {
        const auto* plugin = registry.plugin(instance.pluginID);
        const std::string name =
            plugin ? plugin->descriptor.displayName : instance.pluginID.rawValue;
        ctx.out << name << ": " << presetOutcome(instance) << '\n';
    }
    return kExitOK;
}

}  // namespace kestrel::cli
