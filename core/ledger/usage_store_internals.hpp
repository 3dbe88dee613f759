#pragma once
// The ledger connection and its locks, for the files of core/ledger that implement UsageStore or
// compound its operations in one transaction. Private to core/ledger (the layering check refuses
// it anywhere else): tests and other folders open a connection of their own to databasePath().

#include <sqlite3.h>

#include <cstdint>
#include <mutex>
#include <vector>

#include "core/ledger/usage_store.hpp"

namespace kestrel {

// What the rollups may answer, as the last refreshRollups() found: nothing (`usable` false: every
// total from the events), or everything but the quarter hours a writer marked and has not rebuilt
// yet, which a reader takes from the events.
struct RollupFreshness {
    bool usable = true;
    std::vector<int64_t> markedQuarters;  // ascending, distinct
};

struct UsageStore::State {
    sqlite3* db = nullptr;
    bool readOnly = false;  // opened with ReadOnlyLedger: never writes or rebuilds the rollups
    RollupFreshness rollups;
    mutable std::recursive_mutex lock;  // the connection, compound operations, migrations
    std::mutex repricingLock;           // two repricings never interleave
    std::mutex sessionMaterialLock;     // the cached session salt and checkpoint key

    // The open connection; throws StoreError(open) when closed. Callers hold `lock` for any
    // compound operation.
    sqlite3* connection() const;
};

// Finishes a first import that a stopped process left half done (usage_store_first_import.cpp);
// nothing when there is none. For the writable open.
void finishInterruptedFirstImport(sqlite3* db);

struct UsageStoreAccess {
    static UsageStore::State& state(UsageStore& store) { return *store.state_; }
};

}  // namespace kestrel
