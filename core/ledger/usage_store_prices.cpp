// The user's price overrides, one JSON price row per pattern.

#include <nlohmann/json.hpp>

#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/ledger/usage_store_internals.hpp"
#include "core/pricing/price_row.hpp"

namespace kestrel {

std::vector<PriceRow> UsageStore::priceOverrides() {
    std::lock_guard guard(state_->lock);
    sqlite::Statement s(state_->connection(), "SELECT json FROM price_overrides;");
    std::vector<PriceRow> rows;
    while (s.step()) {
        const auto json = nlohmann::json::parse(s.text(0), nullptr, false);
        if (json.is_discarded()) {
            continue;  // a damaged row is skipped, never fatal
        }
        try {
            rows.push_back(json.get<PriceRow>());
        } catch (const nlohmann::json::exception&) {
        }
    }
    return rows;
}

void UsageStore::savePriceOverride(const PriceRow& row) {
    std::lock_guard guard(state_->lock);
    sqlite::Statement s(state_->connection(),
                        "INSERT OR REPLACE INTO price_overrides(match, json) VALUES(?,?);");
    s.bind(1, row.match).bind(2, nlohmann::json(row).dump());
    s.run();
}

bool UsageStore::deletePriceOverride(const std::string& match) {
    std::lock_guard guard(state_->lock);
    sqlite::Statement s(state_->connection(), "DELETE FROM price_overrides WHERE match=?;");
    s.bind(1, match);
    s.run();
    return s.changes() > 0;
}

bool UsageStore::hasPriceOverride(const std::string& match) {
    std::lock_guard guard(state_->lock);
    sqlite::Statement s(state_->connection(), "SELECT 1 FROM price_overrides WHERE match=?;");
    s.bind(1, match);
    return s.step();
}

}  // namespace kestrel
