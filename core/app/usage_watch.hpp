#pragma once
// Following the agents' folders while Kestrel runs: the file watcher's batches become scans of
// the sources they concern (every source after an overflow or a lost root), a periodic full
// refresh catches what no notification announced, and every commit that added to the ledger is
// reported with what it added.
//
// Two ways to drive it. The command line calls run(), which blocks until stopped. An event loop
// (the desktop app) gets `onPending` from the watcher's thread whenever work waits, and calls
// runPending() from wherever it scans (typically a worker thread), plus runPending() on its
// refresh timer.
//
// A watch belongs to its AppSession (AppSession::watch) and never outlives it; callbacks run on
// the thread that runs the scan, except `onPending`, which runs on the watcher's own thread and
// must only hand the news on.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stop_token>
#include <string>
#include <vector>

#include "core/app/usage_scan.hpp"
#include "core/ledger/file_watcher.hpp"

namespace kestrel {

struct WatchOptions {
    std::optional<std::set<AgentSource>> only;  // absent: every source
    // A scan of every chosen source this often, whatever the watcher reported; zero: never.
    std::chrono::milliseconds fullRefreshEvery = std::chrono::minutes(5);
};

// One source's commit that added to the ledger (or saved a quota reading).
struct CommitNotice {
    double at = 0;  // when it was committed, epoch seconds
    AgentSource source = AgentSource::claude;
    // Events the ledger gained: a file read again from its start (rewritten by its agent)
    // yields events that are already there, and they are not counted.
    int64_t eventsAdded = 0;
    ScanIngestCounts counts;  // the commit's own counts
    bool quotaSaved = false;
    std::optional<int64_t> todayCostUSDMicros;  // every source, today so far; absent: nothing priced
};

struct WatchCallbacks {
    std::function<void(const CommitNotice&)> onCommit;
    // A scan whose commit failed (a locked ledger, a full disk): the watch goes on, and the
    // source is read again with its next change.
    std::function<void(const std::string& message)> onScanError;
    // Work is waiting (watcher thread); for event loops.
    std::function<void()> onPending;
    // Every batch as the watcher delivers it (watcher thread): the agents' files changing are
    // also a sign of live activity (LiveActivity::observe).
    std::function<void(const FileWatcherBatch&)> onBatch;
};

class UsageWatch {
  public:
    UsageWatch(AppSession& session, WatchOptions options, WatchCallbacks callbacks);
    ~UsageWatch();
    UsageWatch(const UsageWatch&) = delete;
    UsageWatch& operator=(const UsageWatch&) = delete;

    // Starts the file watcher over every agent folder (and where agents may appear). Start it
    // before the first scan, so that nothing written during that scan goes unnoticed. The error
    // names why the folders cannot be watched.
    std::expected<void, std::string> start();

    // A scan of every chosen source now, commits reported; resets the refresh clock.
    std::expected<ScanOutcome, ScanFailure> scanNow(const ScanCallbacks& progress = {},
                                                    std::stop_token stop = {});

    // Handles what waits: the sources of the delivered paths, or every chosen source when the
    // watcher asked for a full rescan or the refresh is due. True when a scan ran. A requested
    // stop cancels the scan between files (what was committed stays).
    bool runPending(std::stop_token stop = {});

    enum class End { stopped, watcherFailed };
    // Waits for work and handles it until `stop` is requested or the watcher fails.
    End run(std::stop_token stop);

    bool isRunning() const { return watcher_.isRunning(); }
    // The folders watched, and how many of them exist now.
    std::size_t folderCount() const { return roots_.size(); }
    std::size_t presentFolderCount() const;

  private:
    struct Pending {
        std::vector<std::string> paths;
        bool fullRescan = false;
        bool any = false;
    };

    void deliver(FileWatcherBatch batch);
    bool refreshDue() const;
    std::optional<std::set<AgentSource>> sourcesFor(const std::vector<std::string>& paths) const;
    std::expected<ScanOutcome, ScanFailure> scan(const std::optional<std::set<AgentSource>>& sources,
                                                 const ScanCallbacks& progress,
                                                 std::stop_token stop);
    void noticeCommit(const SourceScanReport& report);

    AppSession& session_;
    WatchOptions options_;
    WatchCallbacks callbacks_;
    std::vector<std::string> roots_;
    // Ledger events per source after the last commit the watch saw.
    std::map<AgentSource, int64_t> known_;
    std::chrono::steady_clock::time_point lastFullScan_;

    std::mutex mutex_;
    std::condition_variable_any changed_;
    Pending pending_;

    FileWatcher watcher_;  // last: stopped before anything it calls back into goes away
};

}  // namespace kestrel
