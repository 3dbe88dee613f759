#include "core/sources/agent_catalog.hpp"

#include <cstdlib>
#include <string>
#include <system_error>
#include <unordered_set>

#include "core/sources/agent_roots.hpp"
#include "core/sources/agent_table.hpp"

namespace kestrel {

namespace fs = std::filesystem;

EnvironmentLookup processEnvironment() {
    return [](std::string_view name) -> std::optional<std::string> {
        const std::string key(name);  // getenv needs a terminated name
        const char* value = std::getenv(key.c_str());
        if (value == nullptr) {
            return std::nullopt;
        }
        return std::string(value);
    };
}

EnvironmentLookup emptyEnvironment() {
    return [](std::string_view) -> std::optional<std::string> { return std::nullopt; };
}

namespace AgentCatalog {

std::optional<AgentDataSpec> spec(AgentSource source, const fs::path& home,
                                  const EnvironmentLookup& env) {
    const auto& row = AgentTable::row(source);
    if (row.roots == nullptr) {
        return std::nullopt;  // nothing kept on this machine
    }
    AgentRoots roots(home, env);
    row.roots(roots);
    return AgentDataSpec{source, row.format, roots.take()};
}

std::vector<fs::path> installedRoots(AgentSource source, const fs::path& home,
                                     const EnvironmentLookup& env) {
    std::vector<fs::path> out;
    auto entry = spec(source, home, env);
    if (!entry) {
        return out;
    }
    for (auto& root : entry->roots) {
        std::error_code ec;
        const bool exists = fs::exists(root, ec);
        // A folder we may not enter is still an installed agent: the status shows it as
        // unreadable rather than absent.
        if (exists || ec == std::errc::permission_denied) {
            out.push_back(std::move(root));
        }
    }
    return out;
}

std::vector<std::string> watchPaths(const fs::path& home, const EnvironmentLookup& env) {
    std::vector<std::string> out;
    std::unordered_set<std::string> seen;
    for (auto source : allAgentSources()) {
        auto entry = spec(source, home, env);
        if (!entry) {
            continue;
        }
        for (const auto& root : entry->roots) {
            std::string text = root.string();
            if (seen.insert(text).second) {
                out.push_back(std::move(text));
            }
        }
    }
    return out;
}

}  // namespace AgentCatalog
}  // namespace kestrel
