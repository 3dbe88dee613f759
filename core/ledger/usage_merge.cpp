#include "core/ledger/usage_merge.hpp"

#include <algorithm>
#include <utility>

namespace kestrel::UsageMerge {
namespace {

int rank(ObservationTimeQuality q) {
    switch (q) {
        case ObservationTimeQuality::trusted:
            return 0;
        case ObservationTimeQuality::inferred:
            return 1;
        case ObservationTimeQuality::missing:
            return 2;
    }
    return 2;
}

ObservationTimeQuality qualityOf(const UsageEvent& e) {
    return e.timeQuality.value_or(ObservationTimeQuality::trusted);
}

int64_t sumOrMax(int64_t visible, int64_t reasoning) {
    int64_t sum = 0;
    // Counts this large are damage; comparing them must not overflow.
    return __builtin_add_overflow(visible, reasoning, &sum) ? INT64_MAX : sum;
}

// Whether a record seen at `later` dates the usage rather than the one held: a better quality of
// time first (a line's own timestamp over a file's time), then the earlier.
bool takesTime(std::optional<double> held, ObservationTimeQuality heldQuality,
               std::optional<double> later, ObservationTimeQuality laterQuality) {
    if (!later) {
        return false;
    }
    if (!held) {
        return true;
    }
    if (rank(laterQuality) != rank(heldQuality)) {
        return rank(laterQuality) < rank(heldQuality);
    }
    return *later < *held;
}

}  // namespace

int64_t outputOf(const UsageEvent& e) {
    return std::max(e.providerOutputTotal,
                    sumOrMax(e.exclusive.outputVisible, e.exclusive.reasoning));
}

int64_t outputOf(const ObservedTokenUsage& t) {
    return std::max(t.providerOutputTotal.value_or(0),
                    sumOrMax(t.outputVisible.value_or(0), t.reasoning.value_or(0)));
}

namespace {

// The time of `from`, with the session and project it was seen in.
void takeTimeOf(UsageEvent& held, UsageEvent& from) {
    held.occurredAt = from.occurredAt;
    held.timeQuality = from.timeQuality;
    held.sessionID = std::move(from.sessionID);
    held.projectDisplayName = std::move(from.projectDisplayName);
    held.cwdHash = std::move(from.cwdHash);
}

}  // namespace

void merge(UsageEvent& held, UsageEvent&& later) {
    const bool time =
        takesTime(held.occurredAt, qualityOf(held), later.occurredAt, qualityOf(later));
    const bool counts = outputOf(later) >= outputOf(held);
    if (counts) {
        // The later record becomes the base; the earlier time comes back to it.
        std::swap(held, later);
        if (!time) {
            takeTimeOf(held, later);
        }
    } else if (time) {
        takeTimeOf(held, later);
    }
}

namespace {

void takeTimeOf(UsageObservation& held, const UsageObservation& from) {
    held.occurredAt = from.occurredAt;
    held.timeQuality = from.timeQuality;
    held.sessionKey = from.sessionKey;
    held.projectDisplayName = from.projectDisplayName;
}

void takeCountsOf(UsageObservation& held, const UsageObservation& from) {
    held.provider = from.provider;
    held.model = from.model;
    held.precision = from.precision;
    held.granularity = from.granularity;
    held.evidenceFingerprint = from.evidenceFingerprint;
    held.tokens = from.tokens;
    held.cost = from.cost;
    held.usageSemanticsVersion = from.usageSemanticsVersion;
}

}  // namespace

void merge(UsageObservation& held, const UsageObservation& later) {
    const bool time =
        takesTime(held.occurredAt, held.timeQuality, later.occurredAt, later.timeQuality);
    const bool counts = outputOf(later.tokens) >= outputOf(held.tokens);
    // What belongs to neither (the run, when it was observed, the instance) is the later read's.
    held.observedAt = later.observedAt;
    held.integrationInstanceID = later.integrationInstanceID;
    held.accountID = later.accountID;
    held.source = later.source;
    if (time) {
        takeTimeOf(held, later);
    }
    if (counts) {
        takeCountsOf(held, later);
    }
}

}  // namespace kestrel::UsageMerge
