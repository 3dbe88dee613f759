#pragma once
// `kestrel quota [--refresh] [--json]`: every account's quota windows, balances and where each
// reading came from; and the quota switch of `kestrel integrations enable AGENT --quota`.

#include <chrono>
#include <string>

#include "cli/command_context.hpp"

namespace kestrel::cli {

struct QuotaOptions {
    bool refresh = false;
    bool json = false;
    std::chrono::milliseconds timeout{15000};
};

int runQuota(CommandContext& ctx, const QuotaOptions& options);

// Switches the agent's quota capability (with its network and credential permissions) on or off.
int runIntegrationsQuota(CommandContext& ctx, const std::string& source, bool on, bool json);

}  // namespace kestrel::cli
