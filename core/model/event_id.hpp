#pragma once
// Event identities: the plain-text de-duplication keys of the ledger. Two events with the same id
// are the same usage, whichever file or scan produced them. No hashing is applied.

#include <cstdint>
#include <string>
#include <string_view>

#include "core/model/agent_source.hpp"
#include "core/model/tokens.hpp"

namespace kestrel::EventID {

// "<source raw value>:<sessionID>:<recordID>:<model>"
std::string local(AgentSource source, std::string_view sessionID, std::string_view recordID,
                  std::string_view model);

// "claude:<messageID>"
std::string claude(std::string_view messageID);

// "codex:<sessionID>:<timestamp>:<input>:<cachedInput>"
std::string codex(std::string_view sessionID, std::string_view timestamp,
                  const TokenSnapshot& snapshot);

// "grok:<sessionID>:<promptID>:<model>"
std::string grok(std::string_view sessionID, std::string_view promptID, std::string_view model);

// "kimi:<sessionID>:<time>:<model>:<scope>"
std::string kimi(std::string_view sessionID, int64_t time, std::string_view model,
                 std::string_view scope);

}  // namespace kestrel::EventID
