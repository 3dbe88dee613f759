#include "core/integrations/plugin_registry.hpp"

#include <algorithm>
#include <string>

#include "core/sources/agent_table.hpp"

namespace kestrel {

namespace {

using F = AgentDataFormat;
using Cap = IntegrationCapability;
using Perm = IntegrationPermission;

constexpr std::string_view kPluginIDPrefix = "com.nordwick.kestrel.agent.";

bool hasPlugin(AgentSource source) {
    return !agentIdentity(source).accountOnly;
}

bool readsProductDatabase(const AgentTableRow& agent) {
    return agent.productDatabase || agent.format == F::sqlite || agent.format == F::openCode ||
           agent.format == F::copilot;
}

UsagePrecision precisionFor(const AgentTableRow& agent) {
    if (agent.precision) {
        return *agent.precision;
    }
    switch (agent.format) {
        case F::codexJSONL:
        case F::antigravityTranscript:
        case F::cumulativeJSON:
            return UsagePrecision::derivedExact;
        default:
            return UsagePrecision::nativeExact;
    }
}

std::set<ActivityEvidenceKind> evidenceFor(const AgentTableRow& agent) {
    std::set<ActivityEvidenceKind> out;
    if (agent.fileActivity) {
        out.insert(ActivityEvidenceKind::filesystem);
    }
    if (agent.hooksManaged) {
        out.insert(ActivityEvidenceKind::hook);
    }
    if (readsProductDatabase(agent)) {
        out.insert(ActivityEvidenceKind::productDatabase);
    }
    return out;
}

// Declarations of one capability are merged, keeping the position of the first.
void declare(std::vector<IntegrationCapabilityDeclaration>& out, Cap capability,
             std::set<Perm> permissions) {
    auto it = std::find_if(out.begin(), out.end(),
                           [&](const auto& d) { return d.capability == capability; });
    if (it == out.end()) {
        out.push_back({capability, std::move(permissions)});
    } else {
        it->permissions.insert(permissions.begin(), permissions.end());
    }
}

std::vector<IntegrationCapabilityDeclaration> declarationsFor(
    const AgentTableRow& agent, const std::set<ActivityEvidenceKind>& evidence) {
    std::vector<IntegrationCapabilityDeclaration> out;
    declare(out, Cap::installationDetection, {Perm::homeDirectoryRead});

    std::set<Perm> importNeeds{Perm::homeDirectoryRead};
    if (readsProductDatabase(agent)) {
        importNeeds.insert(Perm::productDatabaseRead);
    }
    if (agent.format == F::accountAPI) {
        importNeeds.insert({Perm::networkAccess, Perm::credentialRead});
    }
    declare(out, Cap::usageImport, std::move(importNeeds));

    if (!evidence.empty()) {
        declare(out, Cap::activity, {Perm::homeDirectoryRead});
    }
    if (agent.hooksManaged) {
        declare(out, Cap::hookManagement, {Perm::homeDirectoryRead, Perm::hookConfigurationWrite});
    }
    if (agent.subscriptionsKnown) {
        declare(out, Cap::subscriptionDiscovery, {Perm::homeDirectoryRead});
        declare(out, Cap::quota, {Perm::networkAccess, Perm::credentialRead});
    }
    return out;
}

bool needsOnlineAccess(const std::set<Perm>& permissions) {
    return permissions.contains(Perm::networkAccess) || permissions.contains(Perm::credentialRead);
}

}  // namespace

std::optional<IntegrationPluginID> PluginRegistry::stableID(AgentSource source) {
    if (!hasPlugin(source)) {
        return std::nullopt;
    }
    return IntegrationPluginID(std::string(kPluginIDPrefix) + std::string(rawValue(source)));
}

std::optional<IntegrationPluginDescriptor> PluginRegistry::builtInDescriptor(AgentSource source) {
    auto id = stableID(source);
    if (!id) {
        return std::nullopt;
    }
    const auto& agent = AgentTable::row(source);
    IntegrationPluginDescriptor d;
    d.id = std::move(*id);
    d.version = 1;
    d.displayName = std::string(displayName(source));
    d.iconKey = std::string(rawValue(source));
    d.legacySource = source;
    d.trust = IntegrationPluginTrust::builtInSigned;
    d.usagePrecision = precisionFor(agent);
    d.activityEvidence = evidenceFor(agent);
    d.capabilityDeclarations = declarationsFor(agent, d.activityEvidence);
    return d;
}

PluginRegistry::PluginRegistry(std::vector<IntegrationPlugin> plugins)
    : plugins_(std::move(plugins)) {
    for (std::size_t i = 0; i < plugins_.size(); ++i) {
        const auto& d = plugins_[i].descriptor;
        pluginsByID_.emplace(d.id, i);
        pluginsBySource_.emplace(d.legacySource, i);
    }
}

const PluginRegistry& PluginRegistry::builtIn() {
    static const PluginRegistry registry{[] {
        std::vector<IntegrationPlugin> plugins;
        for (AgentSource source : allAgentSources()) {
            if (auto d = builtInDescriptor(source)) {
                plugins.push_back(IntegrationPlugin{std::move(*d)});
            }
        }
        return plugins;
    }()};
    return registry;
}

const IntegrationPlugin* PluginRegistry::plugin(AgentSource source) const {
    auto it = pluginsBySource_.find(source);
    return it == pluginsBySource_.end() ? nullptr : &plugins_[it->second];
}

const IntegrationPlugin* PluginRegistry::plugin(const IntegrationPluginID& id) const {
    auto it = pluginsByID_.find(id);
    return it == pluginsByID_.end() ? nullptr : &plugins_[it->second];
}

std::vector<std::filesystem::path> PluginRegistry::installedRoots(AgentSource source,
                                                                  const std::filesystem::path& home,
                                                                  const EnvironmentLookup& env) {
    return AgentCatalog::installedRoots(source, home, env);
}

std::vector<IntegrationInstallation> PluginRegistry::detectInstallations(
    const std::filesystem::path& home, double now, const EnvironmentLookup& env) const {
    std::vector<IntegrationInstallation> out;
    out.reserve(plugins_.size());
    for (const auto& plugin : plugins_) {
        const auto& d = plugin.descriptor;
        IntegrationInstallation installation{d.id, d.legacySource, {}, {}, now};
        if (auto entry = AgentCatalog::spec(d.legacySource, home, env)) {
            installation.candidateRoots = entry->roots;
        }
        installation.installedRoots = installedRoots(d.legacySource, home, env);
        out.push_back(std::move(installation));
    }
    return out;
}

bool PluginRegistry::canRun(IntegrationCapability capability,
                            const IntegrationInstance& instance) const {
    if (!instance.hasEnabled(capability)) {
        return false;
    }
    const auto* known = plugin(instance.pluginID);
    if (known == nullptr || !known->descriptor.capabilities().contains(capability)) {
        return false;
    }
    return std::ranges::includes(instance.grantedPermissions,
                                 known->descriptor.requiredPermissions(capability));
}

IntegrationListGroup classify(const IntegrationInstance* instance,
                              std::optional<SourceStatus> sourceStatus) {
    if (instance != nullptr) {
        return instance->isEnabled() ? IntegrationListGroup::enabled
                                     : IntegrationListGroup::detected;
    }
    if (!sourceStatus || *sourceStatus == SourceStatus::notInstalled) {
        return IntegrationListGroup::notInstalled;
    }
    return IntegrationListGroup::detected;
}

std::set<IntegrationCapability> presetCapabilities(IntegrationBulkPreset preset,
                                                   const IntegrationPluginDescriptor& descriptor) {
    std::set<IntegrationCapability> out;
    if (preset == IntegrationBulkPreset::disabled) {
        return out;
    }
    for (const auto& d : descriptor.capabilityDeclarations) {
        if (d.capability == Cap::hookManagement) {
            continue;  // hooks are installed only on an explicit command
        }
        if (preset == IntegrationBulkPreset::recommended && needsOnlineAccess(d.permissions)) {
            continue;
        }
        out.insert(d.capability);
    }
    return out;
}

bool applyBulkPreset(IntegrationBulkPreset preset, IntegrationInstance& instance,
                     const IntegrationPlugin* plugin, double now) {
    const auto& scan = instance.lastScanResult;
    if (!scan || scan->installedRootCount <= 0) {
        return false;
    }
    const IntegrationInstance before = instance;
    if (preset == IntegrationBulkPreset::disabled) {
        if (instance.isEnabled()) {
            instance.disable(now);
        }
        return instance != before;
    }
    if (plugin == nullptr) {
        return false;  // nothing is known about what this instance could run
    }
    const auto& descriptor = plugin->descriptor;
    auto capabilities = presetCapabilities(preset, descriptor);
    // A preset leaves the hook switch as the user set it.
    if (instance.enabledCapabilities.contains(Cap::hookManagement)) {
        capabilities.insert(Cap::hookManagement);
    }
    for (Cap c : capabilities) {
        auto needs = descriptor.requiredPermissions(c);
        instance.grantedPermissions.insert(needs.begin(), needs.end());
    }
    if (preset == IntegrationBulkPreset::recommended) {
        // The local preset takes back online access along with the capabilities that used it.
        instance.grantedPermissions.erase(Perm::networkAccess);
        instance.grantedPermissions.erase(Perm::credentialRead);
    }
    instance.enabledCapabilities = std::move(capabilities);
    if (!instance.isEnabled()) {
        instance.reactivate(now);
    }
    return instance != before;
}

}  // namespace kestrel
