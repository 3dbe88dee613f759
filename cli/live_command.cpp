#include "cli/live_command.hpp"

#include <fmt/format.h>

#include <expected>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "cli/cli.hpp"
#include "cli/local_time.hpp"
#include "cli/session_access.hpp"
#include "cli/text_table.hpp"
#include "core/app/live_activity.hpp"
#include "core/model/timestamp.hpp"

namespace kestrel::cli {
namespace {

using Json = nlohmann::ordered_json;

struct LiveSession {
    std::unique_ptr<AppSession> app;
    Texts text;
    bool projectsAllowed = false;
    std::unique_ptr<LiveActivity> live;  // holds a mutex: not movable itself
};

std::expected<LiveSession, int> openLive(CommandContext& ctx, const LiveOptions& options) {
    auto opened = openTextSession(ctx, options.language);
    if (!opened) {
        return std::unexpected(opened.error());
    }
    LiveSession s;
    s.app = std::move(opened->app);
    s.text = opened->text;
    const auto settings = s.app->settings();
    s.projectsAllowed = settings.storeProject;
    s.live = std::make_unique<LiveActivity>(s.app->paths(), settings);
    return s;
}

// "1h 02m", "3m 05s", "42s".
std::string elapsedText(double seconds) {
    const auto total = static_cast<long long>(std::max(0.0, seconds));
    const long long hours = total / 3600, minutes = total % 3600 / 60, secs = total % 60;
    if (hours > 0) {
        return fmt::format("{}h {:02}m", hours, minutes);
    }
    if (minutes > 0) {
        return fmt::format("{}m {:02}s", minutes, secs);
    }
    return fmt::format("{}s", secs);
}

std::string stateKey(ActivityState state) {
    return "live.state." + std::string(rawValue(state));
}

Json sessionJSON(const ActivitySession& s, double now, bool projectsAllowed) {
    Json evidence = Json::array();
    for (auto kind : s.evidence) {
        evidence.push_back(rawValue(kind));
    }
    Json j;
    j["agent"] = rawValue(s.source);
    j["agentName"] = displayName(s.source);
    if (projectsAllowed) {
        j["project"] = s.projectDisplayName ? Json(*s.projectDisplayName) : Json(nullptr);
    }
    j["state"] = rawValue(s.state);
    j["precision"] = rawValue(s.precision);
    j["evidence"] = evidence;
    j["sessionKey"] = s.sessionKey;
    j["startedAt"] = s.startedAt;
    j["updatedAt"] = s.updatedAt;
    j["completedAt"] = s.completedAt ? Json(*s.completedAt) : Json(nullptr);
    j["elapsedSeconds"] = s.elapsed(now);
    return j;
}

std::string noticeText(const LiveSession& session, const ActivityNotice& n) {
    const std::string project =
        n.projectDisplayName ? session.text("live.inProject", {{"project", *n.projectDisplayName}})
                             : std::string();
    return session.text("live.notice." + std::string(rawValue(n.kind)),
                        {{"agent", std::string(displayName(n.source))},
                         {"project", project},
                         {"elapsed", elapsedText(n.elapsed)}});
}

}  // namespace

int runLive(CommandContext& ctx, const LiveOptions& options, bool json) {
    auto session = openLive(ctx, options);
    if (!session) {
        return session.error();
    }
    const double now = epochNow();
    // Hooked agents first, so that their files changing adds no inferred session beside them.
    session->live->refresh(now);
    session->live->observeRecentFiles(now);
    const auto view = session->live->view(now);
    if (json) {
        Json sessions = Json::array();
        for (const auto& s : view.sessions) {
            sessions.push_back(sessionJSON(s, now, session->projectsAllowed));
        }
        Json processing = Json::array();
        for (auto source : view.processing) {
            processing.push_back(rawValue(source));
        }
        Json j;
        j["at"] = now;
        j["sessions"] = sessions;
        j["processing"] = processing;
        j["skippedPulseFiles"] = view.skippedPulseFiles;
        ctx.out << j.dump(2) << '\n';
        return kExitOK;
    }
    if (view.sessions.empty()) {
        ctx.out << session->text("live.none") << '\n';
        return kExitOK;
    }
    std::vector<Column> columns = {{session->text("live.column.agent")}};
    if (session->projectsAllowed) {
        columns.push_back({session->text("live.column.project")});
    }
    columns.push_back({session->text("live.column.state")});
    columns.push_back({session->text("live.column.elapsed"), Align::right});
    TextTable table(std::move(columns));
    for (const auto& s : view.sessions) {
        std::vector<std::string> row = {std::string(displayName(s.source))};
        if (session->projectsAllowed) {
            row.push_back(s.projectDisplayName.value_or("-"));
        }
        row.push_back(session->text(stateKey(s.state)));
        row.push_back(elapsedText(s.elapsed(now)));
        table.addRow(std::move(row));
    }
    table.render(ctx.out, ctx.colour);
    if (view.skippedPulseFiles > 0) {
        ctx.err << session->text("live.skipped",
                                 {{"count", std::to_string(view.skippedPulseFiles)}})
                << '\n';
    }
    return kExitOK;
}

int runLiveFollow(CommandContext& ctx, const LiveOptions& options, bool json, std::stop_token stop,
                  const std::function<void()>& onReady) {
    auto session = openLive(ctx, options);
    if (!session) {
        return session.error();
    }
    auto print = [&](const ActivityNotice& n) {
        const auto message = noticeText(*session, n);
        if (json) {
            Json j;
            j["time"] = n.updatedAt;
            j["agent"] = rawValue(n.source);
            j["kind"] = rawValue(n.kind);
            if (n.projectDisplayName) {
                j["project"] = *n.projectDisplayName;
            }
            j["sessionKey"] = n.sessionKey;
            j["elapsedSeconds"] = n.elapsed;
            j["message"] = message;
            ctx.out << j.dump() << std::endl;
            return;
        }
        ctx.out << formatLocal(n.updatedAt, "%H:%M:%S") << "  " << message << std::endl;
    };
    auto ready = [&] {
        // With --json the standard output carries only the notices.
        (json ? ctx.err : ctx.out) << session->text("live.follow.ready") << std::endl;
        if (onReady) {
            onReady();
        }
    };
    if (followLiveActivity(*session->live, print, stop, std::chrono::milliseconds(300), ready) ==
        LiveFollowEnd::watcherFailed) {
        ctx.err << "kestrel: " << session->text("live.follow.watcherFailed") << '\n';
        return kExitFailure;
    }
    return kExitOK;
}

int runLiveCommand(CommandContext& ctx, const LiveOptions& options, bool json) {
    if (!options.follow) {
        return runLive(ctx, options, json);
    }
    return runUntilSignalled(
        [&](std::stop_token stop) { return runLiveFollow(ctx, options, json, stop); });
}

}  // namespace kestrel::cli
