#pragma once
// `kestrel coverage`: the open coverage issues, what the ledger doubts or could not count,
// grouped by issue code, agent and the step that raised them, each with what it means.

#include <string>

#include "cli/command_context.hpp"
#include "cli/report_context.hpp"
#include "core/ledger/ledger_records.hpp"

namespace kestrel::cli {

// A table of the groups and a total line, or with `json` {"groups":[...], "counts":[...]}.
int runCoverage(CommandContext& ctx, const ReportOptions& report, bool json);

// What an issue code means for the user, in the report's language.
std::string coverageExplanation(const Report& report, CoverageIssueCode code);

}  // namespace kestrel::cli
