#include "cli/report_context.hpp"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/session_access.hpp"
#include "cli/text_table.hpp"
#include "core/app/usage_rows.hpp"
#include "core/app/usage_scan.hpp"

namespace kestrel::cli {
namespace {

// A "YYYY-MM-DD" option as the local midnight it names; prints why not and gives nothing.
std::optional<double> localDay(CommandContext& ctx, const Calendar& calendar,
                               const std::string& option, const std::string& text) {
    auto day = calendar.startOfDay(text);
    if (!day) {
        ctx.err << "kestrel: " << option << " \"" << text
                << "\" is not a date; write it as YYYY-MM-DD\n";
    }
    return day;
}

// The filters of `options` as a query; prints the first problem and gives nothing.
std::optional<LedgerQuery> queryOf(CommandContext& ctx, const ReportOptions& options,
                                   const Calendar& calendar) {
    LedgerQuery query;
    if (!options.since.empty()) {
        auto from = localDay(ctx, calendar, "--since", options.since);
        if (!from) {
            return std::nullopt;
        }
        query.from = *from;
    }
    if (!options.until.empty()) {
        auto last = localDay(ctx, calendar, "--until", options.until);
        if (!last) {
            return std::nullopt;
        }
        query.to = calendar.addingDays(*last, 1);
    }
    if (query.from && query.to && *query.from >= *query.to) {
        ctx.err << "kestrel: --since " << options.since << " is after --until " << options.until
                << '\n';
        return std::nullopt;
    }
    if (options.sources.size() > 1) {
        ctx.err << "kestrel: --source can be given once\n";
        return std::nullopt;
    }
    if (!options.sources.empty()) {
        const auto source = agentSourceNamed(options.sources.front());
        if (!source) {
            ctx.err << "kestrel: unknown source \"" << options.sources.front()
                    << "\" (known: " << sourceNames(allAgentSources()) << ")\n";
            return std::nullopt;
        }
        query.source = *source;
    }
    if (!options.model.empty()) {
        query.model = options.model;
    }
    if (!options.project.empty()) {
        query.projectDisplayName = options.project;
    }
    if (!options.search.empty()) {
        query.search = options.search;
    }
    return query;
}

}  // namespace

void addReportOptions(CLI::App* command, ReportOptions& o, bool filters) {
    command->add_flag("--no-scan", o.noScan,
                      "Read the ledger as it is, without scanning the agents' records first");
    command->add_option("--currency", o.currency, "Show money in usd or cny (default: settings)")
        ->type_name("CURRENCY")
        ->check(CLI::IsMember({"usd", "cny"}));
    command->add_option("--lang", o.language, "Texts in en or zh-Hans (default: settings)")
        ->type_name("LANG")
        ->check(CLI::IsMember({"en", "zh-Hans"}));
    if (!filters) {
        return;
    }
    command->add_option("--since", o.since, "First local day, inclusive")->type_name("YYYY-MM-DD");
    command->add_option("--until", o.until, "Last local day, inclusive")->type_name("YYYY-MM-DD");
    command->add_option("--source", o.sources, "Only this agent (source or display name)")
        ->type_name("AGENT");
    command->add_option("--model", o.model, "Only this model (exact name)")->type_name("MODEL");
    command->add_option("--project", o.project, "Only this project (exact name)")
        ->type_name("NAME");
    command
        ->add_option("--search", o.search,
                     "Only rows whose model, project, provider or agent contains TEXT")
        ->type_name("TEXT");
}

std::string Report::text(std::string_view key) const {
    return display().text(key);
}

std::string Report::text(std::string_view key, std::initializer_list<MessageArg> args) const {
    return display().text(key, args);
}

std::string Report::money(int64_t usdMicros) const {
    return display().money(usdMicros);
}

std::string Report::money(const LedgerSummary& s) const {
    return money(s.knownCostUSDMicros.value_or(0)) + (s.unknownCostEventCount > 0 ? "*" : "");
}

std::string Report::tokens(int64_t count) const {
    return groupedNumber(count);
}

nlohmann::ordered_json summaryJSON(const LedgerSummary& s) {
    return {{"events", s.eventCount},
            {"inputUncached", s.inputUncached.value_or(0)},
            {"cacheRead", s.cacheRead.value_or(0)},
            {"cacheWrite", s.cacheWrite.value_or(0)},
            {"outputVisible", s.outputVisible.value_or(0)},
            {"reasoning", s.reasoning.value_or(0)},
            {"totalTokens", totalTokens(s)},
            {"costUSDMicros", s.knownCostUSDMicros.value_or(0)},
            {"unpricedEvents", s.unknownCostEventCount}};
}

std::expected<Report, int> openReport(CommandContext& ctx, const ReportOptions& options) {
    Report r;
    // Everything that can be refused is checked before the ledger is touched.
    auto query = queryOf(ctx, options, r.calendar);
    if (!query) {
        return std::unexpected(kExitUsage);
    }
    r.query = std::move(*query);

    r.session = openSession(ctx);
    if (!r.session) {
        return std::unexpected(kExitFailure);
    }
    r.settings = r.session->settings();
    std::optional<AppLanguage> language;
    if (!options.language.empty()) {
        language = fromRawValue<AppLanguage>(options.language);
    }
    std::optional<ResolvedCurrency> currency;
    if (!options.currency.empty()) {
        currency = options.currency == "cny" ? ResolvedCurrency::cny : ResolvedCurrency::usd;
    }
    const auto display = displayChoices(r.settings, language, currency);
    r.language = display.language;
    r.currency = display.currency;

    if (!options.noScan) {
        const auto scanned = scanWithProgress(ctx, *r.session, ScanRequest{});
        if (!scanned) {
            ctx.err << "kestrel: the scan could not be saved: " << scanned.error().message << '\n';
            return std::unexpected(kExitFailure);
        }
        r.scanned = scanned->totals;
        for (const auto& report : scanned->sources) {
            for (const auto& error : report.errors) {
                ctx.err << "kestrel: " << displayName(report.source) << ": " << error.description()
                        << '\n';
            }
        }
        r.scanFailed = scanned->hadReadErrors();
    }
    return r;
}

void printNothingFound(const Report& report, CommandContext& ctx) {
    const auto searched = searchedFolders(pathsOf(ctx));
    std::string looked;
    for (const auto& folder : searched.folders) {
        looked += fmt::format("{}{}", looked.empty() ? "" : ", ", folder.string());
    }
    if (searched.moreAgents > 0) {
        looked = report.text("report.lookedMore",
                             {{"roots", looked}, {"count", std::to_string(searched.moreAgents)}});
    }
    ctx.out << report.text("report.emptyLedger", {{"home", ctx.home.string()}, {"looked", looked}})
            << '\n';
}

}  // namespace kestrel::cli
