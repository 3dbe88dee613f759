#pragma once

#include <optional>
#include <string>

#include "cli/command_context.hpp"

namespace kestrel::cli {

struct PriceOverrideOptions {
    std::string match;
    std::string input, output;  // decimal USD per million tokens, as typed
    std::optional<std::string> cacheRead, cacheWrite, reasoning;
    std::optional<std::string> from, to;  // YYYY-MM-DD
    std::optional<int64_t> longThreshold;
    std::optional<std::string> longInput, longOutput;
};

// `kestrel prices`: the rows in force today, one per pattern, overrides marked.
int runPrices(CommandContext& ctx, bool json);

// `kestrel prices set`: validates and stores an override, then reprices the ledger.
int runPricesSet(CommandContext& ctx, const PriceOverrideOptions& options);

// `kestrel prices rm`: removes an override, then reprices the ledger.
int runPricesRemove(CommandContext& ctx, const std::string& match);

}  // namespace kestrel::cli
