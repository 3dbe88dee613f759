// Forgetting what the user no longer wants kept: the project names or session keys of the
// usage already in the ledger, after the matching privacy setting was turned off.

#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_store_internals.hpp"

namespace kestrel {
namespace {

struct Columns {
    const char* column;   // in usage_observations and ledger_events
    const char* jsonKey;  // in the older events table's JSON
};

Columns columnsOf(PrivateField field) {
    return field == PrivateField::projectName ? Columns{"project_display_name", "projectDisplayName"}
                                              : Columns{"session_key", "sessionID"};
}

}  // namespace

int64_t UsageStore::ledgerEventsHolding(PrivateField field) {
    std::lock_guard guard(state_->lock);
    sqlite::Statement s(state_->connection(), std::string("SELECT COUNT(*) FROM ledger_events WHERE ") +
                                          columnsOf(field).column + " IS NOT NULL;");
    return s.step() ? s.int64(0) : 0;
}

int64_t UsageStore::forget(PrivateField field) {
    const auto c = columnsOf(field);
    const std::string column = c.column;
    const std::string key = std::string("'$.") + c.jsonKey + "'";
    std::lock_guard guard(state_->lock);
    sqlite::Transaction transaction(state_->connection());
    sqlite::Statement events(state_->connection(), "UPDATE ledger_events SET " + column + "=NULL WHERE " +
                                               column + " IS NOT NULL;");
    events.run();
    const int64_t forgotten = events.changes();
    sqlite::exec(state_->connection(), "UPDATE usage_observations SET " + column + "=NULL WHERE " +
                                   column + " IS NOT NULL;");
    // Rows an older build kept whole, as JSON.
    sqlite::exec(state_->connection(), "UPDATE events SET json=json_remove(json," + key +
                                   ") WHERE json_extract(json," + key + ") IS NOT NULL;");
    transaction.commit();
    return forgotten;
}

}  // namespace kestrel
