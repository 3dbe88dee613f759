#include <gtest/gtest.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "core/model/base64.hpp"
#include "core/model/source_checkpoint.hpp"
#include "core/model/usage_event.hpp"

namespace kestrel {
namespace {

using nlohmann::json;

// Through text, as the ledger stores it.
template <class T>
T roundTrip(const T& value) {
    const json j = value;
    return json::parse(j.dump()).get<T>();
}

UsageEvent fullEvent() {
    UsageEvent e;
    e.id = "codex:sess-1:2025-03-04T05:06:07.891Z:1200:800";
    e.occurredAt = 1741064767.891234;
    e.timeQuality = ObservationTimeQuality::inferred;
    e.usagePrecision = UsagePrecision::derivedExact;
    e.granularity = UsageGranularity::sessionAggregate;
    e.source = AgentSource::everyCode;
    e.provider = "openai";
    e.model = "gpt-5-codex";
    e.projectDisplayName = "проект \"x\"";
    e.cwdHash = "cb8b9c807f182e6d";
    e.sessionID = "sess-1";
    e.raw = {1200, 800, 30, 400, 150, 1600};
    e.exclusive = {400, 800, 30, 250, 150};
    e.providerInputTotal = 1200;
    e.providerOutputTotal = 400;
    e.providerTotal = 1600;
    e.breakdownTrusted = false;
    e.usageSemanticsVersion = 2;
    e.estimatedCostUSDMicros = INT64_MAX;
    e.costCompleteness = CostCompleteness::partial;
    e.priceVersion = 7;
    e.fxVersion = -1;
    e.costSource = CostSource::vendorReported;
    e.billingMode = BillingMode::localZero;
    e.rawExtras = R"({"costUSD":0.25})";
    e.promptTokens = 1230;
    e.contextBand = ContextBand::longContext;
    return e;
}

TEST(UsageEventJson, AllOptionalsPresentRoundTrip) {
    const auto e = fullEvent();
    EXPECT_EQ(roundTrip(e), e);
    const json j = e;
    EXPECT_EQ(j.at("source"), "every-code");
    EXPECT_EQ(j.at("contextBand"), "long");
    EXPECT_EQ(j.at("timeQuality"), "inferred");
    EXPECT_EQ(j.at("billingMode"), "localZero");
}

TEST(UsageEventJson, AllOptionalsAbsentRoundTripAsNull) {
    UsageEvent e;
    e.id = "claude:msg";
    e.source = AgentSource::claude;
    e.provider = "anthropic";
    e.model = "m";
    const json j = e;
    for (const char* key : {"timeQuality", "usagePrecision", "granularity", "projectDisplayName",
                            "cwdHash", "estimatedCostUSDMicros", "priceVersion", "fxVersion",
                            "rawExtras", "promptTokens", "contextBand"}) {
        EXPECT_TRUE(j.at(key).is_null()) << key;
    }
    EXPECT_EQ(roundTrip(e), e);
    // A record written before an optional existed simply lacks the key.
    auto trimmed = j;
    trimmed.erase("contextBand");
    trimmed.erase("promptTokens");
    EXPECT_EQ(trimmed.get<UsageEvent>(), e);
}

TEST(UsageEventJson, KeysAreFieldNamesInDeclarationOrder) {
    const nlohmann::ordered_json j = fullEvent();
    std::string keys;
    for (const auto& [k, v] : j.items()) {
        keys += k + ",";
    }
    EXPECT_EQ(keys,
              "id,occurredAt,timeQuality,usagePrecision,granularity,source,provider,model,"
              "projectDisplayName,cwdHash,sessionID,raw,exclusive,providerInputTotal,"
              "providerOutputTotal,providerTotal,breakdownTrusted,usageSemanticsVersion,"
              "estimatedCostUSDMicros,costCompleteness,priceVersion,fxVersion,costSource,"
              "billingMode,rawExtras,promptTokens,contextBand,");
    // Ordered and plain JSON describe the same record.
    EXPECT_EQ(json::parse(j.dump()).get<UsageEvent>(), fullEvent());
}

TEST(UsageEventJson, UnknownEnumerationStringsAreErrors) {
    const json good = fullEvent();
    for (const auto& [key, bad] :
         std::vector<std::pair<std::string, std::string>>{{"source", "everyCode"},
                                                          {"source", "Claude"},
                                                          {"contextBand", "longContext"},
                                                          {"costSource", "price-table"},
                                                          {"timeQuality", ""}}) {
        auto j = good;
        j[key] = bad;
        EXPECT_THROW((void)j.get<UsageEvent>(), json::exception) << key << '=' << bad;
    }
}

TEST(SourceCheckpointJson, BinaryContextAndCumulativeRoundTrip) {
    SourceCheckpoint c;
    c.source = AgentSource::deepseekHarness;
    c.stableID = "/home/u/.dsh/sessions/a.jsonl";
    c.pathHint = "~/.dsh/sessions/a.jsonl";
    c.inode = UINT64_MAX;
    c.byteOffset = 1 << 20;
    c.partialLineStart = 1048000;
    c.logicalHighWater = "2025-01-01T00:00:00Z#42";
    constexpr char kContext[] = "\0ctx\xff\0\x01model=gpt\n";
    c.parserContext = std::string(kContext, sizeof kContext - 1);
    c.lastCumulative = TokenSnapshot{9000, 4000, 0, 700, 300, 9700};
    c.contentFingerprint = "ab12";
    c.parserVersion = 3;
    c.schemaVersion = 2;
    c.fileStamp = "1048576:1741064767000000000";

    const json j = c;
    EXPECT_EQ(j.at("source"), "dsh");
    EXPECT_EQ(j.at("parserContext"), "AGN0eP8AAW1vZGVsPWdwdAo=");
    const auto back = roundTrip(c);
    EXPECT_EQ(back.parserContext.size(), 17u);
    EXPECT_EQ(back, c);
}

TEST(SourceCheckpointJson, MinimalCheckpointRoundTrip) {
    SourceCheckpoint c;
    c.source = AgentSource::kimi;
    c.stableID = "kimi.db";
    c.pathHint = "kimi.db";
    const auto back = roundTrip(c);
    EXPECT_EQ(back, c);
    EXPECT_FALSE(back.lastCumulative.has_value());
    EXPECT_FALSE(back.inode.has_value());
}

TEST(SourceCheckpointJson, BadInputThrows) {
    SourceCheckpoint c;
    c.stableID = "x";
    c.pathHint = "x";
    const json good = c;
    auto unknownSource = good;
    unknownSource["source"] = "claude-code";
    EXPECT_THROW((void)unknownSource.get<SourceCheckpoint>(), json::exception);
    auto badContext = good;
    badContext["parserContext"] = "not base64!";
    EXPECT_THROW((void)badContext.get<SourceCheckpoint>(), json::exception);
}

TEST(Base64, Rfc4648Vectors) {
    const std::pair<std::string_view, std::string_view> vectors[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
        {"\xfb\xff", "+/8="},
    };
    for (const auto& [plain, encoded] : vectors) {
        EXPECT_EQ(base64::encode(plain), encoded);
        EXPECT_EQ(base64::decode(encoded), std::string(plain)) << encoded;
    }
}

TEST(Base64, InvalidInputIsAbsent) {
    for (std::string_view text : {"Zg=", "Zg", "Zm9", "Z===", "====", "Zm=v", "Zg==Zg==",
                                  "Zm9v!A==", "Zm9v\n", "Zm 9", "Zm9vYg=\xc3", "Zm-_"}) {
        EXPECT_EQ(base64::decode(text), std::nullopt) << '"' << text << '"';
    }
}

}  // namespace
}  // namespace kestrel
