// The providers' answers as they come, including the traps: numbers as strings, resets in epoch
// milliseconds, counts that mean "remaining", balances in yuan.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "core/plans/endpoint_classifier.hpp"
#include "core/plans/live_quota.hpp"
#include "core/plans/plan_probes.hpp"

namespace kestrel {
namespace {

constexpr double kNow = 1'780'000'000;

const QuotaWindow* find(const AccountSnapshot& s, QuotaWindowKind kind,
                        std::optional<std::string> scope = std::nullopt) {
    for (const auto& w : s.windows) {
        if (w.kind == kind && (!scope || w.scopeKey == scope)) {
            return &w;
        }
    }
    return nullptr;
}

TEST(QuotaParsers, ClaudeReadsEveryWindowKeyIncludingNewOnes) {
    const auto s = LiveQuota::parseClaude(R"({
        "five_hour": {"utilization": 42.5, "resets_at": "2026-06-01T10:00:00Z"},
        "seven_day": {"utilization": 10, "resets_at": "2026-06-05T00:00:00+00:00"},
        "seven_day_opus": {"utilization": 3, "resets_at": null},
        "seven_day_research_preview": {"utilization": 77},
        "seven_day_oauth_apps": null,
        "extra_usage": {"is_enabled": true, "utilization": 25, "used_credits": 500, "monthly_limit": 2000}
    })",
                                          kNow);
    ASSERT_TRUE(s.has_value());
    EXPECT_EQ(s->windows.size(), 5u);
    const auto* five = find(*s, QuotaWindowKind::session5h);
    ASSERT_NE(five, nullptr);
    EXPECT_DOUBLE_EQ(*five->usedPercent, 42.5);
    EXPECT_DOUBLE_EQ(*five->resetsAt, 1780308000);
    ASSERT_NE(find(*s, QuotaWindowKind::weekly), nullptr);
    EXPECT_NE(find(*s, QuotaWindowKind::weeklyModelScoped, "opus"), nullptr);
    const auto* fresh = find(*s, QuotaWindowKind::weeklyModelScoped, "research_preview");
    ASSERT_NE(fresh, nullptr) << "a new seven_day_* key must become a window";
    EXPECT_DOUBLE_EQ(*fresh->usedPercent, 77);
    const auto* extra = find(*s, QuotaWindowKind::extraCredits);
    ASSERT_NE(extra, nullptr);
    EXPECT_EQ(extra->usedValue, 500);
    EXPECT_EQ(extra->limitValue, 2000);
    EXPECT_EQ(s->provenance, QuotaProvenance::liveOAuth);
}

TEST(QuotaParsers, CodexReadsBothWindowsScopedLimitsAndCredits) {
    const auto s = LiveQuota::parseCodex(R"({
        "plan_type": "plus",
        "rate_limit": {
            "primary_window": {"used_percent": 12, "limit_window_seconds": 18000, "reset_after_seconds": 600},
            "secondary_window": {"used_percent": 55.5, "limit_window_seconds": 604800, "resets_at": 1780100000}
        },
        "additional_rate_limits": [
            {"limit_name": "codex-mini", "rate_limit": {
                "primary_window": {"used_percent": 5, "limit_window_seconds": 18000, "reset_at": 1780003000},
                "secondary_window": {"used_percent": 9, "limit_window_seconds": 604800}}}
        ],
        "credits": {"has_credits": true, "unlimited": false, "balance": "12.50"}
    })",
                                         kNow);
    ASSERT_TRUE(s.has_value());
    EXPECT_EQ(s->identity.planLabel, "Plus");
    const auto* primary = find(*s, QuotaWindowKind::session5h, std::nullopt);
    ASSERT_NE(primary, nullptr);
    EXPECT_EQ(primary->scopeKey, std::nullopt);
    EXPECT_DOUBLE_EQ(*primary->resetsAt, kNow + 600);
    const auto* weekly = find(*s, QuotaWindowKind::weekly);
    ASSERT_NE(weekly, nullptr);
    EXPECT_DOUBLE_EQ(*weekly->usedPercent, 55.5);
    EXPECT_DOUBLE_EQ(*weekly->resetsAt, 1780100000);
    const auto* scoped = find(*s, QuotaWindowKind::weeklyModelScoped, "codex-mini");
    ASSERT_NE(scoped, nullptr);
    EXPECT_DOUBLE_EQ(*scoped->usedPercent, 9);
    const auto* scopedShort = find(*s, QuotaWindowKind::session5h, "codex-mini");
    ASSERT_NE(scopedShort, nullptr);
    EXPECT_DOUBLE_EQ(*scopedShort->resetsAt, 1780003000);
    const auto* credits = find(*s, QuotaWindowKind::extraCredits);
    ASSERT_NE(credits, nullptr);
    EXPECT_EQ(credits->remainingLabel, "12.50");
}

TEST(QuotaParsers, KimiNumbersAsStringsAndTheMeIdentity) {
    auto s = LiveQuota::parseKimi(R"({
        "usage": {"limit": "2048", "used": "512", "remaining": "1536", "resetTime": "2026-06-03T00:00:00Z"},
        "limits": [{"window": {"duration": 300, "timeUnit": "TIME_UNIT_MINUTE"},
                    "detail": {"limit": "200", "remaining": "150", "resetTime": "2026-05-28T21:00:00Z"}}]
    })",
                                  kNow);
    ASSERT_TRUE(s.has_value());
    const auto* five = find(*s, QuotaWindowKind::session5h);
    ASSERT_NE(five, nullptr);
    EXPECT_DOUBLE_EQ(*five->usedValue, 50);
    EXPECT_DOUBLE_EQ(*five->usedPercent, 25);
    const auto* weekly = find(*s, QuotaWindowKind::weekly);
    ASSERT_NE(weekly, nullptr);
    EXPECT_DOUBLE_EQ(*weekly->usedPercent, 25);
    EXPECT_DOUBLE_EQ(*weekly->limitValue, 2048);

    LiveQuota::applyKimiMe(
        *s,
        R"({"name": "Ada", "email": "ada.lovelace@example.com", "membershipLevel": "Allegretto"})");
    EXPECT_EQ(s->identity.displayName, "Ada");
    EXPECT_EQ(s->identity.planLabel, "Allegretto");
    ASSERT_TRUE(s->identity.emailMasked.has_value());
    EXPECT_EQ(s->identity.emailMasked->find("lovelace"), std::string::npos);
    const auto before = *s;
    LiveQuota::applyKimiMe(*s, "<html>");
    EXPECT_EQ(*s, before);
}

TEST(QuotaParsers, GlmResetsInMillisecondsAndATokenWindowOfPercentOnly) {
    const auto s = GlmPlan::parse(R"({"code": 200, "success": true, "data": {"limits": [
        {"type": "TOKENS_LIMIT", "unit": 3, "number": 5, "percentage": 31, "nextResetTime": 1780003600000},
        {"type": "TIME_LIMIT", "unit": 5, "number": 1, "usage": 1000, "currentValue": 250, "remaining": 750, "percentage": 25}
    ]}})",
                                  kNow);
    ASSERT_TRUE(s.has_value());
    const auto* tokens = find(*s, QuotaWindowKind::session5h);
    ASSERT_NE(tokens, nullptr);
    EXPECT_DOUBLE_EQ(*tokens->resetsAt, 1780003600);
    EXPECT_DOUBLE_EQ(*tokens->usedPercent, 31);
    EXPECT_FALSE(tokens->usedValue.has_value());
    const auto* monthly = find(*s, QuotaWindowKind::monthly);
    ASSERT_NE(monthly, nullptr);
    EXPECT_DOUBLE_EQ(*monthly->usedValue, 250);
    EXPECT_DOUBLE_EQ(*monthly->limitValue, 1000);
    EXPECT_EQ(s->provenance, QuotaProvenance::liveAPIKey);
}

TEST(QuotaParsers, GlmStatusInsideA200Body) {
    const struct {
        const char* body;
        long expected;
    } cases[] = {
        {R"({"code": 200, "success": true})", 200},
        {R"({"code": 401, "msg": "token expired"})", 401},
        {R"({"code": 1001, "msg": "key missing"})", 401},
        {R"({"code": 500})", 500},
        {R"({"success": false})", 500},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(GlmPlan::effectiveStatus(200, nlohmann::json::parse(c.body)), c.expected)
            << c.body;
    }
    EXPECT_EQ(GlmPlan::effectiveStatus(429, nlohmann::json::parse(R"({"code": 200})")), 429);
    EXPECT_TRUE(GlmPlan::shouldRetryBearer(401));
    EXPECT_FALSE(GlmPlan::shouldRetryBearer(429));
}

TEST(QuotaParsers, MiniMaxUsageCountIsWhatRemains) {
    const auto s = MiniMaxPlan::parse(R"({"model_remains": [{
        "model_name": "MiniMax-M2", "end_time": 1780010000000,
        "current_interval_total_count": 1500, "current_interval_usage_count": 1200,
        "current_weekly_total_count": 15000, "current_weekly_usage_count": 3000, "weekly_end_time": 1780500000000
    }], "base_resp": {"status_code": 0, "status_msg": "success"}})",
                                      kNow);
    ASSERT_TRUE(s.has_value());
    const auto* interval = find(*s, QuotaWindowKind::session5h);
    ASSERT_NE(interval, nullptr);
    EXPECT_DOUBLE_EQ(*interval->usedValue, 300);
    EXPECT_DOUBLE_EQ(*interval->usedPercent, 20);
    EXPECT_DOUBLE_EQ(*interval->resetsAt, 1780010000);
    const auto* weekly = find(*s, QuotaWindowKind::weekly);
    ASSERT_NE(weekly, nullptr);
    EXPECT_DOUBLE_EQ(*weekly->usedPercent, 80);

    const auto percentOnly = MiniMaxPlan::parse(
        R"({"current_interval_remaining_percent": 90, "weekly_total_count": 100, "current_weekly_usage_count": 40})",
        kNow);
    ASSERT_TRUE(percentOnly.has_value());
    EXPECT_DOUBLE_EQ(*find(*percentOnly, QuotaWindowKind::session5h)->usedPercent, 10);
    EXPECT_DOUBLE_EQ(*find(*percentOnly, QuotaWindowKind::weekly)->usedPercent, 60);
}

TEST(QuotaParsers, MiniMaxBodyErrors) {
    const struct {
        int code;
        ProbeError::Kind kind;
    } cases[] = {{1004, ProbeError::Kind::unauthorized},
                 {1002, ProbeError::Kind::rateLimited},
                 {1013, ProbeError::Kind::unexpected}};
    for (const auto& c : cases) {
        const auto body =
            nlohmann::json{{"base_resp", {{"status_code", c.code}, {"status_msg", "x"}}}};
        const auto error = MiniMaxPlan::mapBodyError(body);
        ASSERT_TRUE(error.has_value()) << c.code;
        EXPECT_EQ(error->kind, c.kind) << c.code;
        const auto parsed = MiniMaxPlan::parse(body.dump(), kNow);
        ASSERT_FALSE(parsed.has_value());
        EXPECT_EQ(parsed.error().kind, c.kind);
    }
}

TEST(QuotaParsers, PrepaidBalancesKeepTheirCurrency) {
    const auto ds = ApiBalance::parseDeepSeek(R"({"is_available": true, "balance_infos": [
        {"currency": "CNY", "total_balance": "110.00", "granted_balance": "10.00", "topped_up_balance": "100.00"},
        {"currency": "USD", "total_balance": "3.5"}]})",
                                              kNow);
    ASSERT_TRUE(ds.has_value());
    ASSERT_EQ(ds->windows.size(), 2u);
    EXPECT_EQ(ds->windows[0].kind, QuotaWindowKind::apiPrepaid);
    EXPECT_EQ(ds->windows[0].currency, "CNY");
    EXPECT_EQ(ds->windows[0].remainingLabel, "110.00 CNY");
    EXPECT_EQ(ds->windows[1].remainingLabel, "3.50 USD");

    const auto orr =
        ApiBalance::parseOpenRouter(R"({"data": {"label": "laptop", "usage": 2, "limit": 8}})",
                                    R"({"data": {"total_credits": 20, "total_usage": 5}})", kNow);
    ASSERT_TRUE(orr.has_value());
    ASSERT_EQ(orr->windows.size(), 2u);
    EXPECT_DOUBLE_EQ(*orr->windows[0].usedPercent, 25);
    EXPECT_EQ(orr->windows[0].remainingLabel, "$15.00");
    EXPECT_DOUBLE_EQ(*orr->windows[1].usedPercent, 25);
    EXPECT_EQ(orr->identity.displayName, "laptop");
}

TEST(QuotaParsers, MalformedAndEmptyBodiesAreUnexpected) {
    using Parser = std::expected<AccountSnapshot, ProbeError> (*)(std::string_view, double);
    const Parser parsers[] = {LiveQuota::parseClaude, LiveQuota::parseCodex,
                              LiveQuota::parseKimi,   GlmPlan::parse,
                              MiniMaxPlan::parse,     ApiBalance::parseDeepSeek};
    for (const auto parser : parsers) {
        for (const char* body : {"", "   ", "{not json", "[1,2]", "\"text\""}) {
            const auto result = parser(body, kNow);
            ASSERT_FALSE(result.has_value()) << body;
            EXPECT_EQ(result.error().kind, ProbeError::Kind::unexpected) << body;
        }
    }
    // Shapes with no readable window are refused too, rather than stored as an empty reading.
    EXPECT_FALSE(LiveQuota::parseKimi(R"({"usage": {"limit": "x"}})", kNow).has_value());
    EXPECT_FALSE(GlmPlan::parse(R"({"data": {}})", kNow).has_value());
    EXPECT_FALSE(ApiBalance::parseOpenRouter("", R"({"data": {}})", kNow).has_value());
}

TEST(QuotaParsers, CredentialFiles) {
    const auto claude = LiveQuota::claudeTokens(
        R"({"claudeAiOauth": {"accessToken": "a1", "refreshToken": "r1", "expiresAt": 1780000000000, "subscriptionType": "max"}})");
    ASSERT_TRUE(claude.has_value());
    EXPECT_EQ(claude->accessToken, "a1");
    EXPECT_DOUBLE_EQ(*claude->expiresAt, 1780000000);
    EXPECT_EQ(claude->planLabel, "max");
    EXPECT_FALSE(LiveQuota::claudeTokens(R"({"claudeAiOauth": {}})").has_value());
    EXPECT_FALSE(
        LiveQuota::codexTokens(R"({"OPENAI_API_KEY": "sk-x", "tokens": null})").has_value());

    // {"exp": 1780000123} as a JWT payload.
    const std::string jwt = "eyJhbGciOiJub25lIn0.eyJleHAiOjE3ODAwMDAxMjN9.sig";
    EXPECT_EQ(LiveQuota::jwtExpiry(jwt), 1780000123);
    EXPECT_FALSE(LiveQuota::jwtExpiry("no-dots").has_value());
    const auto codex = LiveQuota::codexTokens(R"({"tokens": {"access_token": ")" + jwt +
                                              R"(", "refresh_token": "r", "account_id": "acc"}})");
    ASSERT_TRUE(codex.has_value());
    EXPECT_EQ(codex->expiresAt, 1780000123);
    EXPECT_EQ(codex->accountID, "acc");
}

TEST(EndpointClassifier, SortsBaseURLs) {
    using K = EndpointKind::Kind;
    const struct {
        const char* url;
        const char* hint;
        bool loopbackIsProxy;
        K kind;
        std::optional<PlanFamily> family;
        std::optional<PlanRegion> region;
    } cases[] = {
        {"https://api.anthropic.com", "", false, K::nativeOfficial, {}, {}},
        {"https://open.bigmodel.cn/api/coding/paas/v4", "", false, K::codingPlan, PlanFamily::glm,
         PlanRegion::cn},
        {"https://open.bigmodel.cn/api/paas/v4", "", false, K::payg, PlanFamily::glm,
         PlanRegion::cn},
        {"https://api.z.ai/api/anthropic", "", false, K::payg, PlanFamily::glm, PlanRegion::global},
        {"https://api.minimax.io/anthropic", "sk-cp-abc", false, K::codingPlan, PlanFamily::minimax,
         PlanRegion::global},
        {"https://api.minimaxi.com/v1", "sk-api-abc", false, K::payg, PlanFamily::minimax,
         PlanRegion::cn},
        {"https://api.kimi.com/coding/", "", false, K::codingPlan, PlanFamily::kimi,
         PlanRegion::global},
        {"https://ark.cn-beijing.volces.com/api/coding", "", false, K::codingPlan, PlanFamily::ark,
         PlanRegion::cn},
        {"https://openrouter.ai/api/v1", "", false, K::relay, {}, {}},
        {"http://127.0.0.1:8080/v1", "", true, K::loopbackProxy, {}, {}},
        {"http://localhost:8080/v1", "", false, K::customEndpoint, {}, {}},
        {"https://llm.example.com/v1", "", false, K::customEndpoint, {}, {}},
        {"not a url", "", false, K::unknown, {}, {}},
    };
    for (const auto& c : cases) {
        const auto kind = EndpointClassifier::classify(c.url, c.hint, c.loopbackIsProxy);
        EXPECT_EQ(kind.kind, c.kind) << c.url;
        EXPECT_EQ(kind.family, c.family) << c.url;
        EXPECT_EQ(kind.region, c.region) << c.url;
    }
    EXPECT_EQ(EndpointClassifier::sanitizedURL("https://user:pw@api.example.com/v1?key=secret#x"),
              "https://api.example.com/v1");
}

}  // namespace
}  // namespace kestrel
