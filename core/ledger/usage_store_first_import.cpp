// The first import into an empty ledger: its commits write into tables without secondary
// indexes or rollup triggers, which are built once at the end from the sorted rows (one index
// build and one GROUP BY per rollup level instead of a b-tree insert and a dirty mark per row).
//
// The state lives in the file (a settings row written in the transaction that drops them), so a
// kill anywhere leaves either the complete schema or the marker; the next writable open, or the
// end of the scan, builds what is missing. Until then the rollups are marked stale as a whole,
// so every report reads the events themselves and stays exact.

#include "core/ledger/ledger_rollups.hpp"
#include "core/ledger/ledger_schema.hpp"
#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/ledger/usage_store_internals.hpp"

namespace kestrel {
namespace {

using sqlite::Statement;

bool markerPresent(sqlite3* db) {
    Statement select(db, "SELECT 1 FROM settings WHERE key=?;");
    select.bind(1, ledger_schema::kFirstImportKey);
    return select.step();
}

// Rebuilds the indexes and triggers and drops the marker; the caller holds the lock and a
// transaction. Everything is marked for the rollups again: a refresh by another process while
// the triggers were gone may have consumed the first mark.
void rebuild(sqlite3* db) {
    sqlite::exec(db, ledger_schema::kLedgerScript);
    sqlite::exec(db, ledger_schema::kSessionIndex);
    sqlite::exec(db, ledger_schema::kFirstImportRebuild);
    LedgerRollups::markAll(db);
    Statement clear(db, "DELETE FROM settings WHERE key=?;");
    clear.bind(1, ledger_schema::kFirstImportKey);
    clear.run();
}

// Index builds and the rollups' GROUP BY sort every row; kept in memory (the connection's
// temp_store) that sort would grow with the ledger, so while they run it goes to a file.
class SortsOnDisk {
  public:
    explicit SortsOnDisk(sqlite3* db) : db_(db) { sqlite::exec(db_, "PRAGMA temp_store=FILE;"); }
    ~SortsOnDisk() {
        try {
            sqlite::exec(db_, "PRAGMA temp_store=MEMORY;");
        } catch (const std::exception&) {
            // only slower statement journals; nothing to undo
        }
    }
    SortsOnDisk(const SortsOnDisk&) = delete;
    SortsOnDisk& operator=(const SortsOnDisk&) = delete;

  private:
    sqlite3* db_;
};

}  // namespace

bool UsageStore::beginFirstImport() {
    std::lock_guard guard(state_->lock);
    if (state_->readOnly) {
        return false;
    }
    sqlite3* db = state_->connection();
    const auto holdsUsage = [db] {
        return Statement(db, "SELECT 1 FROM usage_observations LIMIT 1;").step();
    };
    if (holdsUsage() && !markerPresent(db)) {
        return false;  // the common case, without taking the write lock
    }
    sqlite::Transaction transaction(db);
    // Again under the write lock: another process may be committing into this ledger.
    if (holdsUsage()) {
        // An import of this process that could not finish (the open finishes those of others).
        if (markerPresent(db)) {
            rebuild(db);
            transaction.commit();
        }
        return false;
    }
    sqlite::exec(db, ledger_schema::kFirstImportDrop);
    LedgerRollups::markAll(db);
    Statement mark(db, "INSERT OR REPLACE INTO settings(key, value) VALUES(?, '1');");
    mark.bind(1, ledger_schema::kFirstImportKey);
    mark.run();
    transaction.commit();
    return true;
}

void UsageStore::finishFirstImport() {
    std::lock_guard guard(state_->lock);
    if (state_->readOnly) {
        return;
    }
    sqlite3* db = state_->connection();
    SortsOnDisk sorts(db);
    {
        sqlite::Transaction transaction(db);
        if (!markerPresent(db)) {
            return;
        }
        rebuild(db);
        transaction.commit();
    }
    refreshRollups();
}

bool UsageStore::firstImportPending() {
    std::lock_guard guard(state_->lock);
    return markerPresent(state_->connection());
}

// For UsageStore::migrate: a first import that was cut short is finished on open.
void finishInterruptedFirstImport(sqlite3* db) {
    if (!markerPresent(db)) {
        return;
    }
    SortsOnDisk sorts(db);
    sqlite::Transaction transaction(db);
    if (markerPresent(db)) {
        rebuild(db);
    }
    transaction.commit();
}

}  // namespace kestrel
