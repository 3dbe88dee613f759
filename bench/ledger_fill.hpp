#pragma once
// A large synthetic ledger for the benchmarks that time reads: `count` events of two agents and
// six models, in sessions of 40 events ("s0", "s1", ...), committed through the real ingest path.

#include <fmt/format.h>

#include <algorithm>
#include <random>

#include "core/ledger/usage_store.hpp"

namespace kestrel::bench {

// `count` events spread over the `days` before `now`, in batches of 50,000.
inline void fill(UsageStore& store, int64_t count, int days, double now) {
    static const char* models[] = {"claude-sonnet-4-5", "claude-opus-4-1", "claude-haiku-4-5",
                                   "gpt-5-codex",       "gpt-5.1-codex",   "gpt-5"};
    std::mt19937_64 rng(42);
    std::uniform_real_distribution<double> at(now - days * 86'400.0, now);
    std::uniform_int_distribution<int64_t> tokens(1, 5'000);
    const int64_t batchSize = 50'000;
    for (int64_t start = 0; start < count; start += batchSize) {
        UsageBatch b;
        b.id = fmt::format("bench-{}", start);
        b.adapterID = "bench";
        b.source = AgentSource::claude;
        b.startedAt = now;
        b.completedAt = now;
        for (int64_t i = start; i < std::min(count, start + batchSize); ++i) {
            UsageObservation o;
            o.id = fmt::format("bench:{:010}", i);
            const auto m = static_cast<std::size_t>(i % 6);
            o.model = models[m];
            o.source = m < 3 ? AgentSource::claude : AgentSource::codex;
            o.provider = m < 3 ? "anthropic" : "openai";
            o.occurredAt = at(rng);
            o.observedAt = now;
            o.timeQuality = ObservationTimeQuality::trusted;
            o.precision = UsagePrecision::nativeExact;
            o.granularity = UsageGranularity::request;
            o.sessionKey = fmt::format("s{}", i / 40);
            o.projectDisplayName = fmt::format("project-{}", i % 25);
            o.tokens.inputUncached = tokens(rng);
            o.tokens.cacheRead = tokens(rng) * 20;
            o.tokens.cacheWrite = tokens(rng) / 10;
            o.tokens.outputVisible = tokens(rng) / 2;
            o.tokens.reasoning = 0;
            o.cost.amountUSDMicros = tokens(rng) * 7;
            o.cost.completeness = CostCompleteness::complete;
            o.cost.source = CostSource::priceTable;
            b.observations.push_back(std::move(o));
        }
        store.ingest({}, {}, std::nullopt, b);
    }
}


}  // namespace kestrel::bench
