#pragma once
// Typed identifiers: one text value tagged with the kind of thing it names, so that an account id
// can never be passed where an instance id is expected. Stored and encoded as the bare text.

#include <compare>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace kestrel {

struct PluginIDDomain {};
struct IntegrationInstanceIDDomain {};
struct SubscriptionAccountIDDomain {};
struct AccountBindingIDDomain {};
struct CredentialHandleDomain {};

template <class Domain>
struct IntegrationID {
    std::string rawValue;

    IntegrationID() = default;
    // Explicit so that plain text never turns into an id by accident.
    explicit IntegrationID(std::string raw) : rawValue(std::move(raw)) {}

    const std::string& description() const { return rawValue; }
    auto operator<=>(const IntegrationID&) const = default;
};

using IntegrationPluginID = IntegrationID<PluginIDDomain>;
using IntegrationInstanceID = IntegrationID<IntegrationInstanceIDDomain>;
using SubscriptionAccountID = IntegrationID<SubscriptionAccountIDDomain>;
using AccountBindingID = IntegrationID<AccountBindingIDDomain>;
using CredentialHandleID = IntegrationID<CredentialHandleDomain>;

// Generic in the JSON type, so that this header, which most of core includes, needs only the
// forward declarations of the JSON library.
template <class Json, class Domain>
void to_json(Json& j, const IntegrationID<Domain>& id) {
    j = id.rawValue;
}

template <class Json, class Domain>
void from_json(const Json& j, IntegrationID<Domain>& id) {
    id.rawValue = j.template get<std::string>();
}

}  // namespace kestrel

template <class Domain>
struct std::hash<kestrel::IntegrationID<Domain>> {
    std::size_t operator()(const kestrel::IntegrationID<Domain>& id) const noexcept {
        return std::hash<std::string>{}(id.rawValue);
    }
};
