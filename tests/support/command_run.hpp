#pragma once
// Running Kestrel's commands inside the test process: a command function on a context of string
// streams, or the whole command line, each on a chosen home and ledger folder.

#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "cli/cli.hpp"
#include "cli/command_context.hpp"
#include "core/sources/agent_catalog.hpp"

namespace kestrel::test_support {

struct CommandOutcome {
    int code = -1;
    std::string out;
    std::string err;
};

// `command` on a context over `home` and `support` that reads only the variables `env` gives
// (by default none of the process's).
inline CommandOutcome runCommand(const std::filesystem::path& home,
                                 const std::filesystem::path& support,
                                 const std::function<int(cli::CommandContext&)>& command,
                                 bool colour = false, EnvironmentLookup env = {}) {
    std::ostringstream out, err;
    cli::CommandContext ctx{out, err};
    ctx.home = home;
    ctx.supportDir = support;
    ctx.env = env ? std::move(env) : emptyEnvironment();
    ctx.colour = colour;
    CommandOutcome o;
    o.code = command(ctx);
    o.out = out.str();
    o.err = err.str();
    return o;
}

// `kestrel ARGS --home HOME --support-dir SUPPORT` with `input` as what a person types.
inline CommandOutcome runKestrel(std::vector<std::string> args, const std::filesystem::path& home,
                                 const std::filesystem::path& support,
                                 const std::string& input = "") {
    args.insert(args.end(), {"--home", home.string(), "--support-dir", support.string()});
    std::ostringstream out, err;
    std::istringstream in(input);
    CommandOutcome o;
    o.code = cli::run(args, out, err, in);
    o.out = out.str();
    o.err = err.str();
    return o;
}

}  // namespace kestrel::test_support
