#include "cli/summary_command.hpp"

#include <fmt/format.h>

#include <ctime>
#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/collector.hpp"
#include "cli/local_time.hpp"
#include "cli/text_table.hpp"
#include "core/model/checked_math.hpp"
#include "core/pricing/money_format.hpp"

namespace kestrel::cli {
namespace {

constexpr std::size_t kTopModels = 8;

int64_t totalTokens(const LedgerSummary& s) {
    int64_t sum = 0;
    for (const auto& bucket :
         {s.inputUncached, s.cacheRead, s.cacheWrite, s.outputVisible, s.reasoning}) {
        sum = checkedAdd(sum, bucket.value_or(0), "overview token total");
    }
    return sum;
}

nlohmann::ordered_json totalsJSON(const LedgerSummary& s) {
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

std::string cost(const LedgerSummary& s) {
    // A star marks a total that leaves out events without a price.
    return formatUSD(s.knownCostUSDMicros.value_or(0), "en_US") +
           (s.unknownCostEventCount > 0 ? "*" : "");
}

std::vector<std::string> cells(std::string label, const LedgerSummary& s) {
    return {std::move(label),
            groupedNumber(s.eventCount),
            groupedNumber(s.inputUncached.value_or(0)),
            groupedNumber(s.cacheRead.value_or(0)),
            groupedNumber(s.cacheWrite.value_or(0)),
            groupedNumber(checkedAdd(s.outputVisible.value_or(0), s.reasoning.value_or(0),
                                     "overview output")),
            groupedNumber(totalTokens(s)),
            cost(s)};
}

std::vector<Column> columns(std::string first) {
    return {{std::move(first)},
            {"Events", Align::right},
            {"Input", Align::right},
            {"Cache read", Align::right},
            {"Cache write", Align::right},
            {"Output", Align::right},
            {"Total tokens", Align::right},
            {"Cost", Align::right}};
}

// Where the readers look, for a home in which nothing was found.
std::string lookedIn(const CommandContext& ctx) {
    std::string out;
    for (auto source : Ingestor::scannableSources(ctx.home, ctx.env)) {
        const auto spec = AgentCatalog::spec(source, ctx.home, ctx.env);
        for (const auto& root : spec->roots) {
            out += fmt::format("{}{}", out.empty() ? "" : ", ", root.string());
        }
    }
    return out;
}

}  // namespace

int runSummary(CommandContext& ctx, bool json) {
    auto collector = openCollector(ctx);
    if (!collector) {
        return kExitFailure;
    }
    ScanProgress scanned;
    try {
        scanned = scanWithProgress(ctx, *collector, std::nullopt, false);
    } catch (const std::exception& e) {
        ctx.err << "kestrel: the scan could not be saved: " << e.what() << '\n';
        return kExitFailure;
    }
    bool partial = false;
    for (const auto& r : collector->ingestor->lastReports()) {
        for (const auto& error : r.errors) {
            ctx.err << "kestrel: " << displayName(r.source) << ": " << error.description() << '\n';
            partial = true;
        }
    }

    auto& store = *collector->store;
    const std::time_t now = std::time(nullptr);
    const auto since = [&](std::optional<int> daysBack) {
        LedgerQuery q;
        if (daysBack) {
            q.from = localMidnight(now, *daysBack);
        }
        return store.ledgerSummary(q);
    };
    const auto today = since(0), week = since(6), month = since(29), all = since(std::nullopt);
    const auto bySource = store.ledgerSummariesBySource({});
    auto byModel = store.ledgerSummariesByModel({});
    if (byModel.size() > kTopModels) {
        byModel.resize(kTopModels);
    }
    const int exitCode = partial ? kExitPartial : kExitOK;

    if (json) {
        nlohmann::ordered_json doc;
        doc["home"] = ctx.home.string();
        doc["ledger"] = (ctx.supportDir / UsageStore::kFileName).string();
        doc["scan"] = {
            {"files", scanned.files}, {"events", scanned.events}, {"changed", scanned.changed}};
        doc["today"] = totalsJSON(today);
        doc["last7Days"] = totalsJSON(week);
        doc["last30Days"] = totalsJSON(month);
        doc["allTime"] = totalsJSON(all);
        auto sources = nlohmann::ordered_json::array();
        for (const auto& [source, summary] : bySource) {
            auto row = totalsJSON(summary);
            row["source"] = std::string(rawValue(source));
            sources.push_back(row);
        }
        doc["sources"] = sources;
        auto models = nlohmann::ordered_json::array();
        for (const auto& m : byModel) {
            auto row = totalsJSON(m.summary);
            row["model"] = m.model;
            models.push_back(row);
        }
        doc["models"] = models;
        ctx.out << doc.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
        return exitCode;
    }

    if (all.eventCount == 0) {
        ctx.out << "No usage found below " << ctx.home.string() << ".\nKestrel looked in "
                << lookedIn(ctx)
                << ".\nRun `kestrel --home DIR` to read another home folder, or `kestrel status` "
                   "to see which agents are switched on.\n";
        return exitCode;
    }
    const auto bold = [&](const std::string& s) {
        return ctx.colour ? "\x1b[1m" + s + "\x1b[0m" : s;
    };
    ctx.out << bold("Usage below " + ctx.home.string()) << '\n' << '\n';

    TextTable periods(columns("Period"));
    periods.addRow(cells("Today", today));
    periods.addRow(cells("Last 7 days", week));
    periods.addRow(cells("Last 30 days", month));
    periods.addRow(cells("All time", all));
    periods.render(ctx.out, ctx.colour);
    ctx.out << '\n';

    TextTable sources(columns("Source"));
    for (const auto& [source, summary] : bySource) {
        sources.addRow(cells(std::string(displayName(source)), summary));
    }
    sources.render(ctx.out, ctx.colour);
    ctx.out << '\n';

    TextTable models(columns("Model"));
    for (const auto& m : byModel) {
        models.addRow(cells(m.model, m.summary));
    }
    models.render(ctx.out, ctx.colour);
    ctx.out << '\n';

    ctx.out << fmt::format("This scan read {} and found {}{}.\n",
                           counted(scanned.files, "file", "files"),
                           counted(scanned.events, "usage record", "usage records"),
                           scanned.changed ? "" : " (nothing new)");
    ctx.out << "Costs are list prices of the models' APIs"
            << (all.unknownCostEventCount > 0 ? "; * leaves out events without a price (see "
                                                "kestrel prices)"
                                              : "")
            << ".\n";
    return exitCode;
}

}  // namespace kestrel::cli
