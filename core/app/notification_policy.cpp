#include "core/app/notification_policy.hpp"

#include <nlohmann/json.hpp>

#include "core/app/live_activity.hpp"
#include "core/model/enum_cases.hpp"
#include "core/pricing/money_format.hpp"

namespace kestrel {
namespace {

constexpr int kMemoryVersion = 1;

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

std::vector<Notification> NotificationPolicy::evaluate(const AppSettings& settings,
                                                       const NotificationFacts& facts) {
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
            Notification n;
            n.kind = now == 100 ? NotificationKind::quotaExhausted : NotificationKind::quotaWarning;
            n.dedupKey = windowKey(quota, window) + "|" + std::to_string(now);
            n.source = quota.snapshot.identity.source;
            n.planLabel = quota.snapshot.identity.planLabel;
            n.window = window;
            out.push_back(std::move(n));
        }
    }

    // Budget keys of days and months gone by can never match again.
    std::erase_if(delivered_, [&](const std::string& key) {
        return (key.starts_with("day|") && !facts.dayKey.empty() &&
                !key.starts_with("day|" + facts.dayKey + "|")) ||
               (key.starts_with("month|") && !facts.monthKey.empty() &&
                !key.starts_with("month|" + facts.monthKey + "|"));
    });
    const auto budget = [&](NotificationKind kind, const std::optional<int64_t>& limitFen,
                            const std::optional<int64_t>& spentMicros, const std::string& period) {
        if (!settings.budgetNotificationsEnabled || !limitFen || *limitFen <= 0 || !spentMicros ||
            period.empty()) {
            return;
        }
        const int64_t spent = cnyFen(*spentMicros, settings.cnyPerUsdE4);
        if (spent < *limitFen) {
            return;
        }
        const std::string key = std::string(kind == NotificationKind::dailyBudget ? "day|" : "month|") +
                                period + "|" + std::to_string(*limitFen);
        if (!delivered_.insert(key).second) {
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

    if (facts.firstImportEvents && settings.importNotificationsEnabled &&
        delivered_.insert("first-scan").second) {
        Notification n;
        n.kind = NotificationKind::firstScan;
        n.dedupKey = "first-scan";
        n.events = *facts.firstImportEvents;
        out.push_back(std::move(n));
    }
    return out;
}

std::string NotificationPolicy::memoryJson() const {
    nlohmann::json reached = nlohmann::json::object();
    for (const auto& [key, threshold] : reached_) {
        if (threshold > 0) {
            reached[key] = threshold;
        }
    }
    return nlohmann::json{{"version", kMemoryVersion},
                          {"reached", std::move(reached)},
                          {"delivered", delivered_}}
        .dump();
}

bool NotificationPolicy::restoreMemory(std::string_view json) {
    reached_.clear();
    delivered_.clear();
    const auto doc = nlohmann::json::parse(json, nullptr, false);
    if (!doc.is_object() || doc.value("version", 0) != kMemoryVersion) {
        return false;
    }
    const auto reached = doc.find("reached");
    const auto delivered = doc.find("delivered");
    if (reached == doc.end() || !reached->is_object() || delivered == doc.end() ||
        !delivered->is_array()) {
        return false;
    }
    for (const auto& [key, value] : reached->items()) {
        if (value.is_number_integer() && (value == 80 || value == 100)) {
            reached_[key] = value.get<int>();
        }
    }
    for (const auto& key : *delivered) {
        if (key.is_string()) {
            delivered_.insert(key.get<std::string>());
        }
    }
    return true;
}

}  // namespace kestrel
