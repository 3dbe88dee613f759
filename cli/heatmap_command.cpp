#include "cli/heatmap_command.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/text_table.hpp"
#include "core/app/ledger_heatmap.hpp"
#include "core/model/timestamp.hpp"

namespace kestrel::cli {
namespace {

constexpr int kDaysPerWeek = 7;
constexpr int kLevels = 5;

// Indexed by Calendar::Parts::weekday (0 = Sunday) and month - 1.
constexpr std::array<const char*, 7> kWeekdayKeys = {
    "weekday.short.sun", "weekday.short.mon", "weekday.short.tue", "weekday.short.wed",
    "weekday.short.thu", "weekday.short.fri", "weekday.short.sat"};
constexpr std::array<const char*, 12> kMonthKeys = {
    "month.short.jan", "month.short.feb", "month.short.mar", "month.short.apr",
    "month.short.may", "month.short.jun", "month.short.jul", "month.short.aug",
    "month.short.sep", "month.short.oct", "month.short.nov", "month.short.dec"};

constexpr std::array<const char*, kLevels> kPlainGlyphs = {"·", "░", "▒", "▓", "█"};
// 256-colour palette: a dim grey for an idle day, then greens getting brighter with use.
constexpr std::array<int, kLevels> kShades = {238, 22, 28, 34, 40};

std::string glyph(int level, bool colour) {
    const auto index = static_cast<std::size_t>(std::clamp(level, 0, kLevels - 1));
    if (!colour) {
        return kPlainGlyphs[index];
    }
    return fmt::format("\x1b[38;5;{}m■\x1b[0m", kShades[index]);
}

std::string padRight(const std::string& text, std::size_t width) {
    const std::size_t used = displayWidth(text);
    return used >= width ? text : text + std::string(width - used, ' ');
}

void trimRight(std::string& line) {
    while (!line.empty() && line.back() == ' ') {
        line.pop_back();
    }
}

// Each week takes a glyph and a space, so months at least four weeks apart always have room.
constexpr std::size_t kColumnWidth = 2;

std::string monthLine(const HeatmapModel& model, const Report& report, std::size_t indent) {
    struct Placed {
        std::size_t start = 0;
        std::size_t end = 0;  // one past the last terminal column
        std::string text;
    };
    std::vector<Placed> placed;
    for (const auto& label : model.monthLabels) {
        if (label.month < 1 || label.month > 12 || label.weekIndex < 0) {
            continue;
        }
        Placed p;
        p.start = indent + static_cast<std::size_t>(label.weekIndex) * kColumnWidth;
        p.text = report.text(kMonthKeys[static_cast<std::size_t>(label.month - 1)]);
        p.end = p.start + displayWidth(p.text);
        // A wide name ("12月") can run into the next label; as in the model, the later month,
        // which has whole weeks to show, takes the place of the one it would touch.
        while (!placed.empty() && p.start < placed.back().end + 1) {
            placed.pop_back();
        }
        placed.push_back(std::move(p));
    }
    std::string line;
    std::size_t column = 0;
    for (const auto& p : placed) {
        line.append(p.start - column, ' ');
        line += p.text;
        column = p.end;
    }
    return line;
}

}  // namespace

std::vector<std::string> renderHeatmap(const HeatmapModel& model, const Report& report,
                                       bool colour) {
    if (model.cells.empty() || model.cells.front().size() < kDaysPerWeek) {
        return {};
    }
    // The row's weekday is read from the first column's days, so any first weekday draws right.
    std::array<std::string, kDaysPerWeek> names;
    std::size_t nameWidth = 0;
    for (const int row : model.labeledRows) {
        if (row < 0 || row >= kDaysPerWeek) {
            continue;
        }
        const auto r = static_cast<std::size_t>(row);
        const int weekday = report.calendar.parts(model.cells.front()[r].day).weekday;
        names[r] = report.text(kWeekdayKeys[static_cast<std::size_t>(weekday)]);
        nameWidth = std::max(nameWidth, displayWidth(names[r]));
    }
    const std::size_t indent = nameWidth == 0 ? 0 : nameWidth + 1;

    std::vector<std::string> lines;
    lines.push_back(monthLine(model, report, indent));
    for (std::size_t row = 0; row < kDaysPerWeek; ++row) {
        std::string line = padRight(names[row], indent);
        for (const auto& column : model.cells) {
            if (row < column.size() && !column[row].isFuture) {
                line += glyph(column[row].level, colour);
            } else {
                line += ' ';
            }
            line += ' ';
        }
        trimRight(line);
        lines.push_back(std::move(line));
    }

    std::string legend = std::string(indent, ' ') + report.text("heatmap.less") + ' ';
    for (int level = 0; level < kLevels; ++level) {
        legend += glyph(level, colour) + ' ';
    }
    legend += report.text("heatmap.more");
    lines.push_back(std::move(legend));
    return lines;
}

nlohmann::ordered_json heatmapJSON(const HeatmapModel& model, const Calendar& calendar) {
    auto cells = nlohmann::ordered_json::array();
    for (const auto& column : model.cells) {
        for (const auto& cell : column) {
            cells.push_back(
                {{"day", calendar.dayKey(cell.day)},
                 {"tokens", cell.tokens},
                 {"costUSDMicros", cell.costUSDMicros ? nlohmann::ordered_json(*cell.costUSDMicros)
                                                      : nlohmann::ordered_json()},
                 {"level", cell.level},
                 {"future", cell.isFuture}});
        }
    }
    auto labels = nlohmann::ordered_json::array();
    for (const auto& label : model.monthLabels) {
        labels.push_back({{"week", label.weekIndex}, {"month", label.month}});
    }
    // The same quartiles the grid's levels were cut at, over the same totals.
    return {{"weeks", model.weeks},
            {"thresholds", heatmapThresholds(model)},
            {"cells", std::move(cells)},
            {"monthLabels", std::move(labels)}};
}

std::string heatmapTotalLine(const HeatmapModel& model, const Report& report) {
    const auto totals = heatmapTotals(model);
    return report.text("heatmap.total", {{"tokens", report.tokens(totals.tokens)},
                                         {"weeks", std::to_string(model.weeks)},
                                         {"cost", report.money(totals.costUSDMicros)}});
}

int runHeatmap(CommandContext& ctx, const ReportOptions& options, int weeks, bool json) {
    auto report = openReport(ctx, options);
    if (!report) {
        return report.error();
    }
    const HeatmapModel model = ledgerHeatmap(report->store(), report->calendar, weeks, epochNow());
    const int exitCode = report->scanFailed ? kExitPartial : kExitOK;
    if (json) {
        ctx.out << heatmapJSON(model, report->calendar)
                       .dump(2, ' ', false, nlohmann::json::error_handler_t::replace)
                << '\n';
        return exitCode;
    }
    for (const auto& line : renderHeatmap(model, *report, ctx.colour)) {
        ctx.out << line << '\n';
    }
    ctx.out << heatmapTotalLine(model, *report) << '\n';
    return exitCode;
}

}  // namespace kestrel::cli
