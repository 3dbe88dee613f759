#include "cli/store_access.hpp"

namespace kestrel::cli {

std::unique_ptr<UsageStore> openStore(CommandContext& ctx) {
    try {
        return std::make_unique<UsageStore>(ctx.supportDir);
    } catch (const StoreError& e) {
        ctx.err << "kestrel: cannot open the ledger in " << ctx.supportDir.string() << ": "
                << e.what() << '\n';
        return nullptr;
    }
}

}  // namespace kestrel::cli
