#include "core/app/notification_policy.hpp"

#include "core/app/live_activity.hpp"
#include "core/model/enum_cases.hpp"
#include "core/pricing/money_format.hpp"

namespace kestrel {
namespace {

int thresholdReached(double usedPercent) {
    if (usedPercent >= kQuotaExhaustedPercent) {
        return 100;
    }
    return usedPercent >= kQuotaWarningPercent ? 80 : 0;
}

std::string windowKey(const StoredQuota& quota, const QuotaWindow& window) {
    return quota.accountID + "|" + std::string(rawValue(window.kind)) + "|" +
           window.scopeKey.value_or("");
}

}  // namespace

bool activityNoticeWanted(const AppSettings& settings, const ActivityNotice& notice) {
    return activityNoticeSettings(settings).allows(notice.kind);
}

void NotificationPolicy::prime(const AppSettings& settings, const NotificationFacts& facts) {
    decide(settings, facts, false);
}

std::vector<Notification> NotificationPolicy::evaluate(const AppSettings& settings,
                                                       const NotificationFacts& facts) {
    return decide(settings, facts, true);
}

std::vector<Notification> NotificationPolicy::decide(const AppSettings& settings,
                                                     const NotificationFacts& facts, bool deliver) {
    std::vector<Notification> out;

    for (const auto& quota : facts.quotas) {
        for (const auto& window : quota.snapshot.windows) {
            if (!window.usedPercent || (window.resetsAt && *window.resetsAt <= facts.now)) {
                continue;  // no figure, or the reading belongs to a period that is over
            }
            const int now = thresholdReached(*window.usedPercent);
            int& before = reached_[windowKey(quota, window)];
            if (now <= before) {
                before = now;  // the window reset (or stayed): the next crossing is news again
                continue;
            }
            if (!settings.quotaNotificationsEnabled) {
                continue;  // not remembered: switching notifications on later still tells
            }
            before = now;
            if (!deliver) {
                continue;
            }
            Notification n;
            n.kind = now == 100 ? NotificationKind::quotaExhausted : NotificationKind::quotaWarning;
            n.dedupKey = windowKey(quota, window) + "|" + std::to_string(now);
            n.source = quota.snapshot.identity.source;
            n.planLabel = quota.snapshot.identity.planLabel;
            n.window = window;
            out.push_back(std::move(n));
        }
    }

    const auto budget = [&](NotificationKind kind, const std::optional<int64_t>& limitFen,
                            const std::optional<int64_t>& spentMicros, const std::string& period) {
        if (!limitFen || *limitFen <= 0 || !spentMicros || period.empty()) {
            return;
        }
        const int64_t spent = cnyFen(*spentMicros, settings.cnyPerUsdE4);
        if (spent < *limitFen) {
            return;
        }
        const std::string key = std::string(kind == NotificationKind::dailyBudget ? "day|" : "month|") +
                                period + "|" + std::to_string(*limitFen);
        if (!delivered_.insert(key).second || !deliver) {
            return;
        }
        Notification n;
        n.kind = kind;
        n.dedupKey = key;
        n.spentFen = spent;
        n.budgetFen = *limitFen;
        out.push_back(std::move(n));
    };
    budget(NotificationKind::dailyBudget, settings.dailyBudgetCNYFen, facts.todayCostUSDMicros,
           facts.dayKey);
    budget(NotificationKind::monthlyBudget, settings.monthlyBudgetCNYFen, facts.monthCostUSDMicros,
           facts.monthKey);

    if (facts.firstImportEvents && settings.activityNotificationsEnabled &&
        delivered_.insert("first-scan").second && deliver) {
        Notification n;
        n.kind = NotificationKind::firstScan;
        n.dedupKey = "first-scan";
        n.events = *facts.firstImportEvents;
        out.push_back(std::move(n));
    }
    return out;
}

}  // namespace kestrel
