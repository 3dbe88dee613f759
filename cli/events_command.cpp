#include "cli/events_command.hpp"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/local_time.hpp"
#include "cli/text_table.hpp"
#include "core/app/events_page.hpp"

namespace kestrel::cli {
namespace {

nlohmann::ordered_json orNull(const std::optional<int64_t>& v) {
    return v ? nlohmann::ordered_json(*v) : nlohmann::ordered_json(nullptr);
}

nlohmann::ordered_json orNull(const std::optional<std::string>& v) {
    return v ? nlohmann::ordered_json(*v) : nlohmann::ordered_json(nullptr);
}

std::string countOrDash(const Report& report, const std::optional<int64_t>& v) {
    return v ? report.tokens(*v) : "-";
}

nlohmann::ordered_json entryJSON(const Report& report, const LedgerEntry& entry) {
    const auto& e = entry.event;
    const auto& c = entry.cost;
    return {{"id", e.id},
            {"occurredAt", e.occurredAt},
            {"localDay", report.calendar.dayKey(e.occurredAt)},
            {"source", std::string(rawValue(e.source))},
            {"provider", e.provider},
            {"model", e.model},
            {"project", orNull(e.projectDisplayName)},
            {"sessionKey", orNull(e.sessionKey)},
            {"inputUncached", orNull(e.tokens.inputUncached)},
            {"cacheRead", orNull(e.tokens.cacheRead)},
            {"cacheWrite", orNull(e.tokens.cacheWrite)},
            {"outputVisible", orNull(e.tokens.outputVisible)},
            {"reasoning", orNull(e.tokens.reasoning)},
            {"providerInputTotal", orNull(e.tokens.providerInputTotal)},
            {"providerOutputTotal", orNull(e.tokens.providerOutputTotal)},
            {"providerTotal", orNull(e.tokens.providerTotal)},
            {"costUSDMicros", orNull(c.amountUSDMicros)},
            {"costSource", std::string(rawValue(c.source))},
            {"completeness", std::string(rawValue(c.completeness))},
            {"priceVersion", orNull(c.priceVersion)}};
}

// A word as a POSIX shell reads it back: bare when it holds only safe characters, else in single
// quotes.
std::string shellWord(std::string_view word) {
    const bool safe = !word.empty() && word.find_first_not_of(
                                           "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                           "0123456789_./:=@%+,-") == std::string_view::npos;
    if (safe) {
        return std::string(word);
    }
    std::string out = "'";
    for (char c : word) {
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return out + "'";
}

// The command that prints the page after `cursor` with the same choices.
std::string nextPageCommand(const ReportOptions& report, const EventsOptions& options,
                            const LedgerCursor& cursor) {
    std::string command = "kestrel events";
    const auto add = [&](std::string_view option, const std::string& value) {
        if (!value.empty()) {
            command += fmt::format(" {} {}", option, shellWord(value));
        }
    };
    if (report.noScan) {
        command += " --no-scan";
    }
    add("--since", report.since);
    add("--until", report.until);
    for (const auto& source : report.sources) {
        add("--source", source);
    }
    add("--model", report.model);
    add("--project", report.project);
    add("--search", report.search);
    add("--currency", report.currency);
    add("--lang", report.language);
    if (options.order != "desc") {
        add("--order", options.order);
    }
    if (options.limit != EventsOptions{}.limit) {
        add("--limit", std::to_string(options.limit));
    }
    add("--after", formatCursor(cursor));
    return command;
}

void printTable(CommandContext& ctx, const Report& report,
                const std::vector<LedgerEntry>& entries) {
    TextTable table({{report.text("column.time")},
                     {report.text("column.source")},
                     {report.text("column.model")},
                     {report.text("column.project")},
                     {report.text("column.input"), Align::right},
                     {report.text("column.cacheRead"), Align::right},
                     {report.text("column.cacheWrite"), Align::right},
                     {report.text("column.output"), Align::right},
                     {report.text("column.totalTokens"), Align::right},
                     {report.text("column.cost"), Align::right}});
    for (const auto& entry : entries) {
        const auto& e = entry.event;
        table.addRow(
            {formatLocal(e.occurredAt, "%Y-%m-%d %H:%M:%S"), std::string(displayName(e.source)),
             e.model.empty() ? "-" : e.model, e.projectDisplayName.value_or("-"),
             countOrDash(report, e.tokens.inputUncached), countOrDash(report, e.tokens.cacheRead),
             countOrDash(report, e.tokens.cacheWrite), countOrDash(report, eventOutputTokens(e.tokens)),
             countOrDash(report, eventTokenTotal(e.tokens)),
             entry.cost.amountUSDMicros ? report.money(*entry.cost.amountUSDMicros) : "-"});
    }
    table.render(ctx.out, ctx.colour);
}

}  // namespace

std::string formatCursor(const LedgerCursor& cursor) {
    return fmt::format("{:.6f}/{}", cursor.occurredAt, cursor.eventID);
}

std::optional<LedgerCursor> parseCursor(std::string_view text) {
    const auto slash = text.find('/');
    if (slash == std::string_view::npos || slash == 0 || slash + 1 == text.size()) {
        return std::nullopt;
    }
    const auto time = text.substr(0, slash);
    // Plain decimals only: from_chars would also take exponents, "inf" and "nan".
    if (time.find_first_not_of("0123456789.-") != std::string_view::npos) {
        return std::nullopt;
    }
    double at = 0;
    const auto [end, error] =
        std::from_chars(time.data(), time.data() + time.size(), at, std::chars_format::fixed);
    if (error != std::errc() || end != time.data() + time.size() || !std::isfinite(at)) {
        return std::nullopt;
    }
    return LedgerCursor{at, std::string(text.substr(slash + 1))};
}

int runEvents(CommandContext& ctx, const ReportOptions& reportOptions, const EventsOptions& options,
              bool json) {
    if (options.limit < 1 || options.limit > kMaxEventsPerPage) {
        ctx.err << "kestrel: --limit " << options.limit << " is out of range; give 1 to "
                << kMaxEventsPerPage << '\n';
        return kExitUsage;
    }
    if (options.order != "asc" && options.order != "desc") {
        ctx.err << "kestrel: --order \"" << options.order << "\" is not asc or desc\n";
        return kExitUsage;
    }
    std::optional<LedgerCursor> after;
    if (!options.after.empty()) {
        after = parseCursor(options.after);
        if (!after) {
            ctx.err << "kestrel: --after \"" << options.after
                    << "\" is not a cursor; give it as printed after a page, "
                       "SECONDS.MICROSECONDS/EVENT-ID\n";
            return kExitUsage;
        }
    }

    auto opened = openReport(ctx, reportOptions);
    if (!opened) {
        return opened.error();
    }
    auto& report = *opened;
    const int exitCode = report.scanFailed ? kExitPartial : kExitOK;

    EventsPage page;
    try {
        page = eventsPage(report.store(), report.query,
                          options.order == "asc" ? LedgerSortOrder::ascending
                                                 : LedgerSortOrder::descending,
                          after, options.limit);
    } catch (const std::exception& e) {
        ctx.err << "kestrel: cannot read the ledger: " << e.what() << '\n';
        return kExitFailure;
    }
    const auto& next = page.next;

    if (json) {
        auto entries = nlohmann::ordered_json::array();
        for (const auto& entry : page.entries) {
            entries.push_back(entryJSON(report, entry));
        }
        nlohmann::ordered_json doc;
        doc["entries"] = std::move(entries);
        doc["nextCursor"] = next ? nlohmann::ordered_json(formatCursor(*next)) : nullptr;
        ctx.out << doc.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
        return exitCode;
    }

    if (page.entries.empty()) {
        if (page.ledgerEmpty) {
            printNothingFound(report, ctx);
        } else {
            ctx.out << report.text("events.none") << '\n';
        }
        return exitCode;
    }
    printTable(ctx, report, page.entries);
    if (next) {
        ctx.out << report.text("events.nextPage",
                               {{"command", nextPageCommand(reportOptions, options, *next)}})
                << '\n';
    }
    return exitCode;
}

}  // namespace kestrel::cli
