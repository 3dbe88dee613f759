#pragma once
// The user's settings in the ledger: one JSON object in the settings table under the key 'app'.
// The ledger schema is untouched; this is only the reading and writing of that row.

#include "core/ledger/usage_store.hpp"
#include "core/model/app_settings_json.hpp"

namespace kestrel::SettingsStore {

inline constexpr const char* kKey = "app";

// The stored settings, decoded leniently (see decodeAppSettings). With no row yet the result is
// the defaults with nothing reported. Throws StoreError only when the ledger cannot be read.
AppSettingsDecoding load(UsageStore& store);

// Writes `settings` over the stored row in one transaction, keeping the keys of the stored
// object that this build does not know (a newer build's settings survive an older one's save).
void save(UsageStore& store, const AppSettings& settings);

}  // namespace kestrel::SettingsStore
