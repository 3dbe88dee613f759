#pragma once
// Totals over a list of usage events: overall, per agent, per model, per hour and per day.
// Used on the events a query has already selected; grouping by day and hour follows the calendar
// passed in. Every sum is checked and aborts on overflow.

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "core/model/agent_source.hpp"
#include "core/model/calendar.hpp"
#include "core/model/enum_cases.hpp"
#include "core/model/tokens.hpp"
#include "core/model/usage_event.hpp"

namespace kestrel {

// The three counts answer different questions and overlap:
// - priced: the event carries a cost (`estimatedCostUSDMicros` present, zero included); only
//   these contribute to `pricedCostUSDMicros`.
// - unpriced: the event has no cost (`estimatedCostUSDMicros` absent). priced + unpriced is
//   always eventCount.
// - untrusted: the event's token breakdown is not trusted (`breakdownTrusted` false), whether or
//   not it carries a cost (a vendor-reported cost can still price it).
struct UsageSummary {
    ExclusiveTokens tokens;  // bucket-wise sums over all events, priced or not
    int64_t eventCount = 0;
    int64_t pricedCostUSDMicros = 0;
    int64_t pricedEventCount = 0;
    int64_t unpricedEventCount = 0;
    int64_t untrustedEventCount = 0;

    // Counts `event` into this summary.
    void add(const UsageEvent& event);

    bool operator==(const UsageSummary&) const = default;
};

struct ModelUsage {
    std::string model;  // as the agents wrote it; names differing in case are apart
    // The agents that used the model, in declaration order, each once.
    std::vector<AgentSource> sources;
    UsageSummary summary;

    bool operator==(const ModelUsage&) const = default;
};

// The periods the reports offer; `retained` is everything the ledger still holds.
enum class TimeRange { today, days7, days30, retained };

template <>
struct EnumCases<TimeRange> {
    using E = TimeRange;
    static constexpr std::array<std::pair<E, std::string_view>, 4> cases{{
        KESTREL_ENUM_CASE(E, today),
        KESTREL_ENUM_CASE(E, days7),
        KESTREL_ENUM_CASE(E, days30),
        KESTREL_ENUM_CASE(E, retained),
    }};
};

namespace Aggregation {

UsageSummary summary(const std::vector<UsageEvent>& events);

// One entry per agent that has events, in AgentSource declaration order.
std::vector<std::pair<AgentSource, UsageSummary>> bySource(const std::vector<UsageEvent>& events);

// One entry per distinct model name, the largest total (all five buckets) first; equal totals in
// model-name order.
std::vector<ModelUsage> byModel(const std::vector<UsageEvent>& events);

// Hour of day (0-23) → summary, for the events on the calendar day that `day` falls on; hours
// without events are absent. On a day that repeats an hour (end of summer time) both occurrences
// share its entry.
std::map<int, UsageSummary> hourly(const std::vector<UsageEvent>& events, double day,
                                   const Calendar& calendar);

// "yyyy-MM-dd" → summary for every day that has events; the keys sort chronologically.
std::map<std::string, UsageSummary> daily(const std::vector<UsageEvent>& events,
                                          const Calendar& calendar);

// The `days` calendar days that start before `endingBefore`, oldest first, each with its summary
// (empty for a day without events). Only events before `endingBefore` count, so passing the
// current time ends the window with today so far, and passing the start of a day ends it with
// the day before. No entries when `days` is below 1.
std::vector<std::pair<std::string, UsageSummary>> dailyWindow(const std::vector<UsageEvent>& events,
                                                              double endingBefore, int days,
                                                              const Calendar& calendar);

}  // namespace Aggregation

}  // namespace kestrel
