#include "cli/scan_command.hpp"

#include <fmt/format.h>

#include <istream>
#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/session_access.hpp"
#include "cli/text_table.hpp"

namespace kestrel::cli {
namespace {

// A forced rescan replaces each source's ledger with what its files still prove: usage whose
// records the agent has deleted is lost. Say how much is at stake, and on a terminal ask first.
bool confirmForce(CommandContext& ctx, AppSession& session, const ScanOptions& options,
                  const std::optional<std::set<AgentSource>>& sources, std::istream& in) {
    std::string stake;
    for (const auto& [source, events] : ledgerEventsAtStake(session, sources)) {
        stake += fmt::format("{}{} {}", stake.empty() ? "" : ", ", groupedNumber(events),
                             displayName(source));
    }
    ctx.err << "kestrel: a full rescan reads every file again and removes from the ledger the "
               "usage whose records are gone (agents delete old transcripts).\n";
    if (!stake.empty()) {
        ctx.err << "kestrel: events in the ledger now: " << stake << ".\n";
    }
    if (options.yes || !ctx.errIsTerminal) {
        return true;
    }
    ctx.err << "Continue? [y/N] " << std::flush;
    std::string answer;
    std::getline(in, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

nlohmann::ordered_json reportJSON(const SourceScanReport& r) {
    nlohmann::ordered_json j;
    j["source"] = std::string(rawValue(r.source));
    j["status"] = std::string(rawValue(r.status));
    auto roots = nlohmann::ordered_json::array();
    for (const auto& root : r.roots) {
        roots.push_back(root.string());
    }
    j["roots"] = roots;
    j["files"] = r.filesSeen;
    j["filesRead"] = r.filesRead;
    j["filesUnchanged"] = r.filesUnchanged;
    j["filesFromStart"] = r.filesFromStart;
    j["filesVanished"] = r.filesVanished;
    j["bytes"] = r.bytes;
    j["lines"] = r.lines;
    j["events"] = r.events;
    j["malformedLines"] = r.malformed;
    j["committed"] = r.committed;
    j["replaced"] = r.replaced;
    j["accepted"] = r.counts.accepted;
    j["rejected"] = r.counts.rejected;
    j["coverageIssues"] = r.counts.coverageIssues;
    j["quotaSaved"] = r.quotaSaved;
    j["quotaRemoved"] = r.quotaRemoved;
    auto errors = nlohmann::ordered_json::array();
    for (const auto& e : r.errors) {
        errors.push_back(e.description());
    }
    j["errors"] = errors;
    return j;
}

void printTable(CommandContext& ctx, const std::vector<SourceScanReport>& reports) {
    TextTable table({{"Source"},
                     {"Status"},
                     {"Files", Align::right},
                     {"Read", Align::right},
                     {"Events", Align::right},
                     {"Accepted", Align::right},
                     {"Rejected", Align::right},
                     {"Issues", Align::right}});
    for (const auto& r : reports) {
        table.addRow({std::string(displayName(r.source)), std::string(rawValue(r.status)),
                      groupedNumber(r.filesSeen), groupedNumber(r.filesRead),
                      groupedNumber(r.events), groupedNumber(r.counts.accepted),
                      groupedNumber(r.counts.rejected), groupedNumber(r.counts.coverageIssues)});
    }
    table.render(ctx.out, ctx.colour);
}

}  // namespace

int runScan(CommandContext& ctx, const ScanOptions& options, bool json, std::istream& in) {
    auto sources = parseSources(ctx, options.sources);
    if (!sources) {
        return kExitUsage;
    }
    auto session = openSession(ctx);
    if (!session) {
        return kExitFailure;
    }
    if (options.force && !confirmForce(ctx, *session, options, *sources, in)) {
        ctx.err << "kestrel: nothing done\n";
        return kExitOK;
    }
    if (*sources) {
        for (auto s : switchedOffSources(*session, **sources)) {
            ctx.err << "kestrel: " << displayName(s) << " is switched off; `kestrel "
                    << "integrations enable " << rawValue(s) << "` turns it on\n";
        }
    }

    ScanRequest request{*sources, options.force};
    request.discoverPlans = true;  // plan candidates are looked for after every explicit scan
    const auto scanned = scanWithProgress(ctx, *session, request);
    if (!scanned) {
        ctx.err << "kestrel: the scan could not be saved: " << scanned.error().message << '\n';
        return kExitFailure;
    }
    const auto& result = scanned->totals;
    const double elapsed = scanned->seconds;
    const auto& reports = scanned->sources;
    const bool failed = scanned->incomplete();
    for (const auto& r : reports) {
        for (const auto& error : r.errors) {
            ctx.err << "kestrel: " << displayName(r.source) << ": " << error.description() << '\n';
        }
        if (r.replaceWithheld) {
            ctx.err << "kestrel: " << displayName(r.source)
                    << ": some files could not be read, so nothing was removed from the ledger\n";
        }
        if (r.status == SourceStatus::formatChanged) {
            ctx.err << "kestrel: " << displayName(r.source)
                    << ": usage records were found but none could be read ("
                    << counted(r.malformed, "malformed line", "malformed lines")
                    << "); the agent may have changed how it writes them\n";
        }
    }
    const auto unread = installedWithoutReader(pathsOf(ctx));
    const auto& repriced = session->repricedAtOpen();

    if (json) {
        nlohmann::ordered_json doc;
        auto rows = nlohmann::ordered_json::array();
        for (const auto& r : reports) {
            rows.push_back(reportJSON(r));
        }
        doc["sources"] = rows;
        auto notRead = nlohmann::ordered_json::array();
        for (auto s : unread) {
            notRead.push_back(std::string(rawValue(s)));
        }
        doc["installedNotRead"] = notRead;
        doc["files"] = result.files;
        doc["events"] = result.events;
        doc["changed"] = result.changed;
        doc["quotaChanged"] = result.quotaChanged;
        doc["pendingPlanReview"] = result.pendingPlanReviewCount;
        doc["repriced"] = repriced.skipped ? 0 : repriced.count;
        doc["seconds"] = elapsed;
        ctx.out << doc.dump(2) << '\n';
        return failed ? kExitPartial : kExitOK;
    }

    printTable(ctx, reports);
    if (!unread.empty()) {
        std::string names;
        for (auto s : unread) {
            names += fmt::format("{}{}", names.empty() ? "" : ", ", displayName(s));
        }
        ctx.out << "Installed, not read yet: " << names << ".\n";
    }
    for (const auto& r : reports) {
        if (r.quotaSaved) {
            ctx.out << displayName(r.source) << ": quota windows saved from its logs.\n";
        }
    }
    std::string tail = result.changed ? fmt::format("Saved to {}", ctx.supportDir.string())
                                      : std::string("No new usage; the ledger is unchanged");
    if (!repriced.skipped && repriced.count > 0) {
        tail += fmt::format("; prices changed, {} repriced",
                            counted(repriced.count, "observation", "observations"));
    }
    ctx.out << tail << fmt::format(" ({:.2f} s).\n", elapsed);
    if (result.pendingPlanReviewCount > 0) {
        ctx.out << counted(result.pendingPlanReviewCount, "plan candidate", "plan candidates")
                << " awaiting review: `kestrel plans`.\n";
    }
    ctx.out << ledgerHeadline(session->store()) << '\n';
    return failed ? kExitPartial : kExitOK;
}

}  // namespace kestrel::cli
