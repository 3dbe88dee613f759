#include "cli/hooks_command.hpp"

#include <chrono>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <optional>

#include "cli/cli.hpp"
#include "cli/session_access.hpp"
#include "cli/text_table.hpp"
#include "core/integrations/hook_installer.hpp"

namespace kestrel::cli {
namespace {

using Json = nlohmann::ordered_json;

// Pulses older than this make a hook `stale`: a working agent calls its hook at least on every
// prompt and tool use, so half an hour of silence means the hook stopped or the agent is idle.
constexpr double kStaleAfterSeconds = 30 * 60;

struct HooksSession {
    std::unique_ptr<AppSession> app;
    Texts text;
    std::optional<HookInstaller> installer;
    std::vector<HookAgent> agents;  // named on the command line (install and uninstall)
};

std::filesystem::path resourceDirectory(const CommandContext& ctx) {
    if (auto dir = ctx.env ? ctx.env("KESTREL_RESOURCE_DIR") : std::nullopt; dir && !dir->empty()) {
        return *dir;
    }
    return KESTREL_RESOURCE_DIR;
}

std::expected<HooksSession, int> openHooks(CommandContext& ctx, const HooksOptions& options) {
    auto opened = openTextSession(ctx, options.language);
    if (!opened) {
        return std::unexpected(opened.error());
    }
    HooksSession session;
    session.app = std::move(opened->app);
    session.text = opened->text;
    const auto settings = session.app->settings();
    // Hooks report project names only when the ledger may keep them.
    session.installer.emplace(ctx.home, ctx.supportDir, settings.storeProject,
                              resourceDirectory(ctx), ctx.env);
    return session;
}

std::string agentName(HookAgent agent) {
    return std::string(displayName(agentSource(agent)));
}

// The agents named on the command line; absent after saying which name is unknown.
std::optional<std::vector<HookAgent>> chosenAgents(CommandContext& ctx,
                                                   const HooksOptions& options) {
    std::vector<HookAgent> out;
    if (options.all) {
        const auto all = allCases<HookAgent>();
        return std::vector<HookAgent>(all.begin(), all.end());
    }
    if (options.agents.empty()) {
        ctx.err
            << "kestrel: name the agents (claude, codex, grok, kimi, opencode, cursor, pi, omp) "
               "or pass --all\n";
        return std::nullopt;
    }
    for (const auto& name : options.agents) {
        auto agent = fromRawValue<HookAgent>(name);
        if (!agent) {
            if (auto source = agentSourceNamed(name)) {
                agent = hookAgent(*source);
            }
        }
        if (!agent) {
            ctx.err << "kestrel: \"" << name
                    << "\" is not an agent Kestrel can hook (claude, codex, grok, kimi, opencode, "
                       "cursor, pi, omp)\n";
            return std::nullopt;
        }
        out.push_back(*agent);
    }
    return out;
}

// The agents named (checked before the ledger is opened) and the session.
std::expected<HooksSession, int> openHooksFor(CommandContext& ctx, const HooksOptions& options) {
    auto agents = chosenAgents(ctx, options);
    if (!agents) {
        return std::unexpected(kExitUsage);
    }
    auto session = openHooks(ctx, options);
    if (session) {
        session->agents = std::move(*agents);
    }
    return session;
}

Json changeJSON(const HookChangeReport& report) {
    Json files = Json::array();
    for (const auto& f : report.files) {
        files.push_back({{"path", f.path.string()},
                         {"backup", f.backup ? Json(f.backup->string()) : Json(nullptr)},
                         {"removed", f.removed}});
    }
    return {{"agent", rawValue(report.agent)}, {"files", files}};
}

Json errorJSON(HookAgent agent, const HookInstallError& e) {
    return {{"agent", rawValue(agent)},
            {"error", rawValue(e.code)},
            {"path", e.path.string()},
            {"detail", e.detail}};
}

void printChanges(CommandContext& ctx, const HookChangeReport& report) {
    if (report.files.empty()) {
        ctx.out << rawValue(report.agent) << ": nothing to change\n";
    }
    for (const auto& f : report.files) {
        ctx.out << rawValue(report.agent) << ": " << (f.removed ? "removed " : "wrote ")
                << f.path.string();
        if (f.backup) {
            ctx.out << " (original saved as " << f.backup->string() << ")";
        }
        ctx.out << '\n';
    }
}

void printError(CommandContext& ctx, const HooksSession& session, HookAgent agent,
                const HookInstallError& e) {
    ctx.err << session.text("hooks.installFailed", {{"agent", agentName(agent)}}) << '\n'
            << "kestrel: " << e.path.string() << ": " << rawValue(e.code);
    if (!e.detail.empty()) {
        ctx.err << ": " << e.detail;
    }
    ctx.err << '\n';
}

std::string joinNames(const std::vector<HookAgent>& agents) {
    std::string out;
    for (auto agent : agents) {
        out += (out.empty() ? "" : ", ") + agentName(agent);
    }
    return out;
}

// "42s", "3m", "2h 05m", "3d".
std::string waitText(double seconds) {
    const auto total = static_cast<long long>(std::max(0.0, seconds));
    if (total < 60) {
        return std::to_string(total) + "s";
    }
    if (total < 3600) {
        return std::to_string(total / 60) + "m";
    }
    if (total < 86400) {
        const auto minutes = total % 3600 / 60;
        return std::to_string(total / 3600) + "h " + (minutes < 10 ? "0" : "") +
               std::to_string(minutes) + "m";
    }
    return std::to_string(total / 86400) + "d";
}

// The CLI-missing warning names the machine as the platform calls it.
constexpr std::string_view kCliMissingKey =
#ifdef __APPLE__
    "hooks.cliMissing";
#else
    "hooks.cliMissingHere";
#endif

double nowSeconds() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

int runHooksStatus(CommandContext& ctx, const HooksOptions& options, bool json) {
    auto session = openHooks(ctx, options);
    if (!session) {
        return session.error();
    }
    const auto& installer = *session->installer;
    const double now = nowSeconds();
    const auto pulses = readHookPulseStamps(installer.liveDirectory(), now);
    Json rows = Json::array();
    for (auto agent : allCases<HookAgent>()) {
        const auto health = installer.health(agent, pulses, now, kStaleAfterSeconds);
        const auto installedNow = installer.status(agent);
        Json files = Json::array();
        for (const auto& path : installer.configFiles(agent)) {
            files.push_back(path.string());
        }
        rows.push_back({{"agent", rawValue(agent)},
                        {"cliPresent", installer.cliPresent(agent)},
                        {"installed", installedNow.value_or(false)},
                        {"gateOpen", installer.isAuthorized(agent)},
                        {"health", rawValue(health.state)},
                        {"trust", rawValue(health.trust)},
                        {"lastEmissionAt",
                         health.lastEmissionAt ? Json(*health.lastEmissionAt) : Json(nullptr)},
                        {"detail", health.detail ? Json(*health.detail) : Json(nullptr)},
                        {"configFiles", files}});
    }
    if (json) {
        ctx.out << rows.dump(2) << '\n';
        return kExitOK;
    }
    const auto& s = *session;
    TextTable table({{s.text("hooks.status.column.agent")},
                     {s.text("hooks.status.column.cli")},
                     {s.text("hooks.status.column.installed")},
                     {s.text("hooks.status.column.gate")},
                     {s.text("hooks.status.column.health")},
                     {s.text("hooks.status.column.trust")},
                     {s.text("hooks.status.column.newestPulse"), Align::right}});
    std::vector<std::string> details;
    for (const auto& row : rows) {
        const auto agent = *fromRawValue<HookAgent>(row["agent"].get<std::string>());
        const auto yesNo = [&](bool value) {
            return s.text(value ? "hooks.status.yes" : "hooks.status.no");
        };
        std::string newest = "-";
        if (!row["lastEmissionAt"].is_null()) {
            newest = s.text("hooks.status.ago",
                            {{"wait", waitText(now - row["lastEmissionAt"].get<double>())}});
        }
        table.addRow({agentName(agent), yesNo(row["cliPresent"]), yesNo(row["installed"]),
                      s.text(row["gateOpen"] ? "hooks.status.gateOpen" : "hooks.status.gateClosed"),
                      s.text("hooks.status.health." + row["health"].get<std::string>()),
                      s.text("hooks.status.trust." + row["trust"].get<std::string>()), newest});
        if (!row["detail"].is_null()) {
            details.push_back(agentName(agent) + ": " + row["detail"].get<std::string>());
        }
    }
    table.render(ctx.out, ctx.colour);
    for (const auto& d : details) {
        ctx.out << d << '\n';
    }
    return kExitOK;
}

int runHooksInstall(CommandContext& ctx, const HooksOptions& options, bool json) {
    auto session = openHooksFor(ctx, options);
    if (!session) {
        return session.error();
    }
    const auto& installer = *session->installer;
    std::vector<HookChangeReport> done;
    std::vector<HookAgent> skipped;
    std::vector<std::pair<HookAgent, HookInstallError>> failed;
    if (options.all) {
        auto outcome = installer.installAll();
        done = std::move(outcome.installed);
        skipped = std::move(outcome.skipped);
        failed = std::move(outcome.failed);
    } else {
        for (auto agent : session->agents) {
            if (!installer.cliPresent(agent) && !json) {
                ctx.err << session->text(kCliMissingKey, {{"agent", agentName(agent)}}) << '\n';
            }
            if (auto report = installer.install(agent)) {
                done.push_back(std::move(*report));
            } else {
                failed.emplace_back(agent, report.error());
            }
        }
    }
    if (json) {
        Json out = {
            {"installed", Json::array()}, {"skipped", Json::array()}, {"failed", Json::array()}};
        for (const auto& r : done) {
            out["installed"].push_back(changeJSON(r));
        }
        for (auto agent : skipped) {
            out["skipped"].push_back(rawValue(agent));
        }
        for (const auto& [agent, e] : failed) {
            out["failed"].push_back(errorJSON(agent, e));
        }
        ctx.out << out.dump(2) << '\n';
    } else {
        for (auto agent : skipped) {
            ctx.out << session->text("hooks.skippedNoCli", {{"agent", agentName(agent)}}) << '\n';
        }
        std::vector<HookAgent> names;
        for (const auto& r : done) {
            printChanges(ctx, r);
            names.push_back(r.agent);
        }
        if (!names.empty()) {
            ctx.out << session->text("hooks.installed", {{"agents", joinNames(names)}}) << '\n';
        }
        for (const auto& [agent, e] : failed) {
            printError(ctx, *session, agent, e);
        }
    }
    if (failed.empty()) {
        return kExitOK;
    }
    return done.empty() ? kExitFailure : kExitPartial;
}

int runHooksUninstall(CommandContext& ctx, const HooksOptions& options, bool json) {
    auto session = openHooksFor(ctx, options);
    if (!session) {
        return session.error();
    }
    Json out = {{"uninstalled", Json::array()}, {"failed", Json::array()}};
    bool anyFailed = false;
    for (auto agent : session->agents) {
        auto report = session->installer->uninstall(agent);
        if (!report) {
            anyFailed = true;
            out["failed"].push_back(errorJSON(agent, report.error()));
            if (!json) {
                ctx.err << "kestrel: " << report.error().path.string() << ": "
                        << rawValue(report.error().code) << ": " << report.error().detail << '\n';
            }
            continue;
        }
        out["uninstalled"].push_back(changeJSON(*report));
        if (!json) {
            printChanges(ctx, *report);
        }
    }
    if (json) {
        ctx.out << out.dump(2) << '\n';
    }
    return anyFailed ? kExitFailure : kExitOK;
}

int runHooksRepair(CommandContext& ctx, const HooksOptions& options, bool json) {
    auto session = openHooks(ctx, options);
    if (!session) {
        return session.error();
    }
    const auto repaired = session->installer->repair();
    if (!repaired) {
        if (json) {
            ctx.out << Json{{"error", rawValue(repaired.error().code)},
                            {"path", repaired.error().path.string()},
                            {"detail", repaired.error().detail}}
                           .dump(2)
                    << '\n';
        } else {
            ctx.err << "kestrel: " << repaired.error().path.string() << ": "
                    << rawValue(repaired.error().code) << ": " << repaired.error().detail << '\n';
        }
        return kExitFailure;
    }
    if (json) {
        Json out = Json::array();
        for (const auto& r : *repaired) {
            out.push_back(changeJSON(r));
        }
        ctx.out << out.dump(2) << '\n';
    } else if (repaired->empty()) {
        ctx.out << "Every installed hook is current.\n";
    } else {
        for (const auto& r : *repaired) {
            printChanges(ctx, r);
        }
    }
    return kExitOK;
}

}  // namespace kestrel::cli
