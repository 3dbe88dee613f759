#include "core/integrations/activity_notice.hpp"

#include <cmath>
#include <string>

namespace kestrel {

namespace {

// A pulse's own date bounds: within these a whole second is exact in a double and in an int64.
constexpr double kEarliestKeyTime = 0;
constexpr double kLatestKeyTime = 1e11;

// The notice a session holds that the previous view did not: its pulse notice, or (without
// one) the change of a running session to completed.
std::optional<ActivityNoticeKind> newNotice(const ActivitySession* before,
                                            const ActivitySession& now) {
    if (now.notice && now.noticeAt) {
        const bool seen =
            before && before->notice == now.notice && before->noticeAt == now.noticeAt;
        return seen ? std::nullopt : std::optional(noticeKind(*now.notice));
    }
    if (now.state == ActivityState::completed && before &&
        before->state != ActivityState::completed) {
        return ActivityNoticeKind::completed;
    }
    return std::nullopt;
}

ActivityNotice makeNotice(const ActivitySession& s, ActivityNoticeKind kind,
                          const ActivityNoticeSettings& settings) {
    ActivityNotice n;
    n.source = s.source;
    n.sessionKey = s.sessionKey;
    n.kind = kind;
    // The hint is the hook's own word ("prompt"); the task summary is the user's text and goes
    // only where project names may.
    n.hint = s.hint;
    if (settings.includesProjectNames) {
        n.projectDisplayName = s.projectDisplayName;
        if (s.task) {
            n.hint = s.task;
        }
    }
    n.startedAt = s.startedAt;
    n.updatedAt =
        (kind == ActivityNoticeKind::needsApproval || kind == ActivityNoticeKind::needsAnswer) &&
                s.noticeAt
            ? *s.noticeAt
            : s.updatedAt;
    n.elapsed = s.elapsed(s.updatedAt);
    return n;
}

}  // namespace

std::string ActivityNotice::dedupKey() const {
    std::string key(rawValue(source));
    key += '|';
    key += sessionKey;
    key += '|';
    key += rawValue(kind);
    const double t = (kind == ActivityNoticeKind::completed || kind == ActivityNoticeKind::failed)
                         ? startedAt
                         : updatedAt;
    if (std::isfinite(t) && t >= kEarliestKeyTime && t <= kLatestKeyTime) {
        key += '|';
        key += std::to_string(static_cast<int64_t>(std::floor(t)));
    }
    return key;
}

bool ActivityNoticeSettings::allows(ActivityNoticeKind kind) const {
    if (!enabled) {
        return false;
    }
    switch (kind) {
        case ActivityNoticeKind::completed:
            return completed;
        case ActivityNoticeKind::needsApproval:
            return approval;
        case ActivityNoticeKind::needsAnswer:
            return question;
        case ActivityNoticeKind::failed:
            return failure;
    }
    return false;
}

std::vector<ActivityNotice> ActivityNoticeEvaluator::notices(
    const ActivitySessions& previous, const ActivitySessions& current,
    const ActivityNoticeSettings& settings) {
    std::vector<ActivityNotice> out;
    for (const auto& [id, session] : current) {
        const auto before = previous.find(id);
        const auto kind = newNotice(before == previous.end() ? nullptr : &before->second, session);
        if (!kind || !settings.allows(*kind)) {
            continue;
        }
        auto notice = makeNotice(session, *kind, settings);
        if (*kind == ActivityNoticeKind::completed &&
            notice.elapsed < settings.minimumCompletedElapsed) {
            continue;
        }
        auto key = notice.dedupKey();
        if (delivered_.contains(key)) {
            continue;
        }
        remember(std::move(key));
        out.push_back(std::move(notice));
    }
    return out;
}

void ActivityNoticeEvaluator::prime(const ActivitySessions& current) {
    static const ActivitySessions none;
    ActivityNoticeSettings all;
    all.minimumCompletedElapsed = 0;
    notices(none, current, all);
}

void ActivityNoticeEvaluator::remember(std::string key) {
    delivered_.insert(key);
    order_.push_back(std::move(key));
    if (order_.size() > kRememberedKeys) {
        delivered_.erase(order_.front());
        order_.pop_front();
    }
}

}  // namespace kestrel
