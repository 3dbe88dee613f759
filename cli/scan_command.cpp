#include "cli/scan_command.hpp"

#include <fmt/format.h>

#include <chrono>
#include <istream>
#include <nlohmann/json.hpp>

#include "cli/claude_scan.hpp"
#include "cli/cli.hpp"
#include "cli/store_access.hpp"
#include "cli/text_table.hpp"

namespace kestrel::cli {
namespace {

// A forced rescan replaces the source's ledger with what its files still prove: usage whose
// transcripts the agent has deleted is lost. Say so, and on a terminal ask first.
bool confirmForce(CommandContext& ctx, const ScanOptions& options, std::istream& in) {
    ctx.err << "kestrel: a full rescan removes from the ledger the usage whose records are "
               "gone (agents delete old transcripts).\n";
    if (options.yes || !ctx.errIsTerminal) {
        return true;
    }
    ctx.err << "Continue? [y/N] " << std::flush;
    std::string answer;
    std::getline(in, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

nlohmann::ordered_json reportJSON(const ScanReport& r) {
    nlohmann::ordered_json j;
    j["source"] = std::string(rawValue(r.source));
    j["status"] = !r.errors.empty()  ? "readError"
                  : r.roots.empty()  ? "notInstalled"
                  : r.filesSeen == 0 ? "authorizedEmpty"
                                     : "healthy";
    j["files"] = r.filesSeen;
    j["filesRead"] = r.filesRead;
    j["filesUnchanged"] = r.filesUnchanged;
    j["filesFromStart"] = r.filesFromStart;
    j["bytes"] = r.bytes;
    j["lines"] = r.lines;
    j["events"] = r.events;
    j["malformedLines"] = r.malformed;
    j["committed"] = r.outcome.has_value();
    j["accepted"] = r.outcome ? r.outcome->ledgerEventCount : 0;
    j["rejected"] = r.outcome ? r.outcome->observationCount - r.outcome->ledgerEventCount : 0;
    j["coverageIssues"] = r.outcome ? r.outcome->coverageIssueCount : 0;
    auto errors = nlohmann::ordered_json::array();
    for (const auto& e : r.errors) {
        errors.push_back(e.description());
    }
    j["errors"] = errors;
    return j;
}

}  // namespace

int runScan(CommandContext& ctx, const ScanOptions& options, bool json, std::istream& in) {
    if (options.force && !confirmForce(ctx, options, in)) {
        ctx.err << "kestrel: nothing done\n";
        return kExitOK;
    }
    auto store = openStore(ctx);
    if (!store) {
        return kExitFailure;
    }
    const auto started = std::chrono::steady_clock::now();
    const auto prices = PriceTable::resolved(*store);
    // Stored usage is repriced first, so that what this scan adds is priced the same way.
    const auto repriced = store->repriceIfFingerprintChanged(prices, ctx.settings.billingMode);

    ProgressLine progress(ctx.err, ctx.errIsTerminal);
    ScanReport report;
    try {
        report = scanClaude(*store, ctx.home, ctx.env, ctx.settings, prices, options.force,
                            [&](std::size_t done, std::size_t total, const auto&) {
                                progress.update(done, total);
                            });
    } catch (const std::exception& e) {
        progress.clear();
        ctx.err << "kestrel: the scan could not be saved: " << e.what() << '\n';
        return kExitFailure;
    }
    progress.clear();
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    for (const auto& error : report.errors) {
        ctx.err << "kestrel: " << error.description() << '\n';
    }

    const auto status = reportJSON(report);
    if (json) {
        nlohmann::ordered_json doc;
        doc["sources"] = nlohmann::ordered_json::array({status});
        doc["repriced"] = repriced.skipped ? 0 : repriced.count;
        doc["seconds"] = elapsed;
        ctx.out << doc.dump(2) << '\n';
    } else {
        TextTable table({{"Source"},
                         {"Status"},
                         {"Files", Align::right},
                         {"Read", Align::right},
                         {"Events", Align::right},
                         {"Accepted", Align::right},
                         {"Rejected", Align::right},
                         {"Issues", Align::right}});
        table.addRow({std::string(displayName(report.source)), status["status"].get<std::string>(),
                      groupedNumber(report.filesSeen), groupedNumber(report.filesRead),
                      groupedNumber(report.events),
                      groupedNumber(status["accepted"].get<int64_t>()),
                      groupedNumber(status["rejected"].get<int64_t>()),
                      groupedNumber(status["coverageIssues"].get<int64_t>())});
        table.render(ctx.out, ctx.colour);
        std::string tail =
            report.outcome
                ? fmt::format("Saved to {}", ctx.supportDir.string())
                : std::string("Nothing new since the last scan; the ledger is unchanged");
        if (!repriced.skipped) {
            tail += fmt::format("; prices changed, {} repriced",
                                counted(repriced.count, "observation", "observations"));
        }
        ctx.out << tail << fmt::format(" ({:.2f} s).\n", elapsed);
    }
    return report.errors.empty() ? kExitOK : kExitPartial;
}

}  // namespace kestrel::cli
