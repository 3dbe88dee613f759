// The enciphered file key store: keys come back as given, both files stay private, and a
// replaced key file, an altered entry or a lost key file each fail with their own error instead
// of a wrong key or an empty store.

#include "core/plans/key_store.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "core/plans/plan_salt.hpp"
#include "tests/support/file_text.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::readFile;
using test_support::TempDir;
using Kind = KeyStoreError::Kind;

constexpr std::string_view kSecret = "sk-KEYSTORE-SECRET-0123456789";

mode_t modeOf(const std::filesystem::path& path) {
    struct stat st {};
    EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
    return st.st_mode & 0777;
}

TEST(KeyStore, KeysRoundTripAndStayPrivate) {
    TempDir support;
    const mode_t old = ::umask(0);  // whatever the umask, the files are 0600
    {
        auto store = makeFileKeyStore(support.path());
        ASSERT_TRUE(store->set("deepseek", kSecret).has_value());
        ASSERT_TRUE(store->set("glm-cn", "second-key").has_value());
        ASSERT_TRUE(store->set("deepseek", "replaced-key").has_value());
    }
    ::umask(old);
    EXPECT_EQ(modeOf(support / "keys.enc"), 0600u);
    EXPECT_EQ(modeOf(support / "keys.key"), 0600u);

    // A fresh object reads what the first wrote.
    auto store = makeFileKeyStore(support.path());
    EXPECT_EQ(store->get("deepseek").value(), "replaced-key");
    EXPECT_EQ(store->get("glm-cn").value(), "second-key");
    EXPECT_EQ(store->get("openrouter").value(), std::nullopt);
    EXPECT_EQ(store->names().value(), (std::vector<std::string>{"deepseek", "glm-cn"}));

    EXPECT_EQ(store->remove("glm-cn").value(), true);
    EXPECT_EQ(store->remove("glm-cn").value(), false);
    EXPECT_EQ(store->names().value(), (std::vector<std::string>{"deepseek"}));

    // Neither key is in the stored file in any form we could grep for.
    const std::string text = readFile(support / "keys.enc");
    EXPECT_EQ(text.find("replaced-key"), std::string::npos);
    EXPECT_EQ(text.find(kSecret), std::string::npos);
}

TEST(KeyStore, DamageIsNamedNotHidden) {
    struct Case {
        const char* name;
        std::function<void(const TempDir&)> damage;
        Kind expected;
    };
    const std::vector<Case> cases = {
        {"another key file", [](const TempDir& d) { d.write("keys.key", std::string(32, 'x')); },
         Kind::wrongKeyFile},
        {"a short key file", [](const TempDir& d) { d.write("keys.key", "short"); },
         Kind::wrongKeyFile},
        {"no key file", [](const TempDir& d) { std::filesystem::remove(d / "keys.key"); },
         Kind::keyFileMissing},
        {"an altered ciphertext",
         [](const TempDir& d) {
             auto doc = nlohmann::json::parse(readFile(d / "keys.enc"));
             auto data = doc["entries"]["deepseek"]["data"].get<std::string>();
             data[0] = data[0] == 'a' ? 'b' : 'a';
             doc["entries"]["deepseek"]["data"] = data;
             d.write("keys.enc", doc.dump());
         },
         Kind::tampered},
        {"an entry moved under another name",
         [](const TempDir& d) {
             auto doc = nlohmann::json::parse(readFile(d / "keys.enc"));
             doc["entries"]["openrouter"] = doc["entries"]["deepseek"];
             doc["entries"].erase("deepseek");
             d.write("keys.enc", doc.dump());
         },
         Kind::tampered},
        {"a store that is not JSON", [](const TempDir& d) { d.write("keys.enc", "{{"); },
         Kind::unreadable},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir support;
        ASSERT_TRUE(makeFileKeyStore(support.path())->set("deepseek", kSecret).has_value());
        c.damage(support);
        auto store = makeFileKeyStore(support.path());
        const std::string name =
            c.expected == Kind::tampered && std::string(c.name).find("moved") != std::string::npos
                ? "openrouter"
                : "deepseek";
        const auto got = store->get(name);
        ASSERT_FALSE(got.has_value());
        EXPECT_EQ(got.error().kind, c.expected) << got.error().message;
        EXPECT_EQ(got.error().message.find(kSecret), std::string::npos);
        EXPECT_FALSE(got.error().message.empty());
        // Writing over a store that cannot be read would lose its keys: refused as well, except
        // for a damaged entry, which the user replaces by setting it again.
        const auto set = store->set("glm-cn", "other");
        EXPECT_EQ(set.has_value(), c.expected == Kind::tampered) << c.name;
    }
}

TEST(KeyStore, NamesAreShortLowerCaseWords) {
    TempDir support;
    auto store = makeFileKeyStore(support.path());
    for (const char* bad : {"", "DeepSeek", "../keys", "a b", "x/y"}) {
        const auto set = store->set(bad, kSecret);
        ASSERT_FALSE(set.has_value()) << bad;
        EXPECT_EQ(set.error().kind, Kind::invalidName);
    }
    EXPECT_TRUE(store->set("minimax-global", kSecret).has_value());
}

TEST(KeyStore, WithoutASessionBusTheFileIsUsed) {
    TempDir support;
    EXPECT_EQ(openKeyStore(support.path(), emptyEnvironment())->backend(), "file");
    const EnvironmentLookup forced = [](std::string_view name) -> std::optional<std::string> {
        if (name == "DBUS_SESSION_BUS_ADDRESS")
            return "unix:path=/nonexistent/bus";
        if (name == "KESTREL_KEY_STORE")
            return "file";
        return std::nullopt;
    };
    EXPECT_EQ(openKeyStore(support.path(), forced)->backend(), "file");
}

TEST(PlanSalt, IsMadeOnceAndFingerprintsDependOnIt) {
    TempDir a, b;
    const auto saltA = PlanSalt::loadOrCreate(a.path());
    ASSERT_TRUE(saltA.has_value());
    EXPECT_EQ(PlanSalt::loadOrCreate(a.path()).value(), *saltA);
    EXPECT_EQ(modeOf(a / ".plansalt"), 0600u);
    const auto saltB = PlanSalt::loadOrCreate(b.path()).value();
    EXPECT_NE(*saltA, saltB);

    const auto fp = credentialFingerprint(*saltA, kSecret);
    EXPECT_EQ(fp, credentialFingerprint(*saltA, kSecret));
    EXPECT_NE(fp, credentialFingerprint(saltB, kSecret));
    EXPECT_NE(fp, credentialFingerprint(*saltA, "sk-KEYSTORE-SECRET-012345678"));
    EXPECT_EQ(fp.size(), 15u);  // "fp:" and 12 digits: no room for the key

    a.write(".plansalt", "short");
    EXPECT_FALSE(PlanSalt::loadOrCreate(a.path()).has_value());
}

}  // namespace
}  // namespace kestrel
