#pragma once

#include "cli/command_context.hpp"
#include "cli/report_context.hpp"

namespace kestrel::cli {

// `kestrel` without a command: an incremental scan (unless --no-scan), then today's usage next
// to yesterday's and the last 7 and 30 local days, today's heaviest models and agents, and the
// heatmap of the last 26 weeks. An empty ledger says where Kestrel looked.
int runSummary(CommandContext& ctx, const ReportOptions& report, bool json);

}  // namespace kestrel::cli
