#include "cli/claude_scan.hpp"

#include <chrono>
#include <map>

#include "core/ledger/usage_batch_builder.hpp"
#include "core/sources/checkpoint_reuse.hpp"

namespace kestrel::cli {
namespace {

double wallClock() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

ScanReport scanClaude(UsageStore& store, const std::filesystem::path& home,
                      const EnvironmentLookup& env, const AppSettings& settings,
                      const PriceTable& prices, bool force, const ProgressCallback& progress) {
    const double startedAt = wallClock();
    ScanReport report;
    report.roots = AgentCatalog::installedRoots(AgentSource::claude, home, env);
    const auto files = discoverClaudeTranscripts(report.roots);
    report.filesSeen = static_cast<int64_t>(files.size());

    std::map<std::string, SourceCheckpoint> stored;
    for (auto& cp : store.checkpoints(AgentSource::claude)) {
        stored.emplace(cp.stableID, std::move(cp));
    }

    std::vector<UsageEvent> events;
    std::vector<SourceCheckpoint> checkpoints;
    for (std::size_t i = 0; i < files.size(); ++i) {
        if (progress) {
            progress(i, files.size(), files[i]);
        }
        const auto stableID = std::filesystem::absolute(files[i]).lexically_normal().string();
        std::optional<SourceCheckpoint> previous;
        if (auto it = stored.find(stableID); it != stored.end()) {
            previous = it->second;
        }
        FileReadDecision decision =
            force ? FileReadDecision{FileReadPlan::fromStart, 0, fileStamp(files[i]), "forced"}
                  : decideFileRead(files[i], previous, ClaudeParser::parserVersion);
        if (decision.plan == FileReadPlan::skipUnchanged) {
            ++report.filesUnchanged;
            continue;
        }
        if (decision.plan == FileReadPlan::fromStart) {
            ++report.filesFromStart;
            previous.reset();
        }
        auto result = ClaudeParser::ingest(files[i], previous, settings, prices,
                                           [&](UsageEvent&& e) { events.push_back(std::move(e)); });
        if (!result) {
            report.errors.push_back(result.error());
            continue;  // the old checkpoint stays: the file is tried again next time
        }
        ++report.filesRead;
        report.bytes += result->stats.bytes;
        report.lines += result->stats.lines;
        report.malformed += result->stats.malformed;
        result->checkpoint.fileStamp = decision.fileStamp;
        checkpoints.push_back(std::move(result->checkpoint));
    }
    if (progress) {
        progress(files.size(), files.size(), {});
    }
    report.events = static_cast<int64_t>(events.size());

    // Nothing new and no rescan asked for: the ledger stays exactly as it was.
    if (checkpoints.empty() && !force) {
        return report;
    }
    const double completedAt = wallClock();
    AdapterCheckpoint adapterCheckpoint;
    adapterCheckpoint.adapterID = "claude";
    adapterCheckpoint.parserVersion = ClaudeParser::parserVersion;
    adapterCheckpoint.updatedAt = completedAt;
    const auto batch = UsageBatchBuilder::batch(
        UsageBatchBuilder::newRunID("claude", startedAt), "claude", AgentSource::claude, events,
        startedAt, completedAt, settings.storeSession, adapterCheckpoint);
    report.outcome = store.ingest({}, checkpoints,
                                  force ? std::optional(AgentSource::claude) : std::nullopt, batch);
    return report;
}

}  // namespace kestrel::cli
