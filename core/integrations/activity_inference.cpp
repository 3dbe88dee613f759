#include "core/integrations/activity_inference.hpp"

#include <algorithm>
#include <map>

#include "core/integrations/live_agent_hub.hpp"
#include "core/integrations/plugin_registry.hpp"
#include "core/ledger/file_watcher.hpp"

namespace kestrel {

namespace fs = std::filesystem;

namespace {

// A database's journal files are written with it; they stand for the database itself.
std::string withoutJournalSuffix(std::string path) {
    for (std::string_view suffix : {"-wal", "-shm", "-journal"}) {
        if (path.ends_with(suffix)) {
            path.resize(path.size() - suffix.size());
            break;
        }
    }
    return path;
}

bool isDatabase(std::string_view path) {
    for (std::string_view ext : {".sqlite", ".sqlite3", ".db", ".vscdb"}) {
        if (path.ends_with(ext)) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::vector<ActivityRoot> activityRoots(const fs::path& home, const EnvironmentLookup& env) {
    std::vector<ActivityRoot> out;
    for (auto source : allAgentSources()) {
        const auto descriptor = PluginRegistry::builtInDescriptor(source);
        if (!descriptor ||
            (!descriptor->activityEvidence.contains(ActivityEvidenceKind::filesystem) &&
             !descriptor->activityEvidence.contains(ActivityEvidenceKind::productDatabase))) {
            continue;
        }
        const auto entry = AgentCatalog::spec(source, home, env);
        if (!entry) {
            continue;
        }
        for (const auto& root : entry->roots) {
            out.push_back({source, root.lexically_normal().string()});
        }
    }
    return out;
}

std::vector<ActivitySignal> inferredSignals(std::span<const std::string> paths,
                                            std::span<const ActivityRoot> roots, double now,
                                            std::string_view salt) {
    // One signal per session even when a batch names a file and its journal.
    std::map<std::pair<AgentSource, std::string>, ActivitySignal> bySession;
    for (const auto& path : paths) {
        const ActivityRoot* owner = nullptr;
        for (const auto& r : roots) {
            if (FileWatcher::isAtOrBelow(path, r.root) &&
                (!owner || r.root.size() > owner->root.size())) {
                owner = &r;
            }
        }
        if (!owner) {
            continue;
        }
        std::error_code ec;
        if (!fs::is_regular_file(fs::symlink_status(path, ec))) {
            continue;  // a folder appearing or a file removed is no sign of work
        }
        const auto descriptor = PluginRegistry::builtInDescriptor(owner->source);
        const std::string sessionPath = withoutJournalSuffix(path);
        auto evidence = isDatabase(sessionPath) ? ActivityEvidenceKind::productDatabase
                                                : ActivityEvidenceKind::filesystem;
        if (descriptor && !descriptor->activityEvidence.contains(evidence)) {
            evidence = ActivityEvidenceKind::filesystem;
            if (!descriptor->activityEvidence.contains(evidence)) {
                continue;
            }
        }
        ActivitySignal s;
        s.source = owner->source;
        s.sessionKey = ActivitySessionKeyHasher::hash(sessionPath, owner->source, salt);
        s.state = ActivityState::inferredWorking;
        s.evidence = evidence;
        s.precision = ActivityPrecision::inferred;
        s.updatedAt = now;
        bySession[{s.source, s.sessionKey}] = std::move(s);
    }
    std::vector<ActivitySignal> out;
    for (auto& [key, s] : bySession) {
        out.push_back(std::move(s));
    }
    return out;
}

}  // namespace kestrel
