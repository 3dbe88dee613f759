#pragma once
// The enumerations of the integration layer. Each persists as its case name.

#include "core/model/enum_cases.hpp"
#include "core/model/usage_enums.hpp"  // UsagePrecision

namespace kestrel {

// How an integration's data reaches the system.
enum class IntegrationChannel { local, hook, online };

enum class IntegrationCapability {
    installationDetection,
    activity,
    usageImport,
    subscriptionDiscovery,
    quota,
    hookManagement,
};

enum class IntegrationPermission {
    homeDirectoryRead,
    productDatabaseRead,
    hookConfigurationWrite,
    networkAccess,
    credentialRead,
};

// What live activity of an agent can be derived from.
enum class ActivityEvidenceKind { hook, productDatabase, filesystem };

// Every plug-in ships with the application; there is no other trust level.
enum class IntegrationPluginTrust { builtInSigned };

enum class IntegrationHealthState {
    notInstalled,
    detected,
    healthy,
    permissionDenied,
    formatChanged,
    hookUntrusted,    // the agent has not approved our hook
    hookNotEmitting,  // the hook is installed but sends nothing
    degraded,
    disabled,
    failed,
};

// The sections of the integrations list.
enum class IntegrationListGroup { enabled, detected, notInstalled };

// One-click settings applied to every instance.
enum class IntegrationBulkPreset { recommended, allIncludingNetwork, disabled };

template <>
struct EnumCases<IntegrationChannel> {
    using E = IntegrationChannel;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        KESTREL_ENUM_CASE(E, local),
        KESTREL_ENUM_CASE(E, hook),
        KESTREL_ENUM_CASE(E, online),
    }};
};

template <>
struct EnumCases<IntegrationCapability> {
    using E = IntegrationCapability;
    static constexpr std::array<std::pair<E, std::string_view>, 6> cases{{
        KESTREL_ENUM_CASE(E, installationDetection),
        KESTREL_ENUM_CASE(E, activity),
        KESTREL_ENUM_CASE(E, usageImport),
        KESTREL_ENUM_CASE(E, subscriptionDiscovery),
        KESTREL_ENUM_CASE(E, quota),
        KESTREL_ENUM_CASE(E, hookManagement),
    }};
};

template <>
struct EnumCases<IntegrationPermission> {
    using E = IntegrationPermission;
    static constexpr std::array<std::pair<E, std::string_view>, 5> cases{{
        KESTREL_ENUM_CASE(E, homeDirectoryRead),
        KESTREL_ENUM_CASE(E, productDatabaseRead),
        KESTREL_ENUM_CASE(E, hookConfigurationWrite),
        KESTREL_ENUM_CASE(E, networkAccess),
        KESTREL_ENUM_CASE(E, credentialRead),
    }};
};

template <>
struct EnumCases<ActivityEvidenceKind> {
    using E = ActivityEvidenceKind;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        KESTREL_ENUM_CASE(E, hook),
        KESTREL_ENUM_CASE(E, productDatabase),
        KESTREL_ENUM_CASE(E, filesystem),
    }};
};

template <>
struct EnumCases<IntegrationPluginTrust> {
    using E = IntegrationPluginTrust;
    static constexpr std::array<std::pair<E, std::string_view>, 1> cases{{
        KESTREL_ENUM_CASE(E, builtInSigned),
    }};
};

template <>
struct EnumCases<IntegrationHealthState> {
    using E = IntegrationHealthState;
    static constexpr std::array<std::pair<E, std::string_view>, 10> cases{{
        KESTREL_ENUM_CASE(E, notInstalled),
        KESTREL_ENUM_CASE(E, detected),
        KESTREL_ENUM_CASE(E, healthy),
        KESTREL_ENUM_CASE(E, permissionDenied),
        KESTREL_ENUM_CASE(E, formatChanged),
        KESTREL_ENUM_CASE(E, hookUntrusted),
        KESTREL_ENUM_CASE(E, hookNotEmitting),
        KESTREL_ENUM_CASE(E, degraded),
        KESTREL_ENUM_CASE(E, disabled),
        KESTREL_ENUM_CASE(E, failed),
    }};
};

template <>
struct EnumCases<IntegrationListGroup> {
    using E = IntegrationListGroup;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        KESTREL_ENUM_CASE(E, enabled),
        KESTREL_ENUM_CASE(E, detected),
        KESTREL_ENUM_CASE(E, notInstalled),
    }};
};

template <>
struct EnumCases<IntegrationBulkPreset> {
    using E = IntegrationBulkPreset;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        KESTREL_ENUM_CASE(E, recommended),
        KESTREL_ENUM_CASE(E, allIncludingNetwork),
        KESTREL_ENUM_CASE(E, disabled),
    }};
};

}  // namespace kestrel
