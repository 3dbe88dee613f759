#include "core/integrations/integration_instance_coordinator.hpp"

#include <algorithm>
#include <string>

#include "core/integrations/source_health.hpp"

namespace kestrel {

namespace {

using Code = IntegrationInstanceCoordinatorErrorCode;
using H = IntegrationHealthState;

std::unexpected<IntegrationInstanceCoordinatorError> notFound(const IntegrationInstanceID& id) {
    return std::unexpected(IntegrationInstanceCoordinatorError{Code::instanceNotFound, id, {}, {}});
}

}  // namespace

IntegrationInstanceCoordinator::IntegrationInstanceCoordinator(
    PluginRegistry registry, IntegrationInstanceRepository& repository)
    : registry_(std::move(registry)), repository_(repository) {}

IntegrationInstance IntegrationInstanceCoordinator::makeInstance(const IntegrationPlugin& plugin,
                                                                 bool installed, double now) {
    // A new instance runs what needs neither the network nor credentials, and no hooks: the
    // user turns those on explicitly.
    const auto& d = plugin.descriptor;
    IntegrationInstance instance;
    instance.id = newIntegrationInstanceID();
    instance.pluginID = d.id;
    instance.enabledCapabilities = presetCapabilities(IntegrationBulkPreset::recommended, d);
    for (auto c : instance.enabledCapabilities) {
        auto needs = d.requiredPermissions(c);
        instance.grantedPermissions.insert(needs.begin(), needs.end());
    }
    instance.health = {installed ? H::detected : H::notInstalled, std::nullopt, now, std::nullopt};
    return instance;
}

std::vector<IntegrationInstance> IntegrationInstanceCoordinator::reconcileInstallations(
    const std::filesystem::path& home, double now, const EnvironmentLookup& env) {
    const auto installations = registry_.detectInstallations(home, now, env);
    std::vector<IntegrationInstance> stored;  // loaded only when some plug-in has no active one
    bool storedLoaded = false;
    std::vector<IntegrationInstance> out;
    out.reserve(installations.size());
    for (const auto& installation : installations) {
        const bool installed = !installation.installedRoots.empty();
        if (auto active = repository_.activeInstance(installation.pluginID)) {
            auto instance = *active;
            if (instance.isEnabled()) {
                if (installed && instance.health.state == H::notInstalled) {
                    instance.health = {H::detected, std::nullopt, now, std::nullopt};
                } else if (!installed && instance.health.state != H::notInstalled) {
                    instance.health = {H::notInstalled, std::nullopt, now, std::nullopt};
                }
            }
            if (instance != *active) {
                repository_.save(instance, now);
            }
            out.push_back(std::move(instance));
            continue;
        }
        if (!storedLoaded) {
            stored = repository_.loadAll();
            storedLoaded = true;
        }
        // The user's "off" outlives restarts: an archived instance is not replaced by a new one.
        const IntegrationInstance* archived = nullptr;
        for (const auto& s : stored) {
            if (s.pluginID == installation.pluginID &&
                (archived == nullptr ||
                 s.archivedAt.value_or(0) > archived->archivedAt.value_or(0))) {
                archived = &s;
            }
        }
        if (archived != nullptr) {
            out.push_back(*archived);
            continue;
        }
        auto instance = makeInstance(*registry_.plugin(installation.pluginID), installed, now);
        repository_.save(instance, now);
        out.push_back(std::move(instance));
    }
    return out;
}

std::set<AgentSource> IntegrationInstanceCoordinator::enabledSources(
    IntegrationCapability capability) {
    std::set<AgentSource> out;
    for (const auto& plugin : registry_.plugins()) {
        auto instance = repository_.activeInstance(plugin.descriptor.id);
        if (instance && registry_.canRun(capability, *instance)) {
            out.insert(plugin.descriptor.legacySource);
        }
    }
    return out;
}

bool IntegrationInstanceCoordinator::canRun(IntegrationCapability capability, AgentSource source) {
    const auto* plugin = registry_.plugin(source);
    if (plugin == nullptr) {
        return false;
    }
    auto instance = repository_.activeInstance(plugin->descriptor.id);
    return instance && registry_.canRun(capability, *instance);
}

bool IntegrationInstanceCoordinator::canRefreshQuota(const IntegrationInstanceID& instance) {
    auto found = find(instance);
    return found && registry_.canRun(IntegrationCapability::quota, *found);
}

std::optional<IntegrationInstance> IntegrationInstanceCoordinator::find(
    const IntegrationInstanceID& id) {
    for (auto& instance : repository_.loadAll()) {
        if (instance.id == id) {
            return std::move(instance);
        }
    }
    return std::nullopt;
}

std::expected<IntegrationInstance, IntegrationInstanceCoordinatorError>
IntegrationInstanceCoordinator::findDeclaring(const IntegrationInstanceID& id,
                                              IntegrationCapability capability) {
    auto instance = find(id);
    if (!instance) {
        return notFound(id);
    }
    const auto* plugin = registry_.plugin(instance->pluginID);
    if (plugin == nullptr || !plugin->descriptor.capabilities().contains(capability)) {
        return std::unexpected(IntegrationInstanceCoordinatorError{Code::capabilityNotSupported, id,
                                                                   instance->pluginID, capability});
    }
    return std::move(*instance);
}

InstanceResult IntegrationInstanceCoordinator::setInstanceEnabled(bool enabled,
                                                                  const IntegrationInstanceID& id,
                                                                  double now) {
    auto instance = find(id);
    if (!instance) {
        return notFound(id);
    }
    if (enabled) {
        instance->reactivate(now);
    } else {
        instance->disable(now);
    }
    repository_.save(*instance, now);
    return std::move(*instance);
}

InstanceResult IntegrationInstanceCoordinator::setCapability(IntegrationCapability capability,
                                                             bool enabled,
                                                             const IntegrationInstanceID& id,
                                                             double now) {
    auto instance = findDeclaring(id, capability);
    if (!instance) {
        return instance;
    }
    if (enabled) {
        instance->enabledCapabilities.insert(capability);
    } else {
        instance->enabledCapabilities.erase(capability);
    }
    repository_.save(*instance, now);
    return instance;
}

InstanceResult IntegrationInstanceCoordinator::setCapabilityAuthorization(
    IntegrationCapability capability, bool authorized, const IntegrationInstanceID& id,
    double now) {
    auto instance = findDeclaring(id, capability);
    if (!instance) {
        return instance;
    }
    const auto& descriptor = registry_.plugin(instance->pluginID)->descriptor;
    auto needs = descriptor.requiredPermissions(capability);
    if (authorized) {
        instance->enabledCapabilities.insert(capability);
        instance->grantedPermissions.insert(needs.begin(), needs.end());
    } else {
        instance->enabledCapabilities.erase(capability);
        for (auto permission : needs) {
            const bool stillNeeded =
                std::ranges::any_of(instance->enabledCapabilities, [&](IntegrationCapability c) {
                    return descriptor.requiredPermissions(c).contains(permission);
                });
            if (!stillNeeded) {
                instance->grantedPermissions.erase(permission);
            }
        }
    }
    repository_.save(*instance, now);
    return instance;
}

InstanceResult IntegrationInstanceCoordinator::setPermission(IntegrationPermission permission,
                                                             bool granted,
                                                             const IntegrationInstanceID& id,
                                                             double now) {
    auto instance = find(id);
    if (!instance) {
        return notFound(id);
    }
    if (granted) {
        instance->grantedPermissions.insert(permission);
    } else {
        instance->grantedPermissions.erase(permission);
    }
    repository_.save(*instance, now);
    return std::move(*instance);
}

std::vector<IntegrationInstance> IntegrationInstanceCoordinator::applyBulkPreset(
    IntegrationBulkPreset preset, double now) {
    std::vector<IntegrationInstance> changed;
    for (auto& instance : repository_.loadAll()) {
        if (kestrel::applyBulkPreset(preset, instance, registry_.plugin(instance.pluginID), now)) {
            repository_.save(instance, now);
            changed.push_back(std::move(instance));
        }
    }
    return changed;
}

bool IntegrationInstanceCoordinator::recordScan(AgentSource source,
                                                const IntegrationScanResult& result, double now) {
    const auto* plugin = registry_.plugin(source);
    if (plugin == nullptr) {
        return false;
    }
    auto instance = repository_.activeInstance(plugin->descriptor.id);
    if (!instance) {
        return false;
    }
    instance->recordScan(result);
    repository_.save(*instance, now);
    return true;
}

void IntegrationInstanceCoordinator::beforeFullScan(const std::filesystem::path& home, double now,
                                                    const EnvironmentLookup& env) {
    reconcileInstallations(home, now, env);
}

std::set<AgentSource> IntegrationInstanceCoordinator::importableSources() {
    return enabledSources(IntegrationCapability::usageImport);
}

void IntegrationInstanceCoordinator::sourceScanned(const SourceScanReport& report, double now) {
    IntegrationScanResult result;
    result.finishedAt = now;
    result.installedRootCount = static_cast<int>(report.roots.size());
    result.acceptedObservationCount = static_cast<int>(report.counts.accepted);
    result.rejectedObservationCount = static_cast<int>(report.counts.rejected);
    result.conflictCount = static_cast<int>(report.counts.conflicts);
    result.coverageIssueCount = static_cast<int>(report.counts.coverageIssues);
    result.health.state = healthState(report.status);
    result.health.checkedAt = now;
    if (!report.errors.empty()) {
        result.health.diagnosticCode = report.errors.front().operation + ":" +
                                       std::to_string(report.errors.front().errorNumber);
    }
    recordScan(report.source, result, now);
}

}  // namespace kestrel
