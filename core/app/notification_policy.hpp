#pragma once
// Which desktop notifications the app raises, decided without a toolkit: quota windows crossing
// 80 % and 100 %, the daily and monthly budgets reached, the first import done, and the live
// sessions' notices as the settings allow them. The app feeds it what it read after each commit
// or quota refresh and sends what comes back; each notification is raised once.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "core/app/glance.hpp"
#include "core/integrations/activity_notice.hpp"
#include "core/model/app_settings.hpp"

namespace kestrel {

enum class NotificationKind { quotaWarning, quotaExhausted, dailyBudget, monthlyBudget, firstScan };

inline constexpr double kQuotaWarningPercent = 80;
inline constexpr double kQuotaExhaustedPercent = 100;

// What the app knows at one moment.
struct NotificationFacts {
    double now = 0;
    std::vector<StoredQuota> quotas;
    std::optional<int64_t> todayCostUSDMicros;  // absent: nothing priced today
    std::optional<int64_t> monthCostUSDMicros;  // this calendar month so far
    std::string dayKey;    // "2026-11-25": budgets notify once per day and month
    std::string monthKey;  // "2026-11"
    // Set once the first scan of an empty ledger has committed; with the events it added.
    std::optional<int64_t> firstImportEvents;
};

struct Notification {
    NotificationKind kind = NotificationKind::quotaWarning;
    std::string dedupKey;
    // Quota kinds.
    std::optional<AgentSource> source;
    std::string planLabel;
    QuotaWindow window;
    // Budget kinds, in fen.
    int64_t spentFen = 0;
    int64_t budgetFen = 0;
    // firstScan.
    int64_t events = 0;

    bool operator==(const Notification&) const = default;
};

// Whether the settings let a live session's notice through.
bool activityNoticeWanted(const AppSettings& settings, const ActivityNotice& notice);

class NotificationPolicy {
  public:
    // The notifications that are new since the last call, those the settings switch off left
    // out (and not remembered, so switching them on later still tells them).
    std::vector<Notification> evaluate(const AppSettings& settings, const NotificationFacts& facts);

    // What has been told, as JSON, kept across launches: a restart neither repeats a notice nor
    // swallows one that became true while the app was closed (a window that passed 80 % over
    // night is told at the next launch, once).
    std::string memoryJson() const;
    // Takes a memory written by memoryJson; false (and an empty memory) for anything else.
    bool restoreMemory(std::string_view json);

  private:
    // The highest threshold (0, 80 or 100) each window has reached, keyed by account, window
    // kind and scope; it falls back when the window resets, so the next period notifies again.
    std::map<std::string, int> reached_;
    std::set<std::string> delivered_;  // budget and first-scan keys
};

}  // namespace kestrel
