#include "core/ledger/usage_batch_builder.hpp"

#include <fmt/format.h>

#include <atomic>
#include <random>

namespace kestrel::UsageBatchBuilder {

std::string ledgerEventID(const std::string& observationID) {
    return "le:" + observationID;
}

std::string validationIssueID(const std::string& observationID, CoverageIssueCode code) {
    return "vi:" + observationID + ":" + std::string(rawValue(code));
}

UsageObservation observation(const UsageEvent& e, double observedAt, bool storeSession) {
    UsageObservation o;
    o.id = e.id;
    o.source = e.source;
    o.provider = e.provider;
    o.model = e.model;
    o.timeQuality = e.timeQuality.value_or(ObservationTimeQuality::trusted);
    if (o.timeQuality != ObservationTimeQuality::missing) {
        o.occurredAt = e.occurredAt;
    }
    o.observedAt = observedAt;
    o.precision = e.usagePrecision.value_or(UsagePrecision::nativeExact);
    o.granularity = e.granularity.value_or(UsageGranularity::unknown);
    if (storeSession && !e.sessionID.empty()) {
        o.sessionKey = e.sessionID;
    }
    o.projectDisplayName = e.projectDisplayName;
    o.tokens.inputUncached = e.exclusive.inputUncached;
    o.tokens.cacheRead = e.exclusive.cacheRead;
    o.tokens.cacheWrite = e.exclusive.cacheWrite;
    o.tokens.outputVisible = e.exclusive.outputVisible;
    o.tokens.reasoning = e.exclusive.reasoning;
    o.tokens.providerInputTotal = e.providerInputTotal;
    o.tokens.providerOutputTotal = e.providerOutputTotal;
    o.tokens.providerTotal = e.providerTotal;
    o.tokens.breakdownTrusted = e.breakdownTrusted;
    o.cost.amountUSDMicros = e.estimatedCostUSDMicros;
    o.cost.completeness = e.costCompleteness;
    o.cost.source = e.costSource;
    o.cost.priceVersion = e.priceVersion;
    o.cost.fxVersion = e.fxVersion;
    o.cost.billingMode = e.billingMode;
    o.usageSemanticsVersion = e.usageSemanticsVersion;
    return o;
}

std::string newRunID(const std::string& adapterID, double now) {
    static std::atomic<uint64_t> counter{0};
    static const uint64_t processSalt = std::random_device{}();
    return fmt::format("{}:{:.6f}:{:x}:{}", adapterID, now, processSalt, counter++);
}

UsageBatch batch(const std::string& runID, const std::string& adapterID, AgentSource source,
                 const std::vector<UsageEvent>& events, double startedAt, double completedAt,
                 bool storeSession, std::optional<AdapterCheckpoint> checkpoint) {
    UsageBatch b;
    b.id = runID;
    b.adapterID = adapterID;
    b.source = source;
    b.startedAt = startedAt;
    b.completedAt = completedAt;
    b.observations.reserve(events.size());
    for (const auto& e : events) {
        b.observations.push_back(observation(e, completedAt, storeSession));
    }
    b.checkpoint = std::move(checkpoint);
    return b;
}

}  // namespace kestrel::UsageBatchBuilder
