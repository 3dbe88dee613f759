// The plan review against a loopback GLM endpoint: nothing is asked before the tool's quota is
// on, a batch commits whole or not at all, validations of an older revision are dropped, a
// changed key must be validated again, and a vanished candidate fails the batch with its message.

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "core/app/plan_service.hpp"
#include "core/app/quota_service.hpp"
#include "core/integrations/plugin_registry.hpp"
#include "core/ledger/plan_candidate_store.hpp"
#include "core/plans/plan_salt.hpp"
#include "core/presentation/messages.hpp"
#include "tests/support/loopback_server.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::LoopbackServer;
using test_support::TempDir;

constexpr const char* kGoodKey = "GLM-GOOD-KEY-1111";
constexpr const char* kOtherGoodKey = "GLM-GOOD-KEY-2222";
constexpr const char* kEnvKey = "GLM-ENV-KEY-3333";

std::string claudeSettings(std::string_view key) {
    return R"({"env": {"ANTHROPIC_BASE_URL": "https://open.bigmodel.cn/api/anthropic",
                       "ANTHROPIC_AUTH_TOKEN": ")" +
           std::string(key) + "\"}}";
}

class PlanReviewTest : public ::testing::Test {
  protected:
    PlanReviewTest()
        : server([this](httplib::Server& s) {
              s.Get("/api/monitor/usage/quota/limit",
                    [this](const httplib::Request& req, httplib::Response& res) {
                        ++hits;
                        std::string key = req.get_header_value("Authorization");
                        if (key.starts_with("Bearer ")) {
                            key = key.substr(7);
                        }
                        if (failing) {
                            res.status = 500;
                            return;
                        }
                        if (!accepted.contains(key)) {
                            res.status = 401;
                            return;
                        }
                        res.set_content(
                            R"({"code": 200, "success": true, "data": {"level": "pro", "limits": [
                                {"type": "TOKENS_LIMIT", "percentage": 12, "nextResetTime": 4102444800000}]}})",
                            "application/json");
                    });
          }) {
        home.write(".claude/settings.json", claudeSettings(kGoodKey));
        home.write(".codex/config.toml",
                   "model_provider = \"zai\"\n[model_providers.zai]\n"
                   "base_url = \"https://open.bigmodel.cn/api/coding/paas/v4\"\n"
                   "env_key = \"ZAI_KEY\"\n");
        vars = {{"KESTREL_BASE_URL_GLM_CN", server.url("")}, {"ZAI_KEY", kEnvKey}};
    }

    std::unique_ptr<AppSession> open() {
        auto env = [this](std::string_view name) -> std::optional<std::string> {
            const auto it = vars.find(std::string(name));
            return it == vars.end() ? std::nullopt : std::optional(it->second);
        };
        auto session = AppSession::open({home.path(), support.path(), env});
        EXPECT_TRUE(session.has_value());
        return session ? std::move(*session) : nullptr;
    }

    void quotaOn(AppSession& session, AgentSource agent) {
        const auto* plugin = session.integrations().registry().plugin(agent);
        ASSERT_NE(plugin, nullptr);
        ASSERT_TRUE(setQuotaCapability(session, *plugin, true).has_value());
    }

    PlanServiceOptions options() const { return {nullptr, std::chrono::seconds(5)}; }

    std::string idOf(AppSession& session, std::string_view tool) {
        const auto review = discoverPlans(session, options());
        for (const auto& row : review->rows) {
            if (row.candidate.toolID == tool) {
                return row.candidate.id;
            }
        }
        ADD_FAILURE() << "no candidate of " << tool;
        return {};
    }

    PlanChoiceOutcome::Status choose(AppSession& session, const std::string& id, bool keep) {
        const auto outcomes = choosePlans(session, {id}, keep, options());
        EXPECT_TRUE(outcomes.has_value());
        return outcomes->at(0).status;
    }

    TempDir home, support;
    std::atomic<int> hits = 0;
    std::atomic<bool> failing = false;
    std::set<std::string> accepted = {kGoodKey, kOtherGoodKey, kEnvKey};
    LoopbackServer server;
    std::map<std::string, std::string> vars;
};

TEST_F(PlanReviewTest, KeepingValidatesOnlyOnceQuotaIsOn) {
    auto session = open();
    const auto claude = idOf(*session, "claude");
    EXPECT_EQ(choose(*session, claude, true), PlanChoiceOutcome::Status::quotaOff);
    EXPECT_EQ(hits, 0);
    EXPECT_EQ(PlanCandidateStore::planDiscoveryCandidate(session->store(), claude)->validationState,
              "unverified");

    quotaOn(*session, AgentSource::claude);
    EXPECT_EQ(choose(*session, claude, true), PlanChoiceOutcome::Status::kept);
    EXPECT_EQ(hits, 1);
    const auto stored = PlanCandidateStore::planDiscoveryCandidate(session->store(), claude);
    EXPECT_EQ(stored->validationState, "valid");
    const auto report = nlohmann::json::parse(*stored->validationReportJSON);
    EXPECT_EQ(report["credentialFingerprint"], *stored->credentialFingerprint);
    EXPECT_EQ(report["planEvidence"]["quotaWindowCount"], 1);

    // A stored validation of the same key is not asked again.
    EXPECT_EQ(choose(*session, claude, true), PlanChoiceOutcome::Status::kept);
    EXPECT_EQ(hits, 1);
    // Rejecting needs no request at all, and an unknown id is said to be unknown.
    EXPECT_EQ(choose(*session, idOf(*session, "codex"), false),
              PlanChoiceOutcome::Status::rejected);
    EXPECT_EQ(choose(*session, "pc-nosuch", true), PlanChoiceOutcome::Status::unknownCandidate);
    EXPECT_EQ(hits, 1);
}

TEST_F(PlanReviewTest, OneUndecidedCandidateCommitsNothing) {
    auto session = open();
    quotaOn(*session, AgentSource::claude);
    const auto claude = idOf(*session, "claude");
    const auto codex = idOf(*session, "codex");
    ASSERT_EQ(choose(*session, claude, true), PlanChoiceOutcome::Status::kept);

    const auto refused = commitPlans(*session, options());
    ASSERT_TRUE(refused->refusal.has_value());
    EXPECT_EQ(refused->refusal->key, PlanReview::kUndecided);
    EXPECT_EQ(refused->refusal->candidateID, codex);
    EXPECT_TRUE(PlanCandidateStore::confirmedPlanAccounts(session->store()).empty());
    EXPECT_EQ(PlanCandidateStore::planDiscoveryCandidate(session->store(), claude)->decision,
              "pending");

    ASSERT_EQ(choose(*session, codex, false), PlanChoiceOutcome::Status::rejected);
    const auto done = commitPlans(*session, options());
    ASSERT_TRUE(done->committed.has_value()) << done->refusal->key;
    const auto proposed =
        PlanCandidateStore::planDiscoveryCandidate(session->store(), claude)->proposedAccountID;
    EXPECT_EQ(done->committed->acceptedAccountIDs, std::vector<std::string>{"plan:" + proposed});
    EXPECT_EQ(done->committed->rejectedCandidateIDs, std::vector<std::string>{codex});
    const auto accounts = PlanCandidateStore::confirmedPlanAccounts(session->store());
    ASSERT_EQ(accounts.size(), 1u);
    EXPECT_EQ(accounts[0].family, "glm");
    EXPECT_EQ(accounts[0].region, "cn");
    EXPECT_EQ(accounts[0].credentialHandle, "file:.claude/settings.json#/env/ANTHROPIC_AUTH_TOKEN");
    EXPECT_TRUE(discoverPlans(*session, options())->rows.empty());

    // Reset sends it back; while it is under review it is no confirmed account.
    EXPECT_EQ(resetPlanAccount(*session, "plan:" + proposed), 1);
    EXPECT_EQ(PlanCandidateStore::planDiscoveryCandidate(session->store(), claude)->validationState,
              "unverified");
    EXPECT_TRUE(PlanCandidateStore::confirmedPlanAccounts(session->store()).empty());
    EXPECT_EQ(resetPlanAccount(*session, "plan:" + proposed), 0);
}

TEST_F(PlanReviewTest, AValidationOfAnOlderRevisionIsIgnored) {
    auto session = open();
    const auto claude = idOf(*session, "claude");
    const auto before = *PlanCandidateStore::planDiscoveryCandidate(session->store(), claude);
    const PlanDiscoveryInputs inputs{home.path(), session->paths().env,
                                     PlanSalt::loadOrCreate(support.path()).value(), nullptr};
    const auto result =
        PlanReview::validate(before, inputs, {inputs.env, std::chrono::seconds(5)}, 1000);
    ASSERT_EQ(result.state, CandidateValidationState::valid);

    // The key changes before the result is stored: a new revision, and the old result is dropped.
    home.write(".claude/settings.json", claudeSettings(kOtherGoodKey));
    discoverPlans(*session, options());
    EXPECT_FALSE(PlanCandidateStore::recordPlanValidation(
        session->store(), claude, result.revision, "valid", result.reportJSON,
        std::string(rawValue(result.credentialResolution)), 1001));
    const auto after = *PlanCandidateStore::planDiscoveryCandidate(session->store(), claude);
    EXPECT_NE(after.revision, before.revision);
    EXPECT_EQ(after.validationState, "unverified");
    EXPECT_FALSE(after.validationReportJSON.has_value());
}

TEST_F(PlanReviewTest, AChangedKeyMustBeValidatedAgain) {
    auto session = open();
    quotaOn(*session, AgentSource::claude);
    const auto claude = idOf(*session, "claude");
    ASSERT_EQ(choose(*session, claude, true), PlanChoiceOutcome::Status::kept);
    ASSERT_EQ(choose(*session, idOf(*session, "codex"), false),
              PlanChoiceOutcome::Status::rejected);

    // Between keeping and committing the key is replaced.
    home.write(".claude/settings.json", claudeSettings(kOtherGoodKey));
    const auto refused = commitPlans(*session, options());
    ASSERT_TRUE(refused->refusal.has_value());
    EXPECT_EQ(refused->refusal->key, PlanReview::kConfigurationChanged);
    EXPECT_TRUE(PlanCandidateStore::confirmedPlanAccounts(session->store()).empty());

    // At the store, a kept candidate whose key no longer has the validated fingerprint is refused
    // with the credential message, and nothing of the batch lands.
    ASSERT_EQ(choose(*session, claude, true), PlanChoiceOutcome::Status::kept);
    const auto stored = *PlanCandidateStore::planDiscoveryCandidate(session->store(), claude);
    const auto codex =
        *PlanCandidateStore::planDiscoveryCandidate(session->store(), idOf(*session, "codex"));
    const auto instance =
        session->store().activeInstance(*PluginRegistry::stableID(AgentSource::claude))->id;
    PlanReviewDecision keep{claude, stored.revision, true, "fp:000000000000", instance.rawValue,
                            "x"};
    PlanReviewDecision reject{codex.id, codex.revision, false, std::nullopt, {}, {}};
    const auto wrongKey = PlanCandidateStore::commitPlanReview(session->store(), {claude, codex.id},
                                                               {reject, keep}, 5);
    ASSERT_FALSE(wrongKey.has_value());
    EXPECT_EQ(wrongKey.error().kind, PlanCandidateStoreError::Kind::invalidCredentialHandle);
    EXPECT_EQ(PlanReview::messageKey(wrongKey.error().kind), PlanReview::kCredentialChanged);
    EXPECT_EQ(PlanCandidateStore::planDiscoveryCandidate(session->store(), codex.id)->decision,
              "pending");

    // Validated again (new revision, new key), the review commits.
    const auto done = commitPlans(*session, options());
    ASSERT_TRUE(done->committed.has_value()) << done->refusal->key;
    EXPECT_EQ(done->committed->acceptedAccountIDs.size(), 1u);
}

TEST_F(PlanReviewTest, AVanishedCandidateFailsTheBatchWithItsMessage) {
    auto session = open();
    quotaOn(*session, AgentSource::claude);
    const auto claude = idOf(*session, "claude");
    const auto codex = idOf(*session, "codex");
    ASSERT_EQ(choose(*session, claude, true), PlanChoiceOutcome::Status::kept);
    ASSERT_EQ(choose(*session, codex, false), PlanChoiceOutcome::Status::rejected);

    std::filesystem::remove(home / ".codex/config.toml");
    const auto refused = commitPlans(*session, options());
    ASSERT_TRUE(refused->refusal.has_value());
    EXPECT_EQ(refused->refusal->key, PlanReview::kSourceGone);
    EXPECT_EQ(refused->refusal->candidateID, codex);
    EXPECT_TRUE(PlanCandidateStore::confirmedPlanAccounts(session->store()).empty());
    EXPECT_EQ(PlanCandidateStore::planDiscoveryCandidate(session->store(), claude)->decision,
              "pending");
    // No longer offered for review.
    const auto rows = discoverPlans(*session, options())->rows;
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].candidate.id, claude);
}

TEST_F(PlanReviewTest, AKeptCandidateThatFailedValidationStopsTheWholeBatch) {
    auto session = open();
    quotaOn(*session, AgentSource::claude);
    quotaOn(*session, AgentSource::codex);
    const auto claude = idOf(*session, "claude");
    const auto codex = idOf(*session, "codex");
    ASSERT_EQ(choose(*session, claude, true), PlanChoiceOutcome::Status::kept);
    accepted.erase(kEnvKey);  // the provider now refuses the Codex key
    const auto refusedKey = choosePlans(*session, {codex}, true, options()).value();
    ASSERT_EQ(refusedKey[0].status, PlanChoiceOutcome::Status::notValid);
    EXPECT_EQ(refusedKey[0].validation->state, CandidateValidationState::authenticationRejected);

    // The draft holds only the claude choice: the codex candidate is undecided.
    EXPECT_EQ(commitPlans(*session, options())->refusal->key, PlanReview::kUndecided);

    // Forcing the kept-but-invalid candidate through the store is refused whole.
    const auto c1 = *PlanCandidateStore::planDiscoveryCandidate(session->store(), claude);
    const auto c2 = *PlanCandidateStore::planDiscoveryCandidate(session->store(), codex);
    const auto instance =
        session->store().activeInstance(*PluginRegistry::stableID(AgentSource::claude))->id;
    const auto result = PlanCandidateStore::commitPlanReview(
        session->store(), {claude, codex},
        {{claude, c1.revision, true, c1.credentialFingerprint, instance.rawValue, "a"},
         {codex, c2.revision, true, c2.credentialFingerprint, instance.rawValue, "b"}},
        7);
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().kind, PlanCandidateStoreError::Kind::candidateNotValidated);
    EXPECT_TRUE(PlanCandidateStore::confirmedPlanAccounts(session->store()).empty());
    EXPECT_EQ(PlanCandidateStore::planDiscoveryCandidate(session->store(), claude)->decision,
              "pending");

    // A batch that omits a pending candidate no longer matches the review: stale.
    const auto stale = PlanCandidateStore::commitPlanReview(
        session->store(), {claude},
        {{claude, c1.revision, true, c1.credentialFingerprint, instance.rawValue, "a"}}, 8);
    ASSERT_FALSE(stale.has_value());
    EXPECT_EQ(stale.error().kind, PlanCandidateStoreError::Kind::staleBatch);
}

TEST_F(PlanReviewTest, ValidationStatesFollowTheProviderAndTheKey) {
    auto session = open();
    const auto claude =
        *PlanCandidateStore::planDiscoveryCandidate(session->store(), idOf(*session, "claude"));
    const PlanDiscoveryInputs inputs{home.path(), session->paths().env,
                                     PlanSalt::loadOrCreate(support.path()).value(), nullptr};
    const KeyProbeContext context{inputs.env, std::chrono::seconds(5)};
    struct Case {
        const char* name;
        std::function<void()> arrange;
        CandidateValidationState expected;
        bool asks;
    };
    const std::vector<Case> cases = {
        {"a good key", [] {}, CandidateValidationState::valid, true},
        {"a refused key", [&] { accepted.clear(); },
         CandidateValidationState::authenticationRejected, true},
        {"a provider failing", [&] { failing = true; }, CandidateValidationState::temporaryFailure,
         true},
        {"a key changed since discovery",
         [&] { home.write(".claude/settings.json", claudeSettings(kOtherGoodKey)); },
         CandidateValidationState::credentialRejected, false},
        {"a key removed", [&] { home.write(".claude/settings.json", R"({"env": {}})"); },
         CandidateValidationState::credentialRejected, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        accepted = {kGoodKey};
        failing = false;
        home.write(".claude/settings.json", claudeSettings(kGoodKey));
        c.arrange();
        const int before = hits;
        const auto result = PlanReview::validate(claude, inputs, context, 1000);
        EXPECT_EQ(result.state, c.expected);
        EXPECT_EQ(hits > before, c.asks);
        EXPECT_EQ(result.reportJSON.has_value(), c.expected == CandidateValidationState::valid);
    }
    // A family without a usage endpoint is unsupported, without a request.
    auto kimi = claude;
    kimi.family = "kimi";
    const int before = hits;
    EXPECT_EQ(PlanReview::validate(kimi, inputs, context, 1000).state,
              CandidateValidationState::unsupported);
    EXPECT_EQ(hits, before);
}

TEST(PlanReviewMessages, TheFiveRefusalsReadAsWrittenInBothLanguages) {
    const auto& m = Messages::bundled();
    struct Case {
        std::string_view key;
        const char* en;
        const char* zh;
    };
    const std::vector<Case> cases = {
        {PlanReview::kUndecided, "Every candidate must be kept or explicitly rejected.",
         "每个候选都必须选择保留或明确不添加。"},
        {PlanReview::kSaveFailed,
         "The review could not be saved. No credential or account change was kept.",
         "审核提交失败，未保留本次凭证或账号变更。"},
        {PlanReview::kSourceGone, "The candidate source is no longer available. Reload the review.",
         "候选来源已不可用，请重新加载审核。"},
        {PlanReview::kCredentialChanged,
         "The selected credential no longer matches its validation. Validate it again.",
         "所选凭证与验证结果不再一致，请重新验证。"},
        {PlanReview::kConfigurationChanged,
         "The configuration changed. Reload the review and validate again.",
         "配置已发生变化，请重新加载并再次验证。"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(m.text(c.key, AppLanguage::en), c.en);
        EXPECT_EQ(m.text(c.key, AppLanguage::zhHans), c.zh);
    }
}

}  // namespace
}  // namespace kestrel
