#pragma once
// Live agent activity for both front ends: the sessions now, and the notices as they happen.
//
// A LiveActivity reads the pulse files of the hooks (exact sessions) and takes the file
// watcher's batches over the agents' folders (inferred sessions of agents without hooks). The
// command line makes one per command; the desktop app keeps one, feeds it the batches its
// UsageWatch delivers (WatchCallbacks::onBatch) and calls refresh() on a timer.
//
// refresh() and view() may run on one thread while observe() runs on the watcher's; a mutex
// keeps them apart. Nothing here writes to disk except prune(), which deletes old pulse files.

#include <chrono>
#include <functional>
#include <mutex>
#include <set>
#include <stop_token>
#include <string>
#include <vector>

#include "core/app/app_session.hpp"
#include "core/integrations/activity_inference.hpp"
#include "core/integrations/activity_notice.hpp"
#include "core/integrations/live_agent_hub.hpp"
#include "core/ledger/file_watcher.hpp"
#include "core/model/app_settings.hpp"

namespace kestrel {

struct LiveActivityOptions {
    double pulseWindow = 30 * 60;  // pulses older than this are not read (the hooks' stale limit)
    ActivityAges ages;
    PulseReadLimits limits;
    double pruneAfter = 24 * 60 * 60;  // pulse files untouched this long are deleted
};

// The notice switches of the settings; project names follow "Store project name".
ActivityNoticeSettings activityNoticeSettings(const AppSettings& settings);

struct LiveView {
    double at = 0;
    std::vector<ActivitySession> sessions;  // newest first
    std::set<AgentSource> processing;       // sources with a hooked session at work
    std::size_t skippedPulseFiles = 0;
    bool truncated = false;  // the live folder held more than one reading looks at
};

class LiveActivity {
  public:
    LiveActivity(const AppPaths& paths, const AppSettings& settings,
                 LiveActivityOptions options = {});

    // Reads the pulses, applies them, ages sessions out; the notices that are new since the
    // last refresh (each notice once, however often its pulse is read).
    std::vector<ActivityNotice> refresh(double now);
    // Like refresh(), but what is already there is taken as known: nothing to notify.
    void prime(double now);
    // The watcher's batch over the agents' folders as inferred activity.
    void observe(const FileWatcherBatch& batch, double now);
    // Without a watcher: the agents' files changed lately as inferred activity (a bounded walk
    // of their folders).
    void observeRecentFiles(double now);
    LiveView view(double now) const;

    // Deletes pulse files older than `pruneAfter`; returns how many.
    std::size_t prune(double now) const;

    const ActivityNoticeSettings& noticeSettings() const { return noticeSettings_; }
    const std::filesystem::path& liveDirectory() const { return hub_.liveDirectory(); }
    // The folders whose changes observe() understands.
    std::vector<std::string> watchedFolders() const;

  private:
    AppPaths paths_;
    LiveActivityOptions options_;
    ActivityNoticeSettings noticeSettings_;
    std::string salt_;
    std::vector<ActivityRoot> roots_;

    mutable std::mutex mutex_;
    LiveAgentHub hub_;
    ActivityCoordinator coordinator_;
    ActivitySessions lastView_;
    ActivityNoticeEvaluator evaluator_;
};

enum class LiveFollowEnd { stopped, watcherFailed };

// Follows until `stop`: a file watcher over the agents' folders feeds observe(), the live
// folder is read every `poll`, and each new notice goes to `onNotice` (on the calling thread).
// `onReady` runs once everything is watched.
LiveFollowEnd followLiveActivity(LiveActivity& live,
                                 const std::function<void(const ActivityNotice&)>& onNotice,
                                 std::stop_token stop,
                                 std::chrono::milliseconds poll = std::chrono::milliseconds(500),
                                 const std::function<void()>& onReady = {});

}  // namespace kestrel
