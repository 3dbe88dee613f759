#pragma once
// Activity read from the agents' own records changing: a transcript growing or a database being
// written while an agent without hooks works. The file watcher already reports those paths for
// the ledger; here they become inferred signals, one session per file (a database and its
// journal files count as one).

#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/integrations/activity_coordinator.hpp"
#include "core/sources/agent_catalog.hpp"

namespace kestrel {

struct ActivityRoot {
    AgentSource source = AgentSource::claude;
    std::string root;  // lexically normal, absolute
    bool operator==(const ActivityRoot&) const = default;
};

// The data roots of every source whose plug-in can show activity from its files or database.
std::vector<ActivityRoot> activityRoots(const std::filesystem::path& home,
                                        const EnvironmentLookup& env = emptyEnvironment());

// One inferred signal per changed regular file below a root (the deepest root wins when roots
// nest); folders, vanished files, configuration and plug-in files (settings, sign-ins, hooks)
// and paths outside every root give none. The session key is the
// file's path digested with `salt`, so the path itself is never kept.
std::vector<ActivitySignal> inferredSignals(std::span<const std::string> paths,
                                            std::span<const ActivityRoot> roots, double now,
                                            std::string_view salt);

// Regular files below the roots changed within `window` seconds before `now`, for a one-off
// look without a watcher. At most `maxEntries` folder entries are looked at in all, so a huge
// tree costs a bounded walk (and may then miss a change).
std::vector<std::string> recentlyChangedFiles(std::span<const ActivityRoot> roots, double now,
                                              double window, std::size_t maxEntries = 20'000);

}  // namespace kestrel
