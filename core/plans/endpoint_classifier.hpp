#pragma once
// Sorts a configured base URL (from an agent's config or the user) into what it points at: an
// agent's own service, a coding plan, a pay-as-you-go API, a relay, a local proxy.

#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "core/model/agent_source.hpp"
#include "core/plans/plan_probes.hpp"

namespace kestrel {

struct EndpointKind {
    enum class Kind {
        nativeOfficial,    // `source`
        codingPlan,        // `family`, `region`
        payg,              // `family`, `region`
        knownOfficialAPI,  // `name`
        customEndpoint,    // `name` is the host
        relay,             // `name` is the host
        loopbackProxy,
        unknown,
    };
    Kind kind = Kind::unknown;
    std::optional<AgentSource> source;
    std::optional<PlanFamily> family;
    std::optional<PlanRegion> region;
    std::string name;

    bool operator==(const EndpointKind&) const = default;
};

namespace EndpointClassifier {

// Hosts of services that resell other providers' models.
const std::set<std::string, std::less<>>& relayHosts();

// `credentialHint` is the key's prefix or the variable it came from; it tells a MiniMax coding
// plan key ("sk-cp-") from a pay-as-you-go one. Loopback hosts are `loopbackProxy` only when
// `loopbackIsProxy`, else a custom endpoint.
EndpointKind classify(std::string_view url, std::string_view credentialHint = {},
                      bool loopbackIsProxy = false);

// The URL without user info, query or fragment: what may be stored or shown.
std::string sanitizedURL(std::string_view url);

}  // namespace EndpointClassifier
}  // namespace kestrel
