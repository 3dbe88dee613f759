#pragma once
// Token counters: what an agent reports (TokenSnapshot) and the five non-overlapping buckets that
// are priced and summed (ExclusiveTokens).

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrel {

// The counters exactly as an agent reports them for one record, or cumulatively for a session.
struct TokenSnapshot {
    int64_t input = 0;        // as reported; for subset-family agents this includes cached input
    int64_t cachedInput = 0;  // served from the prompt cache (cache read)
    int64_t cacheCreate = 0;  // written to the prompt cache (cache write)
    int64_t output = 0;       // as reported; for some families this includes reasoning
    int64_t reasoning = 0;
    int64_t providerTotal = 0;  // the agent's own total, when it reports one

    bool operator==(const TokenSnapshot&) const = default;
};

struct ExclusiveTokens {
    int64_t inputUncached = 0;
    int64_t cacheRead = 0;
    int64_t cacheWrite = 0;
    int64_t outputVisible = 0;
    int64_t reasoning = 0;

    static constexpr ExclusiveTokens zero() { return {}; }

    // Sum of the five buckets; aborts on overflow.
    int64_t billedTokens() const;

    // The non-zero buckets in display order: "input", "output", "reasoning", "cache" (read plus
    // write). Only buckets with a value above zero appear.
    std::vector<std::pair<std::string_view, int64_t>> billedBuckets() const;

    bool operator==(const ExclusiveTokens&) const = default;
};

// Field-wise sum; aborts on overflow, never wraps.
ExclusiveTokens operator+(const ExclusiveTokens& a, const ExclusiveTokens& b);
ExclusiveTokens& operator+=(ExclusiveTokens& a, const ExclusiveTokens& b);

void to_json(nlohmann::json& j, const TokenSnapshot& t);
void to_json(nlohmann::ordered_json& j, const TokenSnapshot& t);
void from_json(const nlohmann::json& j, TokenSnapshot& t);
void to_json(nlohmann::json& j, const ExclusiveTokens& t);
void to_json(nlohmann::ordered_json& j, const ExclusiveTokens& t);
void from_json(const nlohmann::json& j, ExclusiveTokens& t);

}  // namespace kestrel
