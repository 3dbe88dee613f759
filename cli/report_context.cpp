#include "cli/report_context.hpp"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/text_table.hpp"
#include "core/ledger/settings_store.hpp"
#include "core/model/checked_math.hpp"
#include "core/pricing/display_currency.hpp"
#include "core/pricing/money_format.hpp"

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
    return Messages::bundled().text(key, language);
}

std::string Report::text(std::string_view key, std::initializer_list<MessageArg> args) const {
    return Messages::bundled().text(key, language, args);
}

std::string Report::money(int64_t usdMicros) const {
    return format(usdMicros, currency, settings.cnyPerUsdE4, locale);
}

std::string Report::money(const LedgerSummary& s) const {
    return money(s.knownCostUSDMicros.value_or(0)) + (s.unknownCostEventCount > 0 ? "*" : "");
}

std::string Report::tokens(int64_t count) const {
    return groupedNumber(count);
}

int64_t totalTokens(const LedgerSummary& s) {
    int64_t sum = 0;
    for (const auto& bucket :
         {s.inputUncached, s.cacheRead, s.cacheWrite, s.outputVisible, s.reasoning}) {
        sum = checkedAdd(sum, bucket.value_or(0), "report token total");
    }
    return sum;
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
    if (!options.since.empty()) {
        auto from = localDay(ctx, r.calendar, "--since", options.since);
        if (!from) {
            return std::unexpected(kExitUsage);
        }
        r.query.from = *from;
    }
    if (!options.until.empty()) {
        auto last = localDay(ctx, r.calendar, "--until", options.until);
        if (!last) {
            return std::unexpected(kExitUsage);
        }
        r.query.to = r.calendar.addingDays(*last, 1);
    }
    if (r.query.from && r.query.to && *r.query.from >= *r.query.to) {
        ctx.err << "kestrel: --since " << options.since << " is after --until " << options.until
                << '\n';
        return std::unexpected(kExitUsage);
    }
    if (options.sources.size() > 1) {
        ctx.err << "kestrel: --source can be given once\n";
        return std::unexpected(kExitUsage);
    }
    if (!options.sources.empty()) {
        const auto source = agentSourceNamed(options.sources.front());
        if (!source) {
            ctx.err << "kestrel: unknown source \"" << options.sources.front()
                    << "\" (known: " << sourceNames(allAgentSources()) << ")\n";
            return std::unexpected(kExitUsage);
        }
        r.query.source = *source;
    }
    if (!options.model.empty()) {
        r.query.model = options.model;
    }
    if (!options.project.empty()) {
        r.query.projectDisplayName = options.project;
    }
    if (!options.search.empty()) {
        r.query.search = options.search;
    }

    r.collector = openCollector(ctx);
    if (!r.collector) {
        return std::unexpected(kExitFailure);
    }
    try {
        r.settings = SettingsStore::load(*r.collector->store).settings;
    } catch (const std::exception& e) {
        ctx.err << "kestrel: cannot read the settings: " << e.what() << '\n';
        return std::unexpected(kExitFailure);
    }
    ctx.settings = r.settings;  // what the scan stores follows the user's privacy choices
    const auto chosenLanguage = options.language.empty()
                                    ? r.settings.language
                                    : fromRawValue<AppLanguage>(options.language).value();
    r.language = effectiveLanguage(chosenLanguage, systemLocaleName());
    if (!options.currency.empty()) {
        r.currency = options.currency == "cny" ? ResolvedCurrency::cny : ResolvedCurrency::usd;
    } else {
        r.currency = resolved(r.settings.displayCurrency, r.language, systemLocaleName());
    }
    r.locale = r.language == AppLanguage::zhHans ? "zh_CN" : "en_US";

    if (!options.noScan) {
        try {
            r.scanned = scanWithProgress(ctx, *r.collector, std::nullopt, false);
        } catch (const std::exception& e) {
            ctx.err << "kestrel: the scan could not be saved: " << e.what() << '\n';
            return std::unexpected(kExitFailure);
        }
        for (const auto& report : r.collector->ingestor->lastReports()) {
            for (const auto& error : report.errors) {
                ctx.err << "kestrel: " << displayName(report.source) << ": " << error.description()
                        << '\n';
                r.scanFailed = true;
            }
        }
    }
    return r;
}

void printNothingFound(const Report& report, CommandContext& ctx) {
    // The first agents' folders by name; the rest as a count, since some agents have a dozen.
    constexpr std::size_t kNamedSources = 2;
    const auto sources = Ingestor::scannableSources(ctx.home, ctx.env);
    std::string looked;
    for (std::size_t i = 0; i < std::min(sources.size(), kNamedSources); ++i) {
        const auto spec = AgentCatalog::spec(sources[i], ctx.home, ctx.env);
        for (const auto& root : spec->roots) {
            looked += fmt::format("{}{}", looked.empty() ? "" : ", ", root.string());
        }
    }
    if (sources.size() > kNamedSources) {
        looked = report.text("report.lookedMore",
                             {{"roots", looked},
                              {"count", std::to_string(sources.size() - kNamedSources)}});
    }
    ctx.out << report.text("report.emptyLedger", {{"home", ctx.home.string()}, {"looked", looked}})
            << '\n';
}

}  // namespace kestrel::cli
