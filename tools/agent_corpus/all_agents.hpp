#pragma once
// Every other agent's synthetic records in one home: one entry per agent that writes `n` units
// (sessions, threads, conversations) of its records in its own format and says how many usage
// events a correct reader finds in them. The benchmark scales it to a size; the tests scan it
// whole.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <vector>

#include "core/model/agent_source.hpp"

namespace kestrel::corpus {

struct AgentCorpus {
    AgentSource source;
    std::function<int64_t(const std::filesystem::path& home, int n)> write;
};

// The agents other than Claude Code and Codex (which have their own, larger generators).
std::vector<AgentCorpus> otherAgents();

}  // namespace kestrel::corpus
