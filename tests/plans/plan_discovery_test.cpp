// Plan discovery over a home with every place a plan key can sit: what becomes a candidate, that
// ids stay put while revisions follow the key, and that keys are read again only from where the
// locator points.

#include "core/plans/plan_discovery.hpp"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <functional>
#include <map>

#include "core/model/base64.hpp"
#include "core/plans/key_store.hpp"
#include "core/plans/plan_salt.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;

constexpr const char* kSalt = "0123456789abcdef0123456789abcdef";

void writeSwitcher(const TempDir& home, const std::vector<std::vector<std::string>>& rows) {
    std::filesystem::create_directories(home / ".cc-switch");
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open((home / ".cc-switch/cc-switch.db").c_str(), &db), SQLITE_OK);
    sqlite3_exec(db,
                 "CREATE TABLE providers (id TEXT NOT NULL, app_type TEXT NOT NULL, name TEXT NOT "
                 "NULL, settings_config TEXT NOT NULL, is_current BOOLEAN DEFAULT 0, "
                 "PRIMARY KEY (id, app_type));",
                 nullptr, nullptr, nullptr);
    for (const auto& row : rows) {
        sqlite3_stmt* insert = nullptr;
        sqlite3_prepare_v2(db, "INSERT INTO providers VALUES (?, ?, ?, ?, ?);", -1, &insert,
                           nullptr);
        for (int i = 0; i < 4; ++i) {
            sqlite3_bind_text(insert, i + 1, row[i].c_str(), -1, SQLITE_TRANSIENT);
        }
        sqlite3_bind_int(insert, 5, row[4] == "1");
        ASSERT_EQ(sqlite3_step(insert), SQLITE_DONE);
        sqlite3_finalize(insert);
    }
    sqlite3_close(db);
}

EnvironmentLookup envOf(std::map<std::string, std::string> vars) {
    return [vars = std::move(vars)](std::string_view name) -> std::optional<std::string> {
        const auto it = vars.find(std::string(name));
        return it == vars.end() ? std::nullopt : std::optional(it->second);
    };
}

class PlanDiscoveryTest : public ::testing::Test {
  protected:
    PlanDiscoveryTest() {
        home.write(".claude/settings.json", R"({"model": "glm-4.6", "env": {
            "ANTHROPIC_BASE_URL": "https://open.bigmodel.cn/api/anthropic",
            "ANTHROPIC_AUTH_TOKEN": "GLM-SETTINGS-SECRET-1"}})");
        home.write(".codex/config.toml", R"(model_provider = "minimax"
[model_providers.minimax]
base_url = "https://api.minimax.io/v1"
env_key = "MINIMAX_API_KEY"

[model_providers.relay]
base_url = "https://openrouter.ai/api/v1"
env_key = "OPENROUTER_API_KEY"
)");
        writeSwitcher(home, {
                                {"p1", "claude", "Kimi coding",
                                 R"({"env": {"ANTHROPIC_BASE_URL": "https://api.kimi.com/coding/",
                         "ANTHROPIC_AUTH_TOKEN": "KIMI-SWITCHER-SECRET-2"}})",
                                 "1"},
                                {"p2", "claude", "Template",
                                 R"({"env": {"ANTHROPIC_BASE_URL": "https://api.z.ai/api/anthropic",
                         "ANTHROPIC_AUTH_TOKEN": "${YOUR_API_KEY}"}})",
                                 "0"},
                                {"c1", "codex", "GLM for Codex",
                                 R"({"auth": {"OPENAI_API_KEY": "GLM-CODEX-SECRET-3"},
                 "config": "model_provider = \"zai\"\n[model_providers.zai]\nbase_url = \"https://open.bigmodel.cn/api/coding/paas/v4\"\n"})",
                                 "0"},
                                {"x1", "claude", "Official", R"({"env": {}})", "0"},
                            });
        inputs.home = home.path();
        inputs.env = envOf({{"MINIMAX_API_KEY", "sk-cp-MINIMAX-ENV-SECRET-4"},
                            {"OPENROUTER_API_KEY", "OPENROUTER-SECRET-5"}});
        inputs.salt = kSalt;
    }

    const PlanCandidateRecord* byEntry(const std::vector<PlanCandidateRecord>& all,
                                       std::string_view entry) {
        for (const auto& c : all) {
            if (c.sourceEntryID == entry) {
                return &c;
            }
        }
        return nullptr;
    }

    TempDir home;
    PlanDiscoveryInputs inputs;
};

TEST_F(PlanDiscoveryTest, EveryPlaceYieldsItsPlanAndNothingElse) {
    const auto all = PlanDiscovery::candidates(PlanDiscovery::findAll(inputs), kSalt, 100);
    struct Expect {
        const char* entry;
        const char* tool;
        const char* family;
        const char* region;
        const char* origin;
        const char* resolution;
        bool current;
    };
    const std::vector<Expect> expected = {
        {"settings.env", "claude", "glm", "cn", "harnessFile", "available", true},
        {"model_providers.minimax", "codex", "minimax", "global", "env", "available", true},
        {"ccswitch:claude/p1", "claude", "kimi", "global", "ccswitch", "available", true},
        {"ccswitch:claude/p2", "claude", "glm", "global", "ccswitch", "placeholder", false},
        {"ccswitch:codex/c1", "codex", "glm", "cn", "ccswitch", "available", false},
    };
    ASSERT_EQ(all.size(), expected.size());  // the relay and the empty entry are no plans
    for (const auto& e : expected) {
        SCOPED_TRACE(e.entry);
        const auto* c = byEntry(all, e.entry);
        ASSERT_NE(c, nullptr);
        EXPECT_EQ(c->toolID, e.tool);
        EXPECT_EQ(c->family, e.family);
        EXPECT_EQ(c->region, e.region);
        EXPECT_EQ(c->credentialOrigin, e.origin);
        EXPECT_EQ(c->credentialResolution, e.resolution);
        EXPECT_EQ(c->isCurrent, e.current);
        EXPECT_EQ(c->decision, "pending");
        EXPECT_EQ(c->credentialFingerprint.has_value(), std::string(e.resolution) == "available");
        EXPECT_TRUE(c->proposedAccountID.starts_with(std::string(e.family) + "-" + e.region + "-"));
        // Each candidate's key is read again from where it was found.
        ASSERT_TRUE(c->credentialLocator.has_value());
        const auto again = PlanDiscovery::resolve(*c->credentialLocator, inputs);
        EXPECT_EQ(std::string(rawValue(again.resolution)), e.resolution);
        if (again.secret) {
            EXPECT_EQ(credentialFingerprint(kSalt, *again.secret), c->credentialFingerprint);
        }
    }
}

TEST_F(PlanDiscoveryTest, IdsStayWhileRevisionsFollowTheKey) {
    const auto first = PlanDiscovery::candidates(PlanDiscovery::findAll(inputs), kSalt, 100);
    const auto same = PlanDiscovery::candidates(PlanDiscovery::findAll(inputs), kSalt, 200);
    ASSERT_EQ(first.size(), same.size());
    for (std::size_t i = 0; i < first.size(); ++i) {
        EXPECT_EQ(first[i].id, same[i].id);
        EXPECT_EQ(first[i].revision, same[i].revision);
    }

    home.write(".claude/settings.json", R"({"env": {
        "ANTHROPIC_BASE_URL": "https://open.bigmodel.cn/api/anthropic",
        "ANTHROPIC_AUTH_TOKEN": "GLM-SETTINGS-SECRET-CHANGED"}})");
    const auto changed = PlanDiscovery::candidates(PlanDiscovery::findAll(inputs), kSalt, 300);
    const auto* before = byEntry(first, "settings.env");
    const auto* after = byEntry(changed, "settings.env");
    ASSERT_TRUE(before && after);
    EXPECT_EQ(before->id, after->id);
    EXPECT_NE(before->revision, after->revision);
    EXPECT_NE(before->credentialFingerprint, after->credentialFingerprint);
    // Another key is another account.
    EXPECT_NE(before->proposedAccountID, after->proposedAccountID);
    // The untouched candidates keep their revisions.
    EXPECT_EQ(byEntry(first, "ccswitch:claude/p1")->revision,
              byEntry(changed, "ccswitch:claude/p1")->revision);

    // Another salt gives other ids: nothing derived from a key matches across installations.
    const auto salted = PlanDiscovery::candidates(PlanDiscovery::findAll(inputs),
                                                  "fedcba9876543210fedcba9876543210", 100);
    EXPECT_NE(byEntry(salted, "ccswitch:claude/p1")->id, byEntry(first, "ccswitch:claude/p1")->id);
}

TEST_F(PlanDiscoveryTest, EnvironmentPairsAndMissingKeys) {
    PlanDiscoveryInputs env = inputs;
    env.home = TempDir().path();  // nothing on disk
    env.env = envOf({{"ANTHROPIC_BASE_URL", "https://api.minimaxi.com/anthropic"},
                     {"ANTHROPIC_API_KEY", "sk-cp-ENV-SECRET-6"},
                     {"OPENAI_BASE_URL", "https://open.bigmodel.cn/api/coding/paas/v4"}});
    const auto all = PlanDiscovery::candidates(PlanDiscovery::environment(env), kSalt, 1);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].family, "minimax");
    EXPECT_EQ(all[0].region, "cn");
    EXPECT_EQ(all[0].credentialLocator, "env:ANTHROPIC_API_KEY");
    EXPECT_EQ(all[0].credentialResolution, "available");
    EXPECT_EQ(all[1].family, "glm");
    EXPECT_EQ(all[1].credentialResolution, "missing");
    EXPECT_FALSE(all[1].credentialFingerprint.has_value());
}

TEST_F(PlanDiscoveryTest, LocatorsReadOnlyWhereTheyPoint) {
    TempDir support;
    auto keys = makeFileKeyStore(support.path());
    ASSERT_TRUE(keys->set("glm-cn", "KEYSTORE-SECRET-7").has_value());
    PlanDiscoveryInputs withKeys = inputs;
    withKeys.keys = keys.get();
    home.write(".codex/secret.toml", "[a]\nb = \"TOML-SECRET-8\"\n");
    struct Case {
        std::string locator;
        CredentialResolution resolution;
        std::optional<std::string> secret;
    };
    const std::vector<Case> cases = {
        {"keystore:glm-cn", CredentialResolution::available, "KEYSTORE-SECRET-7"},
        {"keystore:deepseek", CredentialResolution::missing, std::nullopt},
        {"env:OPENROUTER_API_KEY", CredentialResolution::available, "OPENROUTER-SECRET-5"},
        {"env:NOT_SET", CredentialResolution::missing, std::nullopt},
        {"toml:.codex/secret.toml#a.b", CredentialResolution::available, "TOML-SECRET-8"},
        {"file:.claude/settings.json#/env/ANTHROPIC_AUTH_TOKEN", CredentialResolution::available,
         "GLM-SETTINGS-SECRET-1"},
        {"file:.claude/settings.json#/env/NOPE", CredentialResolution::missing, std::nullopt},
        // Out of the home folder, whatever a damaged row says.
        {"file:../outside.json#/k", CredentialResolution::missing, std::nullopt},
        {"file:/etc/passwd#/k", CredentialResolution::missing, std::nullopt},
        {"ccswitch:claude/p2#/env/ANTHROPIC_AUTH_TOKEN", CredentialResolution::placeholder,
         std::nullopt},
        {"ccswitch:claude/gone#/env/ANTHROPIC_AUTH_TOKEN", CredentialResolution::missing,
         std::nullopt},
        {"nonsense", CredentialResolution::missing, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.locator);
        const auto got = PlanDiscovery::resolve(c.locator, withKeys);
        EXPECT_EQ(got.resolution, c.resolution);
        EXPECT_EQ(got.secret, c.secret);
    }
}

// A JWT whose claims are `claims` (unsigned: only its claims are read).
std::string jwtWith(const std::string& claims) {
    std::string part = base64::encode(claims);
    for (char& c : part) {
        c = c == '+' ? '-' : c == '/' ? '_' : c;
    }
    std::erase(part, '=');
    return "e30." + part + ".sig";
}

// Each agent's sign-in is one candidate that holds neither a token nor the account's name; it
// keeps its id and revision while the agent refreshes its tokens, gets a new revision (and
// account) when another account signs in, and is gone when the agent signs out.
TEST(PlanDiscoverySignIns, ASignInStaysOneCandidateWhileItsTokensChange) {
    struct Case {
        AgentSource agent;
        const char* file;
        const char* shown;
        // The files of a sign-in of `account` holding tokens made from `token`.
        std::function<void(const TempDir&, const std::string&, const std::string&)> write;
    };
    const Case cases[] = {
        {AgentSource::claude, ".claude/.credentials.json", "~/.claude/.credentials.json",
         [](const TempDir& home, const std::string& account, const std::string& token) {
             home.write(".claude/.credentials.json",
                        R"({"claudeAiOauth": {"accessToken": "sk-ant-oat01-)" + token +
                            R"(", "refreshToken": "sk-ant-ort01-)" + token +
                            R"(", "expiresAt": 4102444800000, "subscriptionType": "max"}})");
             home.write(".claude.json", R"({"oauthAccount": {"accountUuid": ")" + account +
                                            R"(", "organizationUuid": "org-1"}})");
         }},
        {AgentSource::codex, ".codex/auth.json", "~/.codex/auth.json",
         [](const TempDir& home, const std::string& account, const std::string& token) {
             home.write(".codex/auth.json", R"({"tokens": {"access_token": ")" + token +
                                                R"(", "refresh_token": "rt-)" + token +
                                                R"(", "account_id": ")" + account + R"("}})");
         }},
        {AgentSource::kimi, ".kimi-code/credentials/kimi-code.json",
         "~/.kimi-code/credentials/kimi-code.json",
         [](const TempDir& home, const std::string& account, const std::string& token) {
             home.write(".kimi-code/credentials/kimi-code.json",
                        R"({"access_token": ")" +
                            jwtWith(R"({"sub": ")" + account + R"(", "n": ")" + token + "\"}") +
                            R"(", "refresh_token": "rt-)" + token +
                            R"(", "expires_at": 4102444800})");
         }},
        {AgentSource::grok, ".grok/auth.json", "~/.grok/auth.json",
         [](const TempDir& home, const std::string& account, const std::string& token) {
             home.write(".grok/auth.json",
                        R"({"tokens": {"access_token": ")" + token +
                            R"(", "refresh_token": "rt-)" + token + R"(", "id_token": ")" +
                            jwtWith(R"({"sub": ")" + account + R"(", "email": ")" + account +
                                    R"(@example.com"})") +
                            "\"}}");
         }},
    };
    for (const auto& c : cases) {
        const std::string agent(rawValue(c.agent));
        SCOPED_TRACE(agent);
        TempDir home;
        const PlanDiscoveryInputs inputs{home.path(), {}, kSalt, nullptr};
        const auto discover = [&] {
            return PlanDiscovery::candidates(PlanDiscovery::oauthSignIns(inputs), kSalt, 100);
        };
        EXPECT_TRUE(discover().empty()) << "not signed in";

        c.write(home, "ACCOUNT-ALPHA-1", "TOKEN-FIRST-1");
        const auto first = discover();
        ASSERT_EQ(first.size(), 1u);
        const auto& f = first[0];
        EXPECT_EQ(f.family, "oauth");
        EXPECT_EQ(f.toolID, agent);
        EXPECT_EQ(f.credentialOrigin, "oauth");
        EXPECT_EQ(f.credentialLocator, "oauth:" + agent);
        EXPECT_EQ(f.sourceDisplayName, c.shown);
        EXPECT_EQ(f.credentialResolution, "available");
        ASSERT_TRUE(f.credentialFingerprint && f.credentialFingerprint->starts_with("fp:"));
        EXPECT_TRUE(f.proposedAccountID.starts_with("oauth-" + agent + "-"));
        const std::string fields = f.id + f.revision + f.bindingKey + f.sourceDisplayName +
                                   f.sourceEntryID + *f.credentialLocator +
                                   *f.credentialFingerprint + f.proposedAccountID;
        for (const char* secret : {"TOKEN-FIRST-1", "ACCOUNT-ALPHA-1"}) {
            EXPECT_EQ(fields.find(secret), std::string::npos) << secret;
        }
        // Reading the sign-in again finds the one that was fingerprinted.
        const auto again = PlanDiscovery::resolve(*f.credentialLocator, inputs);
        ASSERT_EQ(again.resolution, CredentialResolution::available);
        EXPECT_EQ(credentialFingerprint(kSalt, *again.secret), f.credentialFingerprint);

        c.write(home, "ACCOUNT-ALPHA-1", "TOKEN-REFRESHED-2");
        const auto refreshed = discover();
        ASSERT_EQ(refreshed.size(), 1u);
        EXPECT_EQ(refreshed[0].id, f.id);
        EXPECT_EQ(refreshed[0].revision, f.revision);
        EXPECT_EQ(refreshed[0].proposedAccountID, f.proposedAccountID);

        c.write(home, "ACCOUNT-BRAVO-2", "TOKEN-REFRESHED-2");
        const auto other = discover();
        ASSERT_EQ(other.size(), 1u);
        EXPECT_EQ(other[0].id, f.id);
        EXPECT_NE(other[0].revision, f.revision);
        EXPECT_NE(other[0].proposedAccountID, f.proposedAccountID);

        std::filesystem::remove(home / c.file);
        EXPECT_TRUE(discover().empty()) << "signed out";
        EXPECT_EQ(PlanDiscovery::resolve(*f.credentialLocator, inputs).resolution,
                  CredentialResolution::missing);
    }
    // A locator that names no agent with a sign-in reads nothing.
    TempDir home;
    const PlanDiscoveryInputs inputs{home.path(), {}, kSalt, nullptr};
    EXPECT_FALSE(PlanDiscovery::signInAgent("oauth:cursor"));
    EXPECT_EQ(PlanDiscovery::resolve("oauth:nobody", inputs).resolution,
              CredentialResolution::missing);
}

TEST(PlanDiscoveryPlaceholders, TemplateValuesAreNoKeys) {
    for (const char* v :
         {"", "${GLM_KEY}", "<your api key>", "YOUR_KEY_HERE", "sk-xxxxxxxx", "sk-"}) {
        EXPECT_TRUE(PlanDiscovery::isPlaceholder(v)) << v;
    }
    for (const char* v : {"sk-cp-a1b2c3d4e5", "0f1e2d3c4b5a.abcdef"}) {
        EXPECT_FALSE(PlanDiscovery::isPlaceholder(v)) << v;
    }
}

}  // namespace
}  // namespace kestrel
