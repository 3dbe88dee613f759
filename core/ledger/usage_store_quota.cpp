// The last quota reading of each agent source, kept as JSON in quota_accounts under
// "source:" + the source's raw value.

#include <nlohmann/json.hpp>

#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/ledger/usage_store_internals.hpp"
#include "core/model/account_snapshot_json.hpp"

namespace kestrel {
namespace {

using sqlite::Statement;

std::string accountID(AgentSource source) {
    return "source:" + std::string(rawValue(source));
}

// A stored reading that no longer decodes (damaged, or from a build that knew other cases) is
// treated as absent, never as fatal.
std::optional<AccountSnapshot> decode(const std::string& text) {
    const auto json = nlohmann::json::parse(text, nullptr, false);
    if (json.is_discarded()) {
        return std::nullopt;
    }
    try {
        return json.get<AccountSnapshot>();
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
}

}  // namespace

namespace {

constexpr std::string_view kPlanPrefix = "plan:";

// Upserts the reading under `id`; true when it differs from the stored one in more than
// fetchedAt. The caller holds the store's lock.
bool saveAccountReading(sqlite3* db, const std::string& id, const char* kind,
                        const AccountSnapshot& snapshot) {
    sqlite::Transaction transaction(db);

    bool changed = true;
    {
        Statement select(db, "SELECT json FROM quota_accounts WHERE account_id=?;");
        select.bind(1, id);
        if (select.step()) {
            if (auto stored = decode(select.text(0))) {
                // Reading the same limits again is not news; only the time of the reading moved.
                stored->fetchedAt = snapshot.fetchedAt;
                changed = *stored != snapshot;
            }
        }
    }

    Statement upsert(db,
                     "INSERT INTO quota_accounts(account_id, kind, json, fetched_at)\n"
                     "VALUES(?, ?, ?, ?)\n"
                     "ON CONFLICT(account_id) DO UPDATE SET\n"
                     "  kind=excluded.kind, json=excluded.json, fetched_at=excluded.fetched_at;");
    upsert.bind(1, id).bind(2, std::string(kind)).bind(3, nlohmann::json(snapshot).dump());
    upsert.bind(4, snapshot.fetchedAt);
    upsert.run();
    transaction.commit();
    return changed;
}

}  // namespace

bool UsageStore::saveQuota(const AccountSnapshot& snapshot) {
    std::lock_guard guard(state_->lock);
    return saveAccountReading(state_->connection(), accountID(snapshot.identity.source), "source",
                              snapshot);
}

bool UsageStore::savePlanQuota(const std::string& accountID, const AccountSnapshot& snapshot) {
    std::lock_guard guard(state_->lock);
    return saveAccountReading(state_->connection(), std::string(kPlanPrefix) + accountID, "plan",
                              snapshot);
}

std::optional<AccountSnapshot> UsageStore::planQuota(const std::string& accountID) {
    std::lock_guard guard(state_->lock);
    Statement select(state_->connection(),
                     "SELECT json FROM quota_accounts WHERE account_id=? AND kind='plan';");
    select.bind(1, std::string(kPlanPrefix) + accountID);
    if (!select.step()) {
        return std::nullopt;
    }
    return decode(select.text(0));
}

std::vector<std::pair<std::string, AccountSnapshot>> UsageStore::planQuotas() {
    std::lock_guard guard(state_->lock);
    Statement select(state_->connection(),
                     "SELECT account_id, json FROM quota_accounts WHERE kind='plan' "
                     "ORDER BY account_id;");
    std::vector<std::pair<std::string, AccountSnapshot>> out;
    while (select.step()) {
        if (auto snapshot = decode(select.text(1))) {
            out.emplace_back(select.text(0).substr(kPlanPrefix.size()), std::move(*snapshot));
        }
    }
    return out;
}

bool UsageStore::deleteQuota(AgentSource source) {
    std::lock_guard guard(state_->lock);
    Statement remove(state_->connection(),
                     "DELETE FROM quota_accounts WHERE account_id=? AND kind='source';");
    remove.bind(1, accountID(source));
    remove.run();
    return remove.changes() > 0;
}

std::optional<AccountSnapshot> UsageStore::quota(AgentSource source) {
    std::lock_guard guard(state_->lock);
    Statement select(state_->connection(),
                     "SELECT json FROM quota_accounts WHERE account_id=? AND kind='source';");
    select.bind(1, accountID(source));
    if (!select.step()) {
        return std::nullopt;
    }
    return decode(select.text(0));
}

std::vector<AccountSnapshot> UsageStore::quotas() {
    std::lock_guard guard(state_->lock);
    Statement select(state_->connection(),
                     "SELECT json FROM quota_accounts WHERE kind='source' ORDER BY account_id;");
    std::vector<AccountSnapshot> out;
    while (select.step()) {
        if (auto snapshot = decode(select.text(0))) {
            out.push_back(std::move(*snapshot));
        }
    }
    return out;
}

}  // namespace kestrel
