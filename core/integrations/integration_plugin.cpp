#include "core/integrations/integration_plugin.hpp"

#include <nlohmann/json.hpp>

#include "core/model/enum_set_coding.hpp"

namespace kestrel {

using nlohmann::json;

std::set<IntegrationCapability> IntegrationPluginDescriptor::capabilities() const {
    std::set<IntegrationCapability> out;
    for (const auto& d : capabilityDeclarations) {
        out.insert(d.capability);
    }
    return out;
}

std::set<IntegrationPermission> IntegrationPluginDescriptor::requiredPermissions(
    IntegrationCapability capability) const {
    for (const auto& d : capabilityDeclarations) {
        if (d.capability == capability) {
            return d.permissions;
        }
    }
    return {};
}

void to_json(json& j, const IntegrationCapabilityDeclaration& v) {
    j = json{{"capability", jsonenum::encode(v.capability)},
             {"permissions", enumset::toJSON(v.permissions)}};
}

void from_json(const json& j, IntegrationCapabilityDeclaration& v) {
    v.capability = jsonenum::decode<IntegrationCapability>(j.at("capability"));
    v.permissions = enumset::fromJSON<IntegrationPermission>(j.at("permissions"));
}

void to_json(json& j, const IntegrationPluginDescriptor& v) {
    j = json{{"id", v.id},
             {"version", v.version},
             {"displayName", v.displayName},
             {"iconKey", v.iconKey},
             {"legacySource", jsonenum::encode(v.legacySource)},
             {"trust", jsonenum::encode(v.trust)},
             {"usagePrecision", jsonenum::encode(v.usagePrecision)},
             {"activityEvidence", enumset::toJSON(v.activityEvidence)},
             {"capabilityDeclarations", v.capabilityDeclarations}};
}

void from_json(const json& j, IntegrationPluginDescriptor& v) {
    v.id = j.at("id").get<IntegrationPluginID>();
    v.version = j.at("version").get<int>();
    v.displayName = j.at("displayName").get<std::string>();
    v.iconKey = j.at("iconKey").get<std::string>();
    v.legacySource = jsonenum::decode<AgentSource>(j.at("legacySource"));
    v.trust = jsonenum::decode<IntegrationPluginTrust>(j.at("trust"));
    v.usagePrecision = jsonenum::decode<UsagePrecision>(j.at("usagePrecision"));
    v.activityEvidence = enumset::fromJSON<ActivityEvidenceKind>(j.at("activityEvidence"));
    v.capabilityDeclarations =
        j.at("capabilityDeclarations").get<std::vector<IntegrationCapabilityDeclaration>>();
}

void to_json(json& j, const IntegrationPlugin& v) {
    j = json{{"descriptor", v.descriptor}};
}

void from_json(const json& j, IntegrationPlugin& v) {
    v.descriptor = j.at("descriptor").get<IntegrationPluginDescriptor>();
}

}  // namespace kestrel
