#pragma once
// What a built-in integration plug-in offers: its capabilities and the permissions each needs.

#include <nlohmann/json_fwd.hpp>
#include <set>
#include <string>
#include <vector>

#include "core/model/integration_enums.hpp"
#include "core/model/integration_id.hpp"
#include "core/model/agent_source.hpp"

namespace kestrel {

struct IntegrationCapabilityDeclaration {
    IntegrationCapability capability = IntegrationCapability::installationDetection;
    std::set<IntegrationPermission> permissions;  // what the capability needs

    bool operator==(const IntegrationCapabilityDeclaration&) const = default;
};

struct IntegrationPluginDescriptor {
    IntegrationPluginID id;
    int version = 1;
    std::string displayName;
    std::string iconKey;  // the source's raw value
    AgentSource legacySource = AgentSource::claude;
    IntegrationPluginTrust trust = IntegrationPluginTrust::builtInSigned;
    UsagePrecision usagePrecision = UsagePrecision::nativeExact;
    std::set<ActivityEvidenceKind> activityEvidence;
    std::vector<IntegrationCapabilityDeclaration> capabilityDeclarations;  // one per capability

    std::set<IntegrationCapability> capabilities() const;
    // Empty when the capability is not declared.
    std::set<IntegrationPermission> requiredPermissions(IntegrationCapability capability) const;

    bool operator==(const IntegrationPluginDescriptor&) const = default;
};

struct IntegrationPlugin {
    IntegrationPluginDescriptor descriptor;

    bool operator==(const IntegrationPlugin&) const = default;
};

void to_json(nlohmann::json& j, const IntegrationCapabilityDeclaration& v);
void from_json(const nlohmann::json& j, IntegrationCapabilityDeclaration& v);
void to_json(nlohmann::json& j, const IntegrationPluginDescriptor& v);
void from_json(const nlohmann::json& j, IntegrationPluginDescriptor& v);
void to_json(nlohmann::json& j, const IntegrationPlugin& v);
void from_json(const nlohmann::json& j, IntegrationPlugin& v);

}  // namespace kestrel
