#include "core/model/agent_source.hpp"

#include <algorithm>
#include <array>
#include <cctype>

namespace kestrel {
namespace {

using detail::kAgentIdentities;

// Rows are looked up by the case's position.
static_assert([] {
    for (std::size_t i = 0; i < kAgentIdentities.size(); ++i) {
        if (static_cast<std::size_t>(kAgentIdentities[i].source) != i) {
            return false;
        }
    }
    return true;
}());

constexpr auto kAll = allCases<AgentSource>();

constexpr auto kUsageSourceCount = static_cast<std::size_t>(std::ranges::count_if(
    kAgentIdentities, [](const AgentIdentity& row) { return !row.accountOnly; }));

constexpr auto kUsageSources = [] {
    std::array<AgentSource, kUsageSourceCount> out{};
    std::size_t n = 0;
    for (const auto& row : kAgentIdentities) {
        if (!row.accountOnly) {
            out[n++] = row.source;
        }
    }
    return out;
}();

}  // namespace

std::span<const AgentSource> allAgentSources() {
    return kAll;
}

const AgentIdentity& agentIdentity(AgentSource source) {
    return kAgentIdentities[static_cast<std::size_t>(source)];
}

std::string_view displayName(AgentSource source) {
    return agentIdentity(source).displayName;
}

std::string_view shortLabel(AgentSource source) {
    return agentIdentity(source).shortLabel;
}

std::span<const AgentSource> usageSources() {
    return kUsageSources;
}

int64_t usageSemanticsVersion(AgentSource source) {
    return agentIdentity(source).usageSemanticsVersion;
}

std::optional<AgentSource> agentSourceNamed(std::string_view name) {
    const auto same = [&](std::string_view known) {
        return known.size() == name.size() &&
               std::equal(known.begin(), known.end(), name.begin(), [](char a, char b) {
                   return std::tolower(static_cast<unsigned char>(a)) ==
                          std::tolower(static_cast<unsigned char>(b));
               });
    };
    for (auto source : allAgentSources()) {
        if (same(rawValue(source)) || same(displayName(source))) {
            return source;
        }
    }
    return std::nullopt;
}

}  // namespace kestrel
