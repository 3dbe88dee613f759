#pragma once
// What a hook reports about one agent session, and the small vocabularies of live activity.

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "core/model/agent_source.hpp"
#include "core/model/enum_cases.hpp"
#include "core/model/integration_enums.hpp"

namespace kestrel {

// The state word on the hook command line.
enum class LiveAgentState { processing, idle, awaiting };

// The `notice=` argument of a hook call.
enum class ActivityPulseNotice { completed, permission, question, failed };

// `inferredWorking` is working as read from the agent's own files, not from a hook.
enum class ActivityState { working, waitingForUser, completed, inferredWorking };

enum class ActivityPrecision { exact, inferred };

enum class ActivityNoticeKind { completed, needsApproval, needsAnswer, failed };

template <>
struct EnumCases<LiveAgentState> {
    using E = LiveAgentState;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        KESTREL_ENUM_CASE(E, processing),
        KESTREL_ENUM_CASE(E, idle),
        KESTREL_ENUM_CASE(E, awaiting),
    }};
};

template <>
struct EnumCases<ActivityPulseNotice> {
    using E = ActivityPulseNotice;
    static constexpr std::array<std::pair<E, std::string_view>, 4> cases{{
        KESTREL_ENUM_CASE(E, completed),
        KESTREL_ENUM_CASE(E, permission),
        KESTREL_ENUM_CASE(E, question),
        KESTREL_ENUM_CASE(E, failed),
    }};
};

template <>
struct EnumCases<ActivityState> {
    using E = ActivityState;
    static constexpr std::array<std::pair<E, std::string_view>, 4> cases{{
        KESTREL_ENUM_CASE(E, working),
        KESTREL_ENUM_CASE(E, waitingForUser),
        KESTREL_ENUM_CASE(E, completed),
        KESTREL_ENUM_CASE(E, inferredWorking),
    }};
};

template <>
struct EnumCases<ActivityPrecision> {
    using E = ActivityPrecision;
    static constexpr std::array<std::pair<E, std::string_view>, 2> cases{{
        KESTREL_ENUM_CASE(E, exact),
        KESTREL_ENUM_CASE(E, inferred),
    }};
};

template <>
struct EnumCases<ActivityNoticeKind> {
    using E = ActivityNoticeKind;
    static constexpr std::array<std::pair<E, std::string_view>, 4> cases{{
        KESTREL_ENUM_CASE(E, completed),
        KESTREL_ENUM_CASE(E, needsApproval),
        KESTREL_ENUM_CASE(E, needsAnswer),
        KESTREL_ENUM_CASE(E, failed),
    }};
};

ActivityNoticeKind noticeKind(ActivityPulseNotice notice);

// The session state a hook's state word stands for.
ActivityState activityState(LiveAgentState state);

struct LiveAgentPulse {
    int formatVersion = 1;
    AgentSource source = AgentSource::claude;
    LiveAgentState state = LiveAgentState::idle;
    std::string sessionID;  // already hashed by the hook; never the agent's own id
    int32_t pid = 0;
    std::string cwd;
    std::optional<std::string> projectDisplayName;  // only when project capture is on
    double at = 0;
    std::optional<double> startedAt;
    ActivityEvidenceKind evidence = ActivityEvidenceKind::hook;
    ActivityPrecision precision = ActivityPrecision::exact;
    std::optional<int> hookVersion;
    std::optional<ActivityPulseNotice> notice;
    std::optional<std::string> hint;
    std::optional<std::string> task;

    bool operator==(const LiveAgentPulse&) const = default;
};

void to_json(nlohmann::ordered_json& j, const LiveAgentPulse& pulse);

}  // namespace kestrel
