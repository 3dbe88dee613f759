// The inotify file watcher against real folders: what arrives, in how many batches, and what
// survives folders appearing, moving and vanishing. Waits are bounded by generous deadlines.

#include "core/ledger/file_watcher.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test_support::TempDir;

constexpr auto kPatience = 10s;

// Collects the batches delivered on the watcher's thread.
class Inbox {
  public:
    FileWatcher::Callback callback() {
        return [this](FileWatcherBatch batch) {
            std::lock_guard lock(mutex_);
            batches_.push_back(std::move(batch));
            changed_.notify_all();
        };
    }

    bool waitFor(const std::function<bool(const std::vector<FileWatcherBatch>&)>& done,
                 std::chrono::milliseconds patience = kPatience) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, patience, [&] { return done(batches_); });
    }

    bool waitForPath(const fs::path& path) {
        return waitFor([&](const auto& batches) { return contains(batches, path); });
    }

    bool waitForFullRescan() {
        return waitFor([](const auto& batches) {
            return std::any_of(batches.begin(), batches.end(),
                               [](const auto& b) { return b.requiresFullRescan; });
        });
    }

    std::vector<FileWatcherBatch> batches() {
        std::lock_guard lock(mutex_);
        return batches_;
    }

    void clear() {
        std::lock_guard lock(mutex_);
        batches_.clear();
    }

    static bool contains(const std::vector<FileWatcherBatch>& batches, const fs::path& path) {
        return std::any_of(batches.begin(), batches.end(), [&](const FileWatcherBatch& b) {
            return std::find(b.paths.begin(), b.paths.end(), path.string()) != b.paths.end();
        });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<FileWatcherBatch> batches_;
};

TEST(FileWatcherTest, FullRescanFlagsFollowTheDroppedEventAndRootRules) {
    using namespace fsevents;
    struct Case {
        uint32_t flags;
        bool expected;
    };
    const Case cases[] = {
        {kNone, false},
        {kItemModified | kItemIsFile, false},
        {kItemCreated | kItemRemoved | kItemRenamed | kItemIsDir, false},
        {kHistoryDone | kMount | kUnmount | kOwnEvent | kItemCloned, false},
        {kMustScanSubDirs, true},
        {kUserDropped, true},
        {kKernelDropped | kItemModified | kItemIsFile, true},
        {kEventIdsWrapped, true},
        {kRootChanged, true},
        {0xFFFFFFFFu, true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(FileWatcher::requiresFullRescan(c.flags), c.expected) << std::hex << c.flags;
    }
    EXPECT_EQ(kFullRescanMask, 47u);
    EXPECT_EQ(kWatcherCreateFlags, 21u);
}

TEST(FileWatcherTest, AWriteBelowARootArrivesAsOneBatch) {
    TempDir dir;
    fs::create_directories(dir / "root/project");
    Inbox inbox;
    FileWatcher watcher({(dir / "root").string()}, inbox.callback(), 100ms);
    ASSERT_TRUE(watcher.start().has_value());

    const auto file = dir.write("root/project/session.jsonl", "{}\n");
    ASSERT_TRUE(inbox.waitForPath(file));
    std::this_thread::sleep_for(500ms);  // several windows: nothing else may follow
    const auto batches = inbox.batches();
    ASSERT_EQ(batches.size(), 1u);
    EXPECT_EQ(batches[0].paths, std::vector<std::string>{file.string()});
    EXPECT_FALSE(batches[0].requiresFullRescan);
}

TEST(FileWatcherTest, WritesWithinTheWindowShareOneBatchWithEachPathOnce) {
    TempDir dir;
    fs::create_directories(dir / "root/a");
    fs::create_directories(dir / "root/b");
    Inbox inbox;
    // A wide window so that a busy machine cannot split the burst.
    FileWatcher watcher({(dir / "root").string()}, inbox.callback(), 1500ms);
    ASSERT_TRUE(watcher.start().has_value());

    const auto first = dir.write("root/a/one.jsonl", "1\n");
    const auto second = dir.write("root/b/two.jsonl", "2\n");
    dir.append("root/a/one.jsonl", "3\n");
    dir.append("root/a/one.jsonl", "4\n");
    ASSERT_TRUE(inbox.waitFor([](const auto& b) { return !b.empty(); }));
    std::this_thread::sleep_for(2s);
    const auto batches = inbox.batches();
    ASSERT_EQ(batches.size(), 1u);
    EXPECT_EQ(batches[0].paths, (std::vector<std::string>{first.string(), second.string()}));
}

TEST(FileWatcherTest, FoldersCreatedAfterStartAreWatched) {
    TempDir dir;
    fs::create_directories(dir / "root");
    Inbox inbox;
    FileWatcher watcher({(dir / "root").string()}, inbox.callback(), 100ms);
    ASSERT_TRUE(watcher.start().has_value());

    // Filled at once, before the watcher can have added the new folders.
    const auto early = dir.write("root/new/deeper/early.jsonl", "1\n");
    ASSERT_TRUE(inbox.waitForPath(early));
    EXPECT_TRUE(Inbox::contains(inbox.batches(), dir / "root/new"));

    const auto later = dir.write("root/new/deeper/later.jsonl", "2\n");
    EXPECT_TRUE(inbox.waitForPath(later));
    EXPECT_EQ(watcher.watchCount(), 3u);
}

TEST(FileWatcherTest, AFolderMovedWithinTheRootReportsUnderItsNewName) {
    TempDir dir;
    fs::create_directories(dir / "root/old/inner");
    Inbox inbox;
    FileWatcher watcher({(dir / "root").string()}, inbox.callback(), 100ms);
    ASSERT_TRUE(watcher.start().has_value());

    fs::rename(dir / "root/old", dir / "root/renamed");
    ASSERT_TRUE(inbox.waitForPath(dir / "root/renamed"));
    inbox.clear();
    const auto file = dir.write("root/renamed/inner/x.jsonl", "1\n");
    ASSERT_TRUE(inbox.waitForPath(file));
    for (const auto& batch : inbox.batches()) {
        for (const auto& path : batch.paths) {
            EXPECT_EQ(path.find("/old/"), std::string::npos) << path;
        }
    }
}

TEST(FileWatcherTest, ALostRootRequiresAFullRescanAndIsWatchedWhenItReturns) {
    const std::vector<std::pair<const char*, std::function<void(const fs::path&)>>> losses = {
        {"removed", [](const fs::path& root) { fs::remove_all(root); }},
        {"renamed", [](const fs::path& root) { fs::rename(root, root.string() + ".moved"); }},
    };
    for (const auto& [label, lose] : losses) {
        SCOPED_TRACE(label);
        TempDir dir;
        fs::create_directories(dir / "root/sub");
        Inbox inbox;
        FileWatcher watcher({(dir / "root").string()}, inbox.callback(), 100ms);
        ASSERT_TRUE(watcher.start().has_value());

        lose(dir / "root");
        ASSERT_TRUE(inbox.waitForFullRescan());

        const auto back = dir.write("root/sub/back.jsonl", "1\n");
        EXPECT_TRUE(inbox.waitForPath(back));
    }
}

TEST(FileWatcherTest, ARootThatDoesNotExistYetIsPickedUpWhenCreated) {
    TempDir dir;
    const auto root = dir / "home/.agent/sessions";
    Inbox inbox;
    FileWatcher watcher({root.string()}, inbox.callback(), 100ms);
    ASSERT_TRUE(watcher.start().has_value());
    EXPECT_TRUE(watcher.isRunning());

    // Nothing outside the root is reported while waiting for it.
    dir.write("home/unrelated.txt", "x");
    const auto first = dir.write("home/.agent/sessions/2026/first.jsonl", "1\n");
    ASSERT_TRUE(inbox.waitForPath(first));
    const auto second = dir.write("home/.agent/sessions/2026/second.jsonl", "2\n");
    ASSERT_TRUE(inbox.waitForPath(second));
    for (const auto& batch : inbox.batches()) {
        EXPECT_FALSE(batch.requiresFullRescan);
        for (const auto& path : batch.paths) {
            EXPECT_EQ(path.rfind(root.string(), 0), 0u) << path;
        }
    }
}

TEST(FileWatcherTest, SymlinkLoopsAreWatchedOnce) {
    TempDir dir;
    fs::create_directories(dir / "root/a");
    fs::create_directory_symlink(dir / "root", dir / "root/a/loop");
    fs::create_directory_symlink(dir / "root/a", dir / "root/again");
    Inbox inbox;
    FileWatcher watcher({(dir / "root").string()}, inbox.callback(), 100ms);
    ASSERT_TRUE(watcher.start().has_value());
    EXPECT_EQ(watcher.watchCount(), 2u);

    const auto file = dir.write("root/a/f.jsonl", "1\n");
    EXPECT_TRUE(inbox.waitFor([&](const auto& batches) {
        return Inbox::contains(batches, file) ||
               Inbox::contains(batches, dir / "root/again/f.jsonl");
    }));
}

TEST(FileWatcherTest, RunningOutOfWatchesAsksForAFullRescan) {
    TempDir dir;
    for (const char* name : {"a", "b", "c", "d"}) {
        fs::create_directories(dir / "root" / name);
    }
    Inbox inbox;
    FileWatcher watcher({(dir / "root").string()}, inbox.callback(), 100ms, 2);
    ASSERT_TRUE(watcher.start().has_value());
    EXPECT_EQ(watcher.watchCount(), 2u);
    EXPECT_TRUE(inbox.waitForFullRescan());
}

// The kernel drops events when its queue is full; folders created meanwhile were never seen. The
// watcher asks for a full rescan and watches them from then on. The queue is filled for real: the
// watcher's thread is held in its callback while more files appear than the queue holds.
TEST(FileWatcherTest, AfterLostEventsFoldersMadeMeanwhileAreWatched) {
    std::ifstream limit("/proc/sys/fs/inotify/max_queued_events");
    std::size_t queue = 0;
    if (!(limit >> queue) || queue > 100'000) {
        GTEST_SKIP() << "the inotify queue is too large to fill in a test";
    }
    TempDir dir;
    fs::create_directories(dir / "root/busy");
    std::mutex gate;
    std::unique_lock held(gate);
    std::atomic<bool> holding{false};
    Inbox inbox;
    FileWatcher watcher(
        {(dir / "root").string()},
        [&](FileWatcherBatch batch) {
            holding = true;
            std::lock_guard wait(gate);  // held until the queue has overflowed
            inbox.callback()(std::move(batch));
        },
        20ms);
    ASSERT_TRUE(watcher.start());

    dir.write("root/busy/first.jsonl", "x");
    for (int i = 0; i < 1000 && !holding; ++i) {
        std::this_thread::sleep_for(10ms);
    }
    ASSERT_TRUE(holding) << "the first batch never came";
    for (std::size_t i = 0; i <= queue; ++i) {
        std::ofstream(dir / "root/busy" / ("f" + std::to_string(i)));
    }
    fs::create_directories(dir / "root/later");  // the queue is full: its creation is lost
    held.unlock();
    ASSERT_TRUE(inbox.waitForFullRescan());

    inbox.clear();
    const auto file = dir.write("root/later/new.jsonl", "{}\n");
    EXPECT_TRUE(inbox.waitForPath(file)) << "the folder made while events were lost is watched";
}

TEST(FileWatcherTest, StopWaitsForTheCallbackAndNothingIsDeliveredAfterIt) {
    TempDir dir;
    fs::create_directories(dir / "root");
    std::atomic<bool> stopped{false};
    std::atomic<bool> lateCallback{false};
    std::atomic<int> inCallback{0};
    std::atomic<int> finished{0};
    FileWatcher watcher(
        {(dir / "root").string()},
        [&](FileWatcherBatch) {
            if (stopped) {
                lateCallback = true;
            }
            ++inCallback;
            std::this_thread::sleep_for(300ms);  // a slow consumer
            ++finished;
        },
        100ms);
    ASSERT_TRUE(watcher.start().has_value());

    dir.write("root/one.jsonl", "1\n");
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (inCallback == 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(10ms);
    }
    ASSERT_EQ(inCallback, 1);
    dir.write("root/two.jsonl", "2\n");  // gathered, then dropped by stop
    watcher.stop();
    stopped = true;
    EXPECT_EQ(finished.load(), inCallback.load());
    EXPECT_FALSE(watcher.isRunning());
    watcher.stop();

    dir.write("root/three.jsonl", "3\n");
    std::this_thread::sleep_for(600ms);
    EXPECT_FALSE(lateCallback);
}

TEST(FileWatcherTest, RestartingWatchesTheNewRootsOnly) {
    TempDir dir;
    fs::create_directories(dir / "first");
    fs::create_directories(dir / "second");
    Inbox inbox;
    FileWatcher watcher({(dir / "first").string()}, inbox.callback(), 100ms);
    ASSERT_TRUE(watcher.start().has_value());
    ASSERT_TRUE(watcher.start({(dir / "second").string()}).has_value());

    dir.write("first/ignored.jsonl", "1\n");
    const auto seen = dir.write("second/seen.jsonl", "2\n");
    ASSERT_TRUE(inbox.waitForPath(seen));
    std::this_thread::sleep_for(300ms);
    EXPECT_FALSE(Inbox::contains(inbox.batches(), dir / "first/ignored.jsonl"));
}

}  // namespace
}  // namespace kestrel
