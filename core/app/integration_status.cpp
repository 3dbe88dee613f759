#include "core/app/integration_status.hpp"

#include <algorithm>

#include "core/model/timestamp.hpp"

namespace kestrel {
namespace {

// Every plug-in has an instance after reconciling, switched on by default; an instance counts
// towards the list only once its agent is installed, so that agents absent from this machine do
// not crowd the enabled section.
IntegrationListGroup groupOf(const IntegrationInstance& instance, bool installed) {
    return installed ? classify(&instance, SourceStatus::authorizedEmpty)
                     : classify(nullptr, SourceStatus::notInstalled);
}

// Plug-in order, the order of every agent list.
std::size_t pluginIndex(const PluginRegistry& registry, const IntegrationPluginID& id) {
    const auto& plugins = registry.plugins();
    auto it = std::ranges::find(plugins, id, [](const auto& p) { return p.descriptor.id; });
    return static_cast<std::size_t>(it - plugins.begin());
}

}  // namespace

IntegrationStatus integrationStatus(AppSession& session) {
    IntegrationStatus out;
    const auto& paths = session.paths();
    auto& coordinator = session.integrations();
    out.checkedAt = epochNow();
    const auto instances = coordinator.reconcileInstallations(paths.home, out.checkedAt, paths.env);
    const auto installations =
        coordinator.registry().detectInstallations(paths.home, out.checkedAt, paths.env);
    const auto quotas = session.store().quotas();
    for (const auto& plugin : coordinator.registry().plugins()) {
        const IntegrationInstance* instance = nullptr;
        for (const auto& candidate : instances) {
            if (candidate.pluginID == plugin.descriptor.id) {
                instance = &candidate;
            }
        }
        const auto installation = std::ranges::find(installations, plugin.descriptor.id,
                                                    &IntegrationInstallation::pluginID);
        if (instance == nullptr || installation == installations.end()) {
            continue;  // reconciling returns one instance per plug-in; nothing to show otherwise
        }
        IntegrationStatusRow row;
        row.plugin = &plugin;
        row.instance = *instance;
        row.installation = *installation;
        row.group = groupOf(row.instance, !row.installation.installedRoots.empty());
        const auto quota = std::ranges::find(quotas, plugin.descriptor.legacySource,
                                             [](const AccountSnapshot& q) { return q.identity.source; });
        if (quota != quotas.end()) {
            row.quota = *quota;
        }
        out.rows.push_back(std::move(row));
    }
    // Groups in their declaration order, plug-in order kept within each.
    std::ranges::stable_sort(out.rows, {},
                             [](const IntegrationStatusRow& r) { return static_cast<int>(r.group); });
    return out;
}

std::expected<const IntegrationPlugin*, IntegrationNameError> integrationPluginNamed(
    std::string_view name) {
    const auto found = agentSourceNamed(name);
    if (!found) {
        return std::unexpected(
            IntegrationNameError{IntegrationNameError::Kind::unknown, std::string(name), {}});
    }
    const auto* plugin = PluginRegistry::builtIn().plugin(*found);
    if (plugin == nullptr) {
        return std::unexpected(
            IntegrationNameError{IntegrationNameError::Kind::accountOnly, std::string(name), *found});
    }
    return plugin;
}

std::vector<AgentSource> integrationSources() {
    std::vector<AgentSource> out;
    for (const auto& plugin : PluginRegistry::builtIn().plugins()) {
        out.push_back(plugin.descriptor.legacySource);
    }
    return out;
}

std::optional<IntegrationInstance> reconciledInstance(AppSession& session,
                                                      const IntegrationPlugin& plugin, double now) {
    const auto& paths = session.paths();
    const auto instances =
        session.integrations().reconcileInstallations(paths.home, now, paths.env);
    const auto found =
        std::ranges::find(instances, plugin.descriptor.id, &IntegrationInstance::pluginID);
    return found == instances.end() ? std::nullopt : std::optional(*found);
}

std::expected<IntegrationSwitch, IntegrationSwitchError> setIntegrationEnabled(
    AppSession& session, const IntegrationPlugin& plugin, bool enabled) {
    const auto& paths = session.paths();
    auto& coordinator = session.integrations();
    const double now = epochNow();
    const auto current = reconciledInstance(session, plugin, now);
    if (!current) {
        return std::unexpected(IntegrationSwitchError{IntegrationSwitchError::Kind::noInstance, {}});
    }
    IntegrationSwitch out;
    out.instance = *current;
    out.changed = current->isEnabled() != enabled;
    if (out.changed) {
        auto result = coordinator.setInstanceEnabled(enabled, current->id, now);
        if (!result) {
            return std::unexpected(IntegrationSwitchError{
                IntegrationSwitchError::Kind::instanceGone, current->id.rawValue});
        }
        out.instance = std::move(*result);
    }
    out.installed =
        !PluginRegistry::installedRoots(plugin.descriptor.legacySource, paths.home, paths.env)
             .empty();
    return out;
}

PresetOutcome applyIntegrationPreset(AppSession& session, IntegrationBulkPreset preset) {
    const auto& paths = session.paths();
    auto& coordinator = session.integrations();
    const double now = epochNow();
    const auto instances = coordinator.reconcileInstallations(paths.home, now, paths.env);
    PresetOutcome out;
    out.changed = coordinator.applyBulkPreset(preset, now);
    const auto& registry = coordinator.registry();
    std::ranges::sort(out.changed, {}, [&](const IntegrationInstance& i) {
        return pluginIndex(registry, i.pluginID);
    });
    out.anyScanned = std::ranges::any_of(instances, [](const IntegrationInstance& i) {
        return i.lastScanResult && i.lastScanResult->installedRootCount > 0;
    });
    return out;
}

}  // namespace kestrel
