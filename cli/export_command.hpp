#pragma once
// `kestrel export csv`: every ledger event the report filters select, one CSV row each, oldest
// first (the columns are described in core/app/csv_export.hpp and the README).

#include <string>
#include <string_view>

#include "cli/command_context.hpp"
#include "cli/report_context.hpp"
#include "core/app/csv_export.hpp"

namespace kestrel::cli {

// Writes the events to `outPath` through a temporary file beside it, renamed over it at the end:
// a failure leaves no partial file. A path that cannot be written is exit 3, naming the path
// and the cause, before anything is scanned. Prints "Wrote N rows to PATH".
int runExportCSV(CommandContext& ctx, const ReportOptions& report, const std::string& outPath);

using kestrel::csvField;
using kestrel::decimalUSD;

}  // namespace kestrel::cli
