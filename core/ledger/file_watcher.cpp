#include "core/ledger/file_watcher.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace kestrel {

namespace {

namespace fs = std::filesystem;

// What a folder below a root reports. IN_MODIFY also covers truncation; IN_ATTRIB catches a
// touched mtime, which changes the file stamp the ingestor compares.
constexpr uint32_t kTreeMask = IN_CREATE | IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO |
                               IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF;
// A parent of a root that does not exist yet: only the arrival of the next path component
// matters, and losing the parent itself.
constexpr uint32_t kParentMask =
    IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

std::string join(const std::string& dir, const std::string& name) {
    return dir == "/" ? dir + name : dir + "/" + name;
}

std::string parentOf(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0) {
        return "/";
    }
    return path.substr(0, slash);
}

std::string normalise(const std::string& raw) {
    std::error_code ec;
    fs::path p = fs::absolute(fs::path(raw), ec);
    if (ec) {
        p = fs::path(raw);
    }
    std::string out = p.lexically_normal().string();
    while (out.size() > 1 && out.back() == '/') {
        out.pop_back();
    }
    return out;
}

bool statPath(const std::string& path, struct stat& st) {
    return ::stat(path.c_str(), &st) == 0;
}

bool isDirectory(const std::string& path) {
    struct stat st {};
    return statPath(path, st) && S_ISDIR(st.st_mode);
}

std::string errnoText(const char* what) {
    return std::string(what) + ": " + std::system_category().message(errno);
}

}  // namespace

FileWatcher::FileWatcher(std::vector<std::string> roots, Callback callback,
                         std::chrono::milliseconds coalesce, std::size_t maxWatches)
    : roots_(std::move(roots)),
      callback_(std::move(callback)),
      coalesce_(coalesce),
      maxWatches_(maxWatches) {}

FileWatcher::~FileWatcher() {
    stop();
}

bool FileWatcher::isAtOrBelow(std::string_view path, std::string_view folder) {
    while (folder.size() > 1 && folder.back() == '/') {
        folder.remove_suffix(1);
    }
    if (!path.starts_with(folder)) {
        return false;
    }
    return path.size() == folder.size() || folder == "/" || path[folder.size()] == '/';
}

bool FileWatcher::requiresFullRescan(uint32_t fsEventFlags) {
    return (fsEventFlags & fsevents::kFullRescanMask) != 0;
}

std::expected<void, std::string> FileWatcher::start(std::vector<std::string> roots) {
    if (workerId_.load() == std::this_thread::get_id()) {
        return std::unexpected(
            std::string("the file watcher cannot be restarted from its callback"));
    }
    std::lock_guard lock(lifecycle_);
    roots_ = std::move(roots);
    return startLocked();
}

std::expected<void, std::string> FileWatcher::start() {
    if (workerId_.load() == std::this_thread::get_id()) {
        return std::unexpected(
            std::string("the file watcher cannot be restarted from its callback"));
    }
    std::lock_guard lock(lifecycle_);
    return startLocked();
}

std::expected<void, std::string> FileWatcher::startLocked() {
    stopLocked();

    for (auto& root : roots_) {
        root = normalise(root);
    }
    std::sort(roots_.begin(), roots_.end());
    roots_.erase(std::unique(roots_.begin(), roots_.end()), roots_.end());

    inotifyFd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotifyFd_ < 0) {
        auto message = errnoText("inotify_init1");
        closeAll();
        return std::unexpected(std::move(message));
    }
    wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd_ < 0) {
        auto message = errnoText("eventfd");
        closeAll();
        return std::unexpected(std::move(message));
    }
    stopRequested_ = false;

    // Existing roots first, so a missing root nested in one finds its parent already watched.
    std::vector<std::string> missing;
    for (const auto& root : roots_) {
        struct stat st {};
        if (statPath(root, st)) {
            addTree(root, false);
        } else {
            missing.push_back(root);
        }
    }
    for (const auto& root : missing) {
        pendingRoots_.insert(root);
        resolvePending(root);
    }
    pruneParentWatches();

    try {
        thread_ = std::thread([this] {
            workerId_.store(std::this_thread::get_id());
            run();
        });
    } catch (const std::system_error& error) {
        closeAll();
        return std::unexpected(std::string("cannot start the file watcher thread: ") +
                               error.what());
    }
    running_ = true;
    return {};
}

void FileWatcher::stop() {
    if (workerId_.load() == std::this_thread::get_id()) {
        // From the callback: the thread cannot join itself; it ends when the callback returns.
        stopRequested_ = true;
        running_ = false;
        return;
    }
    std::lock_guard lock(lifecycle_);
    stopLocked();
}

void FileWatcher::stopLocked() {
    stopRequested_ = true;
    if (wakeFd_ >= 0) {
        const uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(wakeFd_, &one, sizeof one);
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    workerId_.store(std::thread::id{});
    closeAll();
    running_ = false;
}

void FileWatcher::closeAll() {
    if (inotifyFd_ >= 0) {
        ::close(inotifyFd_);  // drops every watch with it
        inotifyFd_ = -1;
    }
    if (wakeFd_ >= 0) {
        ::close(wakeFd_);
        wakeFd_ = -1;
    }
    watches_.clear();
    byIdentity_.clear();
    pendingRoots_.clear();
    pending_ = Pending{};
    watchCount_ = 0;
}

// The watcher's thread ---------------------------------------------------------------------------

void FileWatcher::run() {
    pollfd fds[2] = {{inotifyFd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
    while (!stopRequested_) {
        int timeout = -1;
        if (pending_.open) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(
                pending_.deadline - std::chrono::steady_clock::now());
            timeout = static_cast<int>(std::max<std::chrono::milliseconds::rep>(0, left.count()));
        }
        const int ready = ::poll(fds, 2, timeout);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            running_ = false;  // the owner sees the watcher stopped (isRunning) and says so
            break;
        }
        if (stopRequested_) {
            break;
        }
        if ((fds[0].revents & POLLIN) != 0) {
            drainEvents();
        }
        if (pending_.open && std::chrono::steady_clock::now() >= pending_.deadline) {
            flush();
        }
    }
}

void FileWatcher::drainEvents() {
    alignas(inotify_event) char buffer[64 * 1024];
    for (;;) {
        const ssize_t size = ::read(inotifyFd_, buffer, sizeof buffer);
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size <= 0) {
            return;  // EAGAIN: drained
        }
        for (ssize_t at = 0; at < size;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            // The name is NUL-padded to the record's length.
            const std::string name = event->len > 0 ? std::string(event->name) : std::string();
            handleEvent(event->wd, event->mask, name);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
}

void FileWatcher::handleEvent(int wd, uint32_t mask, const std::string& name) {
    if ((mask & IN_Q_OVERFLOW) != 0) {
        // Events were lost, folder creations among them: rescan, and watch the folders that
        // appeared unseen (the walk goes through the folders already watched).
        noteFullRescan();
        for (const auto& root : roots_) {
            if (!pendingRoots_.contains(root)) {
                addTree(root, false, true);
            }
        }
        return;
    }
    const auto found = watches_.find(wd);
    if (found == watches_.end()) {
        return;  // a watch we already dropped
    }
    const Watch watch = found->second;  // handlers below may change the map
    const std::string path = name.empty() ? watch.path : join(watch.path, name);

    constexpr uint32_t kSelfGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;
    if ((mask & kSelfGone) != 0 && name.empty()) {
        if (!watch.tree) {
            // A parent we watched for a missing root is gone: look one level higher.
            dropWatch(wd, (mask & IN_IGNORED) == 0);
            const std::vector<std::string> pendingNow(pendingRoots_.begin(), pendingRoots_.end());
            for (const auto& root : pendingNow) {
                resolvePending(root);
            }
            pruneParentWatches();
        } else if (isRoot(watch.path)) {
            rootVanished(watch.path);
        } else if ((mask & IN_IGNORED) != 0) {
            dropWatch(wd, false);
        }
        // A folder below a root that moves or goes is handled through its parent's event.
        return;
    }

    if (watch.tree) {
        note(path);
        const bool arrived = (mask & (IN_CREATE | IN_MOVED_TO)) != 0;
        if ((mask & IN_MOVED_FROM) != 0 && (mask & IN_ISDIR) != 0) {
            // Watches below a moved folder keep their old paths; drop them, and the move's other
            // half (if it stays below a root) adds them again under the new name.
            for (const auto& root : roots_) {
                if (isAtOrBelow(root, path) && root != watch.path &&
                    !pendingRoots_.contains(root)) {
                    rootVanished(root);
                }
            }
            dropTreeBelow(path, true);
        } else if (arrived && ((mask & IN_ISDIR) != 0 || isDirectory(path))) {
            addTree(path, true);
        }
    }
    if ((mask & (IN_CREATE | IN_MOVED_TO)) != 0 && !pendingRoots_.empty()) {
        resolvePendingUnder(path);
    }
}

void FileWatcher::flush() {
    FileWatcherBatch batch = std::move(pending_.batch);
    pending_ = Pending{};
    if (stopRequested_ || !callback_) {
        return;
    }
    try {
        callback_(std::move(batch));
    } catch (...) {
        // A failing consumer must not take the watcher's thread (and the process) down.
    }
}

void FileWatcher::note(const std::string& path) {
    if (!pending_.open) {
        pending_.open = true;
        pending_.deadline = std::chrono::steady_clock::now() + coalesce_;
    }
    if (pending_.seen.insert(path).second) {
        pending_.batch.paths.push_back(path);
    }
}

void FileWatcher::noteFullRescan() {
    if (!pending_.open) {
        pending_.open = true;
        pending_.deadline = std::chrono::steady_clock::now() + coalesce_;
    }
    pending_.batch.requiresFullRescan = true;
}

bool FileWatcher::isRoot(const std::string& path) const {
    return std::find(roots_.begin(), roots_.end(), path) != roots_.end();
}

// Watches --------------------------------------------------------------------------------------

void FileWatcher::addTree(const std::string& path, bool report, bool revisit) {
    std::vector<std::string> stack{path};
    std::set<std::pair<dev_t, ino_t>> visited;  // revisit only: where links loop, the walk ends
    while (!stack.empty()) {
        const std::string folder = std::move(stack.back());
        stack.pop_back();
        if (revisit) {
            struct stat st {};
            if (!statPath(folder, st) || !visited.insert({st.st_dev, st.st_ino}).second) {
                continue;
            }
            if (addWatch(folder, true) < 0) {
                const auto known = byIdentity_.find({st.st_dev, st.st_ino});
                const bool watched = known != byIdentity_.end() &&
                                     watches_.contains(known->second) &&
                                     watches_.at(known->second).tree;
                if (!watched) {
                    continue;  // unwatchable: nothing below it can be followed either
                }
            }
        } else if (addWatch(folder, true) < 0) {
            continue;  // already watched (a symlink loop or a second path to it), or unwatchable
        }
        std::error_code ec;
        fs::directory_iterator it(folder, fs::directory_options::skip_permission_denied, ec);
        for (const fs::directory_iterator end; !ec && it != end; it.increment(ec)) {
            const std::string child = join(folder, it->path().filename().string());
            if (report) {
                note(child);
            }
            std::error_code typeError;
            if (it->is_directory(typeError)) {  // follows symlinks; loops end at addWatch
                stack.push_back(child);
            }
        }
    }
}

int FileWatcher::addWatch(const std::string& path, bool tree) {
    struct stat st {};
    if (!statPath(path, st)) {
        return -1;
    }
    const bool folder = S_ISDIR(st.st_mode);
    if (!folder && !(tree && isRoot(path))) {
        return -1;  // single files are watched only when a root names one
    }
    const auto identity = std::make_pair(st.st_dev, st.st_ino);
    if (const auto known = byIdentity_.find(identity); known != byIdentity_.end()) {
        const auto existing = watches_.find(known->second);
        if (existing != watches_.end() && (existing->second.tree || !tree)) {
            return -1;
        }
        // A parent watched for a missing root now lies below a root: widen it.
    } else if (watches_.size() >= maxWatches_) {
        noteFullRescan();  // what lies below cannot be followed; the consumer must scan
        return -1;
    }
    uint32_t mask = tree ? kTreeMask : kParentMask;
    if (folder) {
        mask |= IN_ONLYDIR;
    }
    const int wd = ::inotify_add_watch(inotifyFd_, path.c_str(), mask);
    if (wd < 0) {
        if (errno == ENOSPC) {
            noteFullRescan();  // the user's inotify watch limit
        }
        return -1;
    }
    if (const auto previous = watches_.find(wd); previous != watches_.end()) {
        byIdentity_.erase({previous->second.dev, previous->second.ino});
    }
    watches_[wd] = Watch{path, st.st_dev, st.st_ino, tree};
    byIdentity_[identity] = wd;
    watchCount_ = watches_.size();
    return wd;
}

void FileWatcher::dropWatch(int wd, bool removeFromKernel) {
    const auto found = watches_.find(wd);
    if (found == watches_.end()) {
        return;
    }
    const auto identity = std::make_pair(found->second.dev, found->second.ino);
    if (const auto known = byIdentity_.find(identity);
        known != byIdentity_.end() && known->second == wd) {
        byIdentity_.erase(known);
    }
    if (removeFromKernel) {
        ::inotify_rm_watch(inotifyFd_, wd);
    }
    watches_.erase(found);
    watchCount_ = watches_.size();
}

void FileWatcher::dropTreeBelow(const std::string& path, bool removeFromKernel) {
    std::vector<int> below;
    for (const auto& [wd, watch] : watches_) {
        if (watch.tree && isAtOrBelow(watch.path, path)) {
            below.push_back(wd);
        }
    }
    for (const int wd : below) {
        dropWatch(wd, removeFromKernel);
    }
}

void FileWatcher::rootVanished(const std::string& root) {
    noteFullRescan();
    // Roots nested in this one went with it.
    std::vector<std::string> gone;
    for (const auto& other : roots_) {
        if (isAtOrBelow(other, root)) {
            gone.push_back(other);
        }
    }
    dropTreeBelow(root, true);
    for (const auto& other : gone) {
        pendingRoots_.insert(other);
    }
    // Watch for it to come back (it may already have: a file replaced by rename).
    for (const auto& other : gone) {
        resolvePending(other);
    }
    pruneParentWatches();
}

void FileWatcher::resolvePending(const std::string& root) {
    // Bounded: each round finds one more existing component of the root's path.
    for (std::size_t round = 0; round <= root.size(); ++round) {
        if (!pendingRoots_.contains(root)) {
            return;
        }
        struct stat st {};
        if (statPath(root, st)) {
            pendingRoots_.erase(root);
            note(root);
            addTree(root, true);
            return;
        }
        std::string parent = parentOf(root);
        while (parent != "/" && !isDirectory(parent)) {
            parent = parentOf(parent);
        }
        addWatch(parent, false);
        // The next component may have been created before the watch existed (mkdir -p).
        std::string next = root;
        while (parentOf(next) != parent) {
            next = parentOf(next);
        }
        if (!statPath(next, st)) {
            return;
        }
    }
}

void FileWatcher::resolvePendingUnder(const std::string& createdPath) {
    const std::vector<std::string> pendingNow(pendingRoots_.begin(), pendingRoots_.end());
    for (const auto& root : pendingNow) {
        if (isAtOrBelow(root, createdPath)) {
            resolvePending(root);
        }
    }
    pruneParentWatches();
}

void FileWatcher::pruneParentWatches() {
    // A folder on the way to a missing root may have appeared since its parent's event was
    // queued; watch it before the parent's watch goes, or its creation event goes with it.
    const std::vector<std::string> pendingNow(pendingRoots_.begin(), pendingRoots_.end());
    for (const auto& root : pendingNow) {
        resolvePending(root);
    }
    std::set<std::string> needed;
    for (const auto& root : pendingRoots_) {
        std::string parent = parentOf(root);
        while (parent != "/" && !isDirectory(parent)) {
            parent = parentOf(parent);
        }
        needed.insert(parent);
    }
    std::vector<int> unneeded;
    for (const auto& [wd, watch] : watches_) {
        if (!watch.tree && !needed.contains(watch.path)) {
            unneeded.push_back(wd);
        }
    }
    for (const int wd : unneeded) {
        dropWatch(wd, true);
    }
}

}  // namespace kestrel
