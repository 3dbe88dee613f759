#pragma once
// The pieces of text and JSON that `kestrel statusline` and `kestrel bar` share: reset
// countdowns, window names, totals.

#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "core/app/display_choices.hpp"
#include "core/app/glance.hpp"

namespace kestrel::cli {

// A span of time as "2d 4h", "3h 12m", "8m" or "<1m" (negative spans count as none).
std::string durationText(double seconds);

// The time left until `resetsAt`: "2d 4h", "3h 12m", "8m", "<1m". Absent without a reset time
// and once it has passed: a window that has reset has nothing left to count down.
std::optional<std::string> resetCountdown(std::optional<double> resetsAt, double now);

// "5h", "7d opus", "month": the window's short name, with its scope.
std::string windowName(const DisplayChoices& show, const QuotaWindow& window);

// "5h 42% ↻2h 5m" (with "(stale)" after a kept reading), the percent wrapped in `colourOn` and
// `colourOff` when given.
std::string windowText(const DisplayChoices& show, const GlanceWindow& window, double now,
                       std::string_view colourOn = {}, std::string_view colourOff = {});

// "45.6K tok": the known token total of `summary`.
std::string tokensText(const DisplayChoices& show, const LedgerSummary& summary);

// {"events", "tokens", "costUSDMicros", "cost"} of a summary (absent sums are null).
nlohmann::ordered_json summaryJSON(const DisplayChoices& show, const LedgerSummary& summary);

// The window with its account, used share, reset (ISO-8601 and seconds left) and staleness;
// null without one.
nlohmann::ordered_json windowJSON(const std::optional<GlanceWindow>& window, double now);

}  // namespace kestrel::cli
