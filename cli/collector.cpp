#include "cli/collector.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "cli/local_time.hpp"
#include "cli/store_access.hpp"
#include "cli/text_table.hpp"
#include "core/model/timestamp.hpp"
#include "core/pricing/money_format.hpp"
#include "core/pricing/price_table.hpp"

namespace kestrel::cli {

std::unique_ptr<Collector> openCollector(CommandContext& ctx) {
    auto collector = std::make_unique<Collector>();
    collector->store = openStore(ctx);
    if (!collector->store) {
        return nullptr;
    }
    auto prices = PriceTable::resolved(*collector->store);
    // Stored usage is repriced first, so that what this scan adds is priced the same way.
    collector->repriced =
        collector->store->repriceIfFingerprintChanged(prices, ctx.settings.billingMode);
    collector->coordinator = std::make_unique<IntegrationInstanceCoordinator>(
        PluginRegistry::builtIn(), *collector->store);
    collector->coordinator->reconcileInstallations(ctx.home, epochNow(), ctx.env);
    collector->ingestor = std::make_unique<Ingestor>(*collector->store, std::move(prices),
                                                     collector->coordinator.get(), ctx.env);
    return collector;
}

ScanProgress scanWithProgress(CommandContext& ctx, Collector& collector,
                              const std::optional<std::set<AgentSource>>& sources, bool force,
                              const Ingestor::SourceDone& onSourceDone, std::stop_token stop) {
    ProgressLine progress(ctx.err, ctx.errIsTerminal);
    return collector.ingestor->scan(
        ctx.home, ctx.settings, sources, force,
        [&](int64_t done, int64_t total, std::optional<AgentSource> source) {
            progress.update(static_cast<std::size_t>(done), static_cast<std::size_t>(total),
                            source ? displayName(*source) : "records");
        },
        onSourceDone, stop);
}

std::optional<std::optional<std::set<AgentSource>>> parseSources(
    CommandContext& ctx, const std::vector<std::string>& names) {
    if (names.empty()) {
        return std::optional<std::set<AgentSource>>();
    }
    const auto readable = Ingestor::scannableSources(ctx.home, ctx.env);
    std::set<AgentSource> out;
    for (const auto& name : names) {
        const auto found = agentSourceNamed(name);
        if (!found) {
            ctx.err << "kestrel: unknown source \"" << name
                    << "\" (known: " << sourceNames(allAgentSources()) << ")\n";
            return std::nullopt;
        }
        if (std::ranges::find(readable, *found) == readable.end()) {
            // Account services (usage read from a provider's site) keep nothing on this machine.
            ctx.err << "kestrel: " << displayName(*found)
                    << " keeps no usage records on this machine to scan (readable: "
                    << sourceNames(readable) << ")\n";
            return std::nullopt;
        }
        out.insert(*found);
    }
    return std::optional<std::set<AgentSource>>(std::move(out));
}

std::string sourceNames(std::span<const AgentSource> sources) {
    std::string out;
    for (auto s : sources) {
        out += out.empty() ? "" : ", ";
        out += rawValue(s);
    }
    return out;
}

std::string todaysCost(UsageStore& store) {
    LedgerQuery today;
    today.from = localMidnight(std::time(nullptr), 0);
    const auto summary = store.ledgerSummary(today);
    return summary.knownCostUSDMicros ? formatUSD(*summary.knownCostUSDMicros, "en_US")
                                      : std::string("$0.00");
}

std::string ledgerHeadline(UsageStore& store) {
    const auto cost = [&](std::optional<double> from) {
        LedgerQuery q;
        q.from = from;
        return store.ledgerSummary(q);
    };
    const auto money = [](const LedgerSummary& s) {
        return formatUSD(s.knownCostUSDMicros.value_or(0), "en_US");
    };
    const auto now = std::time(nullptr);
    const auto all = cost(std::nullopt);
    return fmt::format("Ledger: today {} · last 7 days {} · all time {} ({})",
                       money(cost(localMidnight(now, 0))), money(cost(localMidnight(now, 6))),
                       money(all), counted(all.eventCount, "event", "events"));
}

}  // namespace kestrel::cli
