#pragma once
// What the collecting commands (scan, watch) share: the ledger, its prices brought up to date,
// the integration instances and the ingestor over them.

#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "cli/command_context.hpp"
#include "core/integrations/integration_instance_coordinator.hpp"
#include "core/ledger/ingestor.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/pricing/reprice_outcome.hpp"

namespace kestrel::cli {

struct Collector {
    std::unique_ptr<UsageStore> store;
    std::unique_ptr<IntegrationInstanceCoordinator> coordinator;
    std::unique_ptr<Ingestor> ingestor;
    RepriceOutcome repriced;  // stored usage repriced because the prices changed
};

// Opens the ledger, reprices it when the prices changed and reconciles the integration
// instances; null after printing why the ledger could not be opened.
std::unique_ptr<Collector> openCollector(CommandContext& ctx);

// One scan, drawing a progress bar (files done / total, the source in hand) on a terminal's error
// stream. Exceptions of the scan (a commit that failed, cancellation) reach the caller.
ScanProgress scanWithProgress(CommandContext& ctx, Collector& collector,
                              const std::optional<std::set<AgentSource>>& sources, bool force,
                              const Ingestor::SourceDone& onSourceDone = {},
                              std::stop_token stop = {});

// The sources named by --source: raw values or display names, case-insensitive. Prints the
// reason and returns absent for a name that is unknown or an agent that cannot be read yet.
// An empty list gives an absent set (every source).
std::optional<std::optional<std::set<AgentSource>>> parseSources(
    CommandContext& ctx, const std::vector<std::string>& names);

// "claude, codex, ...": the sources' raw values, for messages that list what is accepted.
std::string sourceNames(std::span<const AgentSource> sources);

// Today's cost so far over every source, from the ledger ("$0.42").
std::string todaysCost(UsageStore& store);

// "Ledger: today $0.42 · last 7 days $3.10 · all time $120.00 (12,345 events)".
std::string ledgerHeadline(UsageStore& store);

}  // namespace kestrel::cli
