#pragma once

#include "cli/command_context.hpp"

namespace kestrel::cli {

// `kestrel` without a command: the Claude Code usage below home, each request counted once (the
// last line written for a message holds its final usage), by period and by model.
int runSummary(CommandContext& ctx, bool json);

}  // namespace kestrel::cli
