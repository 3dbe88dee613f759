#pragma once
// Usage per model, per agent, per project and per agent session, each a sum the ledger computes.
// Rows come heaviest first (sessions: the latest first); `reversed` turns the order round.
// Each throws StoreError when the ledger cannot be read.

#include "core/app/usage_rows.hpp"
#include "core/ledger/usage_store.hpp"

namespace kestrel {

UsageRows<LedgerModelSummary> modelsReport(UsageStore& store, const LedgerQuery& query,
                                           bool reversed = false);
// Heaviest by the five token buckets; agents of equal weight in source order.
UsageRows<SourceUsage> sourcesReport(UsageStore& store, const LedgerQuery& query,
                                     bool reversed = false);
// Events without a project name form one row with an absent name.
UsageRows<LedgerProjectSummary> projectsReport(UsageStore& store, const LedgerQuery& query,
                                               bool reversed = false);
// Events without a session key are left out.
UsageRows<LedgerSessionSummary> sessionsReport(UsageStore& store, const LedgerQuery& query,
                                               bool reversed = false);

}  // namespace kestrel
