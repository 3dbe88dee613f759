#pragma once
// The one driver of data collection: decides which sources may be read, reads each source's
// files from their checkpoints, commits what a source produced in one transaction, keeps a
// status per source and reports progress. One scan runs at a time; a second caller waits.

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <stop_token>
#include <vector>

#include "core/ledger/scan_gate.hpp"
#include "core/ledger/scan_progress.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/model/app_settings.hpp"
#include "core/pricing/price_table.hpp"
#include "core/sources/agent_catalog.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel {

// Thrown by a scan whose stop token was triggered; what was committed before stays.
class ScanCancelled : public std::runtime_error {
  public:
    ScanCancelled() : std::runtime_error("the scan was cancelled") {}
};

class Ingestor {
  public:
    // (files done, files in all, the source in hand). Called from the scanning thread; must not
    // block.
    using FileProgress =
        std::function<void(int64_t completed, int64_t total, std::optional<AgentSource> source)>;
    // Called after each source's commit with what it came to.
    using SourceDone = std::function<void(const SourceScanReport&)>;

    // The reader of a source, absent when it has none.
    using ReaderLookup = std::function<std::optional<SourceReader>(AgentSource)>;

    // `store` and `gate` (which may be null: every source is then eligible) must outlive the
    // ingestor. `env` resolves the agents' own folder variables; `readers` defaults to the
    // built-in readers.
    Ingestor(UsageStore& store, PriceTable prices, ScanGate* gate,
             EnvironmentLookup env = emptyEnvironment(), ReaderLookup readers = {});

    // One scan of `sources` (absent: every eligible source; a full scan also reconciles the
    // integration instances first). With `force` every file is read from its start and the
    // source's ledger is replaced by what its files prove. Throws ScanCancelled when `stop` is
    // requested (checked between files and between sources), StoreError / LedgerStoreError when
    // a commit fails (that source's checkpoints are not advanced).
    ScanProgress scan(const std::filesystem::path& home, const AppSettings& settings,
                      const std::optional<std::set<AgentSource>>& sources, bool force,
                      const FileProgress& onFileProgress = {}, const SourceDone& onSourceDone = {},
                      std::stop_token stop = {});

    std::map<AgentSource, SourceStatus> sourceStatus() const;
    std::optional<SourceStatus> status(AgentSource source) const;
    std::map<AgentSource, ScanIngestCounts> scanIngestCounts() const;
    // The per-source reports of the latest scan, in scan order.
    std::vector<SourceScanReport> lastReports() const;

    // Replaces the prices used from the next scan on.
    void setPrices(PriceTable prices);
    void setProgressReporter(FileProgress reporter);
    // A source's usage is committed in shares of whole files once this many usages gathered
    // (a full rescan excepted, which commits once). Small shares let tests reach several commits
    // with a few records.
    void setEventsPerCommit(std::size_t events);
    // While paused (a rebuild of the database), scans mark their sources paused and commit
    // nothing.
    void setPaused(bool paused);

    // The sources that can be read at all (they have a catalogue entry and a built-in reader).
    static std::vector<AgentSource> scannableSources(const std::filesystem::path& home,
                                                     const EnvironmentLookup& env);

  private:
    struct Planned;
    struct PendingShare;
    struct ShareTally;
    class ShareCommitter;

    std::vector<AgentSource> chooseSources(const std::filesystem::path& home,
                                           const std::optional<std::set<AgentSource>>& sources,
                                           double now);
    void report(int64_t completed, int64_t total, std::optional<AgentSource> source,
                const FileProgress& onFileProgress);
    SourceScanReport scanSource(Planned& planned, const AppSettings& settings, bool force,
                                const FileProgress& onFileProgress, std::stop_token& stop,
                                ScanProgress& progress);
    // Writes one share of a source's usage; runs on the source's committing thread.
    void commitShare(Planned& planned, const AppSettings& settings, const PriceTable& prices,
                     double startedAt, PendingShare& share, ShareTally& tally);
    void handleQuota(Planned& planned, SourceScanReport& report, ScanProgress& progress,
                     const std::optional<AccountSnapshot>& found);
    SourceStatus decideStatus(const Planned& planned, const SourceScanReport& report,
                              bool formatChanged);

    UsageStore& store_;
    ScanGate* gate_;
    EnvironmentLookup env_;
    ReaderLookup readers_;

    std::mutex scanMutex_;  // one scan at a time
    mutable std::mutex stateMutex_;
    PriceTable prices_;
    FileProgress progressReporter_;
    std::map<AgentSource, SourceStatus> sourceStatus_;
    std::map<AgentSource, ScanIngestCounts> scanIngestCounts_;
    std::vector<SourceScanReport> lastReports_;
    // The stored checkpoints of each source, by stable id, as the ledger holds them: loaded once,
    // then kept in step with every commit, so that a scan started by a watcher batch does not
    // read and decode every checkpoint of the source again. Used by the scanning thread only.
    std::map<AgentSource, std::map<std::string, SourceCheckpoint>> checkpointCache_;
    // Large enough that a commit's fixed costs do not matter, small enough that the shares in
    // flight stay a few megabytes however large the source.
    std::size_t eventsPerShare_ = 8192;
    std::atomic<bool> paused_{false};
    std::atomic<int64_t> liveCompleted_{0};
    std::atomic<int64_t> liveTotal_{0};
};

}  // namespace kestrel
