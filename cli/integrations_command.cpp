#include "cli/integrations_command.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>

#include "cli/cli.hpp"
#include "cli/session_access.hpp"
#include "core/app/integration_status.hpp"
#include "cli/status_command.hpp"

namespace kestrel::cli {
namespace {

constexpr std::string_view kNetworkPresetNotice =
    "Enables Local read and Online lookup for every detected Agent: reads local credentials to "
    "query official quota or account usage. Hooks are never installed by this action.";

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

}  // namespace

int runIntegrationsSetEnabled(CommandContext& ctx, const std::string& source, bool enabled,
                              bool json) {
    // The name is checked before the ledger is opened, so a typo costs nothing.
    const auto plugin = integrationPluginNamed(source);
    if (!plugin) {
        const auto& e = plugin.error();
        if (e.kind == IntegrationNameError::Kind::unknown) {
            ctx.err << "kestrel: unknown agent \"" << source
                    << "\" (known: " << sourceNames(integrationSources()) << ")\n";
        } else {
            ctx.err << "kestrel: " << displayName(*e.source)
                    << " is an account read online, not an agent on this machine; it has no "
                       "integration to switch\n";
        }
        return kExitUsage;
    }
    const auto& descriptor = (*plugin)->descriptor;
    const auto& name = descriptor.displayName;
    auto session = openSession(ctx);
    if (!session) {
        return kExitFailure;
    }
    const auto result = setIntegrationEnabled(*session, **plugin, enabled);
    if (!result) {
        if (result.error().kind == IntegrationSwitchError::Kind::noInstance) {
            ctx.err << "kestrel: " << name << " has no integration instance\n";
        } else {
            ctx.err << "kestrel: " << name << ": integration instance "
                    << result.error().instanceID << " is gone from the ledger\n";
        }
        return kExitFailure;
    }
    const char* state = enabled ? "enabled" : "disabled";
    if (json) {
        auto doc = instanceJSON(result->instance, descriptor);
        doc["changed"] = result->changed;
        ctx.out << doc.dump(2) << '\n';
        return kExitOK;
    }
    ctx.out << name << ": " << (result->changed ? "" : "already ") << state << '\n';
    if (result->changed && enabled && !result->installed) {
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
    auto session = openSession(ctx);
    if (!session) {
        return kExitFailure;
    }
    const auto& registry = session->integrations().registry();
    const auto outcome = applyIntegrationPreset(*session, *chosen);
    const auto& changed = outcome.changed;
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
        ctx.out << (outcome.anyScanned ? "Nothing changed: every agent found installed already has "
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
