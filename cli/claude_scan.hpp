#pragma once
// `kestrel scan` for Claude Code: reads each transcript from its stored checkpoint (or skips it
// when its stamp is unchanged), prices the events, and commits them with the new checkpoints as
// one batch. A thin path that the full ingestor will replace.

#include <cstdint>
#include <filesystem>
#include <optional>

#include "cli/claude_collection.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/pricing/price_table.hpp"

namespace kestrel::cli {

struct ScanReport {
    AgentSource source = AgentSource::claude;
    std::vector<std::filesystem::path> roots;
    int64_t filesSeen = 0;
    int64_t filesRead = 0;
    int64_t filesUnchanged = 0;  // skipped without opening: same size and mtime as last time
    int64_t filesFromStart = 0;  // read again from their start (new, replaced, rewritten, ...)
    int64_t bytes = 0;
    int64_t lines = 0;
    int64_t events = 0;
    int64_t malformed = 0;
    std::vector<FileError> errors;
    std::optional<LedgerIngestOutcome> outcome;  // absent when nothing needed committing
};

ScanReport scanClaude(UsageStore& store, const std::filesystem::path& home,
                      const EnvironmentLookup& env, const AppSettings& settings,
                      const PriceTable& prices, bool force, const ProgressCallback& progress = {});

}  // namespace kestrel::cli
