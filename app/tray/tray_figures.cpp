#include "app/tray/tray_figures.hpp"

#include "core/app/usage_rows.hpp"

namespace kestrel::desktop {

std::vector<StoredQuota> readStoredQuotas(UsageStore& store) {
    std::vector<StoredQuota> out;
    for (auto& snapshot : store.quotas()) {
        std::string id = "source:" + std::string(rawValue(snapshot.identity.source));
        out.push_back({std::move(id), std::move(snapshot)});
    }
    for (auto& [accountID, snapshot] : store.planQuotas()) {
        out.push_back({"plan:" + accountID, std::move(snapshot)});
    }
    return out;
}

TrayFigures readTrayFigures(UsageStore& store, const Calendar& calendar, double now,
                            bool withMonth) {
    TrayFigures f;
    f.now = now;
    f.headline = ledgerHeadline(store, calendar, now);
    LedgerQuery today;
    today.from = calendar.startOfDay(now);
    today.to = calendar.addingDays(*today.from, 1);
    f.todayBySource = store.ledgerSummariesBySource(today);
    f.quotas = readStoredQuotas(store);
    if (withMonth) {
        LedgerQuery month;
        month.from = calendar.startOfDay(calendar.dayKey(now).substr(0, 7) + "-01");
        f.thisMonth = store.ledgerSummary(month);
    }
    return f;
}

MenuBarInputs menuBarInputs(const TrayFigures& f) {
    MenuBarInputs in;
    in.now = f.now;
    const LedgerSummary& today = f.headline.today;
    if (today.pricedEventCount > 0) {
        in.todayCostUSDMicros = today.knownCostUSDMicros.value_or(0);
    }
    if (today.tokenKnownEventCount > 0) {
        in.todayTokens = totalTokens(today);
    }
    for (const auto& q : f.quotas) {
        for (const auto& w : q.snapshot.windows) {
            if (!w.usedPercent && !w.remainingLabel) {
                continue;  // nothing to say about this window
            }
            in.quotas.push_back({q.snapshot.identity.source, q.accountID, q.snapshot.identity.planLabel,
                                 w, q.snapshot.stale});
        }
    }
    std::map<AgentSource, MenuBarActivity> activity;
    for (const auto& s : f.live.sessions) {
        if (s.state == ActivityState::completed) {
            continue;
        }
        auto& a = activity[s.source];
        a.source = s.source;
        if (s.state == ActivityState::waitingForUser) {
            ++a.waiting;
        } else {
            ++a.working;
        }
    }
    for (auto& [source, a] : activity) {
        in.activity.push_back(a);
    }
    return in;
}

}  // namespace kestrel::desktop
