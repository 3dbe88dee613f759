#pragma once
// How each agent's raw counts relate to cache and reasoning counts, and the rules that turn them
// into exclusive buckets. Pure functions; every sum is checked.

#include <cstdint>
#include <optional>

#include "core/model/agent_source.hpp"
#include "core/model/tokens.hpp"

namespace kestrel {

enum class TokenFamily {
    subset,       // cached (and for some agents cache-write) counts are inside input; reasoning
                  // inside output
    independent,  // each count is its own bucket
    additive,     // input excludes the cache counts; reasoning inside output
};

template <>
struct EnumCases<TokenFamily> {
    using E = TokenFamily;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        KESTREL_ENUM_CASE(E, subset),
        KESTREL_ENUM_CASE(E, independent),
        KESTREL_ENUM_CASE(E, additive),
    }};
};

namespace TokenSemantics {

struct Mapped {
    ExclusiveTokens exclusive;
    bool trusted = true;  // false when the raw counts were inconsistent and the buckets zeroed
    int64_t providerIn = 0;
    int64_t providerOut = 0;
    int64_t providerTotal = 0;

    bool operator==(const Mapped&) const = default;
};

TokenFamily family(AgentSource source);

// Derives the buckets and provider totals of one record. `providerTotal` absent means input +
// output.
Mapped map(AgentSource source, int64_t input, int64_t cached, int64_t cacheWrite, int64_t output,
           int64_t reasoning, std::optional<int64_t> providerTotal);

// Convenience over a snapshot (its providerTotal is used only when `hasProviderTotal`).
Mapped map(AgentSource source, const TokenSnapshot& raw, bool hasProviderTotal);

// Difference of two cumulative snapshots; absent when input, output or providerTotal went
// backwards (the counters were reset and the caller starts a new baseline). Cache and reasoning
// deltas are clamped at zero because agents re-count them.
std::optional<TokenSnapshot> delta(const TokenSnapshot& previous, const TokenSnapshot& current);

// Prompt size used to choose a context band: uncached input + cache read + cache write.
int64_t promptTokens(const ExclusiveTokens& exclusive);

}  // namespace TokenSemantics
}  // namespace kestrel
