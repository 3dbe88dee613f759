#include "cli/usage_reports.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "cli/cli.hpp"
#include "cli/local_time.hpp"
#include "cli/text_table.hpp"
#include "core/app/group_reports.hpp"
#include "core/app/usage_rows.hpp"

namespace kestrel::cli {
namespace {

// The totals' keys after the row's own.
void appendSummary(nlohmann::ordered_json& row, const LedgerSummary& summary) {
    const auto totals = summaryJSON(summary);
    for (auto it = totals.begin(); it != totals.end(); ++it) {
        row[it.key()] = it.value();
    }
}

bool descending(const ReportOptions& options, bool byDefault) {
    return options.order.empty() ? byDefault : options.order == "desc";
}

std::vector<Column> tokenColumns(const Report& r, std::string first) {
    return {{std::move(first)},
            {r.text("column.events"), Align::right},
            {r.text("column.input"), Align::right},
            {r.text("column.cacheRead"), Align::right},
            {r.text("column.cacheWrite"), Align::right},
            {r.text("column.output"), Align::right},
            {r.text("column.reasoning"), Align::right},
            {r.text("column.totalTokens"), Align::right},
            {r.text("column.cost"), Align::right}};
}

std::vector<std::string> tokenCells(const Report& r, std::string first, const LedgerSummary& s) {
    return {std::move(first),
            r.tokens(s.eventCount),
            r.tokens(s.inputUncached.value_or(0)),
            r.tokens(s.cacheRead.value_or(0)),
            r.tokens(s.cacheWrite.value_or(0)),
            r.tokens(s.outputVisible.value_or(0)),
            r.tokens(s.reasoning.value_or(0)),
            r.tokens(totalTokens(s)),
            r.money(s)};
}

nlohmann::ordered_json sourceList(const std::set<AgentSource>& sources) {
    auto out = nlohmann::ordered_json::array();
    for (auto s : sources) {
        out.push_back(std::string(rawValue(s)));
    }
    return out;
}

std::string joined(const std::vector<std::string>& names) {
    std::string out;
    for (const auto& n : names) {
        out += (out.empty() ? "" : ", ") + n;
    }
    return out;
}

std::string sourceText(const std::set<AgentSource>& sources) {
    std::vector<std::string> names;
    for (auto s : sources) {
        names.emplace_back(displayName(s));
    }
    return joined(names);
}

void printTitle(const Report& r, CommandContext& ctx, std::string_view key) {
    const std::string title = r.text(key, {{"home", ctx.home.string()}});
    ctx.out << (ctx.colour ? "\x1b[1m" + title + "\x1b[0m" : title) << "\n\n";
}

void printFootnotes(const Report& r, CommandContext& ctx, const LedgerSummary& total) {
    ctx.out << r.text("report.costNote");
    if (total.unknownCostEventCount > 0) {
        ctx.out << ' ' << r.text("report.unpricedNote");
    }
    ctx.out << '\n';
}

// An empty result: a ledger with nothing at all says where Kestrel looked; a filter that
// matches nothing says so.
int printEmpty(Report& r, CommandContext& ctx, bool json, int status) {
    if (json) {
        nlohmann::ordered_json doc;
        doc["rows"] = nlohmann::ordered_json::array();
        doc["totals"] = summaryJSON({});
        doc["currency"] = std::string(rawValue(r.currency));
        doc["cnyPerUsdE4"] = r.settings.cnyPerUsdE4;
        ctx.out << doc.dump(2) << '\n';
    } else if (r.store().ledgerEventCount() == 0) {
        printNothingFound(r, ctx);
    } else {
        ctx.out << r.text("report.noUsage") << '\n';
    }
    return status;
}

}  // namespace

int runPeriodReport(CommandContext& ctx, const ReportOptions& options, PeriodUnit unit, bool json) {
    auto opened = openReport(ctx, options);
    if (!opened) {
        return opened.error();
    }
    auto& r = *opened;
    const int status = r.scanFailed ? kExitPartial : kExitOK;

    const auto report =
        periodReport(r.store(), r.query, r.calendar, unit, descending(options, false));
    if (report.rows.empty()) {
        return printEmpty(r, ctx, json, status);
    }

    if (json) {
        auto rows = nlohmann::ordered_json::array();
        for (const auto& p : report.rows) {
            nlohmann::ordered_json row;
            row["period"] = p.period;
            appendSummary(row, p.total);
            row["models"] = std::vector<std::string>(p.models.begin(), p.models.end());
            row["sources"] = sourceList(p.sources);
            if (options.breakdown) {
                auto breakdown = nlohmann::ordered_json::array();
                for (const auto& m : p.byModel) {
                    nlohmann::ordered_json entry;
                    entry["model"] = m.model;
                    entry["sources"] = sourceList(m.sources);
                    appendSummary(entry, m.summary);
                    breakdown.push_back(std::move(entry));
                }
                row["breakdown"] = std::move(breakdown);
            }
            rows.push_back(std::move(row));
        }
        nlohmann::ordered_json doc;
        doc["rows"] = std::move(rows);
        doc["totals"] = summaryJSON(report.total);
        doc["currency"] = std::string(rawValue(r.currency));
        doc["cnyPerUsdE4"] = r.settings.cnyPerUsdE4;
        ctx.out << doc.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
        return status;
    }

    const char* titleKey = unit == PeriodUnit::day    ? "report.daily.title"
                           : unit == PeriodUnit::week ? "report.weekly.title"
                                                      : "report.monthly.title";
    const char* columnKey = unit == PeriodUnit::day    ? "column.date"
                            : unit == PeriodUnit::week ? "column.week"
                                                       : "column.month";
    printTitle(r, ctx, titleKey);
    TextTable table(tokenColumns(r, r.text(columnKey)));
    for (const auto& p : report.rows) {
        table.addRow(tokenCells(r, p.period, p.total));
        if (options.breakdown) {
            for (const auto& m : p.byModel) {
                table.addRow(tokenCells(r, "  " + m.model, m.summary));
            }
        }
    }
    table.addSeparator();
    table.addRow(tokenCells(r, r.text("report.total"), report.total));
    table.render(ctx.out, ctx.colour);
    ctx.out << '\n';
    printFootnotes(r, ctx, report.total);
    return status;
}

int runGroupReport(CommandContext& ctx, const ReportOptions& options, UsageGroup group, bool json) {
    auto opened = openReport(ctx, options);
    if (!opened) {
        return opened.error();
    }
    auto& r = *opened;
    const int status = r.scanFailed ? kExitPartial : kExitOK;

    // Every group becomes rows of (JSON fields, text cells, totals), in the report's order.
    const bool reversed = !descending(options, true);
    struct Row {
        nlohmann::ordered_json fields;
        std::vector<std::string> cells;  // the leading text columns
        LedgerSummary summary;
    };
    std::vector<Row> rows;
    LedgerSummary total;
    std::vector<Column> leading;
    const char* titleKey = "";
    switch (group) {
        case UsageGroup::models: {
            titleKey = "report.models.title";
            leading = {{r.text("column.model")}, {r.text("column.agents")}};
            const auto report = modelsReport(r.store(), r.query, reversed);
            total = report.total;
            for (const auto& m : report.rows) {
                const std::set<AgentSource> sources(m.sources.begin(), m.sources.end());
                rows.push_back({{{"model", m.model}, {"sources", sourceList(sources)}},
                                {m.model, sourceText(sources)},
                                m.summary});
            }
            break;
        }
        case UsageGroup::sources: {
            titleKey = "report.sources.title";
            leading = {{r.text("column.source")}};
            const auto report = sourcesReport(r.store(), r.query, reversed);
            total = report.total;
            for (const auto& [source, summary] : report.rows) {
                rows.push_back({{{"source", std::string(rawValue(source))},
                                 {"displayName", std::string(displayName(source))}},
                                {std::string(displayName(source))},
                                summary});
            }
            break;
        }
        case UsageGroup::projects: {
            titleKey = "report.projects.title";
            leading = {{r.text("column.project")}, {r.text("column.agents")}};
            const auto report = projectsReport(r.store(), r.query, reversed);
            total = report.total;
            for (const auto& p : report.rows) {
                const std::set<AgentSource> sources(p.sources.begin(), p.sources.end());
                rows.push_back({{{"project", p.projectDisplayName
                                                 ? nlohmann::ordered_json(*p.projectDisplayName)
                                                 : nlohmann::ordered_json(nullptr)},
                                 {"sources", sourceList(sources)}},
                                {p.projectDisplayName.value_or(r.text("report.noProject")),
                                 sourceText(sources)},
                                p.summary});
            }
            break;
        }
        case UsageGroup::sessions: {
            titleKey = "report.sessions.title";
            leading = {{r.text("column.lastActive")},
                       {r.text("column.session")},
                       {r.text("column.source")},
                       {r.text("column.project")},
                       {r.text("column.models")}};
            const auto report = sessionsReport(r.store(), r.query, reversed);
            total = report.total;
            for (const auto& s : report.rows) {
                rows.push_back(
                    {{{"sessionKey", s.sessionKey},
                      {"source", std::string(rawValue(s.source))},
                      {"project", s.projectDisplayName
                                      ? nlohmann::ordered_json(*s.projectDisplayName)
                                      : nlohmann::ordered_json(nullptr)},
                      {"firstAt", s.firstAt},
                      {"lastAt", s.lastAt},
                      {"models", s.models}},
                     {formatLocal(s.lastAt, "%Y-%m-%d %H:%M"),
                      s.sessionKey.size() > 12 ? s.sessionKey.substr(0, 12) + "…" : s.sessionKey,
                      std::string(displayName(s.source)), s.projectDisplayName.value_or("-"),
                      joined(s.models)},
                     s.summary});
            }
            break;
        }
    }
    if (rows.empty()) {
        return printEmpty(r, ctx, json, status);
    }

    if (json) {
        auto out = nlohmann::ordered_json::array();
        for (auto& row : rows) {
            auto entry = row.fields;
            appendSummary(entry, row.summary);
            out.push_back(std::move(entry));
        }
        nlohmann::ordered_json doc;
        doc["rows"] = std::move(out);
        doc["totals"] = summaryJSON(total);
        doc["currency"] = std::string(rawValue(r.currency));
        doc["cnyPerUsdE4"] = r.settings.cnyPerUsdE4;
        ctx.out << doc.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
        return status;
    }

    printTitle(r, ctx, titleKey);
    auto columns = leading;
    auto numbers = tokenColumns(r, "");
    columns.insert(columns.end(), numbers.begin() + 1, numbers.end());
    TextTable table(columns);
    for (const auto& row : rows) {
        auto cells = row.cells;
        auto values = tokenCells(r, "", row.summary);
        cells.insert(cells.end(), values.begin() + 1, values.end());
        table.addRow(std::move(cells));
    }
    table.addSeparator();
    auto totals = std::vector<std::string>(leading.size());
    totals[0] = r.text("report.total");
    auto values = tokenCells(r, "", total);
    totals.insert(totals.end(), values.begin() + 1, values.end());
    table.addRow(std::move(totals));
    table.render(ctx.out, ctx.colour);
    ctx.out << '\n';
    printFootnotes(r, ctx, total);
    return status;
}

}  // namespace kestrel::cli
