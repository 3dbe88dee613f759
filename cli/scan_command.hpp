#pragma once

#include <string>
#include <vector>

#include "cli/command_context.hpp"

namespace kestrel::cli {

struct ScanOptions {
    std::vector<std::string> sources;
    bool force = false;  // read everything again and drop usage whose records are gone
    bool yes = false;    // do not ask before a forced rescan
};

// `kestrel scan`: reads what is new since the last scan into the ledger and reports per source.
int runScan(CommandContext& ctx, const ScanOptions& options, bool json, std::istream& in);

}  // namespace kestrel::cli
