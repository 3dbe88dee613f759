#include "core/integrations/activity_inference.hpp"

#include <algorithm>
#include <array>
#include <chrono>
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

// Settings, sign-ins and plug-ins live in the same folders as the records but change for other
// reasons (a login refreshed, our own hooks installed); they say nothing about work.
bool isConfiguration(const fs::path& path) {
    static constexpr std::array<std::string_view, 11> kNames = {
        "settings.json", "settings.local.json", "hooks.json",       "config.json",
        "config.toml",   "auth.json",           "credentials.json", ".credentials.json",
        "kestrel.json",  "kestrel.js",          "kestrel.ts"};
    const auto name = path.filename().string();
    if (std::ranges::find(kNames, name) != kNames.end() || name.ends_with(".toml") ||
        name.ends_with(".lock") || name.ends_with(".tmp")) {
        return true;
    }
    for (const auto& part : path.parent_path()) {
        const auto folder = part.string();
        if (folder == "hooks" || folder == "extensions" || folder == "plugins" ||
            folder == "plugin") {
            return true;
        }
    }
    return false;
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
        if (!fs::is_regular_file(fs::symlink_status(path, ec)) ||
            isConfiguration(fs::path(path).lexically_relative(owner->root))) {
            continue;  // a folder appearing, a file removed or a setting changed is no work
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

std::vector<std::string> recentlyChangedFiles(std::span<const ActivityRoot> roots, double now,
                                              double window, std::size_t maxEntries) {
    std::vector<std::string> out;
    std::size_t looked = 0;
    for (const auto& r : roots) {
        std::error_code ec;
        // Symlinks are not followed: a link to / in an agent's folder must not send us off.
        for (fs::recursive_directory_iterator
                 it(r.root, fs::directory_options::skip_permission_denied, ec),
             end;
             !ec && it != end && looked < maxEntries; it.increment(ec)) {
            ++looked;
            std::error_code statError;
            if (it->symlink_status(statError).type() != fs::file_type::regular) {
                continue;
            }
            const auto modified = it->last_write_time(statError);
            if (statError) {
                continue;
            }
            const double t = std::chrono::duration<double>(
                                 std::chrono::file_clock::to_sys(modified).time_since_epoch())
                                 .count();
            if (t >= now - window && t <= now + window) {
                out.push_back(it->path().string());
            }
        }
    }
    return out;
}

}  // namespace kestrel
