#include "core/ledger/event_finishing.hpp"

#include <gtest/gtest.h>

#include "core/sources/event_draft.hpp"

namespace kestrel {
namespace {

// A reader's event as buildEvent makes it: a known model, a project label, no price yet.
UsageEvent readerEvent(std::optional<std::string> rawExtras = std::nullopt) {
    EventDraft d;
    d.source = AgentSource::claude;
    d.id = "claude:m1";
    d.occurredAt = 1'787'307'330;
    d.model = "claude-sonnet-4-5";
    d.sessionID = "sess-1";
    d.cwd = "/home/u/app";
    d.input = 1200;
    d.cachedInput = 30'000;
    d.output = 800;
    d.rawExtras = std::move(rawExtras);
    return buildEvent(d);
}

TEST(FinishEvent, AppliesBillingModePriceAndProjectPrivacy) {
    const auto& prices = PriceTable::bundled();
    const auto tablePrice =
        prices.applied(readerEvent(), BillingMode::apiEquivalent).estimatedCostUSDMicros;
    ASSERT_GT(tablePrice.value_or(0), 0) << "the bundled table prices the model";
    const struct {
        const char* name;
        BillingMode billing;
        bool storeProject;
        std::optional<std::string> extras;
        std::optional<int64_t> cost;
        CostSource costSource;
        BillingMode stored;  // tokensOnly only hides amounts: it is priced as apiEquivalent
    } cases[] = {
        {"table", BillingMode::apiEquivalent, true, std::nullopt, tablePrice,
         CostSource::priceTable, BillingMode::apiEquivalent},
        {"vendor", BillingMode::apiEquivalent, true, R"({"costUSD":0.25})", 250'000,
         CostSource::vendorReported, BillingMode::apiEquivalent},
        {"tokens only", BillingMode::tokensOnly, false, std::nullopt, tablePrice,
         CostSource::priceTable, BillingMode::apiEquivalent},
        {"local zero", BillingMode::localZero, true, R"({"costUSD":0.25})", 0,
         CostSource::priceTable, BillingMode::localZero},
        {"no project", BillingMode::apiEquivalent, false, std::nullopt, tablePrice,
         CostSource::priceTable, BillingMode::apiEquivalent},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        AppSettings settings;
        settings.billingMode = c.billing;
        settings.storeProject = c.storeProject;
        const auto before = readerEvent(c.extras);
        const auto e = finishEvent(before, settings, prices);
        EXPECT_EQ(e.estimatedCostUSDMicros, c.cost);
        EXPECT_EQ(e.costSource, c.costSource);
        EXPECT_EQ(e.billingMode, c.stored);
        EXPECT_EQ(e.projectDisplayName.has_value(), c.storeProject);
        // What the record says is left alone; the session key is the batch builder's to drop.
        EXPECT_EQ(e.cwdHash, before.cwdHash);
        EXPECT_EQ(e.sessionID, "sess-1");
        EXPECT_EQ(e.exclusive, before.exclusive);
    }
}

}  // namespace
}  // namespace kestrel
