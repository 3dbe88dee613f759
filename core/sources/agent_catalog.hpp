#pragma once
// Where each agent keeps its records and in which format: the ingestor finds files to scan and
// the watcher finds folders to watch through this catalogue. Each agent's facts are its row in
// the agent table (agent_table.hpp).

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/model/agent_source.hpp"

namespace kestrel {

enum class AgentDataFormat {
    native,
    claudeJSONL,
    codexJSONL,
    piJSONL,
    geminiSession,
    antigravityTranscript,
    genericJSONL,
    cumulativeJSON,
    editorTasks,
    sqlite,
    openCode,
    openClaw,
    copilot,
    deepseekHarness,
    accountAPI,
};

template <>
struct EnumCases<AgentDataFormat> {
    using E = AgentDataFormat;
    static constexpr std::array<std::pair<E, std::string_view>, 15> cases{{
        KESTREL_ENUM_CASE(E, native),
        KESTREL_ENUM_CASE(E, claudeJSONL),
        KESTREL_ENUM_CASE(E, codexJSONL),
        KESTREL_ENUM_CASE(E, piJSONL),
        KESTREL_ENUM_CASE(E, geminiSession),
        KESTREL_ENUM_CASE(E, antigravityTranscript),
        KESTREL_ENUM_CASE(E, genericJSONL),
        KESTREL_ENUM_CASE(E, cumulativeJSON),
        KESTREL_ENUM_CASE(E, editorTasks),
        KESTREL_ENUM_CASE(E, sqlite),
        KESTREL_ENUM_CASE(E, openCode),
        KESTREL_ENUM_CASE(E, openClaw),
        KESTREL_ENUM_CASE(E, copilot),
        KESTREL_ENUM_CASE(E, deepseekHarness),
        KESTREL_ENUM_CASE(E, accountAPI),
    }};
};

struct AgentDataSpec {
    AgentSource source = AgentSource::claude;
    AgentDataFormat format = AgentDataFormat::native;
    std::vector<std::filesystem::path> roots;  // absolute, resolved against the home folder

    bool operator==(const AgentDataSpec&) const = default;
};

// Environment variables the catalogue honours (CLAUDE_CONFIG_DIR, CODEX_HOME, XDG_CONFIG_HOME,
// XDG_DATA_HOME, ...). Passed in so that tests and --home runs do not depend on the caller's
// environment.
using EnvironmentLookup = std::function<std::optional<std::string>(std::string_view name)>;

// The process environment.
EnvironmentLookup processEnvironment();

// No variables set.
EnvironmentLookup emptyEnvironment();

namespace AgentCatalog {

// The entry of `source` with its roots resolved against `home`; absent for sources without a
// local store.
std::optional<AgentDataSpec> spec(AgentSource source, const std::filesystem::path& home,
                                  const EnvironmentLookup& env = emptyEnvironment());

// The roots of `source` that exist on disk.
std::vector<std::filesystem::path> installedRoots(
    AgentSource source, const std::filesystem::path& home,
    const EnvironmentLookup& env = emptyEnvironment());

// Every root of every source, for the file watcher (no duplicates, in source order).
std::vector<std::string> watchPaths(const std::filesystem::path& home,
                                    const EnvironmentLookup& env = emptyEnvironment());

}  // namespace AgentCatalog
}  // namespace kestrel
