#pragma once

#include <functional>
#include <stop_token>
#include <string>
#include <vector>

#include "cli/command_context.hpp"

namespace kestrel::cli {

struct WatchOptions {
    std::vector<std::string> sources;  // only these (names as for scan); empty: every source
};

// `kestrel watch`: a first scan, then a scan of the sources concerned by every batch of changes
// below the agents' folders, printing one line per commit that added events to the ledger (or
// saved a quota reading). Runs until `stop` is requested; `onReady` is called once the watcher is
// running. The watcher is stopped before the ledger closes, and a scan in progress is cancelled
// between files, so nothing is half-committed.
int runWatch(CommandContext& ctx, const WatchOptions& options, bool json, std::stop_token stop,
             const std::function<void()>& onReady = {});

// As above, stopped by SIGINT or SIGTERM.
int runWatchUntilSignalled(CommandContext& ctx, const WatchOptions& options, bool json);

}  // namespace kestrel::cli
