#pragma once
// What the tray item shows, read from the ledger, the stored quota readings and the live
// sessions: the composer's inputs, and the lines of the tray menu.

#include <map>
#include <optional>
#include <vector>

#include "core/app/glance.hpp"
#include "core/app/live_activity.hpp"
#include "core/app/usage_overview.hpp"
#include "core/presentation/menu_bar_composer.hpp"

namespace kestrel::desktop {

struct TrayFigures {
    double now = 0;
    LedgerHeadline headline;
    std::map<AgentSource, LedgerSummary> todayBySource;
    std::vector<StoredQuota> quotas;
    // This month so far, for the monthly budget; read only when one is set.
    std::optional<LedgerSummary> thisMonth;
    LiveView live;
};

// Every stored reading, agents' subscriptions first ("source:<agent>"), then API plan accounts
// ("plan:<account>"). Throws StoreError.
std::vector<StoredQuota> readStoredQuotas(UsageStore& store);

// The ledger's part of the figures (today, 7 days, per agent today, quotas, and this month when
// `withMonth`). Throws StoreError.
TrayFigures readTrayFigures(UsageStore& store, const Calendar& calendar, double now,
                            bool withMonth = false);

// The composer's inputs: today's cost and tokens, one entry per quota window with a figure, and
// the agents with live sessions (waiting counted apart from working).
MenuBarInputs menuBarInputs(const TrayFigures& figures);

}  // namespace kestrel::desktop
