#include "cli/coverage_command.hpp"

#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/text_table.hpp"
#include "core/app/coverage_report.hpp"

namespace kestrel::cli {

std::string coverageExplanation(const Report& report, CoverageIssueCode code) {
    return coverageExplanation(report.display(), code);
}

int runCoverage(CommandContext& ctx, const ReportOptions& reportOptions, bool json) {
    auto opened = openReport(ctx, reportOptions);
    if (!opened) {
        return opened.error();
    }
    auto& report = *opened;
    const int exitCode = report.scanFailed ? kExitPartial : kExitOK;

    CoverageReport coverage;
    try {
        coverage = coverageReport(report.store(), report.query);
    } catch (const std::exception& e) {
        ctx.err << "kestrel: cannot read the ledger: " << e.what() << '\n';
        return kExitFailure;
    }

    if (json) {
        nlohmann::ordered_json doc;
        auto rows = nlohmann::ordered_json::array();
        for (const auto& g : coverage.groups) {
            rows.push_back(
                {{"code", std::string(rawValue(g.code))},
                 {"source", g.source ? nlohmann::ordered_json(std::string(rawValue(*g.source)))
                                     : nlohmann::ordered_json(nullptr)},
                 {"origin", std::string(rawValue(g.origin))},
                 {"count", g.count},
                 {"explanation", coverageExplanation(report, g.code)}});
        }
        doc["groups"] = std::move(rows);
        auto perCode = nlohmann::ordered_json::array();
        for (const auto& c : coverage.counts) {
            perCode.push_back({{"code", std::string(rawValue(c.code))}, {"count", c.count}});
        }
        doc["counts"] = std::move(perCode);
        ctx.out << doc.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
        return exitCode;
    }

    if (coverage.groups.empty()) {
        ctx.out << report.text("coverage.none") << '\n';
        return exitCode;
    }
    TextTable table({{report.text("column.issue")},
                     {report.text("column.source")},
                     {report.text("column.origin")},
                     {report.text("column.count"), Align::right},
                     {report.text("column.explanation")}});
    for (const auto& g : coverage.groups) {
        table.addRow({std::string(rawValue(g.code)),
                      g.source ? std::string(displayName(*g.source)) : "-",
                      std::string(rawValue(g.origin)), report.tokens(g.count),
                      coverageExplanation(report, g.code)});
    }
    table.render(ctx.out, ctx.colour);
    ctx.out << report.text("coverage.total", {{"count", report.tokens(coverage.total)}}) << '\n';
    return exitCode;
}

}  // namespace kestrel::cli
