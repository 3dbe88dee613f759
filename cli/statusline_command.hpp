#pragma once
// `kestrel statusline`: the command for Claude Code's `statusLine` setting. Claude Code runs it
// after each message with the session's details as JSON on stdin and shows the first line it
// prints. The line: model, this session's cost and tokens, today's cost, the tightest quota
// window with its reset countdown, and the last hour's spend as the burn rate, all from the
// ledger and the stored quota readings. It always prints a line and exits 0: bad input or a busy
// ledger leave parts out, never print an error in the agent's window.

#include <istream>
#include <optional>
#include <string>

#include "cli/command_context.hpp"
#include "core/model/app_language.hpp"

namespace kestrel::cli {

// What Claude Code hands the command, as far as it is read.
struct StatuslineInput {
    std::optional<std::string> model;      // model.display_name, else model.id
    std::optional<std::string> sessionID;  // session_id
    std::optional<double> agentCostUSD;    // cost.total_cost_usd: the agent's own estimate

    bool operator==(const StatuslineInput&) const = default;
};

// Reads what it can of `text`; anything that is not a JSON object, or a key of the wrong type,
// is left out rather than failing.
StatuslineInput parseStatuslineInput(std::string_view text);

struct StatuslineOptions {
    bool colour = false;  // ANSI colours (Claude Code shows them); NO_COLOR wins
    bool json = false;
    std::optional<std::string> language;  // en or zh-Hans; default: the settings'
    bool readInput = true;                 // false when stdin is a terminal: nothing to wait for
};

int runStatusline(CommandContext& ctx, const StatuslineOptions& options, std::istream& in);

}  // namespace kestrel::cli
