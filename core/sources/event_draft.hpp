#pragma once
// What every reader knows about one usage record, turned into a UsageEvent the same way for
// every agent: the token family's rule makes the buckets. The event is not priced yet and keeps
// its project label; the ingestor applies the user's billing mode, prices and privacy choices.

#include <optional>
#include <string>

#include "core/model/agent_source.hpp"
#include "core/model/tokens.hpp"
#include "core/model/usage_enums.hpp"
#include "core/model/usage_event.hpp"

namespace kestrel {

struct EventDraft {
    AgentSource source = AgentSource::claude;
    std::string id;  // an EventID
    double occurredAt = 0;
    ObservationTimeQuality timeQuality = ObservationTimeQuality::trusted;
    UsagePrecision precision = UsagePrecision::nativeExact;
    UsageGranularity granularity = UsageGranularity::request;
    std::string provider;  // lower-case vendor word; empty: derived from the model name
    std::string model;
    std::string sessionID;
    std::string cwd;          // the working directory, when known (hashed; never stored)
    std::string projectName;  // a display name when there is no cwd to derive it from
    // Raw counts as the agent reports them; the source's token family interprets them.
    int64_t input = 0;
    int64_t cachedInput = 0;
    int64_t cacheWrite = 0;
    int64_t output = 0;
    int64_t reasoning = 0;
    std::optional<int64_t> providerTotal;
    // Compact JSON of extras for audit; {"costUSD": x} there is taken as the agent's own cost.
    std::optional<std::string> rawExtras;
};

// The provider a model name implies: "anthropic" for claude*, "openai" for gpt*/o1*/o3*/o4*/
// codex*, "google" for gemini*, "deepseek", "moonshot" for kimi*, "xai" for grok*, "zhipu" for
// glm*, "alibaba" for qwen*, "xiaomi" for mimo*; "unknown" otherwise.
std::string providerForModel(std::string_view model);

// The unpriced event: names made valid UTF-8, the working directory hashed, the project label
// taken from the directory (else `projectName`), buckets by the source's token family.
UsageEvent buildEvent(const EventDraft& draft);

}  // namespace kestrel
