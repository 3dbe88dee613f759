#include "core/model/integration_instance.hpp"

#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <random>

#include "core/model/enum_set_coding.hpp"
#include "core/model/json_enum.hpp"

namespace kestrel {

using nlohmann::json;

bool IntegrationInstance::isEnabled() const {
    return !archivedAt && health.state != IntegrationHealthState::disabled;
}

bool IntegrationInstance::hasEnabled(IntegrationCapability capability) const {
    return isEnabled() && enabledCapabilities.contains(capability);
}

void IntegrationInstance::recordScan(const IntegrationScanResult& result) {
    lastScanResult = result;
    health = result.health;
}

void IntegrationInstance::reactivate(double at) {
    archivedAt.reset();
    health = IntegrationHealth{IntegrationHealthState::detected, std::nullopt, at, std::nullopt};
}

void IntegrationInstance::disable(double at) {
    archivedAt = at;
    health = IntegrationHealth{IntegrationHealthState::disabled, std::nullopt, at, std::nullopt};
}

IntegrationInstanceID newIntegrationInstanceID() {
    // One generator per thread, seeded from the system's entropy source once.
    thread_local std::mt19937_64 engine{[] {
        std::random_device device;
        std::seed_seq seed{device(), device(), device(), device(), device(), device()};
        return std::mt19937_64(seed);
    }()};
    std::array<uint8_t, 16> bytes{};
    for (std::size_t i = 0; i < bytes.size(); i += 8) {
        uint64_t word = engine();
        for (std::size_t k = 0; k < 8; ++k) {
            bytes[i + k] = static_cast<uint8_t>(word >> (8 * k));
        }
    }
    bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text += '-';
        }
        text += kHex[bytes[i] >> 4];
        text += kHex[bytes[i] & 0x0F];
    }
    return IntegrationInstanceID(std::move(text));
}

void to_json(json& j, const IntegrationHealth& v) {
    j = json{{"state", jsonenum::encode(v.state)},
             {"hook", jsonenum::optional(v.hook)},
             {"checkedAt", v.checkedAt},
             {"diagnosticCode", jsonenum::optional(v.diagnosticCode)}};
}

void from_json(const json& j, IntegrationHealth& v) {
    v.state = jsonenum::decode<IntegrationHealthState>(j.at("state"));
    v.hook = jsonenum::readOptional<HookHealthState>(j, "hook");
    v.checkedAt = j.at("checkedAt").get<double>();
    v.diagnosticCode = jsonenum::readOptional<std::string>(j, "diagnosticCode");
}

void to_json(json& j, const IntegrationScanResult& v) {
    j = json{{"finishedAt", v.finishedAt},
             {"installedRootCount", v.installedRootCount},
             {"acceptedObservationCount", v.acceptedObservationCount},
             {"rejectedObservationCount", v.rejectedObservationCount},
             {"conflictCount", v.conflictCount},
             {"coverageIssueCount", v.coverageIssueCount},
             {"health", v.health}};
}

void from_json(const json& j, IntegrationScanResult& v) {
    v.finishedAt = j.at("finishedAt").get<double>();
    v.installedRootCount = j.at("installedRootCount").get<int>();
    v.acceptedObservationCount = j.at("acceptedObservationCount").get<int>();
    v.rejectedObservationCount = j.at("rejectedObservationCount").get<int>();
    v.conflictCount = j.at("conflictCount").get<int>();
    v.coverageIssueCount = j.at("coverageIssueCount").get<int>();
    v.health = j.at("health").get<IntegrationHealth>();
}

void to_json(json& j, const IntegrationInstance& v) {
    j = json{{"id", v.id},
             {"pluginID", v.pluginID},
             {"enabledCapabilities", enumset::toJSON(v.enabledCapabilities)},
             {"grantedPermissions", enumset::toJSON(v.grantedPermissions)},
             {"health", v.health},
             {"lastScanResult", v.lastScanResult ? json(*v.lastScanResult) : json(nullptr)},
             {"archivedAt", jsonenum::optional(v.archivedAt)}};
}

void from_json(const json& j, IntegrationInstance& v) {
    v.id = j.at("id").get<IntegrationInstanceID>();
    v.pluginID = j.at("pluginID").get<IntegrationPluginID>();
    v.enabledCapabilities = enumset::fromJSON<IntegrationCapability>(j.at("enabledCapabilities"));
    v.grantedPermissions = enumset::fromJSON<IntegrationPermission>(j.at("grantedPermissions"));
    v.health = j.at("health").get<IntegrationHealth>();
    v.lastScanResult = jsonenum::readOptional<IntegrationScanResult>(j, "lastScanResult");
    v.archivedAt = jsonenum::readOptional<double>(j, "archivedAt");
}

}  // namespace kestrel
