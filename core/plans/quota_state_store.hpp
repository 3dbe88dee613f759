#pragma once
// What a quota refresh learns that the next run needs: which accounts the providers throttled
// (and until when), and the OAuth tokens Kestrel refreshed itself (the agents' files are never
// written, so a refreshed token lives only here). Kept in quota-state.json in the support
// folder, mode 0600, the tokens enciphered with the key store's key (keys.key).

#include <filesystem>

#include "core/plans/live_quota.hpp"
#include "core/plans/quota_refresher.hpp"

namespace kestrel::QuotaStateStore {

inline constexpr const char* kFileName = "quota-state.json";

// Restores what an earlier run saved and is still current at `now`: back-offs not yet over,
// tokens not yet expired. A missing, damaged or undecipherable file restores nothing.
void load(const std::filesystem::path& supportDir, QuotaRefresher& refresher, TokenCache& tokens,
          double now);

// Saves the back-offs and tokens current at `now`; false when the file cannot be written.
bool save(const std::filesystem::path& supportDir, const QuotaRefresher& refresher,
          const TokenCache& tokens, double now);

}  // namespace kestrel::QuotaStateStore
