#pragma once

#include "cli/command_context.hpp"

namespace kestrel::cli {

// `kestrel` without a command: an incremental scan of every enabled agent, then the ledger's
// totals for today, the last 7 and 30 days and all time, per source and for the top models.
int runSummary(CommandContext& ctx, bool json);

}  // namespace kestrel::cli
