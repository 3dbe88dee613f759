#include "core/ledger/ingestor.hpp"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <iterator>
#include <thread>
#include <unordered_map>

#include "core/ledger/bounded_queue.hpp"
#include "core/ledger/event_finishing.hpp"
#include "core/ledger/ledger_validator.hpp"
#include "core/ledger/usage_batch_builder.hpp"
#include "core/ledger/usage_merge.hpp"
#include "core/model/timestamp.hpp"
#include "core/sources/checkpoint_reuse.hpp"

namespace kestrel {
namespace {

// A root that exists but cannot be listed: the user has not granted access to it.
std::optional<FileError> unreadableRoot(const std::filesystem::path& root) {
    std::error_code ec;
    if (!std::filesystem::is_directory(root, ec)) {
        return std::nullopt;  // file roots are opened by the reader, which reports its own error
    }
    DIR* dir = ::opendir(root.c_str());
    if (dir == nullptr) {
        return fileErrorFromErrno(root.string(), "list");
    }
    ::closedir(dir);
    return std::nullopt;
}

// The events of one source, one per id. Several records of one usage (a message logged line by
// line, a session resumed and replayed, a sub-agent's copy in another file) share an id and fold
// into one by UsageMerge, as the ledger's upsert does; keeping only that one bounds a scan's
// memory by the usage, not the lines.
class MergedEvents {
  public:
    void add(UsageEvent&& event) {
        ++produced_;
        auto [it, added] = index_.try_emplace(event.id, events_.size());
        if (added) {
            events_.push_back(std::move(event));
        } else {
            UsageMerge::merge(events_[it->second], std::move(event));
        }
    }
    int64_t produced() const { return produced_; }
    std::vector<UsageEvent>& events() { return events_; }
    void release() {
        std::vector<UsageEvent>().swap(events_);
        std::unordered_map<std::string, std::size_t>().swap(index_);
    }

  private:
    std::vector<UsageEvent> events_;
    std::unordered_map<std::string, std::size_t> index_;
    int64_t produced_ = 0;
};

// Shares waiting for the committer; the reader waits when it is this far ahead.
constexpr std::size_t kSharesInFlight = 2;

}  // namespace

// Whole files' usage with those files' checkpoints: what one commit writes.
struct Ingestor::PendingShare {
    std::vector<UsageEvent> events;
    std::vector<SourceCheckpoint> checkpoints;
    std::optional<AccountSnapshot> quota;  // the newest reading found in these files
    std::optional<AgentSource> replacing;  // a full rescan of this source
};

// What the commits of one source came to.
struct Ingestor::ShareTally {
    // The latest verdict on one observation, by a hash of its id: 16 bytes a usage, so that a
    // source of millions of usages keeps its tally small (two ids of one hash would count once).
    struct Verdict {
        uint64_t id = 0;
        int32_t findings = 0;
        bool eligible = false;
    };
    std::vector<Verdict> verdicts;  // sorted by id, one per id
    int64_t adapterIssues = 0;
    int64_t duplicateRuns = 0;
    // The ledger held no usage of the source before these commits: an id not in `verdicts`
    // cannot be in the ledger yet, so its commit need not look for a stored row.
    bool trackIDs = false;
    bool committed = false;
    bool replaced = false;
    bool quotaSaved = false;
    std::vector<SourceCheckpoint> checkpoints;  // the ones committed
    std::exception_ptr error;                   // the commit that failed; none came after it
};

// Commits the shares of one source on its own thread, in the order they were handed over.
class Ingestor::ShareCommitter {
  public:
    using Commit = std::function<void(PendingShare&, ShareTally&)>;

    // With `trackIDs`, the commits learn which ids earlier ones wrote (see ShareTally).
    ShareCommitter(Commit commit, bool trackIDs)
        : commit_(std::move(commit)), tally_(startingTally(trackIDs)), thread_([this] { run(); }) {}
    ~ShareCommitter() { finish(); }
    ShareCommitter(const ShareCommitter&) = delete;
    ShareCommitter& operator=(const ShareCommitter&) = delete;

    // Queues `share`, waiting while the committer is behind; false once a commit failed.
    bool submit(PendingShare share) { return queue_.push(std::move(share)); }

    // Drops the shares not yet committed (the one being written still lands whole).
    void abandon() { queue_.abandon(); }

    // Waits for the queued shares to be committed; returns what they came to.
    ShareTally finish() {
        queue_.close();
        if (thread_.joinable()) {
            thread_.join();
        }
        return std::move(tally_);
    }

  private:
    static ShareTally startingTally(bool trackIDs) {
        ShareTally tally;
        tally.trackIDs = trackIDs;
        return tally;
    }

    void run() {
        while (auto share = queue_.pop()) {
            try {
                commit_(*share, tally_);
            } catch (...) {
                tally_.error = std::current_exception();
                queue_.abandon();
                return;
            }
        }
    }

    Commit commit_;
    BoundedQueue<PendingShare> queue_{kSharesInFlight};
    ShareTally tally_;  // written by the committing thread only, read after it ended
    std::thread thread_;
};

// One chosen source between discovery and reading.
struct Ingestor::Planned {
    AgentSource source = AgentSource::claude;
    SourceReader reader;
    std::vector<std::filesystem::path> roots;
    std::vector<FileError> rootErrors;  // roots that cannot be listed at all
    std::vector<FileError> listErrors;  // folders below a root that could not all be listed
    std::vector<std::filesystem::path> files;
    const std::map<std::string, SourceCheckpoint>* stored = nullptr;  // by stable id
    std::string defaultModel;
    bool firstImport = false;  // the ledger held no usage when the scan began
};

namespace {

uint64_t idHash(std::string_view id) {
    return std::hash<std::string_view>{}(id);
}

// Ends a first import however the scan ends. A failure here is left to the next open, which
// finishes what the marker in the ledger says is unfinished.
class FirstImport {
  public:
    explicit FirstImport(UsageStore& store) : store_(store), active_(store.beginFirstImport()) {}
    ~FirstImport() {
        if (active_) {
            try {
                store_.finishFirstImport();
            } catch (const std::exception&) {
            }
        }
    }
    FirstImport(const FirstImport&) = delete;
    FirstImport& operator=(const FirstImport&) = delete;
    bool active() const { return active_; }
    // Builds the indexes and rollups now; errors reach the caller.
    void finish() {
        if (active_) {
            active_ = false;
            store_.finishFirstImport();
        }
    }

  private:
    UsageStore& store_;
    bool active_;
};

}  // namespace

Ingestor::Ingestor(UsageStore& store, PriceTable prices, ScanGate* gate, EnvironmentLookup env,
                   ReaderLookup readers)
    : store_(store),
      gate_(gate),
      env_(env ? std::move(env) : emptyEnvironment()),
      readers_(readers ? std::move(readers) : ReaderLookup(SourceReaders::reader)),
      prices_(std::move(prices)) {}

std::vector<AgentSource> Ingestor::scannableSources(const std::filesystem::path& home,
                                                    const EnvironmentLookup& env) {
    std::vector<AgentSource> out;
    for (auto source : SourceReaders::readableSources()) {
        if (AgentCatalog::spec(source, home, env)) {
            out.push_back(source);
        }
    }
    return out;
}

std::vector<AgentSource> Ingestor::chooseSources(
    const std::filesystem::path& home, const std::optional<std::set<AgentSource>>& sources,
    double now) {
    std::optional<std::set<AgentSource>> enabled;
    if (gate_ != nullptr) {
        // A full scan first brings the instances in line with what is installed now; a paused
        // ingestor (the ledger is being rebuilt) writes nothing at all.
        if (!sources && !paused_) {
            gate_->beforeFullScan(home, now, env_);
        }
        enabled = gate_->importableSources();
    }
    std::vector<AgentSource> out;
    for (auto source : allAgentSources()) {
        if (!readers_(source) || !AgentCatalog::spec(source, home, env_)) {
            continue;
        }
        if (sources && !sources->contains(source)) {
            continue;
        }
        if (enabled && !enabled->contains(source)) {
            continue;
        }
        out.push_back(source);
    }
    return out;
}

void Ingestor::report(int64_t completed, int64_t total, std::optional<AgentSource> source,
                      const FileProgress& onFileProgress) {
    liveCompleted_ = completed;
    liveTotal_ = total;
    if (onFileProgress) {
        onFileProgress(completed, total, source);
    }
    FileProgress reporter;
    {
        std::lock_guard guard(stateMutex_);
        reporter = progressReporter_;
    }
    if (reporter) {
        reporter(completed, total, source);
    }
}

ScanProgress Ingestor::scan(const std::filesystem::path& home, const AppSettings& settings,
                            const std::optional<std::set<AgentSource>>& sources, bool force,
                            const FileProgress& onFileProgress, const SourceDone& onSourceDone,
                            std::stop_token stop) {
    std::lock_guard scanning(scanMutex_);
    const double startedAt = epochNow();
    ScanProgress progress;
    const auto chosen = chooseSources(home, sources, startedAt);

    if (paused_) {
        std::lock_guard guard(stateMutex_);
        for (auto source : chosen) {
            sourceStatus_[source] = SourceStatus::paused;
        }
        return progress;
    }

    // Into an empty ledger the commits go without indexes and rollup triggers, built once at
    // the end.
    FirstImport firstImport(store_);

    // Discover everything first, so that progress has its total before the first file is read.
    std::vector<Planned> plans;
    std::vector<SourceScanReport> reports;
    int64_t total = 0;
    for (auto source : chosen) {
        if (stop.stop_requested()) {
            throw ScanCancelled();
        }
        Planned planned;
        planned.source = source;
        planned.firstImport = firstImport.active();
        planned.reader = *readers_(source);
        planned.roots = AgentCatalog::installedRoots(source, home, env_);
        for (const auto& root : planned.roots) {
            if (auto error = unreadableRoot(root)) {
                planned.rootErrors.push_back(*error);
                continue;
            }
            auto found = planned.reader.discover(root, &planned.listErrors);
            planned.files.insert(planned.files.end(), std::make_move_iterator(found.begin()),
                                 std::make_move_iterator(found.end()));
        }
        if (!planned.roots.empty()) {
            auto cached = checkpointCache_.find(source);
            if (cached == checkpointCache_.end()) {
                cached = checkpointCache_.try_emplace(source).first;
                for (auto& checkpoint : store_.checkpoints(source)) {
                    cached->second.emplace(checkpoint.stableID, std::move(checkpoint));
                }
            }
            planned.stored = &cached->second;
            planned.defaultModel = SourceReaders::defaultModel(source, planned.roots);
        }
        total += static_cast<int64_t>(planned.files.size());
        plans.push_back(std::move(planned));
    }

    int64_t completed = 0;
    report(0, total, std::nullopt, onFileProgress);
    for (auto& planned : plans) {
        if (stop.stop_requested()) {
            throw ScanCancelled();
        }
        auto sourceReport = scanSource(
            planned, settings, force,
            [&](int64_t done, int64_t, auto source) {
                report(completed + done, total, source, onFileProgress);
            },
            stop, progress);
        completed += static_cast<int64_t>(planned.files.size());
        if (gate_ != nullptr) {
            gate_->sourceScanned(sourceReport, epochNow());
        }
        {
            std::lock_guard guard(stateMutex_);
            sourceStatus_[planned.source] = sourceReport.status;
            if (sourceReport.committed) {
                scanIngestCounts_[planned.source] = sourceReport.counts;
            }
        }
        if (onSourceDone) {
            onSourceDone(sourceReport);
        }
        reports.push_back(std::move(sourceReport));
    }
    {
        std::lock_guard guard(stateMutex_);
        lastReports_ = reports;
    }
    if (firstImport.active()) {
        firstImport.finish();  // builds the rollups too
    } else if (progress.changed) {
        // The totals the views read are brought up to date while the new rows are warm, so
        // that the next report answers at once.
        store_.refreshRollups();
    }
    return progress;
}

SourceScanReport Ingestor::scanSource(Planned& planned, const AppSettings& settings, bool force,
                                      const FileProgress& onFileProgress, std::stop_token& stop,
                                      ScanProgress& progress) {
    SourceScanReport report;
    report.source = planned.source;
    report.roots = planned.roots;
    report.errors = planned.rootErrors;
    // A partial list must not pass for the whole: its errors also hold back a full rescan's
    // removals below.
    report.errors.insert(report.errors.end(), planned.listErrors.begin(), planned.listErrors.end());
    report.filesSeen = static_cast<int64_t>(planned.files.size());
    if (planned.roots.empty()) {
        report.status = SourceStatus::notInstalled;
        handleQuota(planned, report, progress, std::nullopt);
        return report;
    }

    const double startedAt = epochNow();
    const auto& reader = planned.reader;
    PriceTable prices;
    {
        std::lock_guard guard(stateMutex_);
        prices = prices_;
    }
    // Reading and committing overlap: this thread reads and parses while the committer writes
    // the share before. Each share carries whole files with their checkpoints, so every commit
    // leaves the ledger as a scan that stopped after those files would; a full rescan is one
    // share, since its removals need every file's usage in one run.
    // A full rescan is one share, so it has no earlier commit of this scan to know about.
    ShareCommitter committer(
        [&](PendingShare& share, ShareTally& tally) {
            commitShare(planned, settings, prices, startedAt, share, tally);
        },
        planned.firstImport && !force);
    PendingShare share;
    MergedEvents events;
    std::vector<UsageEvent> fileEvents;
    bool formatChanged = false;
    bool readFailed = false;
    std::set<std::pair<uint64_t, uint64_t>> identities;
    bool committerFailed = false;
    auto handOver = [&] {
        share.events = std::move(events.events());
        events.release();
        const bool accepted = committer.submit(std::move(share));
        share = PendingShare{};
        committerFailed = committerFailed || !accepted;
        return accepted;
    };

    for (std::size_t i = 0; i < planned.files.size(); ++i) {
        if (stop.stop_requested()) {
            break;
        }
        const auto& file = planned.files[i];
        std::optional<SourceCheckpoint> previous;
        if (planned.stored != nullptr) {
            if (auto it = planned.stored->find(SourceCheckpoint::stableIDFor(file));
                it != planned.stored->end()) {
                previous = it->second;
            }
        }
        FileReadDecision decision;
        if (reader.kind == SourceReaderKind::store) {
            decision.fileStamp = storeStamp(file);
            const bool sameParser = previous && previous->parserVersion == reader.parserVersion;
            decision.plan = !sameParser ? FileReadPlan::fromStart
                            : previous->fileStamp && previous->fileStamp == decision.fileStamp
                                ? FileReadPlan::skipUnchanged
                                : FileReadPlan::resume;
        } else {
            decision = decideFileRead(file, previous, reader.parserVersion);
        }
        // Two roots (or a link inside one) may lead to the same file: it is read once.
        if (decision.identity && !identities.insert(*decision.identity).second) {
            --report.filesSeen;
            onFileProgress(static_cast<int64_t>(i + 1), 0, planned.source);
            continue;
        }
        if (force) {
            decision.plan = FileReadPlan::fromStart;
        }
        if (decision.plan == FileReadPlan::skipUnchanged) {
            ++report.filesUnchanged;
            onFileProgress(static_cast<int64_t>(i + 1), 0, planned.source);
            continue;
        }
        if (decision.plan == FileReadPlan::fromStart) {
            previous.reset();
        }

        fileEvents.clear();
        SourceReadContext context;
        context.source = planned.source;
        context.file = file;
        context.checkpoint = std::move(previous);
        context.defaultModel = planned.defaultModel;
        // A file with more usage than a share is handed over in parts, each with the checkpoint
        // of a line, so that memory does not grow with the file. The part goes when the next
        // usage arrives: one that ended at the end of the file would only delay its last
        // checkpoint, which also says the file was read through.
        std::optional<SourceCheckpoint> partEnd;
        context.sink = [&](UsageEvent&& e) {
            if (partEnd) {
                for (auto& before : fileEvents) {
                    events.add(std::move(before));
                }
                fileEvents.clear();
                // The file goes on past this point: the next scan must read on, not skip it.
                partEnd->fileStamp.reset();
                share.checkpoints.push_back(std::move(*partEnd));
                partEnd.reset();
                handOver();
            }
            fileEvents.push_back(std::move(e));
        };
        if (!force) {
            context.wantsHandOver = [&] {
                return !partEnd && !committerFailed &&
                       events.events().size() + fileEvents.size() >= eventsPerShare_;
            };
            context.handOver = [&](SourceCheckpoint&& checkpoint) {
                partEnd = std::move(checkpoint);
            };
        }
        std::expected<IngestResult, FileError> result;
        try {
            result = reader.ingest(context);
        } catch (const std::exception& e) {
            // Readers report bad input as values; this is for what they did not foresee (memory
            // running out), which costs this file, not the scan.
            result = std::unexpected(FileError{file.string(), "read", 0, e.what()});
            fileEvents.clear();
        }
        onFileProgress(static_cast<int64_t>(i + 1), 0, planned.source);
        if (!result) {
            // Gone since discovery (an agent's clean-up): nothing to read, nothing lost.
            if (result.error().errorNumber == ENOENT) {
                ++report.filesVanished;
            } else {
                report.errors.push_back(result.error());
                readFailed = true;
            }
            continue;  // its old checkpoint stays: the file is tried again next time
        }
        if (decision.plan == FileReadPlan::fromStart) {
            ++report.filesFromStart;
        }
        ++report.filesRead;
        report.bytes += result->stats.bytes;
        report.lines += result->stats.lines;
        report.malformed += result->stats.malformed;
        formatChanged = formatChanged || result->formatChanged;
        // Readers that collect rather than stream hand their events back in the result.
        fileEvents.insert(fileEvents.end(), std::make_move_iterator(result->events.begin()),
                          std::make_move_iterator(result->events.end()));
        for (auto& e : fileEvents) {
            events.add(std::move(e));
        }
        // Several files may carry a quota reading; the newest one is the account's state.
        if (result->quota && (!share.quota || result->quota->fetchedAt >= share.quota->fetchedAt)) {
            share.quota = std::move(result->quota);
        }
        result->checkpoint.fileStamp = decision.fileStamp;
        share.checkpoints.push_back(std::move(result->checkpoint));
        if (!force && events.events().size() >= eventsPerShare_ && !handOver()) {
            break;  // the committer failed: reading on would be wasted
        }
    }
    report.events = events.produced();

    // The last share, unless the scan is being cancelled: then it is read again next time.
    // Nothing new and no rescan asked for: the ledger stays exactly as it was.
    const bool cancelled = stop.stop_requested();
    if (!cancelled && (!share.checkpoints.empty() || force)) {
        if (force) {
            // A full rescan removes what the files no longer prove; with a file unread that
            // would remove usage that is still there, so the commit then only adds.
            if (report.errors.empty()) {
                share.replacing = planned.source;
            } else {
                report.replaceWithheld = true;
            }
        }
        handOver();
    }
    if (cancelled) {
        committer.abandon();
    }
    ShareTally tally = committer.finish();
    // The checkpoints the ledger now holds, whatever happens next.
    auto& cached = checkpointCache_[planned.source];
    for (auto& checkpoint : tally.checkpoints) {
        auto id = checkpoint.stableID;
        cached.insert_or_assign(std::move(id), std::move(checkpoint));
    }
    if (tally.error) {
        checkpointCache_.erase(planned.source);  // what the ledger holds is read again
        std::rethrow_exception(tally.error);
    }
    progress.files += report.filesRead;
    progress.events += report.events;
    report.quotaSaved = tally.quotaSaved;
    progress.quotaChanged = progress.quotaChanged || tally.quotaSaved;
    if (cancelled) {
        throw ScanCancelled();  // what was committed stays; the rest is read again next time
    }
    report.committed = tally.committed;
    report.replaced = tally.replaced;
    if (tally.committed) {
        for (const auto& verdict : tally.verdicts) {
            ++(verdict.eligible ? report.counts.accepted : report.counts.rejected);
            report.counts.coverageIssues += verdict.findings;
        }
        report.counts.coverageIssues += tally.adapterIssues;
        report.counts.conflicts = tally.duplicateRuns;
    }
    if (report.counts.accepted > 0 || report.replaced) {
        progress.changed = true;
    }
    report.status = decideStatus(planned, report, formatChanged);
    if (readFailed) {
        report.status = SourceStatus::readError;
    }
    return report;
}

void Ingestor::commitShare(Planned& planned, const AppSettings& settings, const PriceTable& prices,
                           double startedAt, PendingShare& share, ShareTally& tally) {
    // The quota reading goes in before the commit that moves the checkpoints past the lines it
    // came from: stopped in between, the next scan reads those lines again and stores the same
    // reading, where in the other order the reading would be lost for good.
    if (share.quota) {
        SourceScanReport quotaReport;
        ScanProgress quotaProgress;
        handleQuota(planned, quotaReport, quotaProgress, share.quota);
        tally.quotaSaved = tally.quotaSaved || quotaReport.quotaSaved;
    }
    // Readers leave pricing and the privacy settings to this one place.
    for (auto& event : share.events) {
        event = finishEvent(std::move(event), settings, prices);
    }
    const double completedAt = epochNow();
    AdapterCheckpoint adapterCheckpoint;
    adapterCheckpoint.adapterID = std::string(rawValue(planned.source));
    adapterCheckpoint.parserVersion = planned.reader.parserVersion;
    adapterCheckpoint.updatedAt = completedAt;
    std::optional<UsageBatch> batch = UsageBatchBuilder::batch(
        UsageBatchBuilder::newRunID(adapterCheckpoint.adapterID, startedAt),
        adapterCheckpoint.adapterID, planned.source, share.events, startedAt, completedAt,
        settings.storeSession, adapterCheckpoint);
    // The batch holds everything the commit needs; the events would only double the peak.
    std::vector<UsageEvent>().swap(share.events);
    // A usage met in several shares is one observation: its counts follow its latest verdict,
    // as they would after one commit of the whole source.
    std::vector<ShareTally::Verdict> verdicts;
    verdicts.reserve(batch->observations.size());
    for (const auto& o : batch->observations) {
        const auto verdict = LedgerValidator::validate(o);
        verdicts.push_back({idHash(o.id), static_cast<int32_t>(verdict.findings.size()),
                            verdict.isLedgerEligible});
    }
    const auto byID = [](const ShareTally::Verdict& a, const ShareTally::Verdict& b) {
        return a.id < b.id;
    };
    std::ranges::stable_sort(verdicts, byID);
    std::function<bool(std::string_view)> mayHold;
    if (tally.trackIDs) {
        mayHold = [&known = tally.verdicts, byID](std::string_view id) {
            return std::ranges::binary_search(known, ShareTally::Verdict{idHash(id)}, byID);
        };
    }
    const auto outcome = store_.ingest({}, share.checkpoints, share.replacing, batch, mayHold);
    // Merged in place (the stable merge puts the later verdict of an id after the earlier
    // one), then only the last of each id is kept.
    auto& all = tally.verdicts;
    const auto before = static_cast<std::ptrdiff_t>(all.size());
    all.insert(all.end(), verdicts.begin(), verdicts.end());
    std::inplace_merge(all.begin(), all.begin() + before, all.end(), byID);
    std::size_t kept = 0;
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (i + 1 < all.size() && all[i + 1].id == all[i].id) {
            continue;
        }
        all[kept++] = all[i];
    }
    all.resize(kept);
    tally.committed = true;
    tally.replaced = tally.replaced || share.replacing.has_value();
    if (outcome) {
        tally.duplicateRuns += outcome->duplicateRun ? 1 : 0;
        tally.adapterIssues += static_cast<int64_t>(batch->coverageIssues.size());
    }
    for (auto& checkpoint : share.checkpoints) {
        tally.checkpoints.push_back(std::move(checkpoint));
    }
}

void Ingestor::handleQuota(Planned& planned, SourceScanReport& report, ScanProgress& progress,
                           const std::optional<AccountSnapshot>& found) {
    if (planned.roots.empty()) {
        // The agent is gone: a reading taken from its logs no longer describes an account.
        const auto stored = store_.quota(planned.source);
        if (stored && stored->provenance == QuotaProvenance::localSession &&
            store_.deleteQuota(planned.source)) {
            report.quotaRemoved = true;
            progress.quotaChanged = true;
        }
        return;
    }
    if (!found) {
        return;  // nothing read this time says anything new about the account
    }
    // A re-read of an old file must not replace a newer reading.
    const auto stored = store_.quota(planned.source);
    if (stored && stored->fetchedAt > found->fetchedAt) {
        return;
    }
    if (store_.saveQuota(*found)) {
        report.quotaSaved = true;
        progress.quotaChanged = true;
    }
}

SourceStatus Ingestor::decideStatus(const Planned& planned, const SourceScanReport& report,
                                    bool formatChanged) {
    if (formatChanged) {
        return SourceStatus::formatChanged;
    }
    if (!planned.rootErrors.empty()) {
        return SourceStatus::unauthorized;
    }
    for (const auto& error : planned.listErrors) {
        if (error.errorNumber == EACCES || error.errorNumber == EPERM) {
            return SourceStatus::unauthorized;  // a folder inside the agent's data is closed
        }
    }
    if (!planned.listErrors.empty()) {
        return SourceStatus::readError;
    }
    if (report.events > 0 || store_.hasLedgerEvents(planned.source)) {
        return SourceStatus::healthy;
    }
    return SourceStatus::authorizedEmpty;
}

std::map<AgentSource, SourceStatus> Ingestor::sourceStatus() const {
    std::lock_guard guard(stateMutex_);
    return sourceStatus_;
}

std::optional<SourceStatus> Ingestor::status(AgentSource source) const {
    std::lock_guard guard(stateMutex_);
    auto it = sourceStatus_.find(source);
    return it == sourceStatus_.end() ? std::nullopt : std::optional(it->second);
}

std::map<AgentSource, ScanIngestCounts> Ingestor::scanIngestCounts() const {
    std::lock_guard guard(stateMutex_);
    return scanIngestCounts_;
}

std::vector<SourceScanReport> Ingestor::lastReports() const {
    std::lock_guard guard(stateMutex_);
    return lastReports_;
}

void Ingestor::setPrices(PriceTable prices) {
    std::lock_guard guard(stateMutex_);
    prices_ = std::move(prices);
}

void Ingestor::setProgressReporter(FileProgress reporter) {
    std::lock_guard guard(stateMutex_);
    progressReporter_ = std::move(reporter);
}

void Ingestor::setEventsPerCommit(std::size_t events) {
    eventsPerShare_ = std::max<std::size_t>(events, 1);
}

void Ingestor::setPaused(bool paused) {
    paused_ = paused;
}

}  // namespace kestrel
