// Refreshing accounts: only the newest answer is stored, a throttled account backs off, and a
// failed probe leaves the last reading in place marked stale.

#include "core/plans/quota_refresher.hpp"

#include <gtest/gtest.h>

#include "core/plans/plan_quota.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

constexpr double kNow = 1'780'000'000;

AccountSnapshot reading(double percent) {
    AccountSnapshot s;
    s.identity.source = AgentSource::claude;
    s.fetchedAt = kNow;
    s.provenance = QuotaProvenance::liveOAuth;
    s.windows.push_back(
        {std::nullopt, QuotaWindowKind::session5h, percent, {}, {}, {}, {}, {}, {}});
    return s;
}

struct MemorySlot {
    std::optional<AccountSnapshot> stored;
    int saves = 0;
    QuotaSlot slot() {
        return {[this] { return stored; },
                [this](const AccountSnapshot& s) {
                    ++saves;
                    const bool changed = stored != s;
                    stored = s;
                    return changed;
                }};
    }
};

ProbeAnswer answerWith(AccountSnapshot s) {
    return {std::move(s), std::nullopt, QuotaRefreshOutcome::Status::notSignedIn};
}
ProbeAnswer failure(ProbeError::Kind kind, std::optional<double> retryAfter = std::nullopt) {
    return {std::nullopt, ProbeError{kind, "x", retryAfter},
            QuotaRefreshOutcome::Status::notSignedIn};
}

TEST(QuotaRefresher, BackoffHonoursRetryAfterAndDoublesToACap) {
    EXPECT_EQ(QuotaRefresher::backoffSeconds(1, std::nullopt), 60);
    EXPECT_EQ(QuotaRefresher::backoffSeconds(2, std::nullopt), 120);
    EXPECT_EQ(QuotaRefresher::backoffSeconds(4, std::nullopt), 480);
    EXPECT_EQ(QuotaRefresher::backoffSeconds(40, std::nullopt), 3600);
    EXPECT_EQ(QuotaRefresher::backoffSeconds(3, 15.0), 15);
    EXPECT_EQ(QuotaRefresher::backoffSeconds(1, 1e9), 6 * 3600);
}

TEST(QuotaRefresher, AThrottledAccountKeepsItsReadingStaleAndWaits) {
    QuotaRefresher refresher;
    MemorySlot memory;
    auto outcome = refresher.refresh(
        "a", memory.slot(), [] { return answerWith(reading(10)); }, kNow);
    EXPECT_EQ(outcome.status, QuotaRefreshOutcome::Status::refreshed);
    EXPECT_FALSE(memory.stored->stale);

    outcome = refresher.refresh(
        "a", memory.slot(), [] { return failure(ProbeError::Kind::rateLimited, 300.0); }, kNow);
    EXPECT_EQ(outcome.status, QuotaRefreshOutcome::Status::failed);
    EXPECT_EQ(outcome.retryAt, kNow + 300);
    ASSERT_TRUE(memory.stored.has_value()) << "the last reading stays";
    EXPECT_TRUE(memory.stored->stale);
    EXPECT_DOUBLE_EQ(*memory.stored->windows[0].usedPercent, 10);

    int probes = 0;
    outcome = refresher.refresh(
        "a", memory.slot(),
        [&] {
            ++probes;
            return answerWith(reading(20));
        },
        kNow + 299);
    EXPECT_EQ(outcome.status, QuotaRefreshOutcome::Status::backingOff);
    EXPECT_EQ(probes, 0);
    // Another account is not held back.
    MemorySlot other;
    EXPECT_EQ(refresher
                  .refresh(
                      "b", other.slot(), [] { return answerWith(reading(1)); }, kNow)
                  .status,
              QuotaRefreshOutcome::Status::refreshed);

    outcome = refresher.refresh(
        "a", memory.slot(),
        [&] {
            ++probes;
            return answerWith(reading(20));
        },
        kNow + 301);
    EXPECT_EQ(outcome.status, QuotaRefreshOutcome::Status::refreshed);
    EXPECT_FALSE(memory.stored->stale);
    EXPECT_DOUBLE_EQ(*memory.stored->windows[0].usedPercent, 20);

    // Without Retry-After the waits double.
    refresher.refresh(
        "a", memory.slot(), [] { return failure(ProbeError::Kind::rateLimited); }, kNow + 400);
    EXPECT_EQ(refresher.blockedUntil("a", kNow + 400), kNow + 460);
    refresher.refresh(
        "a", memory.slot(), [] { return failure(ProbeError::Kind::rateLimited); }, kNow + 500);
    EXPECT_EQ(refresher.blockedUntil("a", kNow + 500), kNow + 620);
}

TEST(QuotaRefresher, OtherFailuresMarkStaleOnceAndDoNotBackOff) {
    QuotaRefresher refresher;
    MemorySlot memory;
    refresher.refresh(
        "a", memory.slot(), [] { return answerWith(reading(10)); }, kNow);
    for (const auto kind : {ProbeError::Kind::unreachable, ProbeError::Kind::unauthorized}) {
        const auto outcome = refresher.refresh(
            "a", memory.slot(), [&] { return failure(kind); }, kNow);
        EXPECT_EQ(outcome.status, QuotaRefreshOutcome::Status::failed);
        EXPECT_FALSE(refresher.blockedUntil("a", kNow).has_value());
    }
    EXPECT_TRUE(memory.stored->stale);
    EXPECT_EQ(memory.saves, 2) << "the second failure finds the reading already stale";

    MemorySlot empty;
    const auto outcome = refresher.refresh(
        "c", empty.slot(), [] { return failure(ProbeError::Kind::unreachable); }, kNow);
    EXPECT_FALSE(outcome.changed);
    EXPECT_FALSE(empty.stored.has_value());
}

TEST(QuotaRefresher, OnlyTheNewestRequestIsStored) {
    QuotaRefresher refresher;
    MemorySlot memory;
    // While the first request is out, a second one for the same account begins and answers.
    const auto outcome = refresher.refresh(
        "a", memory.slot(),
        [&] {
            const auto inner = refresher.refresh(
                "a", memory.slot(), [] { return answerWith(reading(30)); }, kNow);
            EXPECT_EQ(inner.status, QuotaRefreshOutcome::Status::refreshed);
            return answerWith(reading(5));
        },
        kNow);
    EXPECT_EQ(outcome.status, QuotaRefreshOutcome::Status::superseded);
    EXPECT_DOUBLE_EQ(*memory.stored->windows[0].usedPercent, 30);
    EXPECT_EQ(memory.saves, 1);
}

TEST(PlanQuota, RefreshStoresUnderTheAccountAndSkipsWithoutAKey) {
    test_support::TempDir dir;
    UsageStore store(dir.path());
    QuotaRefresher refresher;
    const KeyProbeContext context{emptyEnvironment(), std::chrono::seconds(1)};
    const PlanAccount glm{"glm-1", PlanFamily::glm, PlanRegion::cn, "work"};
    const PlanAccount ark{"ark-1", PlanFamily::ark, PlanRegion::cn, ""};
    EXPECT_TRUE(PlanQuota::supportsLiveProbe(glm));
    EXPECT_FALSE(PlanQuota::supportsLiveProbe(ark));

    int lookups = 0;
    const PlanKeyLookup noKey = [&](const std::string&) {
        ++lookups;
        return std::optional<std::string>{};
    };
    EXPECT_EQ(PlanQuota::refresh(glm, store, noKey, refresher, context, kNow).status,
              QuotaRefreshOutcome::Status::noKey);
    EXPECT_EQ(PlanQuota::refresh(ark, store, noKey, refresher, context, kNow).status,
              QuotaRefreshOutcome::Status::unsupported);
    EXPECT_EQ(lookups, 1);
    EXPECT_TRUE(store.planQuotas().empty());

    AccountSnapshot s = reading(44);
    EXPECT_TRUE(store.savePlanQuota("glm-1", s));
    EXPECT_FALSE(store.savePlanQuota("glm-1", s));
    EXPECT_FALSE(store.quota(AgentSource::claude).has_value()) << "plan readings stay apart";
    ASSERT_EQ(store.planQuotas().size(), 1u);
    EXPECT_EQ(store.planQuotas()[0].first, "glm-1");
    EXPECT_EQ(store.planQuota("glm-1"), s);
    EXPECT_EQ(PlanQuota::cardID(glm), "glm:cn");
}

}  // namespace
}  // namespace kestrel
