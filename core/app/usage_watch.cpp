#include "core/app/usage_watch.hpp"

#include <algorithm>
#include <filesystem>

#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"

namespace kestrel {

UsageWatch::UsageWatch(AppSession& session, WatchOptions options, WatchCallbacks callbacks)
    : session_(session),
      options_(std::move(options)),
      callbacks_(std::move(callbacks)),
      roots_(AgentCatalog::watchPaths(session.paths().home, session.paths().env)),
      lastFullScan_(std::chrono::steady_clock::now()),
      watcher_(roots_, [this](FileWatcherBatch batch) { deliver(std::move(batch)); }) {
    for (const auto& [source, summary] : session_.store().ledgerSummariesBySource({})) {
        known_[source] = summary.eventCount;
    }
}

UsageWatch::~UsageWatch() {
    watcher_.stop();
}

std::expected<void, std::string> UsageWatch::start() {
    return watcher_.start();
}

std::size_t UsageWatch::presentFolderCount() const {
    return static_cast<std::size_t>(std::ranges::count_if(roots_, [](const std::string& root) {
        std::error_code ec;
        return std::filesystem::exists(root, ec);
    }));
}

void UsageWatch::deliver(FileWatcherBatch batch) {
    if (callbacks_.onBatch) {
        callbacks_.onBatch(batch);
    }
    {
        std::lock_guard guard(mutex_);
        pending_.paths.insert(pending_.paths.end(), batch.paths.begin(), batch.paths.end());
        pending_.fullRescan = pending_.fullRescan || batch.requiresFullRescan;
        pending_.any = true;
    }
    changed_.notify_all();
    if (callbacks_.onPending) {
        callbacks_.onPending();
    }
}

bool UsageWatch::refreshDue() const {
    return options_.fullRefreshEvery.count() > 0 &&
           std::chrono::steady_clock::now() - lastFullScan_ >= options_.fullRefreshEvery;
}

std::optional<std::set<AgentSource>> UsageWatch::sourcesFor(
    const std::vector<std::string>& paths) const {
    const auto& home = session_.paths().home;
    const auto& env = session_.paths().env;
    std::set<AgentSource> out;
    for (auto source : Ingestor::scannableSources(home, env)) {
        if (options_.only && !options_.only->contains(source)) {
            continue;
        }
        const auto spec = AgentCatalog::spec(source, home, env);
        if (!spec) {
            continue;
        }
        for (const auto& root : spec->roots) {
            const auto r = root.lexically_normal().string();
            // A root's parent may be what changed (the agent's folder was just created).
            if (std::ranges::any_of(paths, [&](const std::string& p) {
                    return FileWatcher::isAtOrBelow(p, r) || FileWatcher::isAtOrBelow(r, p);
                })) {
                out.insert(source);
                break;
            }
        }
    }
    return out;
}

void UsageWatch::noticeCommit(const SourceScanReport& r) {
    if (!r.committed && !r.quotaSaved) {
        return;
    }
    auto& store = session_.store();
    LedgerQuery ofSource;
    ofSource.source = r.source;
    const int64_t count = store.ledgerEventCount(ofSource);
    const int64_t added = count - known_[r.source];
    known_[r.source] = count;
    if ((added <= 0 && !r.quotaSaved) || !callbacks_.onCommit) {
        return;
    }
    CommitNotice notice;
    notice.at = epochNow();
    notice.source = r.source;
    notice.eventsAdded = std::max<int64_t>(added, 0);
    notice.counts = r.counts;
    notice.quotaSaved = r.quotaSaved;
    LedgerQuery today;
    today.from = Calendar::current().startOfDay(notice.at);
    notice.todayCostUSDMicros = store.ledgerSummary(today).knownCostUSDMicros;
    callbacks_.onCommit(notice);
}

std::expected<ScanOutcome, ScanFailure> UsageWatch::scan(
    const std::optional<std::set<AgentSource>>& sources, const ScanCallbacks& progress,
    std::stop_token stop) {
    ScanCallbacks callbacks = progress;
    callbacks.onSourceDone = [&](const SourceScanReport& r) {
        noticeCommit(r);
        if (progress.onSourceDone) {
            progress.onSourceDone(r);
        }
    };
    return scanUsage(session_, ScanRequest{sources, false}, callbacks, std::move(stop));
}

std::expected<ScanOutcome, ScanFailure> UsageWatch::scanNow(const ScanCallbacks& progress,
                                                            std::stop_token stop) {
    lastFullScan_ = std::chrono::steady_clock::now();
    return scan(options_.only, progress, std::move(stop));
}

bool UsageWatch::runPending(std::stop_token stop) {
    Pending taken;
    {
        std::lock_guard guard(mutex_);
        std::swap(taken, pending_);
    }
    std::optional<std::set<AgentSource>> sources;
    if (taken.fullRescan || refreshDue()) {
        lastFullScan_ = std::chrono::steady_clock::now();
        sources = options_.only;
    } else if (taken.any) {
        sources = sourcesFor(taken.paths);
        if (sources->empty()) {
            return false;
        }
    } else {
        return false;
    }
    const auto result = scan(sources, {}, std::move(stop));
    if (!result && result.error().kind == ScanFailure::Kind::commitFailed &&
        callbacks_.onScanError) {
        callbacks_.onScanError(result.error().message);
    }
    return result.has_value();
}

UsageWatch::End UsageWatch::run(std::stop_token stop) {
    // Short enough that a watcher that died is noticed within a second.
    constexpr auto kTick = std::chrono::seconds(1);
    while (!stop.stop_requested()) {
        bool waiting = false;
        {
            std::unique_lock lock(mutex_);
            waiting = changed_.wait_for(lock, stop, kTick, [&] { return pending_.any; });
        }
        if (stop.stop_requested()) {
            break;
        }
        if (!waiting && !refreshDue()) {
            if (!watcher_.isRunning()) {
                return End::watcherFailed;
            }
            continue;
        }
        runPending(stop);
    }
    return End::stopped;
}

}  // namespace kestrel
