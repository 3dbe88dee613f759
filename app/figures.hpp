#pragma once
// Figures as the window and the tray item show them: money in the chosen currency, token counts
// in the locale's style, and the short forms that fit a tray icon.

#include <QString>
#include <cstdint>
#include <string>

#include "core/app/display_choices.hpp"
#include "core/ledger/ledger_query.hpp"
#include "core/presentation/menu_bar_composer.hpp"

namespace kestrel::desktop {

// "$12.34" ("¥88.80"), with a star when some of the events had no price.
QString moneyText(const DisplayChoices& display, const LedgerSummary& summary);
// "12,345" below ten thousand, "1.2M" ("1.2万") above, as the command line's compact style.
QString tokenText(const DisplayChoices& display, int64_t tokens);

// At most five characters: "$0.42", "$12", "$123", "$1.2K", "¥88", "¥12K".
std::string compactMoney(const DisplayChoices& display, int64_t usdMicros);

// A wait or an age in its two largest units ("2h 5m"), as the tray's countdowns say it.
QString waitText(double seconds);

// The composer's formatter for `display`.
MenuBarFormatter menuBarFormatter(const DisplayChoices& display);

}  // namespace kestrel::desktop
