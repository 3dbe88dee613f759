#pragma once
// `kestrel heatmap`: the last weeks of usage as a calendar, one square per day in week columns
// and weekday rows, shaded by the day's tokens. The overview draws the same grid.

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "cli/command_context.hpp"
#include "cli/report_context.hpp"
#include "core/presentation/heatmap_grid.hpp"

namespace kestrel::cli {

// The grid as terminal lines: month names above the columns where the model labels them (a
// label that would touch the previous one replaces it), seven weekday rows with the model's
// labelled rows named in the report's language, two terminal columns per week, and a
// "Less ... More" legend. With `colour` each day is a square in one of five 256-colour shades;
// without it a character per level. Days after today stay blank. Nothing for an empty model.
std::vector<std::string> renderHeatmap(const HeatmapModel& model, const Report& report,
                                       bool colour);

// {"weeks", "thresholds", "cells":[{"day","tokens","costUSDMicros","level","future"}],
// "monthLabels":[{"week","month"}]}, cells column by column, oldest first.
nlohmann::ordered_json heatmapJSON(const HeatmapModel& model, const Calendar& calendar);

// "12,345 tokens in 26 weeks, $1.23": the grid's tokens and known cost.
std::string heatmapTotalLine(const HeatmapModel& model, const Report& report);

// Scans (unless --no-scan), then prints the grid of the last `weeks` weeks and its total, or
// its JSON.
int runHeatmap(CommandContext& ctx, const ReportOptions& report, int weeks, bool json);

}  // namespace kestrel::cli
