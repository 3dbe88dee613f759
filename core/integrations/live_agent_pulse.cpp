#include "core/integrations/live_agent_pulse.hpp"

#include <nlohmann/json.hpp>

namespace kestrel {

ActivityNoticeKind noticeKind(ActivityPulseNotice notice) {
    switch (notice) {
        case ActivityPulseNotice::completed:
            return ActivityNoticeKind::completed;
        case ActivityPulseNotice::permission:
            return ActivityNoticeKind::needsApproval;
        case ActivityPulseNotice::question:
            return ActivityNoticeKind::needsAnswer;
        case ActivityPulseNotice::failed:
            return ActivityNoticeKind::failed;
    }
    return ActivityNoticeKind::completed;
}

ActivityState activityState(LiveAgentState state) {
    switch (state) {
        case LiveAgentState::processing:
            return ActivityState::working;
        case LiveAgentState::awaiting:
            return ActivityState::waitingForUser;
        case LiveAgentState::idle:
            return ActivityState::completed;
    }
    return ActivityState::completed;
}

void to_json(nlohmann::ordered_json& j, const LiveAgentPulse& p) {
    using Json = nlohmann::ordered_json;
    auto optional = [](const auto& value) { return value ? Json(*value) : Json(nullptr); };
    j = Json::object();
    j["formatVersion"] = p.formatVersion;
    j["source"] = rawValue(p.source);
    j["state"] = rawValue(p.state);
    j["sessionID"] = p.sessionID;
    j["pid"] = p.pid;
    j["cwd"] = p.cwd;
    j["projectDisplayName"] = optional(p.projectDisplayName);
    j["at"] = p.at;
    j["startedAt"] = optional(p.startedAt);
    j["evidence"] = rawValue(p.evidence);
    j["precision"] = rawValue(p.precision);
    j["hookVersion"] = optional(p.hookVersion);
    j["notice"] = p.notice ? Json(rawValue(*p.notice)) : Json(nullptr);
    j["hint"] = optional(p.hint);
    j["task"] = optional(p.task);
}

}  // namespace kestrel
