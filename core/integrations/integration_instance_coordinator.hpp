#pragma once
// Creates, switches and reconciles integration instances, and answers whether a capability may
// run for an agent now. The ingestor, the hook installer and the quota side ask it before acting.

#include <expected>
#include <filesystem>
#include <optional>
#include <set>
#include <vector>

#include "core/model/integration_instance_repository.hpp"
#include "core/integrations/plugin_registry.hpp"
#include "core/ledger/scan_gate.hpp"

namespace kestrel {

enum class IntegrationInstanceCoordinatorErrorCode { instanceNotFound, capabilityNotSupported };

struct IntegrationInstanceCoordinatorError {
    IntegrationInstanceCoordinatorErrorCode code =
        IntegrationInstanceCoordinatorErrorCode::instanceNotFound;
    IntegrationInstanceID instanceID;
    std::optional<IntegrationPluginID> pluginID;      // capabilityNotSupported only
    std::optional<IntegrationCapability> capability;  // capabilityNotSupported only

    bool operator==(const IntegrationInstanceCoordinatorError&) const = default;
};

using InstanceResult = std::expected<IntegrationInstance, IntegrationInstanceCoordinatorError>;

class IntegrationInstanceCoordinator final : public ScanGate {
  public:
    // `repository` must outlive the coordinator.
    IntegrationInstanceCoordinator(PluginRegistry registry,
                                   IntegrationInstanceRepository& repository);

    const PluginRegistry& registry() const { return registry_; }

    // Detects every plug-in's installation and brings the stored instances in line: a plug-in
    // without any instance gets a new one; the health of an enabled instance follows whether
    // its agent is installed. A plug-in whose instances are all archived stays switched off.
    // Returns one instance per plug-in, in plug-in order.
    std::vector<IntegrationInstance> reconcileInstallations(
        const std::filesystem::path& home, double now,
        const EnvironmentLookup& env = emptyEnvironment());

    // The agents whose active instance may run `capability`.
    std::set<AgentSource> enabledSources(IntegrationCapability capability);
    bool canRun(IntegrationCapability capability, AgentSource source);
    // Stores a finished scan on the active instance of `source` (its last result and health);
    // false when the source has no plug-in or no active instance.
    bool recordScan(AgentSource source, const IntegrationScanResult& result, double now);
    // Whether quota may be read for an account bound to `instance`.
    bool canRefreshQuota(const IntegrationInstanceID& instance);

    InstanceResult setInstanceEnabled(bool enabled, const IntegrationInstanceID& id, double now);
    InstanceResult setCapability(IntegrationCapability capability, bool enabled,
                                 const IntegrationInstanceID& id, double now);
    // Switches the capability together with the permissions it needs: granted when authorised;
    // when not, revoked unless another capability still switched on needs them.
    InstanceResult setCapabilityAuthorization(IntegrationCapability capability, bool authorized,
                                              const IntegrationInstanceID& id, double now);
    InstanceResult setPermission(IntegrationPermission permission, bool granted,
                                 const IntegrationInstanceID& id, double now);

    // Applies the preset to every stored instance; returns those that changed (and were saved).
    std::vector<IntegrationInstance> applyBulkPreset(IntegrationBulkPreset preset, double now);

    // As the ingestor's gate: a full scan reconciles first, usage is imported for the sources
    // whose instance runs usageImport, and each source's scan becomes its instance's last scan
    // result and health.
    void beforeFullScan(const std::filesystem::path& home, double now,
                        const EnvironmentLookup& env) override;
    std::set<AgentSource> importableSources() override;
    void sourceScanned(const SourceScanReport& report, double now) override;

  private:
    std::optional<IntegrationInstance> find(const IntegrationInstanceID& id);
    // Looks the instance and its plug-in's declaration of `capability` up.
    std::expected<IntegrationInstance, IntegrationInstanceCoordinatorError> findDeclaring(
        const IntegrationInstanceID& id, IntegrationCapability capability);
    IntegrationInstance makeInstance(const IntegrationPlugin& plugin, bool installed, double now);

    PluginRegistry registry_;
    IntegrationInstanceRepository& repository_;
};

}  // namespace kestrel
