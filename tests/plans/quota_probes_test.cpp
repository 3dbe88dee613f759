// The probes against loopback servers: what they send, each failure status, refreshing an
// expired sign-in (without touching the agent's file), timeouts, and where credentials may go.

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <map>
#include <sstream>

#include "core/plans/live_quota.hpp"
#include "core/plans/plan_probes.hpp"
#include "core/plans/provider_hosts.hpp"
#include "tests/support/file_text.hpp"
#include "tests/support/loopback_server.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::readFile;
using test_support::LoopbackServer;
using test_support::TempDir;

constexpr double kNow = 1'780'000'000;

// base64url of {"exp":N} as a JWT, for tokens that expire at a chosen time.
std::string jwtExpiringAt(long long exp) {
    static const char* alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    const std::string payload = "{\"exp\":" + std::to_string(exp) + "}";
    std::string out;
    int bits = 0;
    unsigned value = 0;
    for (unsigned char c : payload) {
        value = (value << 8) | c;
        bits += 8;
        while (bits >= 6) {
            out.push_back(alphabet[(value >> (bits - 6)) & 63]);
            bits -= 6;
        }
    }
    if (bits > 0) {
        out.push_back(alphabet[(value << (6 - bits)) & 63]);
    }
    return "eyJhbGciOiJub25lIn0." + out + ".sig";
}

EnvironmentLookup hostsAt(const LoopbackServer& server, std::vector<std::string> names) {
    return [url = server.url(""), names](std::string_view name) -> std::optional<std::string> {
        for (const auto& n : names) {
            if (name == "KESTREL_BASE_URL_" + n) {
                return url + "/";
            }
        }
        return std::nullopt;
    };
}

constexpr const char* kClaudeBody =
    R"({"five_hour": {"utilization": 20, "resets_at": "2026-06-01T10:00:00Z"}, "seven_day": {"utilization": 4}})";

TEST(QuotaProbes, ClaudeSendsTheTokenAndBetaHeader) {
    TempDir home;
    home.write(
        ".claude/.credentials.json",
        R"({"claudeAiOauth": {"accessToken": "tok-claude", "expiresAt": 1790000000000, "subscriptionType": "pro"}})");
    std::string authorization, beta;
    LoopbackServer server([&](httplib::Server& s) {
        s.Get("/api/oauth/usage", [&](const httplib::Request& req, httplib::Response& res) {
            authorization = req.get_header_value("Authorization");
            beta = req.get_header_value("anthropic-beta");
            res.set_content(kClaudeBody, "application/json");
        });
    });
    const ProbeContext context{home.path(), hostsAt(server, {"CLAUDE"}), std::chrono::seconds(5),
                               nullptr};
    const auto result = LiveQuota::claude(context, kNow);
    ASSERT_TRUE(result.has_value());
    ASSERT_TRUE(result->has_value());
    EXPECT_EQ(authorization, "Bearer tok-claude");
    EXPECT_EQ(beta, LiveQuota::claudeBetaHeader);
    EXPECT_EQ((*result)->identity.planLabel, "Pro");
    EXPECT_EQ((*result)->windows.size(), 2u);
}

TEST(QuotaProbes, FailureStatusesMapToProbeErrors) {
    TempDir home;
    home.write(".claude/.credentials.json",
               R"({"claudeAiOauth": {"accessToken": "tok", "expiresAt": 1790000000000}})");
    const struct {
        int status;
        const char* retryAfter;
        const char* body;
        ProbeError::Kind kind;
        std::optional<double> retryAfterSeconds;
    } cases[] = {
        {401, nullptr, "{}", ProbeError::Kind::unauthorized, {}},
        {403, nullptr, "{}", ProbeError::Kind::unauthorized, {}},
        {429, "120", "{}", ProbeError::Kind::rateLimited, 120.0},
        {429, nullptr, "{}", ProbeError::Kind::rateLimited, {}},
        {500, nullptr, "oops", ProbeError::Kind::unreachable, {}},
        {404, nullptr, "{}", ProbeError::Kind::unexpected, {}},
        {200, nullptr, "", ProbeError::Kind::unexpected, {}},
        {200, nullptr, "{\"five_hour\": ", ProbeError::Kind::unexpected, {}},
    };
    for (const auto& c : cases) {
        LoopbackServer server([&](httplib::Server& s) {
            s.Get("/api/oauth/usage", [&](const httplib::Request&, httplib::Response& res) {
                res.status = c.status;
                if (c.retryAfter) {
                    res.set_header("Retry-After", c.retryAfter);
                }
                res.set_content(c.body, "application/json");
            });
        });
        const ProbeContext context{home.path(), hostsAt(server, {"CLAUDE"}),
                                   std::chrono::seconds(5), nullptr};
        const auto result = LiveQuota::claude(context, kNow);
        ASSERT_FALSE(result.has_value()) << c.status;
        EXPECT_EQ(result.error().kind, c.kind) << c.status << " " << c.body;
        EXPECT_EQ(result.error().retryAfterSeconds, c.retryAfterSeconds) << c.status;
    }
}

TEST(QuotaProbes, RetryAfterAsAnHttpDate) {
    EXPECT_EQ(HttpClient::parseRetryAfter("Thu, 01 Jan 1970 00:02:00 GMT", 60), 60.0);
    EXPECT_EQ(HttpClient::parseRetryAfter("Thu, 01 Jan 1970 00:00:10 GMT", 60), 0.0);
    EXPECT_FALSE(HttpClient::parseRetryAfter("soon", 0).has_value());
    EXPECT_FALSE(HttpClient::parseRetryAfter("-5", 0).has_value());
}

TEST(QuotaProbes, ASlowAnswerPastTheTimeoutIsUnreachable) {
    TempDir home;
    home.write(".claude/.credentials.json",
               R"({"claudeAiOauth": {"accessToken": "tok", "expiresAt": 1790000000000}})");
    LoopbackServer server([&](httplib::Server& s) {
        s.Get("/api/oauth/usage", [&](const httplib::Request&, httplib::Response& res) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1500));
            res.set_content(kClaudeBody, "application/json");
        });
    });
    const ProbeContext context{home.path(), hostsAt(server, {"CLAUDE"}),
                               std::chrono::milliseconds(200), nullptr};
    const auto started = std::chrono::steady_clock::now();
    const auto result = LiveQuota::claude(context, kNow);
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().kind, ProbeError::Kind::unreachable);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(1200));
}

TEST(QuotaProbes, NoCredentialsMeansNoRequest) {
    TempDir home;
    std::atomic<int> hits = 0;
    LoopbackServer server([&](httplib::Server& s) {
        s.Get(".*", [&](const httplib::Request&, httplib::Response& res) {
            ++hits;
            res.set_content("{}", "application/json");
        });
    });
    const ProbeContext context{home.path(), hostsAt(server, {"CLAUDE", "CODEX", "KIMI", "GROK"}),
                               std::chrono::seconds(5), nullptr};
    for (const auto source :
         {AgentSource::claude, AgentSource::codex, AgentSource::kimi, AgentSource::grok}) {
        const auto result = LiveQuota::probeFor(source)(context, kNow);
        ASSERT_TRUE(result.has_value());
        EXPECT_FALSE(result->has_value());
    }
    EXPECT_EQ(hits, 0);
}

TEST(QuotaProbes, CodexRefreshesAnExpiredTokenWithoutWritingTheAgentsFile) {
    TempDir home;
    const std::string oldToken = jwtExpiringAt(static_cast<long long>(kNow) - 3600);
    const std::string newToken = jwtExpiringAt(static_cast<long long>(kNow) + 3600);
    const std::string authText = R"({"tokens": {"access_token": ")" + oldToken +
                                 R"(", "refresh_token": "refresh-old", "account_id": "acct-1"}})";
    const auto authPath = home.write(".codex/auth.json", authText);
    std::atomic<int> refreshes = 0;
    std::string refreshBody, usageAuthorization, accountHeader;
    LoopbackServer server([&](httplib::Server& s) {
        s.Post("/oauth/token", [&](const httplib::Request& req, httplib::Response& res) {
            ++refreshes;
            refreshBody = req.body;
            res.set_content(
                R"({"access_token": ")" + newToken + R"(", "refresh_token": "refresh-new"})",
                "application/json");
        });
        s.Get("/backend-api/wham/usage", [&](const httplib::Request& req, httplib::Response& res) {
            usageAuthorization = req.get_header_value("Authorization");
            accountHeader = req.get_header_value("ChatGPT-Account-Id");
            if (usageAuthorization != "Bearer " + newToken) {
                res.status = 401;
                return;
            }
            res.set_content(
                R"({"plan_type": "pro", "rate_limit": {"primary_window": {"used_percent": 7, "limit_window_seconds": 18000}}})",
                "application/json");
        });
    });
    TokenCache cache;
    const ProbeContext context{home.path(), hostsAt(server, {"CODEX", "CODEX_AUTH"}),
                               std::chrono::seconds(5), &cache};
    const auto result = LiveQuota::codex(context, kNow);
    ASSERT_TRUE(result.has_value()) << result.error().detail;
    ASSERT_TRUE(result->has_value());
    EXPECT_EQ(refreshes, 1);
    EXPECT_NE(refreshBody.find("refresh-old"), std::string::npos);
    EXPECT_NE(refreshBody.find(LiveQuota::chatgptOAuthClientID), std::string::npos);
    EXPECT_EQ(accountHeader, "acct-1");
    EXPECT_EQ(readFile(authPath), authText) << "the agent's credential file must stay as it was";
    ASSERT_TRUE(cache.get(AgentSource::codex).has_value());
    EXPECT_EQ(cache.get(AgentSource::codex)->refreshToken, "refresh-new");

    // The next probe uses the kept token: no second refresh.
    ASSERT_TRUE(LiveQuota::codex(context, kNow + 60).has_value());
    EXPECT_EQ(refreshes, 1);
}

TEST(QuotaProbes, ARefusedTokenIsRefreshedAndRetriedOnce) {
    TempDir home;
    home.write(
        ".kimi-code/credentials/kimi-code.json",
        R"({"access_token": "kimi-old", "refresh_token": "kimi-refresh", "expires_at": 1790000000})");
    std::atomic<int> usageCalls = 0, refreshes = 0;
    std::atomic<bool> acceptNew = true;
    std::string refreshBody;
    LoopbackServer server([&](httplib::Server& s) {
        s.Post("/api/oauth/token", [&](const httplib::Request& req, httplib::Response& res) {
            ++refreshes;
            refreshBody = req.body;
            res.set_content(R"({"access_token": "kimi-new", "expires_in": 3600})",
                            "application/json");
        });
        s.Get("/coding/v1/usages", [&](const httplib::Request& req, httplib::Response& res) {
            ++usageCalls;
            if (!acceptNew || req.get_header_value("Authorization") != "Bearer kimi-new") {
                res.status = 401;
                return;
            }
            res.set_content(
                R"({"usage": {"limit": "100", "used": "10", "resetTime": "2026-06-03T00:00:00Z"}})",
                "application/json");
        });
        s.Get("/coding/v1/me", [&](const httplib::Request&, httplib::Response& res) {
            res.set_content(R"({"name": "K", "membershipLevel": "Moderato"})", "application/json");
        });
    });
    const ProbeContext context{home.path(), hostsAt(server, {"KIMI", "KIMI_AUTH"}),
                               std::chrono::seconds(5), nullptr};
    auto result = LiveQuota::kimi(context, kNow);
    ASSERT_TRUE(result.has_value()) << result.error().detail;
    ASSERT_TRUE(result->has_value());
    EXPECT_EQ((*result)->identity.planLabel, "Moderato");
    EXPECT_EQ(usageCalls, 2);
    EXPECT_EQ(refreshes, 1);
    EXPECT_NE(refreshBody.find("grant_type=refresh_token"), std::string::npos);
    EXPECT_NE(refreshBody.find(LiveQuota::kimiClientID), std::string::npos);

    // Refused again after the refresh: one retry only, then unauthorized.
    acceptNew = false;
    usageCalls = 0;
    refreshes = 0;
    result = LiveQuota::kimi(context, kNow);
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().kind, ProbeError::Kind::unauthorized);
    EXPECT_EQ(usageCalls, 2);
    EXPECT_EQ(refreshes, 1);
}

TEST(QuotaProbes, ARefusedRefreshIsAnExpiredSignIn) {
    TempDir home;
    home.write(".codex/auth.json", R"({"tokens": {"access_token": ")" +
                                       jwtExpiringAt(static_cast<long long>(kNow) - 10) +
                                       R"(", "refresh_token": "r"}})");
    std::atomic<int> usageCalls = 0;
    LoopbackServer server([&](httplib::Server& s) {
        s.Post("/oauth/token",
               [](const httplib::Request&, httplib::Response& res) { res.status = 401; });
        s.Get("/backend-api/wham/usage",
              [&](const httplib::Request&, httplib::Response&) { ++usageCalls; });
    });
    const ProbeContext context{home.path(), hostsAt(server, {"CODEX", "CODEX_AUTH"}),
                               std::chrono::seconds(5), nullptr};
    const auto result = LiveQuota::codex(context, kNow);
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().kind, ProbeError::Kind::expired);
    EXPECT_EQ(usageCalls, 0);
}

TEST(QuotaProbes, GlmRetriesTheKeyAsABearerToken) {
    std::vector<std::string> seen;
    LoopbackServer server([&](httplib::Server& s) {
        s.Get("/api/monitor/usage/quota/limit", [&](const httplib::Request& req,
                                                    httplib::Response& res) {
            seen.push_back(req.get_header_value("Authorization"));
            if (!req.get_header_value("Authorization").starts_with("Bearer ")) {
                res.status = 401;
                return;
            }
            res.set_content(
                R"({"code": 200, "data": {"limits": [{"type": "TOKENS_LIMIT", "percentage": 9}]}})",
                "application/json");
        });
    });
    const KeyProbeContext context{hostsAt(server, {"GLM_GLOBAL"}), std::chrono::seconds(5)};
    const auto result = GlmPlan::probe("glm-key", PlanRegion::global, "acct", context, kNow);
    ASSERT_TRUE(result.has_value()) << result.error().detail;
    EXPECT_EQ(seen, (std::vector<std::string>{"glm-key", "Bearer glm-key"}));

    // The CN host is another variable: unset, it is the official host, not this server.
    EXPECT_EQ(GlmPlan::quotaURL(PlanRegion::cn, context.env),
              "https://open.bigmodel.cn/api/monitor/usage/quota/limit");
}

TEST(QuotaProbes, BalancesOverLoopback) {
    LoopbackServer server([&](httplib::Server& s) {
        s.Get("/user/balance", [](const httplib::Request& req, httplib::Response& res) {
            if (req.get_header_value("Authorization") != "Bearer ds-key") {
                res.status = 401;
                return;
            }
            res.set_content(
                R"({"is_available": true, "balance_infos": [{"currency": "CNY", "total_balance": "7"}]})",
                "application/json");
        });
        s.Get("/api/v1/credits", [](const httplib::Request&, httplib::Response& res) {
            res.set_content(R"({"data": {"total_credits": 10, "total_usage": 4}})",
                            "application/json");
        });
        s.Get("/api/v1/key",
              [](const httplib::Request&, httplib::Response& res) { res.status = 500; });
        s.Get("/v1/api/openplatform/coding_plan/remains", [](const httplib::Request&,
                                                             httplib::Response& res) {
            res.set_content(R"({"base_resp": {"status_code": 1004, "status_msg": "bad key"}})",
                            "application/json");
        });
    });
    const KeyProbeContext context{hostsAt(server, {"DEEPSEEK", "OPENROUTER", "MINIMAX_CN"}),
                                  std::chrono::seconds(5)};
    const auto ds = ApiBalance::deepSeek("ds-key", context, kNow);
    ASSERT_TRUE(ds.has_value());
    EXPECT_EQ(ds->windows.at(0).currency, "CNY");
    EXPECT_EQ(ApiBalance::deepSeek("wrong", context, kNow).error().kind,
              ProbeError::Kind::unauthorized);
    const auto orr = ApiBalance::openRouter("or-key", context, kNow);
    ASSERT_TRUE(orr.has_value()) << "a failed key lookup still leaves the credits";
    EXPECT_DOUBLE_EQ(*orr->windows.at(0).usedPercent, 40);
    const auto mm = MiniMaxPlan::probe("mm-key", PlanRegion::cn, "acct", context, kNow);
    ASSERT_FALSE(mm.has_value());
    EXPECT_EQ(mm.error().kind, ProbeError::Kind::unauthorized);
}

TEST(ProviderHosts, CredentialsOnlyOverHttpsOrLoopback) {
    const struct {
        const char* url;
        bool allowed;
    } cases[] = {
        {"https://api.example.com", true},
        {"HTTPS://API.EXAMPLE.COM/x", true},
        {"http://127.0.0.1:9000", true},
        {"http://localhost:9000/v1", true},
        {"http://[::1]:9000", true},
        {"http://api.example.com", false},
        {"http://127.0.0.1.evil.com/", false},
        {"http://localhost.evil.com", false},
        {"http://user@127.0.0.1:1@evil.com", false},
        {"ftp://127.0.0.1", false},
        {"file:///etc/passwd", false},
        {"https://", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ProviderHosts::mayCarryCredentials(c.url), c.allowed) << c.url;
    }
}

TEST(ProviderHosts, ARemoteHttpHostGetsNoRequestAndNoToken) {
    TempDir home;
    home.write(".claude/.credentials.json",
               R"({"claudeAiOauth": {"accessToken": "tok", "expiresAt": 1790000000000}})");
    const EnvironmentLookup env = [](std::string_view name) -> std::optional<std::string> {
        if (name == "KESTREL_BASE_URL_CLAUDE") {
            return "http://quota.invalid";
        }
        return std::nullopt;
    };
    EXPECT_EQ(ProviderHosts::baseURL(ProviderHost::claude, env), "http://quota.invalid");
    EXPECT_EQ(ProviderHosts::baseURL(ProviderHost::codex, env), "https://chatgpt.com");
    const ProbeContext context{home.path(), env, std::chrono::seconds(5), nullptr};
    const auto result = LiveQuota::claude(context, kNow);
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().kind, ProbeError::Kind::unexpected);
}

}  // namespace
}  // namespace kestrel
