#pragma once
// State of the hook that Kestrel installs into an agent. Kept apart from the installer so that
// integration health records can carry it without depending on the installer.

#include "core/model/enum_cases.hpp"

namespace kestrel {

enum class HookHealthState {
    notConfigured,    // no Kestrel hook in the agent's configuration
    configured,       // written, nothing emitted yet
    emitting,         // pulses arrive
    stale,            // the newest pulse is older than the freshness limit
    failed,           // the configuration could not be written or read
    versionMismatch,  // the installed hook differs from the current form
};

template <>
struct EnumCases<HookHealthState> {
    using E = HookHealthState;
    static constexpr std::array<std::pair<E, std::string_view>, 6> cases{{
        KESTREL_ENUM_CASE(E, notConfigured),
        KESTREL_ENUM_CASE(E, configured),
        KESTREL_ENUM_CASE(E, emitting),
        KESTREL_ENUM_CASE(E, stale),
        KESTREL_ENUM_CASE(E, failed),
        KESTREL_ENUM_CASE(E, versionMismatch),
    }};
};

}  // namespace kestrel
