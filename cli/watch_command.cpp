#include "cli/watch_command.hpp"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/local_time.hpp"
#include "cli/session_access.hpp"
#include "cli/text_table.hpp"
#include "core/app/usage_watch.hpp"
#include "core/model/timestamp.hpp"

namespace kestrel::cli {
namespace {

// One line per commit that added usage to the ledger (or saved a quota reading).
void printCommit(CommandContext& ctx, const CommitNotice& c, bool json) {
    if (json) {
        nlohmann::ordered_json j;
        j["time"] = c.at;
        j["source"] = std::string(rawValue(c.source));
        j["events"] = c.eventsAdded;
        j["accepted"] = c.counts.accepted;
        j["rejected"] = c.counts.rejected;
        j["quotaSaved"] = c.quotaSaved;
        j["todayCostUSDMicros"] = c.todayCostUSDMicros.value_or(0);
        ctx.out << j.dump() << std::endl;
        return;
    }
    ctx.out << fmt::format("{}  {}  +{}  today {}{}", formatLocal(c.at, "%H:%M:%S"),
                           displayName(c.source), counted(c.eventsAdded, "event", "events"),
                           todaysCost(c.todayCostUSDMicros),
                           c.quotaSaved ? "  (quota updated)" : "")
            << std::endl;
}

}  // namespace

int runWatch(CommandContext& ctx, const WatchOptions& options, bool json, std::stop_token stop,
             const std::function<void()>& onReady) {
    auto only = parseSources(ctx, options.sources);
    if (!only) {
        return kExitUsage;
    }
    auto session = openSession(ctx);
    if (!session) {
        return kExitFailure;
    }
    WatchCallbacks callbacks;
    callbacks.onCommit = [&](const CommitNotice& c) { printCommit(ctx, c, json); };
    // A locked or busy ledger is retried with the next change; the watch goes on.
    callbacks.onScanError = [&](const std::string& message) {
        ctx.err << "kestrel: " << formatLocal(epochNow(), "%H:%M:%S")
                << " the scan could not be saved: " << message << '\n';
    };
    auto& watch = session->watch(kestrel::WatchOptions{*only}, std::move(callbacks));
    // Started before the first scan, so that nothing written during it goes unnoticed.
    if (auto started = watch.start(); !started) {
        ctx.err << "kestrel: cannot watch the agents' folders: " << started.error() << '\n';
        return kExitFailure;
    }

    ProgressLine progress(ctx.err, ctx.errIsTerminal);
    ScanCallbacks first;
    first.onFileProgress = [&](int64_t done, int64_t total, std::optional<AgentSource> source) {
        progress.update(static_cast<std::size_t>(done), static_cast<std::size_t>(total),
                        source ? displayName(*source) : "records");
    };
    const auto scanned = watch.scanNow(first, stop);
    progress.clear();
    if (!scanned) {
        if (scanned.error().kind == ScanFailure::Kind::cancelled) {
            return kExitOK;  // stopped while scanning: what was committed stays
        }
        ctx.err << "kestrel: the scan could not be saved: " << scanned.error().message << '\n';
        return kExitFailure;
    }
    const auto present = static_cast<int64_t>(watch.presentFolderCount());
    // With --json the standard output carries only the commit lines.
    (json ? ctx.err : ctx.out)
        << fmt::format("Watching {} below {} (and {} more where agents may appear); Ctrl-C stops.",
                       counted(present, "agent folder", "agent folders"), ctx.home.string(),
                       static_cast<int64_t>(watch.folderCount()) - present)
        << std::endl;
    if (onReady) {
        onReady();
    }
    if (watch.run(stop) == UsageWatch::End::watcherFailed) {
        ctx.err << "kestrel: the file watcher stopped unexpectedly; run `kestrel watch` again\n";
        return kExitFailure;
    }
    return kExitOK;  // the session stops the watcher before the ledger closes
}

int runWatchUntilSignalled(CommandContext& ctx, const WatchOptions& options, bool json) {
    return runUntilSignalled(
        [&](std::stop_token stop) { return runWatch(ctx, options, json, stop); });
}

}  // namespace kestrel::cli
