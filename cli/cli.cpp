#include "cli/cli.hpp"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>

#include "cli/events_command.hpp"
#include "cli/summary_command.hpp"
#include "core/model/agent_source.hpp"

namespace kestrel::cli {
namespace {

constexpr const char* kVersion = "0.1.0";

bool isTerminal(const std::ostream& stream, int fd) {
    const bool standard = fd == STDOUT_FILENO ? &stream == &std::cout : &stream == &std::cerr;
    return standard && ::isatty(fd) == 1;
}

// Resolves the home folder to read: --home, else $KESTREL_HOME, else $HOME. Agents' own
// variables (CLAUDE_CONFIG_DIR, ...) are honoured only for the real home, so that a run on a
// demo or test folder never reads the user's data.
bool resolveHome(CommandContext& ctx, const std::string& option) {
    const char* kestrelHome = std::getenv("KESTREL_HOME");
    const char* home = std::getenv("HOME");
    std::string chosen = !option.empty()                       ? option
                         : kestrelHome && *kestrelHome != '\0' ? kestrelHome
                         : home                                ? home
                                                               : "";
    if (chosen.empty()) {
        ctx.err << "kestrel: no home folder: set HOME or pass --home DIR\n";
        return false;
    }
    std::error_code ec;
    if (!std::filesystem::is_directory(chosen, ec)) {
        ctx.err << "kestrel: home folder " << chosen << " does not exist or is not a folder\n";
        return false;
    }
    ctx.home = std::filesystem::absolute(chosen, ec).lexically_normal();
    const bool realHome = home && chosen == home;
    ctx.env = realHome ? processEnvironment() : emptyEnvironment();
    return true;
}

// Only Claude Code transcripts can be read so far; other known sources get a clear answer.
bool checkSources(CommandContext& ctx, const std::vector<std::string>& sources) {
    for (const auto& raw : sources) {
        auto source = fromRawValue<AgentSource>(raw);
        if (!source) {
            std::string known;
            for (auto s : allAgentSources()) {
                known += known.empty() ? "" : ", ";
                known += rawValue(s);
            }
            ctx.err << "kestrel: unknown source \"" << raw << "\" (known: " << known << ")\n";
            return false;
        }
        if (*source != AgentSource::claude) {
            ctx.err << "kestrel: reading " << displayName(*source)
                    << " records is not supported yet; only \"claude\" is\n";
            return false;
        }
    }
    return true;
}

}  // namespace

int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    CLI::App app{
        "Kestrel meters the tokens your AI coding agents use, from the records they "
        "keep on this machine.\nWithout a command it summarises the usage found below "
        "the home folder.",
        "kestrel"};
    app.set_version_flag("--version", kVersion);
    app.require_subcommand(0, 1);

    std::string home;
    bool json = false;
    const char* homeHelp =
        "Home folder whose agents' records are read (default: $KESTREL_HOME, else $HOME)";
    app.add_option("--home", home, homeHelp)->type_name("DIR");
    app.add_flag("--json", json, "Print JSON for scripts instead of tables");

    auto* events = app.add_subcommand(
        "events", "Print every usage event found in the agents' records, read from the start");
    std::string eventsHome;
    bool eventsJSON = false;
    std::vector<std::string> sources;
    events->add_option("--home", eventsHome, homeHelp)->type_name("DIR");
    events->add_option("--source", sources, "Only this source (repeatable); for now: claude")
        ->type_name("SOURCE");
    events->add_flag("--json", eventsJSON,
                     "One JSON object per event and line; the counts go to stderr");

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
    const char* noColor = std::getenv("NO_COLOR");
    ctx.colour = ctx.outIsTerminal && !(noColor && *noColor != '\0');

    if (events->parsed()) {
        if (!resolveHome(ctx, eventsHome.empty() ? home : eventsHome) ||
            !checkSources(ctx, sources)) {
            return kExitUsage;
        }
        return runEvents(ctx, eventsJSON || json);
    }
    if (!resolveHome(ctx, home)) {
        return kExitUsage;
    }
    return runSummary(ctx, json);
}

}  // namespace kestrel::cli
