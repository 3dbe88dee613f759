#include "core/model/integration_id.hpp"

#include <gtest/gtest.h>

#include <type_traits>
#include <unordered_set>

#include "core/model/enum_set_coding.hpp"
#include "core/model/integration_enums.hpp"

namespace kestrel {
namespace {

// Ids of one domain never stand in for another, nor does plain text become an id implicitly.
static_assert(!std::is_convertible_v<IntegrationInstanceID, IntegrationPluginID>);
static_assert(!std::is_convertible_v<IntegrationPluginID, IntegrationInstanceID>);
static_assert(!std::is_convertible_v<SubscriptionAccountID, AccountBindingID>);
static_assert(!std::is_convertible_v<CredentialHandleID, SubscriptionAccountID>);
static_assert(!std::is_convertible_v<std::string, IntegrationInstanceID>);
static_assert(!std::is_constructible_v<IntegrationPluginID, IntegrationInstanceID>);

TEST(IntegrationIDTest, EncodesAsItsBareText) {
    const IntegrationInstanceID id("4f1c2a9e-0000-4000-8000-000000000001");
    nlohmann::json j = id;
    ASSERT_TRUE(j.is_string());
    EXPECT_EQ(j.get<std::string>(), id.rawValue);
    EXPECT_EQ(j.get<IntegrationInstanceID>(), id);
    EXPECT_EQ(id.description(), id.rawValue);
}

TEST(IntegrationIDTest, EqualTextMeansEqualIdAndHash) {
    std::unordered_set<IntegrationPluginID> seen;
    seen.insert(IntegrationPluginID("a"));
    seen.insert(IntegrationPluginID("a"));
    seen.insert(IntegrationPluginID("b"));
    EXPECT_EQ(seen.size(), 2u);
    EXPECT_TRUE(seen.contains(IntegrationPluginID("b")));
}

TEST(EnumSetCodingTest, TextListsCasesInDeclarationOrderAndRoundTrips) {
    const std::set<IntegrationPermission> granted{IntegrationPermission::credentialRead,
                                                  IntegrationPermission::homeDirectoryRead};
    const auto text = enumset::toText(granted);
    EXPECT_EQ(text, "homeDirectoryRead,credentialRead");
    EXPECT_EQ(enumset::fromText<IntegrationPermission>(text), granted);
    EXPECT_EQ(enumset::fromText<IntegrationPermission>(""), std::set<IntegrationPermission>{});
}

TEST(EnumSetCodingTest, DamagedTextIsRejected) {
    for (const char* text : {"homeDirectoryRead,", "homeDirectoryRead,,credentialRead", "root",
                             "homeDirectoryRead, credentialRead"}) {
        EXPECT_FALSE(enumset::fromText<IntegrationPermission>(text)) << text;
    }
}

}  // namespace
}  // namespace kestrel
