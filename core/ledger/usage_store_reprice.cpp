// Repricing the stored ledger when prices change: every observation's cost is computed again,
// its event's cost row follows, and the cost findings are refreshed. Paged, in one transaction.

#include "core/ledger/ledger_rollups.hpp"
#include "core/ledger/ledger_validator.hpp"
#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_batch_builder.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/ledger/usage_store_internals.hpp"
#include "core/model/timestamp.hpp"
#include "core/pricing/price_fingerprint.hpp"
#include "core/pricing/price_table.hpp"

namespace kestrel {
namespace {

constexpr int kPageSize = 2000;
constexpr const char* kFingerprintKey = "price_fingerprint";

template <class E>
E enumOr(const std::string& text, E fallback) {
    return fromRawValue<E>(text).value_or(fallback);
}

// An event carrying just what pricing reads, rebuilt from a stored observation row of the page
// query below.
UsageEvent pricingInput(const sqlite::Statement& r) {
    UsageEvent e;
    e.id = r.text(0);
    e.source = enumOr(r.text(1), AgentSource::claude);
    e.provider = r.text(2);
    e.model = r.text(3);
    e.occurredAt = r.optionalReal(4).value_or(0);
    e.exclusive = {r.optionalInt64(5).value_or(0), r.optionalInt64(6).value_or(0),
                   r.optionalInt64(7).value_or(0), r.optionalInt64(8).value_or(0),
                   r.optionalInt64(9).value_or(0)};
    e.providerInputTotal = r.optionalInt64(10).value_or(0);
    e.providerOutputTotal = r.optionalInt64(11).value_or(0);
    e.providerTotal = r.optionalInt64(12).value_or(0);
    e.breakdownTrusted = r.int64(13) != 0;
    e.usageSemanticsVersion = r.int64(14);
    e.estimatedCostUSDMicros = r.optionalInt64(15);
    e.costCompleteness = enumOr(r.text(16), CostCompleteness::none);
    e.costSource = enumOr(r.text(17), CostSource::unknown);
    e.priceVersion = r.optionalInt64(18);
    e.fxVersion = r.optionalInt64(19);
    e.billingMode = enumOr(r.text(20), BillingMode::apiEquivalent);
    e.granularity = enumOr(r.text(21), UsageGranularity::unknown);
    return e;
}

ObservedCost storedCost(const UsageEvent& e) {
    return {e.estimatedCostUSDMicros, e.costCompleteness, e.costSource,
            e.priceVersion,           e.fxVersion,        e.billingMode};
}

}  // namespace

int64_t UsageStore::repriceLedger(const PriceTable& prices, BillingMode billing,
                                  const RepriceProgress& progress) {
    return reprice(prices, billing, true, progress);
}

int64_t UsageStore::reprice(const PriceTable& prices, BillingMode billing, bool allEvents,
                            const RepriceProgress& progress) {
    std::lock_guard repricing(state_->repricingLock);
    std::lock_guard guard(state_->lock);
    sqlite3* db = state_->connection();
    sqlite::Transaction transaction(db);

    sqlite::Statement page(db,
                           "SELECT id, source, provider, model, occurred_at,\n"
                           "       input_uncached, cache_read, cache_write, output_visible, "
                           "reasoning,\n"
                           "       provider_input_total, provider_output_total, provider_total,\n"
                           "       breakdown_trusted, usage_semantics_version,\n"
                           "       cost_usd_micros, cost_completeness, cost_source, "
                           "price_version,\n"
                           "       fx_version, billing_mode, granularity, run_id\n"
                           "FROM usage_observations WHERE id > ?" +
                               std::string(allEvents ? "" : " AND cost_usd_micros IS NULL") +
                               " ORDER BY id LIMIT ?;");
    sqlite::Statement updateObservation(
        db,
        "UPDATE usage_observations\n"
        "SET cost_usd_micros=?, cost_completeness=?, cost_source=?,\n"
        "    price_version=?, fx_version=?, billing_mode=? WHERE id=?;");
    sqlite::Statement updateCost(db,
                                 "UPDATE ledger_costs\n"
                                 "SET amount_usd_micros=?, completeness=?, cost_source=?,\n"
                                 "    price_version=?, fx_version=?, billing_mode=?, "
                                 "updated_at=?\n"
                                 "WHERE ledger_event_id=?;");
    sqlite::Statement deleteFinding(db,
                                    "DELETE FROM coverage_issues\n"
                                    "WHERE observation_id=? AND origin='validation' AND code=?;");
    sqlite::Statement insertFinding(
        db,
        "INSERT OR REPLACE INTO coverage_issues(\n"
        "  id, run_id, observation_id, integration_instance_id, source, code,\n"
        "  severity, origin, diagnostic_code, detected_at, resolved_at\n"
        ") VALUES(?,?,?,NULL,?,?,?,'validation',NULL,?,NULL);");

    const std::string only = allEvents ? "" : " WHERE cost_usd_micros IS NULL";
    int64_t total = 0;
    if (progress) {
        sqlite::Statement count(db, "SELECT COUNT(*) FROM usage_observations" + only + ";");
        total = count.step() ? count.int64(0) : 0;
        progress(0, total);
    }

    const double now = epochNow();
    int64_t repriced = 0;
    int64_t seen = 0;
    std::string after;  // keyset paging: ids above the last one seen
    for (;;) {
        page.reset();
        page.bind(1, after).bind(2, kPageSize);
        int rows = 0;
        while (page.step()) {
            ++rows;
            const UsageEvent stored = pricingInput(page);
            after = stored.id;
            const UsageEvent priced = prices.applied(stored, billing);
            const auto check = LedgerValidator::checkCost(storedCost(priced));
            if (check.normalized == storedCost(stored)) {
                continue;  // same cost, same findings: nothing to write
            }
            const ObservedCost& cost = check.normalized;
            updateObservation.reset();
            updateObservation.bind(1, cost.amountUSDMicros)
                .bind(2, rawValue(cost.completeness))
                .bind(3, rawValue(cost.source))
                .bind(4, cost.priceVersion)
                .bind(5, cost.fxVersion)
                .bind(6, rawValue(cost.billingMode))
                .bind(7, stored.id);
            updateObservation.run();
            updateCost.reset();
            updateCost.bind(1, cost.amountUSDMicros)
                .bind(2, rawValue(cost.completeness))
                .bind(3, rawValue(cost.source))
                .bind(4, cost.priceVersion)
                .bind(5, cost.fxVersion)
                .bind(6, rawValue(cost.billingMode))
                .bind(7, now)
                .bind(8, UsageBatchBuilder::ledgerEventID(stored.id));
            updateCost.run();
            for (auto code : {CoverageIssueCode::unknownCost, CoverageIssueCode::invalidCost}) {
                deleteFinding.reset();
                deleteFinding.bind(1, stored.id).bind(2, rawValue(code));
                deleteFinding.run();
            }
            if (check.finding) {
                insertFinding.reset();
                insertFinding
                    .bind(1, UsageBatchBuilder::validationIssueID(stored.id, check.finding->code))
                    .bind(2, page.text(22))
                    .bind(3, stored.id)
                    .bind(4, rawValue(stored.source))
                    .bind(5, rawValue(check.finding->code))
                    .bind(6, rawValue(check.finding->severity))
                    .bind(7, now);
                insertFinding.run();
            }
            ++repriced;
        }
        seen += rows;
        if (progress) {
            progress(std::min(seen, total), total);
        }
        if (rows < kPageSize) {
            break;
        }
    }
    if (repriced > 0) {
        LedgerRollups::markAll(db);  // costs changed under events that did not
    }
    transaction.commit();
    return repriced;
}

RepriceOutcome UsageStore::repriceIfFingerprintChanged(const PriceTable& prices,
                                                       BillingMode billing,
                                                       const RepriceProgress& progress) {
    const std::string fingerprint = PriceFingerprint::make(prices, billing, priceOverrides(), {});
    if (setting(kFingerprintKey) == fingerprint) {
        return RepriceOutcome::skippedOutcome();
    }
    const int64_t count = repriceLedger(prices, billing, progress);
    setSetting(kFingerprintKey, fingerprint);
    return RepriceOutcome::updated(count);
}

}  // namespace kestrel
