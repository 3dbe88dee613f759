// Back-offs and refreshed tokens kept between runs: what is still current comes back, what is
// over does not, the tokens are never readable in the file, and a damaged file restores nothing
// rather than something wrong.

#include "core/plans/quota_state_store.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/support/file_text.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::readFile;
using test_support::TempDir;

constexpr double kNow = 1'800'000'000;

OAuthTokens tokens(const std::string& access, std::optional<double> expiresAt) {
    OAuthTokens t;
    t.accessToken = access;
    t.refreshToken = access + "-REFRESH";
    t.expiresAt = expiresAt;
    t.accountID = "acct-1";
    return t;
}

class QuotaStateStoreTest : public ::testing::Test {
  protected:
    void saveSome() {
        QuotaRefresher refresher;
        refresher.restore({{"source:claude", 2, kNow + 600}, {"plan:glm", 1, kNow - 5}});
        TokenCache cache;
        cache.put(AgentSource::kimi, tokens("KIMI-FRESH-SECRET", kNow + 3600));
        cache.put(AgentSource::codex, tokens("CODEX-OLD-SECRET", kNow - 1));
        cache.put(AgentSource::grok, tokens("GROK-NOEXPIRY-SECRET", std::nullopt));
        ASSERT_TRUE(QuotaStateStore::save(support.path(), refresher, cache, kNow));
    }

    TempDir support;
};

TEST_F(QuotaStateStoreTest, WhatIsStillCurrentComesBackAndTokensStayEnciphered) {
    saveSome();
    const auto path = support / QuotaStateStore::kFileName;
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    const std::string text = readFile(path);
    for (const char* secret : {"KIMI-FRESH-SECRET", "GROK-NOEXPIRY-SECRET", "CODEX-OLD-SECRET"}) {
        EXPECT_EQ(text.find(secret), std::string::npos) << secret;
    }

    QuotaRefresher refresher;
    TokenCache cache;
    QuotaStateStore::load(support.path(), refresher, cache, kNow + 10);
    EXPECT_EQ(refresher.blockedUntil("source:claude", kNow + 10), kNow + 600);
    EXPECT_EQ(refresher.blockedUntil("plan:glm", kNow + 10), std::nullopt);
    EXPECT_EQ(cache.get(AgentSource::kimi), tokens("KIMI-FRESH-SECRET", kNow + 3600));
    EXPECT_EQ(cache.get(AgentSource::grok), tokens("GROK-NOEXPIRY-SECRET", std::nullopt));
    EXPECT_EQ(cache.get(AgentSource::codex), std::nullopt);

    // Later, the back-off is over and the Kimi token has expired.
    QuotaRefresher later;
    TokenCache laterCache;
    QuotaStateStore::load(support.path(), later, laterCache, kNow + 4000);
    EXPECT_EQ(later.blockedUntil("source:claude", kNow + 4000), std::nullopt);
    EXPECT_EQ(laterCache.get(AgentSource::kimi), std::nullopt);
    EXPECT_TRUE(laterCache.get(AgentSource::grok).has_value());
}

TEST_F(QuotaStateStoreTest, DamageRestoresNoTokens) {
    struct Case {
        const char* name;
        std::function<void(const TempDir&)> damage;
        bool backoffSurvives;
    };
    const std::vector<Case> cases = {
        {"another key file", [](const TempDir& d) { d.write("keys.key", std::string(32, 'z')); },
         true},
        {"no key file", [](const TempDir& d) { std::filesystem::remove(d / "keys.key"); }, true},
        {"altered tokens",
         [](const TempDir& d) {
             auto doc = nlohmann::json::parse(readFile(d / QuotaStateStore::kFileName));
             auto hex = doc["tokens"].get<std::string>();
             hex[40] = hex[40] == '0' ? '1' : '0';
             doc["tokens"] = hex;
             d.write(QuotaStateStore::kFileName, doc.dump());
         },
         true},
        {"not JSON", [](const TempDir& d) { d.write(QuotaStateStore::kFileName, "{"); }, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        saveSome();
        c.damage(support);
        QuotaRefresher refresher;
        TokenCache cache;
        QuotaStateStore::load(support.path(), refresher, cache, kNow);
        EXPECT_TRUE(cache.entries().empty());
        EXPECT_EQ(refresher.blockedUntil("source:claude", kNow).has_value(), c.backoffSurvives);
        std::filesystem::remove(support / "keys.key");
    }
}

}  // namespace
}  // namespace kestrel
