#include "cli/summary_command.hpp"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/heatmap_command.hpp"
#include "cli/text_table.hpp"
#include "core/app/usage_overview.hpp"
#include "core/model/timestamp.hpp"

namespace kestrel::cli {
namespace {

struct Period {
    const char* label;    // catalogue key
    const char* jsonKey;  // key in --json
    const LedgerSummary& summary;
};

std::vector<std::string> cells(std::string label, const LedgerSummary& s, const Report& report) {
    return {std::move(label), report.tokens(s.eventCount), report.tokens(totalTokens(s)),
            report.money(s)};
}

std::vector<Column> columns(const Report& report, const char* firstKey) {
    return {{report.text(firstKey)},
            {report.text("column.events"), Align::right},
            {report.text("column.totalTokens"), Align::right},
            {report.text("column.cost"), Align::right}};
}

}  // namespace

int runSummary(CommandContext& ctx, const ReportOptions& options, bool json) {
    auto opened = openReport(ctx, options);
    if (!opened) {
        return opened.error();
    }
    Report& report = *opened;
    auto& store = report.store();
    const int exitCode = report.scanFailed ? kExitPartial : kExitOK;

    const Calendar& calendar = report.calendar;
    const UsageOverview overview = usageOverview(store, report.query, calendar, epochNow());
    const Period periods[] = {
        {"period.today", "today", overview.today},
        {"period.yesterday", "yesterday", overview.yesterday},
        {"period.last7Days", "last7Days", overview.last7Days},
        {"period.last30Days", "last30Days", overview.last30Days},
    };
    const auto& topModels = overview.topModelsToday;
    const auto& topSources = overview.topSourcesToday;
    const HeatmapModel& heatmap = overview.heatmap;

    if (json) {
        nlohmann::ordered_json doc;
        doc["home"] = ctx.home.string();
        doc["ledger"] = (ctx.supportDir / UsageStore::kFileName).string();
        doc["scan"] = {{"files", report.scanned.files},
                       {"events", report.scanned.events},
                       {"changed", report.scanned.changed}};
        for (const auto& period : periods) {
            doc[period.jsonKey] = summaryJSON(period.summary);
        }
        auto models = nlohmann::ordered_json::array();
        for (const auto& m : topModels) {
            nlohmann::ordered_json row = {{"model", m.model}};
            row.update(summaryJSON(m.summary));
            models.push_back(std::move(row));
        }
        doc["topModelsToday"] = std::move(models);
        auto sources = nlohmann::ordered_json::array();
        for (const auto& s : topSources) {
            nlohmann::ordered_json row = {{"source", std::string(rawValue(s.source))}};
            row.update(summaryJSON(s.summary));
            sources.push_back(std::move(row));
        }
        doc["topSourcesToday"] = std::move(sources);
        doc["heatmap"] = heatmapJSON(heatmap, calendar);
        ctx.out << doc.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
        return exitCode;
    }

    if (overview.matchingEvents == 0) {
        printNothingFound(report, ctx);
        return exitCode;
    }
    const auto bold = [&](const std::string& s) {
        return ctx.colour ? "\x1b[1m" + s + "\x1b[0m" : s;
    };
    ctx.out << bold(report.text("overview.title", {{"home", ctx.home.string()}})) << "\n\n";

    TextTable periodTable(columns(report, "column.period"));
    for (const auto& period : periods) {
        periodTable.addRow(cells(report.text(period.label), period.summary, report));
    }
    periodTable.render(ctx.out, ctx.colour);
    ctx.out << '\n';

    if (periods[0].summary.eventCount == 0) {
        ctx.out << report.text("overview.noUsageToday") << "\n\n";
    } else {
        ctx.out << bold(report.text("overview.topModelsToday")) << '\n';
        TextTable models(columns(report, "column.model"));
        for (const auto& m : topModels) {
            models.addRow(cells(m.model, m.summary, report));
        }
        models.render(ctx.out, ctx.colour);
        ctx.out << '\n' << bold(report.text("overview.topSourcesToday")) << '\n';
        TextTable sources(columns(report, "column.source"));
        for (const auto& s : topSources) {
            sources.addRow(cells(std::string(displayName(s.source)), s.summary, report));
        }
        sources.render(ctx.out, ctx.colour);
        ctx.out << '\n';
    }

    for (const auto& line : renderHeatmap(heatmap, report, ctx.colour)) {
        ctx.out << line << '\n';
    }
    ctx.out << heatmapTotalLine(heatmap, report) << '\n';
    // Every row shown lies inside the last 30 days, so their star is that period's.
    if (periods[3].summary.unknownCostEventCount > 0) {
        ctx.out << '\n' << report.text("overview.unpricedNote") << '\n';
    }
    return exitCode;
}

}  // namespace kestrel::cli
