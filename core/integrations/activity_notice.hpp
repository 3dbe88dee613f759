#pragma once
// The notifications live sessions raise: work finished, approval needed, a question asked, work
// failed. Each has an identity (`dedupKey`), so that one finished run or one approval request
// notifies once however often the same pulses are read.

#include <cstddef>
#include <deque>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/integrations/activity_coordinator.hpp"

namespace kestrel {

struct ActivityNotice {
    AgentSource source = AgentSource::claude;
    std::string sessionKey;
    ActivityNoticeKind kind = ActivityNoticeKind::completed;
    std::optional<std::string> projectDisplayName;
    std::optional<std::string> hint;
    double elapsed = 0;  // seconds the run took (or has taken so far)
    double startedAt = 0;
    double updatedAt = 0;

    // "<source>|<session key>|<kind>|<whole seconds>": the run's start for completed and
    // failed, the request's time for the other two; no time when it is not a sane date.
    std::string dedupKey() const;
    bool operator==(const ActivityNotice&) const = default;
};

struct ActivityNoticeSettings {
    bool enabled = true;
    bool completed = true;
    bool approval = true;
    bool question = true;
    bool failure = true;
    bool includesProjectNames = false;
    // A run shorter than this finished while the user was still looking.
    double minimumCompletedElapsed = 15;

    bool allows(ActivityNoticeKind kind) const;
    bool operator==(const ActivityNoticeSettings&) const = default;
};

// Compares two successive views of the sessions. Keeps the keys of the notices it delivered
// (the newest few thousand), so it is one object per place that raises notifications.
class ActivityNoticeEvaluator {
  public:
    static constexpr std::size_t kRememberedKeys = 4096;

    std::vector<ActivityNotice> notices(const ActivitySessions& previous,
                                        const ActivitySessions& current,
                                        const ActivityNoticeSettings& settings);

    // Marks every notice the view holds as delivered without returning it: what was already
    // there when one starts following is not news.
    void prime(const ActivitySessions& current);

    bool delivered(const std::string& key) const { return delivered_.contains(key); }

  private:
    void remember(std::string key);

    std::set<std::string> delivered_;
    std::deque<std::string> order_;
};

}  // namespace kestrel
