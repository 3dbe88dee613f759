#pragma once
// One dated price for the models a pattern names, in US dollars per million tokens.

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "core/model/usage_enums.hpp"

namespace kestrel {

// Prices stay the decimal text they were written as; they are read exactly, as micros, only
// when a cost is computed (see decimal.hpp). An unparsable price counts as 0.
struct PriceRow {
    std::string match;          // applies to every model whose lower-cased name contains it
    std::string effectiveFrom;  // "yyyy-MM-dd", first day in force
    std::optional<std::string> effectiveTo;  // "yyyy-MM-dd", first day no longer in force
    int64_t version = 0;                     // recorded with every event this row prices
    std::string inputUncachedPerMTokUSD;
    std::string cacheReadPerMTokUSD;
    std::string cacheWritePerMTokUSD;
    std::string outputVisiblePerMTokUSD;
    std::string reasoningPerMTokUSD;
    std::optional<int64_t> longContextThresholdTokens;  // prompt size where long rates start
    std::optional<bool> longContextInclusive;  // true: a prompt of exactly the threshold is long
    std::optional<std::string> inputUncachedPerMTokUSDLong;
    std::optional<std::string> cacheReadPerMTokUSDLong;
    std::optional<std::string> cacheWritePerMTokUSDLong;
    std::optional<std::string> outputVisiblePerMTokUSDLong;
    std::optional<std::string> reasoningPerMTokUSDLong;

    // "match|effectiveFrom|effectiveTo|version", an empty third part when open-ended.
    std::string id() const;

    // A positive threshold and a long-context input rate.
    bool hasLongContextRates() const;

    // `none` without long-context rates; otherwise `longContext` when the prompt reaches the
    // threshold (inclusive) or exceeds it (exclusive, the default), else `shortContext`.
    ContextBand contextBand(int64_t promptTokens) const;

    // Every field in a fixed order, absent ones as null: compact JSON that changes whenever any
    // field does. Used by the price fingerprint.
    std::string canonicalText() const;

    bool operator==(const PriceRow&) const = default;
};

// The sixteen field names as keys, absent optionals omitted. Reading requires match,
// effectiveFrom, version and the five standard prices; a price may also be a JSON number, kept
// as its shortest decimal text.
void to_json(nlohmann::json& j, const PriceRow& row);
void to_json(nlohmann::ordered_json& j, const PriceRow& row);  // keys in field order
void from_json(const nlohmann::json& j, PriceRow& row);

}  // namespace kestrel
