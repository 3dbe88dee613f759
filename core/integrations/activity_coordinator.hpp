#pragma once
// The live sessions Kestrel knows of: exact ones from hook pulses, and inferred ones from the
// agents' own files changing. Everything here lives in memory; nothing of it is written.

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "core/integrations/live_agent_pulse.hpp"
#include "core/model/integration_id.hpp"

namespace kestrel {

struct ActivitySessionID {
    std::string rawValue;  // "<source>:<session key>"
    static ActivitySessionID make(AgentSource source, std::string_view sessionKey);
    auto operator<=>(const ActivitySessionID&) const = default;
};

struct ActivitySignal {
    AgentSource source = AgentSource::claude;
    std::optional<IntegrationInstanceID> integrationInstanceID;
    std::string sessionKey;  // hashed; never the agent's own id or a path
    ActivityState state = ActivityState::working;
    ActivityEvidenceKind evidence = ActivityEvidenceKind::hook;
    ActivityPrecision precision = ActivityPrecision::exact;
    int32_t pid = 0;
    std::optional<std::string> projectDisplayName;
    std::optional<double> startedAt;
    double updatedAt = 0;
    // What the hook's call carried besides its state (absent for inferred activity).
    std::optional<ActivityPulseNotice> notice;
    std::optional<std::string> hint;
    std::optional<std::string> task;
};

struct ActivitySession {
    ActivitySessionID id;
    AgentSource source = AgentSource::claude;
    std::optional<IntegrationInstanceID> integrationInstanceID;
    std::string sessionKey;
    ActivityState state = ActivityState::working;
    std::set<ActivityEvidenceKind> evidence;  // every kind seen for the session
    ActivityPrecision precision = ActivityPrecision::exact;
    int32_t pid = 0;
    std::optional<std::string> projectDisplayName;
    double startedAt = 0;
    double updatedAt = 0;
    std::optional<double> completedAt;
    // The notice of the newest signal and when that signal came; a later signal without one
    // clears it (the hook's pulse file was overwritten).
    std::optional<ActivityPulseNotice> notice;
    std::optional<double> noticeAt;
    std::optional<std::string> hint;
    std::optional<std::string> task;

    // From the start to the completion, or to `now` while the session runs.
    double elapsed(double now) const;
    bool operator==(const ActivitySession&) const = default;
};

struct ActivityPrivacy {
    bool includesProjectNames = false;
};

// How long a session counts as live after its last signal.
struct ActivityAges {
    double exact = 30 * 60;      // a hooked session working or waiting; the hook's stale limit
    double completed = 10 * 60;  // a finished session stays listed a while as "just finished"
    double inferred = 2 * 60;    // a file that stopped changing says nothing more
};

using ActivitySessions = std::map<ActivitySessionID, ActivitySession>;

class ActivityCoordinator {
  public:
    explicit ActivityCoordinator(ActivityPrivacy privacy = {}, ActivityAges ages = {});

    // Creates the session on its first signal, else updates it. An older signal than the
    // session's newest is ignored (pulse files are read again and again). A source that a hook
    // reports on is followed by its hook alone: its inferred sessions go when the first exact
    // one comes, and inferred signals for it are ignored while an exact one is listed.
    void apply(const ActivitySignal& signal);
    void applyPulses(std::span<const LiveAgentPulse> pulses);

    // Drops sessions whose last signal is older than their kind's age.
    void expire(double now);

    const ActivitySessions& storage() const { return storage_; }
    const ActivityPrivacy& privacy() const { return privacy_; }
    // Newest first.
    std::vector<ActivitySession> sessions() const;

  private:
    ActivityPrivacy privacy_;
    ActivityAges ages_;
    ActivitySessions storage_;
};

ActivitySignal signalFromPulse(const LiveAgentPulse& pulse);

}  // namespace kestrel
