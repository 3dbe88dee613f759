#pragma once
// The agents Kestrel can hook, and the records the hook installer answers with.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/model/agent_source.hpp"
#include "core/model/enum_cases.hpp"
#include "core/model/hook_health_state.hpp"

namespace kestrel {

// The id of each case is its name: it appears on the hook command line, names the gate file and
// is the `source` of the pulses the hook writes.
enum class HookAgent { claude, codex, grok, kimi, opencode, cursor, pi, omp };

template <>
struct EnumCases<HookAgent> {
    using E = HookAgent;
    static constexpr std::array<std::pair<E, std::string_view>, 8> cases{{
        KESTREL_ENUM_CASE(E, claude),
        KESTREL_ENUM_CASE(E, codex),
        KESTREL_ENUM_CASE(E, grok),
        KESTREL_ENUM_CASE(E, kimi),
        KESTREL_ENUM_CASE(E, opencode),
        KESTREL_ENUM_CASE(E, cursor),
        KESTREL_ENUM_CASE(E, pi),
        KESTREL_ENUM_CASE(E, omp),
    }};
};

// Whether the agent has approved our hook; some agents ask the user to review third-party hooks.
enum class HookTrustState { trusted, untrusted, unknown };

template <>
struct EnumCases<HookTrustState> {
    using E = HookTrustState;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        KESTREL_ENUM_CASE(E, trusted),
        KESTREL_ENUM_CASE(E, untrusted),
        KESTREL_ENUM_CASE(E, unknown),
    }};
};

// The agents whose hook is a shell command in their configuration (the others load a plug-in).
bool isCommandHookAgent(HookAgent agent);
AgentSource agentSource(HookAgent agent);
std::optional<HookAgent> hookAgent(AgentSource source);

struct HookHealth {
    HookAgent agent = HookAgent::claude;
    HookHealthState state = HookHealthState::notConfigured;
    HookTrustState trust = HookTrustState::unknown;
    std::optional<double> lastEmissionAt;  // the newest pulse of the agent
    std::optional<std::string> detail;
    bool operator==(const HookHealth&) const = default;
};

enum class HookInstallErrorCode {
    missingResource,   // the hook script or a plug-in file is not among the resources
    homeUnavailable,   // the home folder cannot be reached; nothing was written
    configUnreadable,  // the agent's configuration does not parse; it was left as it is
    writeFailed,       // a file could not be written (the original is untouched)
};

template <>
struct EnumCases<HookInstallErrorCode> {
    using E = HookInstallErrorCode;
    static constexpr std::array<std::pair<E, std::string_view>, 4> cases{{
        KESTREL_ENUM_CASE(E, missingResource),
        KESTREL_ENUM_CASE(E, homeUnavailable),
        KESTREL_ENUM_CASE(E, configUnreadable),
        KESTREL_ENUM_CASE(E, writeFailed),
    }};
};

struct HookInstallError {
    HookInstallErrorCode code = HookInstallErrorCode::writeFailed;
    std::filesystem::path path;  // the file concerned
    std::string detail;          // the parser's or the system's message
    bool operator==(const HookInstallError&) const = default;
};

// One configuration file an install, uninstall or repair touched.
struct HookFileChange {
    std::filesystem::path path;                   // as the agent sees it (a symlink stays one)
    std::optional<std::filesystem::path> backup;  // the copy of the original in our support folder
    bool removed = false;                         // the file was ours alone and is gone
    bool operator==(const HookFileChange&) const = default;
};

struct HookChangeReport {
    HookAgent agent = HookAgent::claude;
    std::vector<HookFileChange> files;  // only files whose bytes changed
};

}  // namespace kestrel
