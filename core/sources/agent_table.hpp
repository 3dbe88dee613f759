#pragma once
// What the sources layer knows about each agent beyond its identity (agent_source.hpp), one
// row per agent: the format of its records, where they are, its reader, and the facts the
// integration plug-ins are described by. The catalogue, the reader registry and the plug-in
// registry all read this table, so adding an agent means its enum case, its identity row and
// one row here.

#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "core/model/agent_source.hpp"
#include "core/model/usage_enums.hpp"
#include "core/sources/agent_catalog.hpp"
#include "core/sources/agent_roots.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel {

struct AgentTableRow {
    AgentSource source = AgentSource::claude;
    AgentDataFormat format = AgentDataFormat::native;
    // Adds the agent's candidate roots in order; null for agents that keep nothing on this
    // machine.
    void (*roots)(AgentRoots& roots) = nullptr;
    // Makes the agent's reader; null while it has none.
    SourceReader (*reader)() = nullptr;
    // The model to assume, read from the agent's configuration in its installed roots; null
    // when its records always name the model.
    std::string (*defaultModel)(const std::vector<std::filesystem::path>& roots) = nullptr;
    bool hooksManaged = false;        // the hook installer manages its hooks
    bool subscriptionsKnown = false;  // its subscriptions can be discovered and its quota read
    // Its usage precision where the rule for its format does not hold.
    std::optional<UsagePrecision> precision = std::nullopt;
    // Reads a database of the product's beyond what its format implies (Codex's state store).
    bool productDatabase = false;
    bool fileActivity = true;  // changes below its roots tell that it is in use
};

namespace AgentTable {

// Every row, in the declaration order of AgentSource.
std::span<const AgentTableRow> rows();

const AgentTableRow& row(AgentSource source);

}  // namespace AgentTable
}  // namespace kestrel
