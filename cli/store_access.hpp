#pragma once
// Opening the ledger for a command, with the failure said in one line.

#include <memory>

#include "cli/command_context.hpp"
#include "core/ledger/usage_store.hpp"

namespace kestrel::cli {

// The store in ctx.supportDir, or null after printing why it could not be opened.
std::unique_ptr<UsageStore> openStore(CommandContext& ctx);

}  // namespace kestrel::cli
