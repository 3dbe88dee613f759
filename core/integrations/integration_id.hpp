#pragma once
// Typed identifiers: one text value tagged with the kind of thing it names, so that an account id
// can never be passed where an instance id is expected. Stored as plain text.

#include <compare>
#include <functional>
#include <string>

namespace kestrel {

struct IntegrationPluginIDDomain {};
struct IntegrationInstanceIDDomain {};
struct SubscriptionAccountIDDomain {};
struct AccountBindingIDDomain {};
struct CredentialHandleDomain {};

template <class Domain>
struct IntegrationID {
    std::string value;

    IntegrationID() = default;
    explicit IntegrationID(std::string v) : value(std::move(v)) {}

    const std::string& text() const { return value; }
    auto operator<=>(const IntegrationID&) const = default;
};

using IntegrationPluginID = IntegrationID<IntegrationPluginIDDomain>;
using IntegrationInstanceID = IntegrationID<IntegrationInstanceIDDomain>;
using SubscriptionAccountID = IntegrationID<SubscriptionAccountIDDomain>;
using AccountBindingID = IntegrationID<AccountBindingIDDomain>;
using CredentialHandleID = IntegrationID<CredentialHandleDomain>;

}  // namespace kestrel

template <class Domain>
struct std::hash<kestrel::IntegrationID<Domain>> {
    std::size_t operator()(const kestrel::IntegrationID<Domain>& id) const noexcept {
        return std::hash<std::string>{}(id.value);
    }
};
