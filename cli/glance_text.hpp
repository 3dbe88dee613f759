#pragma once
// The pieces of text and JSON that `kestrel statusline` and `kestrel bar` share: window names,
// window texts with their reset countdowns, totals.

#include <filesystem>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "core/app/display_choices.hpp"
#include "core/app/glance.hpp"
#include "core/presentation/countdown_text.hpp"

namespace kestrel::cli {

// The glance for `request`. When not even part of one can be read, an empty glance that names the
// problem: a status line or bar still prints what it can.
Glance glanceOrProblem(const std::filesystem::path& supportDir, const GlanceRequest& request);

// The glance's settings shown in --lang `language` when given (a name that is not a language
// leaves the settings' choice).
DisplayChoices glanceDisplay(const Glance& glance, const std::optional<std::string>& language);

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
