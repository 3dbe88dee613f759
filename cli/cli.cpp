#include "cli/cli.hpp"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <functional>
#include <optional>
#include <iostream>

#include "cli/coverage_command.hpp"
#include "cli/events_command.hpp"
#include "cli/export_command.hpp"
#include "cli/fx_command.hpp"
#include "cli/heatmap_command.hpp"
#include "cli/hooks_command.hpp"
#include "cli/integrations_command.hpp"
#include "cli/keys_command.hpp"
#include "cli/plans_command.hpp"
#include "cli/live_command.hpp"
#include "cli/quota_command.hpp"
#include "cli/statusline_command.hpp"
#include "cli/bar_command.hpp"
#include "cli/prices_command.hpp"
#include "cli/scan_command.hpp"
#include "cli/settings_command.hpp"
#include "cli/status_command.hpp"
#include "cli/summary_command.hpp"
#include "cli/usage_reports.hpp"
#include "cli/watch_command.hpp"
#include "core/app/app_paths.hpp"

namespace kestrel::cli {
namespace {

constexpr const char* kVersion = "0.1.0";

bool isTerminal(const std::ostream& stream, int fd) {
    const bool standard = fd == STDOUT_FILENO ? &stream == &std::cout : &stream == &std::cerr;
    return standard && ::isatty(fd) == 1;
}

std::optional<std::string> nonEmptyEnv(const char* name) {
    const char* value = std::getenv(name);
    return value && *value != '\0' ? std::optional<std::string>(value) : std::nullopt;
}

}  // namespace

int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    return run(args, out, err, std::cin);
}

int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
        std::istream& in) {
    CLI::App app{
        "Kestrel meters the tokens your AI coding agents use, from the records they keep on "
        "this machine.\nWithout a command it summarises the usage found below the home folder.",
        "kestrel"};
    app.set_version_flag("--version", kVersion);
    app.require_subcommand(0, 1);
    // Global options may follow the command too: `kestrel scan --home DIR`.
    app.fallthrough();

    std::string home, supportDir;
    bool json = false;
    app.add_option("--home", home,
                   "Home folder whose agents' records are read (default: $KESTREL_HOME, else "
                   "$HOME)")
        ->type_name("DIR");
    app.add_option("--support-dir", supportDir,
                   "Folder of Kestrel's ledger (default: $KESTREL_SUPPORT_DIR, else "
                   "~/.local/share/kestrel)")
        ->type_name("DIR");
    app.add_flag("--json", json, "Print JSON for scripts instead of tables");

    ScanOptions scan;
    auto* scanCommand =
        app.add_subcommand("scan", "Read what is new in the agents' records into the ledger");
    scanCommand
        ->add_option("--source", scan.sources, "Only this source (repeatable): claude, codex")
        ->type_name("SOURCE");
    scanCommand->add_flag("--force", scan.force,
                          "Read every file again from its start and drop the usage whose records "
                          "are gone");
    scanCommand->add_flag("--yes,-y", scan.yes, "Do not ask before --force");

    WatchOptions watch;
    auto* watchCommand = app.add_subcommand(
        "watch",
        "Scan, then follow the agents' folders and commit every change as it is written; "
        "Ctrl-C stops");
    watchCommand->add_option("--source", watch.sources, "Only this source (repeatable)")
        ->type_name("SOURCE");

    auto* status = app.add_subcommand(
        "status",
        "Each agent's integration: installed folders, health, what is switched on, "
        "its last scan");

    auto* integrations =
        app.add_subcommand("integrations", "Switch agents' integrations on or off");
    integrations->require_subcommand(1, 1);
    std::string enableName, disableName, presetName;
    auto* enable = integrations->add_subcommand("enable", "Read this agent's records again");
    enable->add_option("SOURCE", enableName, "Source name (codex) or display name")->required();
    std::optional<bool> quotaSwitch;
    enable->add_flag_function(
        "--quota", [&](std::int64_t) { quotaSwitch = true; },
        "Also read its subscription quota online (grants network and credential access)");
    enable->add_flag_function(
        "--no-quota", [&](std::int64_t) { quotaSwitch = false; },
        "Stop reading its subscription quota online");
    auto* disable = integrations->add_subcommand(
        "disable", "Stop reading this agent's records (its usage in the ledger stays)");
    disable->add_option("SOURCE", disableName, "Source name (codex) or display name")->required();
    auto* preset = integrations->add_subcommand(
        "preset", "Apply one setting to every agent a scan found installed; never installs hooks");
    preset->add_option("PRESET", presetName, "recommended, all or disabled")
        ->required()
        ->check(CLI::IsMember({"recommended", "all", "disabled"}));

    // `kestrel hooks`: the live hooks in the agents' own configuration files.
    HooksOptions hooksOptions;
    auto* hooks = app.add_subcommand("hooks", "Install, remove or check the live-activity hooks");
    hooks->require_subcommand(1, 1);
    auto* hooksStatus = hooks->add_subcommand("status", "Each agent's hook: installed, gate, health");
    auto* hooksInstall = hooks->add_subcommand(
        "install", "Write the hook into agents' configs (a backup of each original is kept)");
    auto* hooksUninstall = hooks->add_subcommand("uninstall", "Remove Kestrel's hook from agents' configs");
    auto* hooksRepair = hooks->add_subcommand("repair", "Re-write installed hooks that are out of date");
    for (auto* sub : {hooksInstall, hooksUninstall}) {
        sub->add_option("AGENT", hooksOptions.agents, "claude, codex, grok, kimi, cursor, ...");
        sub->add_flag("--all", hooksOptions.all,
                      sub == hooksInstall ? "Every agent whose CLI is found" : "Every agent");
    }
    for (auto* sub : {hooksStatus, hooksInstall, hooksUninstall, hooksRepair}) {
        sub->add_option("--lang", hooksOptions.language, "Texts in en or zh-Hans (default: settings)");
        sub->fallthrough();
    }
    hooks->fallthrough();
    // `kestrel live [--follow]`: agent sessions now, or every notice as it happens.
    LiveOptions liveOptions;
    auto* liveCommand = app.add_subcommand(
        "live", "Agent sessions at work now; --follow prints each notice as it happens");
    liveCommand->add_flag("--follow,-f", liveOptions.follow,
                          "Print finished, approval, question and failure notices; Ctrl-C stops");
    liveCommand->add_option("--lang", liveOptions.language,
                            "Texts in en or zh-Hans (default: settings)");
    liveCommand->fallthrough();
    QuotaOptions quotaOptions;
    auto* quota = app.add_subcommand(
        "quota", "Quota windows, balances and resets of every account, with where each came from");
    quota->add_flag("--refresh", quotaOptions.refresh,
                    "Ask the providers now (only agents whose quota is switched on)");

    // `kestrel plans` and `kestrel keys`: plan candidates under review, and the API-key store.
    PlansOptions plansOptions;
    std::vector<std::string> planIDs;
    std::string planAccount, keyProvider;
    auto* plans = app.add_subcommand(
        "plans", "Coding-plan candidates found in the agents' configs, awaiting your review");
    auto* plansKeep = plans->add_subcommand("keep", "Keep candidates (their keys are validated first)");
    auto* plansReject = plans->add_subcommand("reject", "Reject candidates");
    for (auto* sub : {plansKeep, plansReject}) {
        sub->add_option("ID", planIDs, "Candidate ids, as `kestrel plans` lists them")->required();
    }
    auto* plansCommit = plans->add_subcommand("commit", "Save the review: all of it, or nothing");
    auto* plansReset = plans->add_subcommand("reset", "Send a confirmed plan account back to review");
    plansReset->add_option("ACCOUNT", planAccount, "The account id (plan:...)")->required();
    for (auto* sub : {plans, plansKeep, plansReject, plansCommit, plansReset}) {
        sub->add_option("--lang", plansOptions.language, "Texts in en or zh-Hans (default: settings)");
        sub->fallthrough();
    }
    auto* keys = app.add_subcommand("keys", "API keys for balance and plan probes (never shown)");
    keys->require_subcommand(1, 1);
    auto* keysSet = keys->add_subcommand(
        "set", "Store a key, read from standard input or typed without echo");
    auto* keysRemove = keys->add_subcommand("rm", "Remove a stored key");
    for (auto* sub : {keysSet, keysRemove}) {
        sub->add_option("PROVIDER", keyProvider,
                        "deepseek, openrouter, glm-cn, glm-global, minimax-cn or minimax-global")
            ->required();
    }
    auto* keysList = keys->add_subcommand("list", "Stored keys, by fingerprint");
    for (auto* sub : {keys, keysSet, keysRemove, keysList}) {
        sub->fallthrough();
    }

    // Glances for an agent's status line and a desktop panel: read-only, always a line.
    StatuslineOptions statuslineOptions;
    std::string statuslineLanguage, barLanguage, barFormat = "waybar";
    auto* statusline = app.add_subcommand(
        "statusline",
        "One line for Claude Code's statusLine setting (reads its JSON on stdin): model, session "
        "and today's cost, tightest quota window, burn rate");
    statusline->add_flag("--color,--colour", statuslineOptions.colour,
                         "ANSI colours (Claude Code shows them; NO_COLOR turns them off)");
    auto* bar = app.add_subcommand(
        "bar", "One line for a desktop panel: today's cost and the tightest quota window");
    bar->add_option("--format", barFormat, "waybar (the default), json or text")
        ->check(CLI::IsMember({"waybar", "json", "text"}));
    for (auto [sub, language] : {std::pair{statusline, &statuslineLanguage}, {bar, &barLanguage}}) {
        sub->add_option("--lang", *language, "Texts in en or zh-Hans (default: settings)")
            ->type_name("LANG")
            ->check(CLI::IsMember({"en", "zh-Hans"}));
        sub->fallthrough();
    }

    // The reports, each over the same filters.
    ReportOptions report;
    struct ReportCommand {
        CLI::App* app;
        std::function<int(CommandContext&)> run;
    };
    std::vector<ReportCommand> reports;
    const auto periodCommand = [&](const char* name, const char* what, PeriodUnit unit) {
        auto* sub = app.add_subcommand(name, what);
        addReportOptions(sub, report, true);
        sub->add_flag("--breakdown", report.breakdown, "Per-model rows under each period");
        sub->add_option("--order", report.order, "Oldest first (asc, the default) or newest first")
            ->check(CLI::IsMember({"asc", "desc"}));
        reports.push_back(
            {sub, [&, unit](CommandContext& c) { return runPeriodReport(c, report, unit, json); }});
    };
    periodCommand("daily", "Usage per local day", PeriodUnit::day);
    periodCommand("weekly", "Usage per week (weeks start on the locale's first weekday)",
                  PeriodUnit::week);
    periodCommand("monthly", "Usage per month", PeriodUnit::month);
    const auto groupCommand = [&](const char* name, const char* what, UsageGroup group) {
        auto* sub = app.add_subcommand(name, what);
        addReportOptions(sub, report, true);
        sub->add_option("--order", report.order,
                        "Heaviest (or latest) first (desc, the default) or the other way round")
            ->check(CLI::IsMember({"asc", "desc"}));
        reports.push_back({sub, [&, group](CommandContext& c) {
                               return runGroupReport(c, report, group, json);
                           }});
    };
    groupCommand("sessions", "Usage per agent session, the latest first", UsageGroup::sessions);
    groupCommand("models", "Usage per model, the heaviest first", UsageGroup::models);
    groupCommand("sources", "Usage per agent, the heaviest first", UsageGroup::sources);
    groupCommand("projects", "Usage per project, the heaviest first", UsageGroup::projects);

    EventsOptions eventsOptions;
    auto* events = app.add_subcommand(
        "events", "The ledger's usage events, a page at a time, the newest first");
    addReportOptions(events, report, true);
    events->add_option("--limit", eventsOptions.limit, "Events per page, 1 to 1000 (default: 50)")
        ->type_name("N");
    events->add_option("--after", eventsOptions.after,
                       "Start after this cursor, as printed under the previous page")
        ->type_name("CURSOR");
    events->add_option("--order", eventsOptions.order, "Newest first (desc, the default) or asc")
        ->check(CLI::IsMember({"asc", "desc"}));

    int heatmapWeeks = 26;
    auto* heatmap = app.add_subcommand(
        "heatmap", "The last weeks as a calendar, each day shaded by its tokens");
    addReportOptions(heatmap, report, false);
    heatmap->add_option("--weeks", heatmapWeeks, "How many weeks, 1 to 53 (default: 26)")
        ->type_name("N");

    auto* coverage = app.add_subcommand(
        "coverage", "What the ledger could not count or price, grouped by cause and agent");
    addReportOptions(coverage, report, true);

    auto* exportCommand = app.add_subcommand("export", "Write the ledger's events to a file");
    exportCommand->require_subcommand(1, 1);
    std::string exportPath = "kestrel.csv";
    auto* exportCSV = exportCommand->add_subcommand(
        "csv", "One CSV row per event, oldest first (the columns are in the README)");
    addReportOptions(exportCSV, report, true);
    exportCSV->add_option("--out", exportPath, "The file to write (default: kestrel.csv)")
        ->type_name("FILE");

    auto* fx = app.add_subcommand("fx", "The USD to CNY rate used to show money in yuan");
    fx->require_subcommand(0, 1);
    fx->add_option("--lang", report.language, "Texts in en or zh-Hans (default: settings)")
        ->type_name("LANG")
        ->check(CLI::IsMember({"en", "zh-Hans"}));
    auto* fxShow = fx->add_subcommand("show", "The stored rate, its date and source (the default)");
    std::string fxRate;
    auto* fxSet = fx->add_subcommand("set", "Store a rate you type, e.g. 7.25");
    fxSet->add_option("RATE", fxRate, "Yuan per US dollar")->required();
    std::string fxURL;
    auto* fxFetch =
        fx->add_subcommand("fetch", "Fetch today's rate; a failed fetch keeps the stored one");
    fxFetch->add_option("--url", fxURL, "Where to ask (default: a public rates service)")
        ->type_name("URL");

    // `kestrel` alone: the overview.
    addReportOptions(&app, report, false);

    auto* settings = app.add_subcommand(
        "settings", "List the settings; `settings set FIELD VALUE` changes one");
    settings->require_subcommand(0, 1);
    settings->add_option("--lang", report.language, "Texts in en or zh-Hans (default: settings)")
        ->type_name("LANG")
        ->check(CLI::IsMember({"en", "zh-Hans"}));
    std::string settingField, settingValue;
    auto* settingsSet = settings->add_subcommand(
        "set", "Change one setting, e.g. `storeProject false` or `billingMode localZero`");
    settingsSet->add_option("FIELD", settingField, "The setting's name, as `kestrel settings` lists it")
        ->required();
    settingsSet->add_option("VALUE", settingValue, "Its new value; none clears an optional one")
        ->required();
    std::string forgetWhat;
    auto* settingsForget = settings->add_subcommand(
        "forget", "Remove the project names or session keys already kept in the ledger");
    settingsForget->add_option("WHAT", forgetWhat, "projects or sessions")
        ->required()
        ->check(CLI::IsMember({"projects", "sessions"}));

    auto* prices = app.add_subcommand("prices", "List the prices in force today");
    prices->require_subcommand(0, 1);
    PriceOverrideOptions priceSet;
    auto* set = prices->add_subcommand("set", "Add or replace a price override, then reprice");
    set->add_option("MATCH", priceSet.match,
                    "Model pattern: applies to every model whose name contains it")
        ->required();
    set->add_option("--input", priceSet.input, "USD per million uncached input tokens")->required();
    set->add_option("--output", priceSet.output, "USD per million output tokens")->required();
    set->add_option("--cache-read", priceSet.cacheRead,
                    "USD per million cache-read tokens (default: the input price)");
    set->add_option("--cache-write", priceSet.cacheWrite,
                    "USD per million cache-write tokens (default: the input price)");
    set->add_option("--reasoning", priceSet.reasoning,
                    "USD per million reasoning tokens (default: the output price)");
    set->add_option("--from", priceSet.from,
                    "First day in force, YYYY-MM-DD (default: that of the row it replaces)");
    set->add_option("--to", priceSet.to, "First day no longer in force, YYYY-MM-DD");
    set->add_option("--long-threshold", priceSet.longThreshold,
                    "Prompt size above which the --long-* prices apply");
    set->add_option("--long-input", priceSet.longInput, "Long-context input price");
    set->add_option("--long-output", priceSet.longOutput, "Long-context output price");
    std::string removeMatch;
    auto* remove = prices->add_subcommand("rm", "Remove a price override, then reprice");
    remove->add_option("MATCH", removeMatch, "The override's model pattern")->required();

    for (const auto& command : reports) {
        command.app->fallthrough();
    }
    for (auto* command :
         {events, heatmap, coverage, exportCommand, exportCSV, fx, fxShow, fxSet, fxFetch,
          scanCommand, watchCommand, status, integrations, enable, disable, preset, settings,
          settingsSet, settingsForget, prices, set, remove, quota}) {
        command->fallthrough();
    }

    try {
        app.parse(std::vector<std::string>(args.rbegin(), args.rend()));
    } catch (const CLI::CallForHelp& e) {
        app.exit(e, out, err);
        return kExitOK;
    } catch (const CLI::CallForAllHelp& e) {
        app.exit(e, out, err);
        return kExitOK;
    } catch (const CLI::CallForVersion& e) {
        app.exit(e, out, err);
        return kExitOK;
    } catch (const CLI::ParseError& e) {
        err << "kestrel: " << e.what() << "\nRun with --help for usage.\n";
        return kExitUsage;
    }

    CommandContext ctx{out, err};
    ctx.outIsTerminal = isTerminal(out, STDOUT_FILENO);
    ctx.errIsTerminal = isTerminal(err, STDERR_FILENO);
    ctx.colour = ctx.outIsTerminal && !nonEmptyEnv("NO_COLOR");
    const auto paths = resolveAppPaths(home, supportDir, processEnvironment());
    if (!paths) {
        if (paths.error().kind == AppPathsError::Kind::noHome) {
            ctx.err << "kestrel: no home folder: set HOME or pass --home DIR\n";
        } else {
            ctx.err << "kestrel: home folder " << paths.error().home
                    << " does not exist or is not a folder\n";
        }
        return kExitUsage;
    }
    ctx.home = paths->home;
    ctx.supportDir = paths->supportDir;
    ctx.env = paths->env;

    if (events->parsed()) {
        return runEvents(ctx, report, eventsOptions, json);
    }
    if (heatmap->parsed()) {
        return runHeatmap(ctx, report, heatmapWeeks, json);
    }
    if (coverage->parsed()) {
        return runCoverage(ctx, report, json);
    }
    if (exportCSV->parsed()) {
        return runExportCSV(ctx, report, exportPath);
    }
    if (fxSet->parsed()) {
        return runFxSet(ctx, fxRate, report.language, json);
    }
    if (fxFetch->parsed()) {
        return runFxFetch(ctx, fxURL, report.language, json);
    }
    if (fx->parsed()) {
        return runFxShow(ctx, report.language, json);
    }
    if (scanCommand->parsed()) {
        return runScan(ctx, scan, json, in);
    }
    if (watchCommand->parsed()) {
        return runWatchUntilSignalled(ctx, watch, json);
    }
    for (const auto& command : reports) {
        if (command.app->parsed()) {
            return command.run(ctx);
        }
    }
    if (status->parsed()) {
        return runStatus(ctx, json);
    }
    if (hooksStatus->parsed()) {
        return runHooksStatus(ctx, hooksOptions, json);
    }
    if (hooksInstall->parsed()) {
        return runHooksInstall(ctx, hooksOptions, json);
    }
    if (hooksUninstall->parsed()) {
        return runHooksUninstall(ctx, hooksOptions, json);
    }
    if (hooksRepair->parsed()) {
        return runHooksRepair(ctx, hooksOptions, json);
    }
    if (liveCommand->parsed()) {
        return runLiveCommand(ctx, liveOptions, json);
    }
    if (statusline->parsed() || bar->parsed()) {
        const auto language = [](const std::string& l) {
            return l.empty() ? std::nullopt : std::optional<std::string>(l);
        };
        if (statusline->parsed()) {
            statuslineOptions.json = json;
            statuslineOptions.colour = statuslineOptions.colour && !nonEmptyEnv("NO_COLOR");
            statuslineOptions.language = language(statuslineLanguage);
            // Run by hand on a terminal there is no JSON coming: do not wait for it.
            statuslineOptions.readInput = !(&in == &std::cin && ::isatty(STDIN_FILENO) == 1);
            return runStatusline(ctx, statuslineOptions, in);
        }
        BarOptions barOptions;
        barOptions.format = json || barFormat == "json" ? BarFormat::json
                            : barFormat == "text"       ? BarFormat::text
                                                        : BarFormat::waybar;
        barOptions.language = language(barLanguage);
        return runBar(ctx, barOptions);
    }
    if (enable->parsed() && quotaSwitch) {
        return runIntegrationsQuota(ctx, enableName, *quotaSwitch, json);
    }
    if (quota->parsed()) {
        quotaOptions.json = json;
        return runQuota(ctx, quotaOptions);
    }
    if (plans->parsed()) {
        plansOptions.json = json;
        if (plansKeep->parsed() || plansReject->parsed()) {
            return runPlansChoose(ctx, planIDs, plansKeep->parsed(), plansOptions);
        }
        if (plansCommit->parsed()) {
            return runPlansCommit(ctx, plansOptions);
        }
        if (plansReset->parsed()) {
            return runPlansReset(ctx, planAccount, plansOptions);
        }
        return runPlans(ctx, plansOptions);
    }
    if (keys->parsed()) {
        if (keysSet->parsed()) {
            const bool inIsTerminal = &in == &std::cin && ::isatty(STDIN_FILENO) == 1;
            return runKeysSet(ctx, keyProvider, in, inIsTerminal, json);
        }
        if (keysRemove->parsed()) {
            return runKeysRemove(ctx, keyProvider, json);
        }
        return runKeysList(ctx, json);
    }
    if (enable->parsed()) {
        return runIntegrationsSetEnabled(ctx, enableName, true, json);
    }
    if (disable->parsed()) {
        return runIntegrationsSetEnabled(ctx, disableName, false, json);
    }
    if (preset->parsed()) {
        return runIntegrationsPreset(ctx, presetName, json);
    }
    if (settingsSet->parsed()) {
        return runSettingsSet(ctx, settingField, settingValue, report.language, json);
    }
    if (settingsForget->parsed()) {
        return runSettingsForget(ctx, forgetWhat, report.language, json);
    }
    if (settings->parsed()) {
        return runSettings(ctx, report.language, json);
    }
    if (set->parsed()) {
        return runPricesSet(ctx, priceSet);
    }
    if (remove->parsed()) {
        return runPricesRemove(ctx, removeMatch);
    }
    if (prices->parsed()) {
        return runPrices(ctx, json);
    }
    return runSummary(ctx, report, json);
}

}  // namespace kestrel::cli
