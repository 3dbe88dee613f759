#include "core/integrations/activity_coordinator.hpp"

#include <algorithm>

namespace kestrel {

ActivitySessionID ActivitySessionID::make(AgentSource source, std::string_view sessionKey) {
    std::string raw(kestrel::rawValue(source));
    raw += ':';
    raw += sessionKey;
    return {std::move(raw)};
}

double ActivitySession::elapsed(double now) const {
    return std::max(0.0, completedAt.value_or(now) - startedAt);
}

ActivityCoordinator::ActivityCoordinator(ActivityPrivacy privacy, ActivityAges ages)
    : privacy_(privacy), ages_(ages) {}

void ActivityCoordinator::apply(const ActivitySignal& signal) {
    const bool exact = signal.precision == ActivityPrecision::exact;
    if (!exact) {
        const bool hooked = std::ranges::any_of(storage_, [&](const auto& entry) {
            return entry.second.source == signal.source &&
                   entry.second.precision == ActivityPrecision::exact;
        });
        if (hooked) {
            return;
        }
    } else {
        std::erase_if(storage_, [&](const auto& entry) {
            return entry.second.source == signal.source &&
                   entry.second.precision == ActivityPrecision::inferred;
        });
    }

    const auto id = ActivitySessionID::make(signal.source, signal.sessionKey);
    auto [it, created] = storage_.try_emplace(id);
    ActivitySession& s = it->second;
    if (!created && signal.updatedAt < s.updatedAt) {
        return;
    }
    if (created) {
        s.id = id;
        s.source = signal.source;
        s.sessionKey = signal.sessionKey;
        s.startedAt = signal.startedAt.value_or(signal.updatedAt);
    } else if (signal.startedAt) {
        s.startedAt = *signal.startedAt;  // a new prompt starts a new run of the same session
    }
    if (signal.integrationInstanceID) {
        s.integrationInstanceID = signal.integrationInstanceID;
    }
    s.state = signal.state;
    s.evidence.insert(signal.evidence);
    s.precision = signal.precision;
    if (signal.pid != 0) {
        s.pid = signal.pid;
    }
    if (privacy_.includesProjectNames) {
        if (signal.projectDisplayName) {
            s.projectDisplayName = signal.projectDisplayName;
        }
        s.task = signal.task;
    } else {
        s.projectDisplayName.reset();
        s.task.reset();
    }
    if (signal.notice) {
        // The same pulse read again keeps the time its notice first came with.
        if (s.notice != signal.notice || !s.noticeAt || signal.updatedAt != s.updatedAt) {
            s.noticeAt = signal.updatedAt;
        }
    } else {
        s.noticeAt.reset();
    }
    s.notice = signal.notice;
    s.hint = signal.hint;
    s.updatedAt = signal.updatedAt;
    if (s.state == ActivityState::completed) {
        if (!s.completedAt || s.completedAt < s.startedAt) {
            s.completedAt = signal.updatedAt;
        }
    } else {
        s.completedAt.reset();
    }
}

void ActivityCoordinator::applyPulses(std::span<const LiveAgentPulse> pulses) {
    // Oldest first, so that the newest pulse of a session is the one that stays.
    std::vector<const LiveAgentPulse*> ordered;
    for (const auto& p : pulses) {
        ordered.push_back(&p);
    }
    std::ranges::stable_sort(ordered, [](auto* a, auto* b) { return a->at < b->at; });
    for (const auto* p : ordered) {
        apply(signalFromPulse(*p));
    }
}

void ActivityCoordinator::expire(double now) {
    std::erase_if(storage_, [&](const auto& entry) {
        const auto& s = entry.second;
        const double limit = s.precision == ActivityPrecision::inferred ? ages_.inferred
                             : s.state == ActivityState::completed      ? ages_.completed
                                                                        : ages_.exact;
        return now - s.updatedAt > limit;
    });
}

std::vector<ActivitySession> ActivityCoordinator::sessions() const {
    std::vector<ActivitySession> out;
    for (const auto& [id, s] : storage_) {
        out.push_back(s);
    }
    std::ranges::stable_sort(out, [](const ActivitySession& a, const ActivitySession& b) {
        return a.updatedAt > b.updatedAt;
    });
    return out;
}

ActivitySignal signalFromPulse(const LiveAgentPulse& p) {
    ActivitySignal s;
    s.source = p.source;
    s.sessionKey = p.sessionID;
    s.state = activityState(p.state);
    s.evidence = p.evidence;
    s.precision = p.precision;
    s.pid = p.pid;
    s.projectDisplayName = p.projectDisplayName;
    s.startedAt = p.startedAt;
    s.updatedAt = p.at;
    s.notice = p.notice;
    s.hint = p.hint;
    s.task = p.task;
    return s;
}

}  // namespace kestrel
