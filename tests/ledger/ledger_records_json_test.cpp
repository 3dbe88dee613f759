#include <gtest/gtest.h>

#include <climits>
#include <nlohmann/json.hpp>
#include <string>

#include "core/ledger/ledger_records.hpp"

namespace kestrel {
namespace {

using nlohmann::json;

// Through text, as the blob tables store it.
template <class T>
T roundTrip(const T& value) {
    const json j = value;
    return json::parse(j.dump()).get<T>();
}

UsageObservation fullObservation() {
    UsageObservation o;
    o.id = "codex:s1:42";
    o.integrationInstanceID = IntegrationInstanceID("inst-1");
    o.accountID = SubscriptionAccountID("acct-1");
    o.source = AgentSource::everyCode;
    o.provider = "openai";
    o.model = "gpt-x";
    o.occurredAt = 1741064767.891234;
    o.observedAt = 1741064800.5;
    o.timeQuality = ObservationTimeQuality::inferred;
    o.precision = UsagePrecision::derivedExact;
    o.granularity = UsageGranularity::sessionAggregate;
    o.sessionKey = "s1";
    o.projectDisplayName = "проект \"x\"";
    o.evidenceFingerprint = "fp";
    o.tokens = {1, 0, 3, 4, 5, INT64_MAX, 7, 8, false};
    o.cost = {-9, CostCompleteness::partial, CostSource::vendorReported, 2,
              3,  BillingMode::localZero};
    o.usageSemanticsVersion = 3;
    return o;
}

CoverageIssue fullIssue() {
    return {"issue-1",
            "run-1",
            "codex:s1:42",
            IntegrationInstanceID("inst-1"),
            AgentSource::primeAgent,
            CoverageIssueCode::formatChanged,
            CoverageIssueSeverity::error,
            CoverageIssueOrigin::validation,
            "diag",
            10.25,
            11.5};
}

TEST(LedgerRecordsJson, ObservationRoundTripsAndUsesRawText) {
    const auto full = fullObservation();
    EXPECT_EQ(roundTrip(full), full);
    const json j = full;
    EXPECT_EQ(j.at("source"), "every-code");
    EXPECT_EQ(j.at("integrationInstanceID"), "inst-1");
    EXPECT_EQ(j.at("accountID"), "acct-1");
    EXPECT_EQ(j.at("granularity"), "sessionAggregate");
    EXPECT_EQ(j.at("tokens").at("cacheRead"), 0);
    EXPECT_EQ(j.at("cost").at("billingMode"), "localZero");

    UsageObservation bare;
    bare.id = "x";
    EXPECT_EQ(roundTrip(bare), bare);
    const json b = bare;
    for (const char* key : {"integrationInstanceID", "accountID", "occurredAt", "sessionKey",
                            "projectDisplayName", "evidenceFingerprint"}) {
        EXPECT_TRUE(b.at(key).is_null()) << key;
    }
    EXPECT_TRUE(b.at("tokens").at("providerTotal").is_null());
    EXPECT_TRUE(b.at("cost").at("amountUSDMicros").is_null());
}

TEST(LedgerRecordsJson, MissingOptionalKeysReadAsAbsent) {
    json j = fullObservation();
    for (const char* key : {"integrationInstanceID", "accountID", "occurredAt", "sessionKey",
                            "projectDisplayName", "evidenceFingerprint", "granularity"}) {
        j.erase(key);
    }
    for (auto& [key, value] : j.at("tokens").items()) {
        if (key != "breakdownTrusted") {
            value = nullptr;
        }
    }
    const auto o = j.get<UsageObservation>();
    EXPECT_FALSE(o.integrationInstanceID || o.accountID || o.occurredAt || o.sessionKey ||
                 o.projectDisplayName || o.evidenceFingerprint);
    EXPECT_EQ(o.granularity, UsageGranularity::unknown);
    EXPECT_FALSE(o.tokens.hasAnyKnownValue());
}

TEST(LedgerRecordsJson, UnknownEnumTextIsRejected) {
    for (const auto& [path, text] :
         {std::pair{"/source", "nosuchagent"}, std::pair{"/precision", "exact"},
          std::pair{"/cost/source", "guess"}}) {
        json j = fullObservation();
        j[json::json_pointer(path)] = text;
        EXPECT_THROW(j.get<UsageObservation>(), json::exception) << path;
    }
    json issue = fullIssue();
    issue["code"] = "somethingElse";
    EXPECT_THROW(issue.get<CoverageIssue>(), json::exception);
}

TEST(LedgerRecordsJson, CoverageIssueRoundTrips) {
    const auto full = fullIssue();
    EXPECT_EQ(roundTrip(full), full);
    EXPECT_EQ(json(full).at("source"), "prime-agent");

    CoverageIssue open;
    open.id = "issue-2";
    EXPECT_EQ(roundTrip(open), open);
    EXPECT_TRUE(json(open).at("resolvedAt").is_null());
    EXPECT_TRUE(json(open).at("source").is_null());
}

TEST(LedgerRecordsJson, BatchRoundTrips) {
    UsageBatch full;
    full.id = "run-1";
    full.integrationInstanceID = IntegrationInstanceID("inst-1");
    full.adapterID = "codex-log";
    full.source = AgentSource::codex;
    full.startedAt = 1.5;
    full.completedAt = 2.5;
    full.observations = {fullObservation(), UsageObservation{}};
    full.checkpoint = AdapterCheckpoint{IntegrationInstanceID("inst-1"), "codex-log",
                                        R"({"offset":12})", 4, 3.25};
    full.coverageIssues = {fullIssue()};
    EXPECT_EQ(roundTrip(full), full);
    EXPECT_EQ(json(full).at("checkpoint").at("opaqueCursor"), R"({"offset":12})");

    UsageBatch bare;
    bare.id = "run-2";
    bare.checkpoint = AdapterCheckpoint{};
    EXPECT_EQ(roundTrip(bare), bare);
    bare.checkpoint.reset();
    EXPECT_EQ(roundTrip(bare), bare);
    EXPECT_TRUE(json(bare).at("checkpoint").is_null());
}

}  // namespace
}  // namespace kestrel
