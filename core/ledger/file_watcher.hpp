#pragma once
// Turns file-system change notifications below the agents' data roots into batches of changed
// paths. On Linux this is inotify: every folder below a root gets its own watch (folders that
// appear later are added as they appear), and events are gathered for a short window so that a
// burst of appends becomes one batch. The callback runs on the watcher's own thread, one batch
// at a time. The watcher only looks at names and folder identities, never at file contents.

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

namespace kestrel {

struct FileWatcherBatch {
    std::vector<std::string> paths;  // in the order they were first seen, each once
    bool requiresFullRescan = false;

    bool operator==(const FileWatcherBatch&) const = default;
};

// The macOS FSEvents event flags, with the values of the system headers; only the rule of
// `FileWatcher::requiresFullRescan` depends on them, so they are available on every platform.
namespace fsevents {
inline constexpr uint32_t kNone = 0x00000000;
inline constexpr uint32_t kMustScanSubDirs = 0x00000001;
inline constexpr uint32_t kUserDropped = 0x00000002;
inline constexpr uint32_t kKernelDropped = 0x00000004;
inline constexpr uint32_t kEventIdsWrapped = 0x00000008;
inline constexpr uint32_t kHistoryDone = 0x00000010;
inline constexpr uint32_t kRootChanged = 0x00000020;
inline constexpr uint32_t kMount = 0x00000040;
inline constexpr uint32_t kUnmount = 0x00000080;
inline constexpr uint32_t kItemCreated = 0x00000100;
inline constexpr uint32_t kItemRemoved = 0x00000200;
inline constexpr uint32_t kItemInodeMetaMod = 0x00000400;
inline constexpr uint32_t kItemRenamed = 0x00000800;
inline constexpr uint32_t kItemModified = 0x00001000;
inline constexpr uint32_t kItemFinderInfoMod = 0x00002000;
inline constexpr uint32_t kItemChangeOwner = 0x00004000;
inline constexpr uint32_t kItemXattrMod = 0x00008000;
inline constexpr uint32_t kItemIsFile = 0x00010000;
inline constexpr uint32_t kItemIsDir = 0x00020000;
inline constexpr uint32_t kItemIsSymlink = 0x00040000;
inline constexpr uint32_t kOwnEvent = 0x00080000;
inline constexpr uint32_t kItemIsHardlink = 0x00100000;
inline constexpr uint32_t kItemIsLastHardlink = 0x00200000;
inline constexpr uint32_t kItemCloned = 0x00400000;

// Stream creation flags the watcher would use there: use-CF-types | watch-root | file-events.
inline constexpr uint32_t kCreateFlagUseCFTypes = 0x00000001;
inline constexpr uint32_t kCreateFlagWatchRoot = 0x00000004;
inline constexpr uint32_t kCreateFlagFileEvents = 0x00000010;
inline constexpr uint32_t kWatcherCreateFlags =
    kCreateFlagUseCFTypes | kCreateFlagWatchRoot | kCreateFlagFileEvents;

// Flags after which the delivered paths cannot be trusted to name everything that changed.
inline constexpr uint32_t kFullRescanMask =
    kMustScanSubDirs | kUserDropped | kKernelDropped | kEventIdsWrapped | kRootChanged;
}  // namespace fsevents

class FileWatcher {
  public:
    using Callback = std::function<void(FileWatcherBatch)>;

    static constexpr std::chrono::milliseconds kDefaultCoalesce{300};
    // A sane ceiling on folders per watcher: the agents' trees are small, and a root that points
    // at something huge must not eat the user's whole inotify allowance.
    static constexpr std::size_t kDefaultMaxWatches = 16384;

    FileWatcher(std::vector<std::string> roots, Callback callback,
                std::chrono::milliseconds coalesce = kDefaultCoalesce,
                std::size_t maxWatches = kDefaultMaxWatches);
    ~FileWatcher();  // stops
    FileWatcher(const FileWatcher&) = delete;
    FileWatcher& operator=(const FileWatcher&) = delete;

    // Watches the roots and starts the watcher's thread; when it returns, changes made from then
    // on are seen. A root that does not exist yet is watched for from its nearest existing
    // parent. Starting a running watcher restarts it. Fails only when inotify or the thread
    // cannot be set up. Must not be called from the callback.
    std::expected<void, std::string> start();
    // Replaces the roots, then starts.
    std::expected<void, std::string> start(std::vector<std::string> roots);

    // Stops watching and joins the thread; once it returns no callback runs any more. A batch
    // still being gathered is dropped. Stopping a stopped watcher does nothing. Called from the
    // callback, it ends the watcher after that callback (the join happens on a later stop or in
    // the destructor).
    void stop();

    // False once stopped, and also when the watcher's thread ended on its own (a failing system
    // call): a long-running owner checks it now and then.
    bool isRunning() const { return running_.load(); }
    // Folders (and file roots) currently under a watch; for diagnostics.
    std::size_t watchCount() const { return watchCount_.load(); }

    // The FSEvents rule: a delivery whose flags intersect `fsevents::kFullRescanMask`.
    static bool requiresFullRescan(uint32_t fsEventFlags);

    // Whether `path` is `folder` or lies below it (text only: "/a/bc" is not below "/a/b"); how
    // the paths of a batch are matched to the roots they concern.
    static bool isAtOrBelow(std::string_view path, std::string_view folder);

  private:
    struct Watch {
        std::string path;
        dev_t dev = 0;
        ino_t ino = 0;
        bool tree = false;  // false: only watched to notice a missing root being created
    };
    struct Pending {
        FileWatcherBatch batch;
        std::unordered_set<std::string> seen;
        bool open = false;
        std::chrono::steady_clock::time_point deadline;
    };

    std::expected<void, std::string> startLocked();
    void stopLocked();
    void run();
    void drainEvents();
    void handleEvent(int wd, uint32_t mask, const std::string& name);
    void flush();

    void note(const std::string& path);
    void noteFullRescan();
    bool isRoot(const std::string& path) const;

    // Adds watches for `path` and every folder below it; with `report`, what it finds is noted
    // as changed (a folder that just appeared may have been filled before its watch existed).
    // Without `revisit` the walk stops at folders already watched; with it, it goes through
    // them too and adds only what is missing (after events were lost).
    void addTree(const std::string& path, bool report, bool revisit = false);
    // A watch for the folder at `path`; -1 when it cannot or need not be added.
    int addWatch(const std::string& path, bool tree);
    void dropWatch(int wd, bool removeFromKernel);
    void dropTreeBelow(const std::string& path, bool removeFromKernel);
    void rootVanished(const std::string& root);

    // Tries again to watch a root that did not exist; otherwise watches its nearest parent.
    void resolvePending(const std::string& root);
    void resolvePendingUnder(const std::string& createdPath);
    void pruneParentWatches();

    void closeAll();

    std::vector<std::string> roots_;
    Callback callback_;
    std::chrono::milliseconds coalesce_;
    std::size_t maxWatches_;

    // Lifecycle; `lifecycle_` serialises start/stop from different threads.
    std::mutex lifecycle_;
    std::thread thread_;
    std::atomic<std::thread::id> workerId_{};
    std::atomic<bool> running_{false};
    std::atomic<bool> stopRequested_{false};
    int inotifyFd_ = -1;
    int wakeFd_ = -1;

    // Owned by the watcher's thread while it runs (set up by start before the thread exists).
    std::map<int, Watch> watches_;
    std::map<std::pair<dev_t, ino_t>, int> byIdentity_;
    std::set<std::string> pendingRoots_;
    Pending pending_;
    std::atomic<std::size_t> watchCount_{0};
};

}  // namespace kestrel
