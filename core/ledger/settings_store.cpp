#include "core/ledger/settings_store.hpp"

#include <mutex>

#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_store_internals.hpp"

namespace kestrel::SettingsStore {

AppSettingsDecoding load(UsageStore& store) {
    const auto text = store.setting(kKey);
    return text ? decodeAppSettings(*text) : AppSettingsDecoding{};
}

void save(UsageStore& store, const AppSettings& settings) {
    // Read and write inside one write transaction, so another process's keys written in between
    // are not lost.
    auto& state = UsageStoreAccess::state(store);
    std::lock_guard guard(state.lock);
    sqlite::Transaction transaction(state.connection());
    const auto previous = store.setting(kKey);
    store.setSetting(kKey, encodeAppSettings(settings, previous.value_or("")));
    transaction.commit();
}

}  // namespace kestrel::SettingsStore
