#include "cli/watch_command.hpp"

#include <fmt/format.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <filesystem>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "cli/cli.hpp"
#include "cli/collector.hpp"
#include "cli/local_time.hpp"
#include "cli/text_table.hpp"
#include "core/ledger/file_watcher.hpp"
#include "core/model/timestamp.hpp"

namespace kestrel::cli {
namespace {

// The readable sources one of whose roots holds one of `paths`.
std::set<AgentSource> sourcesFor(const std::vector<std::string>& paths, const CommandContext& ctx) {
    std::set<AgentSource> out;
    for (auto source : Ingestor::scannableSources(ctx.home, ctx.env)) {
        const auto spec = AgentCatalog::spec(source, ctx.home, ctx.env);
        if (!spec) {
            continue;
        }
        for (const auto& root : spec->roots) {
            const auto r = root.lexically_normal().string();
            for (const auto& p : paths) {
                // A root's parent may be what changed.
                if (FileWatcher::isAtOrBelow(p, r) || FileWatcher::isAtOrBelow(r, p)) {
                    out.insert(source);
                }
            }
        }
    }
    return out;
}

// What the watcher has delivered and the loop has not handled yet, merged.
struct PendingChanges {
    std::mutex mutex;
    std::condition_variable_any changed;
    std::vector<std::string> paths;
    bool fullRescan = false;
    bool any = false;
};

// Prints one line per commit that added usage to the ledger. "New" is what the ledger gained: a
// file read again from its start (rewritten by its agent) yields events already there.
class CommitPrinter {
  public:
    CommitPrinter(CommandContext& ctx, UsageStore& store, bool json)
        : ctx_(ctx), store_(store), json_(json) {
        for (const auto& [source, summary] : store.ledgerSummariesBySource({})) {
            known_[source] = summary.eventCount;
        }
    }

    void operator()(const SourceScanReport& r) {
        if (!r.committed && !r.quotaSaved) {
            return;
        }
        LedgerQuery ofSource;
        ofSource.source = r.source;
        const int64_t count = store_.ledgerEventCount(ofSource);
        const int64_t added = count - known_[r.source];
        known_[r.source] = count;
        if (added <= 0 && !r.quotaSaved) {
            return;
        }
        const auto t = epochNow();
        if (json_) {
            nlohmann::ordered_json j;
            j["time"] = t;
            j["source"] = std::string(rawValue(r.source));
            j["events"] = std::max<int64_t>(added, 0);
            j["accepted"] = r.counts.accepted;
            j["rejected"] = r.counts.rejected;
            j["quotaSaved"] = r.quotaSaved;
            LedgerQuery today;
            today.from = localMidnight(static_cast<std::time_t>(t), 0);
            j["todayCostUSDMicros"] = store_.ledgerSummary(today).knownCostUSDMicros.value_or(0);
            ctx_.out << j.dump() << std::endl;
            return;
        }
        ctx_.out << fmt::format("{}  {}  +{}  today {}{}", formatLocal(t, "%H:%M:%S"),
                                displayName(r.source),
                                counted(std::max<int64_t>(added, 0), "event", "events"),
                                todaysCost(store_), r.quotaSaved ? "  (quota updated)" : "")
                 << std::endl;
    }

  private:
    CommandContext& ctx_;
    UsageStore& store_;
    bool json_;
    std::map<AgentSource, int64_t> known_;  // ledger events per source after the last commit
};

}  // namespace

int runWatch(CommandContext& ctx, const WatchOptions& options, bool json, std::stop_token stop,
             const std::function<void()>& onReady) {
    auto only = parseSources(ctx, options.sources);
    if (!only) {
        return kExitUsage;
    }
    auto collector = openCollector(ctx);
    if (!collector) {
        return kExitFailure;
    }
    auto& ingestor = *collector->ingestor;
    auto& store = *collector->store;
    CommitPrinter printer(ctx, store, json);
    const auto onSourceDone = [&](const SourceScanReport& r) { printer(r); };

    PendingChanges pending;
    // Started before the first scan, so that nothing written during it goes unnoticed.
    const auto roots = AgentCatalog::watchPaths(ctx.home, ctx.env);
    FileWatcher watcher(roots, [&](FileWatcherBatch batch) {
        {
            std::lock_guard guard(pending.mutex);
            pending.paths.insert(pending.paths.end(), batch.paths.begin(), batch.paths.end());
            pending.fullRescan = pending.fullRescan || batch.requiresFullRescan;
            pending.any = true;
        }
        pending.changed.notify_one();
    });
    if (auto started = watcher.start(); !started) {
        ctx.err << "kestrel: cannot watch the agents' folders: " << started.error() << '\n';
        return kExitFailure;
    }

    int exitCode = kExitOK;
    try {
        scanWithProgress(ctx, *collector, *only, false, onSourceDone, stop);
        int64_t present = 0;
        for (const auto& root : roots) {
            std::error_code ec;
            present += std::filesystem::exists(root, ec) ? 1 : 0;
        }
        // With --json the standard output carries only the commit lines.
        (json ? ctx.err : ctx.out)
            << fmt::format(
                   "Watching {} below {} (and {} more where agents may appear); Ctrl-C "
                   "stops.",
                   counted(present, "agent folder", "agent folders"), ctx.home.string(),
                   static_cast<int64_t>(roots.size()) - present)
            << std::endl;
        if (onReady) {
            onReady();
        }
        while (!stop.stop_requested()) {
            std::vector<std::string> paths;
            bool full = false;
            {
                std::unique_lock lock(pending.mutex);
                if (!pending.changed.wait_for(lock, stop, std::chrono::seconds(1),
                                              [&] { return pending.any; })) {
                    if (stop.stop_requested()) {
                        break;
                    }
                    if (!watcher.isRunning()) {
                        ctx.err << "kestrel: the file watcher stopped unexpectedly; run `kestrel "
                                   "watch` again\n";
                        exitCode = kExitFailure;
                        break;
                    }
                    continue;
                }
                paths.swap(pending.paths);
                full = pending.fullRescan;
                pending.fullRescan = false;
                pending.any = false;
            }
            std::optional<std::set<AgentSource>> sources;
            if (!full) {
                sources = sourcesFor(paths, ctx);
                if (*only) {
                    std::erase_if(*sources, [&](AgentSource s) { return !(*only)->contains(s); });
                }
                if (sources->empty()) {
                    continue;
                }
            } else {
                sources = *only;
            }
            try {
                ingestor.scan(ctx.home, ctx.settings, sources, false, {}, onSourceDone, stop);
            } catch (const ScanCancelled&) {
                throw;
            } catch (const std::exception& e) {
                // A locked or busy ledger is retried with the next change; the watcher goes on.
                ctx.err << "kestrel: " << formatLocal(epochNow(), "%H:%M:%S")
                        << " the scan could not be saved: " << e.what() << '\n';
            }
        }
    } catch (const ScanCancelled&) {
        // Stopped while scanning: what was committed stays, nothing is half-written.
    } catch (const std::exception& e) {
        ctx.err << "kestrel: the scan could not be saved: " << e.what() << '\n';
        exitCode = kExitFailure;
    }
    watcher.stop();  // before the store closes
    return exitCode;
}

int runWatchUntilSignalled(CommandContext& ctx, const WatchOptions& options, bool json) {
    // The signals go to one waiting thread only: every thread started from here on (the
    // watcher's among them) inherits the blocked mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &signals, &previous);

    std::stop_source stopper;
    std::atomic<bool> finished{false};
    std::thread waiter([&] {
        const timespec tick{0, 100'000'000};
        while (!finished) {
            if (sigtimedwait(&signals, nullptr, &tick) > 0) {
                stopper.request_stop();
                return;
            }
        }
    });
    const int code = runWatch(ctx, options, json, stopper.get_token());
    finished = true;
    waiter.join();
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return code;
}

}  // namespace kestrel::cli
