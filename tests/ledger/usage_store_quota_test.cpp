// The last quota reading per agent source in quota_accounts: replacing it, telling a new
// reading from a re-read one, removing it, and rows that no longer decode.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/model/account_snapshot_json.hpp"
#include "tests/support/ledger_connection.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::LedgerConnection;
using test_support::TempDir;

AccountSnapshot reading(AgentSource source, double usedPercent, double fetchedAt) {
    AccountSnapshot s;
    s.identity = {source, "Max", "Dana", "d***@example.com", std::nullopt};
    QuotaWindow fiveHours;
    fiveHours.kind = QuotaWindowKind::session5h;
    fiveHours.usedPercent = usedPercent;
    fiveHours.resetsAt = 1'800'000'000.0;
    QuotaWindow weekly;
    weekly.kind = QuotaWindowKind::weeklyModelScoped;
    weekly.scopeKey = "opus";
    weekly.usedPercent = 12.5;
    s.windows = {fiveHours, weekly};
    s.fetchedAt = fetchedAt;
    s.provenance = QuotaProvenance::localSession;
    return s;
}

class UsageStoreQuotaTest : public ::testing::Test {
  protected:
    void insertRaw(const std::string& accountID, const std::string& kind, const std::string& json) {
        sqlite::Statement s(ledger_.get(),
                            "INSERT INTO quota_accounts(account_id, kind, json, fetched_at)\n"
                            "VALUES(?,?,?,1);");
        s.bind(1, accountID).bind(2, kind).bind(3, json);
        s.run();
    }

    std::string stored(const std::string& accountID) {
        sqlite::Statement s(ledger_.get(),
                            "SELECT kind || '|' || fetched_at FROM quota_accounts\n"
                            "WHERE account_id=?;");
        s.bind(1, accountID);
        return s.step() ? s.text(0) : "<no row>";
    }

    TempDir dir_;
    UsageStore store_{dir_.path()};
    LedgerConnection ledger_{store_.databasePath()};
};

TEST_F(UsageStoreQuotaTest, SaveStoresOneReadingPerSourceAndReplacesIt) {
    const auto first = reading(AgentSource::claude, 40.0, 100.0);
    EXPECT_TRUE(store_.saveQuota(first));
    EXPECT_EQ(store_.quota(AgentSource::claude), first);
    EXPECT_EQ(stored("source:claude"), "source|100.0");

    const auto later = reading(AgentSource::claude, 55.0, 200.0);
    EXPECT_TRUE(store_.saveQuota(later));
    EXPECT_EQ(store_.quota(AgentSource::claude), later);
    EXPECT_EQ(stored("source:claude"), "source|200.0");

    const auto codex = reading(AgentSource::codex, 3.0, 150.0);
    EXPECT_TRUE(store_.saveQuota(codex));
    EXPECT_EQ(store_.quotas(), (std::vector<AccountSnapshot>{later, codex}));
    EXPECT_FALSE(store_.quota(AgentSource::kimi));
}

TEST_F(UsageStoreQuotaTest, OnlyAChangeBeyondFetchTimeCounts) {
    struct Case {
        const char* name;
        void (*edit)(AccountSnapshot&);
        bool changed;
    };
    const std::vector<Case> cases{
        {"same reading, read again", [](AccountSnapshot&) {}, false},
        {"used share moved", [](AccountSnapshot& s) { s.windows[0].usedPercent = 41.0; }, true},
        {"window reset moved", [](AccountSnapshot& s) { s.windows[0].resetsAt = 1.9e9; }, true},
        {"window gone", [](AccountSnapshot& s) { s.windows.pop_back(); }, true},
        {"marked stale", [](AccountSnapshot& s) { s.stale = true; }, true},
        {"other provenance", [](AccountSnapshot& s) { s.provenance = QuotaProvenance::liveOAuth; },
         true},
        {"plan added",
         [](AccountSnapshot& s) {
             s.plans.push_back({"p1", "Pro", PurchasedPlanKind::subscription, std::nullopt,
                                std::nullopt, std::nullopt, 20.0, "USD"});
         },
         true},
    };
    for (const auto& c : cases) {
        store_.deleteQuota(AgentSource::claude);
        store_.saveQuota(reading(AgentSource::claude, 40.0, 100.0));
        auto next = reading(AgentSource::claude, 40.0, 160.0);
        c.edit(next);
        EXPECT_EQ(store_.saveQuota(next), c.changed) << c.name;
        EXPECT_EQ(store_.quota(AgentSource::claude), next) << c.name << ": stored either way";
        EXPECT_EQ(stored("source:claude"), "source|160.0") << c.name;
    }
}

TEST_F(UsageStoreQuotaTest, ReadingStoredByAnOlderBuildIsNotNewsWhenRepeated) {
    // Written before `plans`, `stale` and `completeness` existed, as the version 1 copy of the
    // old quota table leaves it.
    auto json = nlohmann::json(reading(AgentSource::codex, 10.0, 100.0));
    json.erase("plans");
    json.erase("stale");
    json.erase("completeness");
    insertRaw("source:codex", "source", json.dump());
    EXPECT_FALSE(store_.saveQuota(reading(AgentSource::codex, 10.0, 130.0)));
}

TEST_F(UsageStoreQuotaTest, DeleteRemovesOnlyThatSource) {
    store_.saveQuota(reading(AgentSource::claude, 1.0, 10.0));
    store_.saveQuota(reading(AgentSource::codex, 2.0, 10.0));
    EXPECT_TRUE(store_.deleteQuota(AgentSource::claude));
    EXPECT_FALSE(store_.deleteQuota(AgentSource::claude));
    EXPECT_FALSE(store_.quota(AgentSource::claude));
    EXPECT_TRUE(store_.quota(AgentSource::codex));
    EXPECT_TRUE(store_.saveQuota(reading(AgentSource::claude, 1.0, 20.0)))
        << "after a delete the same reading is new again";
}

TEST_F(UsageStoreQuotaTest, UndecodableRowsAreSkippedAndReplaceable) {
    const auto good = reading(AgentSource::kimi, 5.0, 10.0);
    store_.saveQuota(good);
    auto unknownKind = nlohmann::json(reading(AgentSource::grok, 5.0, 10.0));
    unknownKind["windows"][0]["kind"] = "fortnightly";
    insertRaw("source:codex", "source", "{\"identity\": ");
    insertRaw("source:grok", "source", unknownKind.dump());
    insertRaw("plan:glm-1", "plan", nlohmann::json(reading(AgentSource::claude, 1.0, 1.0)).dump());

    EXPECT_EQ(store_.quotas(), std::vector<AccountSnapshot>{good}) << "plan rows are not sources";
    EXPECT_FALSE(store_.quota(AgentSource::codex));
    EXPECT_FALSE(store_.quota(AgentSource::grok));

    const auto fresh = reading(AgentSource::codex, 7.0, 20.0);
    EXPECT_TRUE(store_.saveQuota(fresh));
    EXPECT_EQ(store_.quota(AgentSource::codex), fresh);
}

}  // namespace
}  // namespace kestrel
