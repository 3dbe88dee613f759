#pragma once
// Reading what is new in the agents' records into the ledger: a scan of every source or of some,
// with progress and cancellation, and the choices that come before one (which sources a name
// means, what a full rescan puts at stake).
//
// A scan may run on a worker thread while other threads read reports from the same session:
// the ingestor runs one scan at a time (a second caller waits), and readers of the ledger see
// each source's commit whole or not at all.

#include <cstdint>
#include <expected>
#include <optional>
#include <set>
#include <stop_token>
#include <string>
#include <vector>

#include "core/app/app_session.hpp"
#include "core/ledger/scan_progress.hpp"

namespace kestrel {

struct ScanRequest {
    std::optional<std::set<AgentSource>> sources;  // absent: every source the user has on
    // Read every file from its start and replace each source's ledger by what its files still
    // prove (usage whose records are gone is removed).
    bool force = false;
    // Also run plan discovery at the end, filling totals.pendingPlanReviewCount and
    // pendingPlanReviewBatchID. A discovery that fails leaves the scan's result as it is.
    bool discoverPlans = false;
};

struct ScanCallbacks {
    Ingestor::FileProgress onFileProgress;  // (files done, files in all, source in hand)
    Ingestor::SourceDone onSourceDone;      // after each source's commit
};

struct ScanOutcome {
    ScanProgress totals;
    std::vector<SourceScanReport> sources;  // in scan order
    double seconds = 0;                     // wall time of the scan

    // Some file or folder could not be read (the rest was).
    bool hadReadErrors() const;
    // As hadReadErrors, or some agent's records no longer read as expected, or its folder is
    // closed to us: the numbers may be short.
    bool incomplete() const;
};

struct ScanFailure {
    enum class Kind { cancelled, commitFailed };
    Kind kind = Kind::commitFailed;
    std::string message;  // the cause, for commitFailed
};

// One scan with the session's current settings and prices. A cancelled scan (stop requested)
// keeps what was committed before it stopped; a failed commit leaves that source's
// checkpoints where they were, so the next scan reads it again.
std::expected<ScanOutcome, ScanFailure> scanUsage(AppSession& session, const ScanRequest& request,
                                                  const ScanCallbacks& callbacks = {},
                                                  std::stop_token stop = {});

// The sources a scan can read at all: a catalogue entry and a reader.
std::vector<AgentSource> scannableSources(const AppPaths& paths);

// Where a scan looks, for telling a person with an empty ledger: the folders of the first
// `namedAgents` scannable agents, and how many agents more were looked for.
struct SearchedFolders {
    std::vector<std::filesystem::path> folders;
    std::size_t moreAgents = 0;
};
SearchedFolders searchedFolders(const AppPaths& paths, std::size_t namedAgents = 2);

// Installed agents whose records Kestrel cannot read yet.
std::vector<AgentSource> installedWithoutReader(const AppPaths& paths);

struct SourceChoiceError {
    enum class Kind {
        unknown,      // no agent has this name
        notReadable,  // an account read online: nothing on this machine to scan
    };
    Kind kind = Kind::unknown;
    std::string name;                    // as given
    std::optional<AgentSource> source;   // notReadable only
    std::vector<AgentSource> accepted;   // every known source, or the readable ones
};

// The sources `names` mean (raw values or display names, any case); absent for no names at
// all (every source).
std::expected<std::optional<std::set<AgentSource>>, SourceChoiceError> chooseSources(
    const AppPaths& paths, const std::vector<std::string>& names);

// Of `sources`, those the user has switched off (their records are not read).
std::vector<AgentSource> switchedOffSources(AppSession& session,
                                            const std::set<AgentSource>& sources);

// What a full rescan of `sources` (absent: all) puts at stake: the ledger's events per source.
std::vector<std::pair<AgentSource, int64_t>> ledgerEventsAtStake(
    AppSession& session, const std::optional<std::set<AgentSource>>& sources);

}  // namespace kestrel
