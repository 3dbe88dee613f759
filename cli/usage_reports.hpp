#pragma once
// The reports people read every day: usage per local day, week or month, and per session,
// model, agent or project. Each is computed by the ledger's queries, never by loading events.

#include "cli/command_context.hpp"
#include "cli/report_context.hpp"
#include "core/app/period_report.hpp"

namespace kestrel::cli {

// `kestrel daily|weekly|monthly`: one row per period with usage (oldest first unless --order
// desc), per-model rows under each with --breakdown, and a total. Weeks start on the locale's
// first weekday and are named by their first day; months as YYYY-MM.
int runPeriodReport(CommandContext& ctx, const ReportOptions& options, PeriodUnit unit, bool json);

enum class UsageGroup { sessions, models, sources, projects };

// `kestrel sessions|models|sources|projects`: one row per group, the heaviest first (sessions:
// the latest first); --order asc turns the order round.
int runGroupReport(CommandContext& ctx, const ReportOptions& options, UsageGroup group, bool json);

}  // namespace kestrel::cli
