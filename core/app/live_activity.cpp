#include "core/app/live_activity.hpp"

#include <condition_variable>
#include <random>

#include "core/model/timestamp.hpp"

namespace kestrel {

namespace {

// Without a salt file (hooks never installed) inferred sessions still need keys that do not
// spell out the path; they live in memory only, so a salt of this run will do.
std::string processSalt() {
    std::random_device device;
    std::string out;
    for (int i = 0; i < 4; ++i) {
        out += std::to_string(device());
    }
    return out;
}

}  // namespace

ActivityNoticeSettings activityNoticeSettings(const AppSettings& s) {
    ActivityNoticeSettings out;
    out.enabled = s.activityNotificationsEnabled;
    out.completed = s.activityNotifyCompleted;
    out.approval = s.activityNotifyApproval;
    out.question = s.activityNotifyQuestion;
    out.failure = s.activityNotifyFailure;
    out.includesProjectNames = s.storeProject;
    return out;
}

LiveActivity::LiveActivity(const AppPaths& paths, const AppSettings& settings,
                           LiveActivityOptions options)
    : paths_(paths),
      options_(options),
      noticeSettings_(activityNoticeSettings(settings)),
      salt_(LiveAgentHub::loadSessionSalt(paths.supportDir).value_or(processSalt())),
      roots_(activityRoots(paths.home, paths.env)),
      hub_(paths.supportDir, options.limits),
      coordinator_(ActivityPrivacy{settings.storeProject}, options.ages) {}

std::vector<ActivityNotice> LiveActivity::refresh(double now) {
    std::lock_guard guard(mutex_);
    const auto& reading = hub_.read(now, options_.pulseWindow);
    coordinator_.applyPulses(reading.pulses);
    coordinator_.expire(now);
    auto notices = evaluator_.notices(lastView_, coordinator_.storage(), noticeSettings_);
    lastView_ = coordinator_.storage();
    return notices;
}

void LiveActivity::prime(double now) {
    std::lock_guard guard(mutex_);
    const auto& reading = hub_.read(now, options_.pulseWindow);
    coordinator_.applyPulses(reading.pulses);
    coordinator_.expire(now);
    evaluator_.prime(coordinator_.storage());
    lastView_ = coordinator_.storage();
}

void LiveActivity::observe(const FileWatcherBatch& batch, double now) {
    const auto signals = inferredSignals(batch.paths, roots_, now, salt_);
    std::lock_guard guard(mutex_);
    for (const auto& s : signals) {
        coordinator_.apply(s);
    }
}

void LiveActivity::observeRecentFiles(double now) {
    const auto paths = recentlyChangedFiles(roots_, now, options_.ages.inferred);
    observe(FileWatcherBatch{paths, false}, now);
}

LiveView LiveActivity::view(double now) const {
    std::lock_guard guard(mutex_);
    LiveView v;
    v.at = now;
    for (auto& s : coordinator_.sessions()) {
        // A session that aged out since the last refresh is not shown either.
        const bool inferred = s.precision == ActivityPrecision::inferred;
        const double limit = inferred                              ? options_.ages.inferred
                             : s.state == ActivityState::completed ? options_.ages.completed
                                                                   : options_.ages.exact;
        if (now - s.updatedAt <= limit) {
            v.sessions.push_back(std::move(s));
        }
    }
    const auto& reading = hub_.lastReading();
    v.processing = LiveAgentHub::processingSources(reading.pulses);
    v.skippedPulseFiles = reading.skipped;
    v.truncated = reading.truncated;
    return v;
}

std::size_t LiveActivity::prune(double now) const {
    return LiveAgentHub::prune(hub_.liveDirectory(), now, options_.pruneAfter);
}

std::vector<std::string> LiveActivity::watchedFolders() const {
    return AgentCatalog::watchPaths(paths_.home, paths_.env);
}

LiveFollowEnd followLiveActivity(LiveActivity& live,
                                 const std::function<void(const ActivityNotice&)>& onNotice,
                                 std::stop_token stop, std::chrono::milliseconds poll,
                                 const std::function<void()>& onReady) {
    FileWatcher watcher(live.watchedFolders(),
                        [&live](FileWatcherBatch batch) { live.observe(batch, epochNow()); });
    if (!watcher.start()) {
        return LiveFollowEnd::watcherFailed;
    }
    live.prune(epochNow());
    live.prime(epochNow());
    if (onReady) {
        onReady();
    }
    // Pruning is cheap but needs no haste: old pulses do not count anyway.
    constexpr auto kPruneEvery = std::chrono::minutes(10);
    auto lastPrune = std::chrono::steady_clock::now();
    std::mutex mutex;
    std::condition_variable_any wake;
    while (!stop.stop_requested()) {
        {
            std::unique_lock lock(mutex);
            wake.wait_for(lock, stop, poll, [] { return false; });
        }
        if (stop.stop_requested()) {
            break;
        }
        if (!watcher.isRunning()) {
            return LiveFollowEnd::watcherFailed;
        }
        for (const auto& notice : live.refresh(epochNow())) {
            onNotice(notice);
        }
        if (std::chrono::steady_clock::now() - lastPrune > kPruneEvery) {
            live.prune(epochNow());
            lastPrune = std::chrono::steady_clock::now();
        }
    }
    return LiveFollowEnd::stopped;
}

}  // namespace kestrel
