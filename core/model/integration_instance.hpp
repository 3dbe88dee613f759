#pragma once
// The user's switches for one plug-in: which capabilities run, which permissions were granted,
// and how the integration last fared. Persisted one row per instance in the ledger.

#include <filesystem>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/model/hook_health_state.hpp"
#include "core/model/integration_enums.hpp"
#include "core/model/integration_id.hpp"
#include "core/model/agent_source.hpp"

namespace kestrel {

struct IntegrationHealth {
    IntegrationHealthState state = IntegrationHealthState::notInstalled;
    std::optional<HookHealthState> hook;
    double checkedAt = 0;  // seconds since the Unix epoch
    std::optional<std::string> diagnosticCode;

    bool operator==(const IntegrationHealth&) const = default;
};

struct IntegrationScanResult {
    double finishedAt = 0;
    int installedRootCount = 0;
    int acceptedObservationCount = 0;
    int rejectedObservationCount = 0;
    int conflictCount = 0;
    int coverageIssueCount = 0;
    IntegrationHealth health;

    bool operator==(const IntegrationScanResult&) const = default;
};

struct IntegrationInstance {
    IntegrationInstanceID id;
    IntegrationPluginID pluginID;
    std::set<IntegrationCapability> enabledCapabilities;
    std::set<IntegrationPermission> grantedPermissions;
    IntegrationHealth health;
    std::optional<IntegrationScanResult> lastScanResult;
    std::optional<double> archivedAt;

    // Not archived and not switched off.
    bool isEnabled() const;
    bool hasEnabled(IntegrationCapability capability) const;

    void recordScan(const IntegrationScanResult& result);
    // Clears the archive mark; switches and grants are kept.
    void reactivate(double at);
    // Archives the instance; switches and grants are kept for a later reactivation.
    void disable(double at);

    bool operator==(const IntegrationInstance&) const = default;
};

// Where a plug-in's agent keeps its data and which of those folders exist.
struct IntegrationInstallation {
    IntegrationPluginID pluginID;
    AgentSource legacySource = AgentSource::claude;
    std::vector<std::filesystem::path> candidateRoots;
    std::vector<std::filesystem::path> installedRoots;
    double checkedAt = 0;

    bool operator==(const IntegrationInstallation&) const = default;
};

// A fresh random (version 4) UUID in lower-case canonical form.
IntegrationInstanceID newIntegrationInstanceID();

void to_json(nlohmann::json& j, const IntegrationHealth& v);
void from_json(const nlohmann::json& j, IntegrationHealth& v);
void to_json(nlohmann::json& j, const IntegrationScanResult& v);
void from_json(const nlohmann::json& j, IntegrationScanResult& v);
void to_json(nlohmann::json& j, const IntegrationInstance& v);
void from_json(const nlohmann::json& j, IntegrationInstance& v);

}  // namespace kestrel
