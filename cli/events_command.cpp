#include "cli/events_command.hpp"

#include <fmt/format.h>

#include <ctime>
#include <nlohmann/json.hpp>

#include "cli/claude_collection.hpp"
#include "cli/cli.hpp"
#include "cli/local_time.hpp"
#include "cli/text_table.hpp"

namespace kestrel::cli {
namespace {

std::string shortSession(const std::string& session) {
    return session.size() > 8 ? session.substr(0, 8) : session;
}

void printErrors(CommandContext& ctx, const CollectionStats& stats) {
    for (const auto& error : stats.errors) {
        ctx.err << "kestrel: " << error.description() << '\n';
    }
}

std::string countsLine(const CollectionStats& stats) {
    std::string line =
        fmt::format("{}, {}, {}, {} skipped", counted(stats.files, "file", "files"),
                    counted(stats.lines, "line", "lines"), counted(stats.events, "event", "events"),
                    counted(stats.malformed, "malformed line", "malformed lines"));
    if (!stats.errors.empty()) {
        line +=
            fmt::format(", {} unreadable", counted(int64_t(stats.errors.size()), "file", "files"));
    }
    return line;
}

}  // namespace

int runEvents(CommandContext& ctx, bool json) {
    ProgressLine progress(ctx.err, ctx.errIsTerminal);
    auto onProgress = [&](std::size_t done, std::size_t total, const std::filesystem::path&) {
        progress.update(done, total);
    };

    CollectionStats stats;
    if (json) {
        stats = collectClaude(
            ctx.home, ctx.env, ctx.settings,
            [&](UsageEvent&& e) {
                ctx.out << nlohmann::ordered_json(e).dump(-1, ' ', false,
                                                          nlohmann::json::error_handler_t::replace)
                        << '\n';
            },
            onProgress);
        progress.clear();
        printErrors(ctx, stats);
        ctx.err << countsLine(stats) << '\n';
        return stats.errors.empty() ? kExitOK : kExitPartial;
    }

    TextTable table({{"Time"},
                     {"Session"},
                     {"Model"},
                     {"Input", Align::right},
                     {"Cache read", Align::right},
                     {"Cache write", Align::right},
                     {"Output", Align::right},
                     {"Total", Align::right},
                     {"Project"}});
    stats = collectClaude(
        ctx.home, ctx.env, ctx.settings,
        [&](UsageEvent&& e) {
            table.addRow(
                {formatLocal(e.occurredAt, "%Y-%m-%d %H:%M:%S"), shortSession(e.sessionID), e.model,
                 groupedNumber(e.exclusive.inputUncached), groupedNumber(e.exclusive.cacheRead),
                 groupedNumber(e.exclusive.cacheWrite), groupedNumber(e.exclusive.outputVisible),
                 groupedNumber(e.exclusive.billedTokens()), e.projectDisplayName.value_or("")});
        },
        onProgress);
    progress.clear();
    printErrors(ctx, stats);
    if (table.empty()) {
        ctx.out << (stats.roots.empty()
                        ? "No Claude Code data folder found below " + ctx.home.string() + ".\n"
                        : std::string("No usage found in the Claude Code transcripts.\n"));
    } else {
        table.render(ctx.out, ctx.colour);
    }
    ctx.out << countsLine(stats) << '\n';
    return stats.errors.empty() ? kExitOK : kExitPartial;
}

}  // namespace kestrel::cli
