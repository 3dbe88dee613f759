#include "core/app/usage_scan.hpp"

#include <algorithm>
#include <chrono>

#include "core/app/plan_service.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel {

bool ScanOutcome::hadReadErrors() const {
    return std::ranges::any_of(sources, [](const auto& r) { return !r.errors.empty(); });
}

bool ScanOutcome::incomplete() const {
    return hadReadErrors() || std::ranges::any_of(sources, [](const auto& r) {
               return r.status == SourceStatus::formatChanged ||
                      r.status == SourceStatus::unauthorized;
           });
}

std::expected<ScanOutcome, ScanFailure> scanUsage(AppSession& session, const ScanRequest& request,
                                                  const ScanCallbacks& callbacks,
                                                  std::stop_token stop) {
    const auto started = std::chrono::steady_clock::now();
    ScanOutcome outcome;
    try {
        outcome.totals = session.ingestor().scan(session.paths().home, session.settings(),
                                                 request.sources, request.force,
                                                 callbacks.onFileProgress,
                                                 callbacks.onSourceDone, std::move(stop));
    } catch (const ScanCancelled&) {
        return std::unexpected(ScanFailure{ScanFailure::Kind::cancelled, {}});
    } catch (const std::exception& e) {
        return std::unexpected(ScanFailure{ScanFailure::Kind::commitFailed, e.what()});
    }
    outcome.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    outcome.sources = session.ingestor().lastReports();
    if (request.discoverPlans) {
        try {
            if (const auto review = discoverPlans(session)) {
                outcome.totals.pendingPlanReviewCount =
                    static_cast<int64_t>(review->rows.size());
                if (!review->batchID.empty()) {
                    outcome.totals.pendingPlanReviewBatchID = review->batchID;
                }
            }
        } catch (const std::exception&) {
            // The usage is committed; an unreadable candidate table must not turn that into a
            // failed scan. The next discovery tries again.
        }
    }
    return outcome;
}

std::vector<AgentSource> scannableSources(const AppPaths& paths) {
    return Ingestor::scannableSources(paths.home, paths.env);
}

SearchedFolders searchedFolders(const AppPaths& paths, std::size_t namedAgents) {
    SearchedFolders out;
    const auto sources = scannableSources(paths);
    for (std::size_t i = 0; i < std::min(sources.size(), namedAgents); ++i) {
        if (const auto spec = AgentCatalog::spec(sources[i], paths.home, paths.env)) {
            out.folders.insert(out.folders.end(), spec->roots.begin(), spec->roots.end());
        }
    }
    out.moreAgents = sources.size() > namedAgents ? sources.size() - namedAgents : 0;
    return out;
}

std::vector<AgentSource> installedWithoutReader(const AppPaths& paths) {
    std::vector<AgentSource> out;
    for (auto s : allAgentSources()) {
        if (!SourceReaders::reader(s) &&
            !AgentCatalog::installedRoots(s, paths.home, paths.env).empty()) {
            out.push_back(s);
        }
    }
    return out;
}

std::expected<std::optional<std::set<AgentSource>>, SourceChoiceError> chooseSources(
    const AppPaths& paths, const std::vector<std::string>& names) {
    if (names.empty()) {
        return std::optional<std::set<AgentSource>>();
    }
    const auto readable = scannableSources(paths);
    std::set<AgentSource> out;
    for (const auto& name : names) {
        const auto found = agentSourceNamed(name);
        if (!found) {
            const auto all = allAgentSources();
            return std::unexpected(SourceChoiceError{SourceChoiceError::Kind::unknown, name,
                                                     std::nullopt, {all.begin(), all.end()}});
        }
        // Account services (usage read from a provider's site) keep nothing on this machine.
        if (std::ranges::find(readable, *found) == readable.end()) {
            return std::unexpected(
                SourceChoiceError{SourceChoiceError::Kind::notReadable, name, *found, readable});
        }
        out.insert(*found);
    }
    return std::optional<std::set<AgentSource>>(std::move(out));
}

std::vector<AgentSource> switchedOffSources(AppSession& session,
                                            const std::set<AgentSource>& sources) {
    std::vector<AgentSource> out;
    for (auto s : sources) {
        if (!session.integrations().canRun(IntegrationCapability::usageImport, s)) {
            out.push_back(s);
        }
    }
    return out;
}

std::vector<std::pair<AgentSource, int64_t>> ledgerEventsAtStake(
    AppSession& session, const std::optional<std::set<AgentSource>>& sources) {
    std::vector<std::pair<AgentSource, int64_t>> out;
    for (const auto& [source, summary] : session.store().ledgerSummariesBySource({})) {
        if (!sources || sources->contains(source)) {
            out.emplace_back(source, summary.eventCount);
        }
    }
    return out;
}

}  // namespace kestrel
