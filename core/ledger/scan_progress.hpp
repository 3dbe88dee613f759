#pragma once
// What a scan reports: the totals of the scan, and per source what its files and its commit
// came to.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/model/agent_source.hpp"
#include "core/model/usage_enums.hpp"
#include "core/sources/file_error.hpp"

namespace kestrel {

// The counts of the last ledger commit of one source.
struct ScanIngestCounts {
    int64_t accepted = 0;        // observations that are ledger events
    int64_t rejected = 0;        // observations the validator kept out of the ledger
    int64_t conflicts = 0;       // runs already committed before (nothing written again)
    int64_t coverageIssues = 0;  // validation findings raised

    bool operator==(const ScanIngestCounts&) const = default;
};

struct ScanProgress {
    int64_t files = 0;   // files read (unchanged files skipped unopened are not counted)
    int64_t events = 0;  // usage events the readers produced
    std::optional<AgentSource> source;
    bool changed = false;       // anything was written to the ledger
    bool quotaChanged = false;  // a quota reading was saved or removed
    int64_t pendingPlanReviewCount = 0;
    std::optional<std::string> pendingPlanReviewBatchID;

    bool operator==(const ScanProgress&) const = default;
};

// One source's part of a scan, for the scan summary a person reads.
struct SourceScanReport {
    AgentSource source = AgentSource::claude;
    SourceStatus status = SourceStatus::notInstalled;
    std::vector<std::filesystem::path> roots;  // installed roots
    int64_t filesSeen = 0;
    int64_t filesRead = 0;
    int64_t filesUnchanged = 0;  // skipped unopened: same size and mtime as at the last read
    int64_t filesFromStart = 0;  // read again from their start (new, replaced, rewritten, ...)
    int64_t filesVanished = 0;   // gone between discovery and reading
    int64_t bytes = 0;
    int64_t lines = 0;
    int64_t events = 0;
    int64_t malformed = 0;
    bool committed = false;        // a commit ran for this source
    bool replaced = false;         // committed as a full rescan (usage no longer proven removed)
    bool replaceWithheld = false;  // --force asked, but a file failed: plain upsert instead
    ScanIngestCounts counts;       // of this scan's commit (zero when none ran)
    bool quotaSaved = false;
    bool quotaRemoved = false;
    std::vector<FileError> errors;  // files (or roots) that could not be read

    bool operator==(const SourceScanReport&) const = default;
};

}  // namespace kestrel
