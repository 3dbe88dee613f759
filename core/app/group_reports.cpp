#include "core/app/group_reports.hpp"

#include <algorithm>

namespace kestrel {
namespace {

template <class Row>
UsageRows<Row> rowsOf(std::vector<Row> rows, bool reversed) {
    UsageRows<Row> out;
    out.rows = std::move(rows);
    for (const auto& row : out.rows) {
        out.total += row.summary;
    }
    if (reversed) {
        std::ranges::reverse(out.rows);
    }
    return out;
}

}  // namespace

UsageRows<LedgerModelSummary> modelsReport(UsageStore& store, const LedgerQuery& query,
                                           bool reversed) {
    return rowsOf(store.ledgerSummariesByModel(query), reversed);
}

UsageRows<SourceUsage> sourcesReport(UsageStore& store, const LedgerQuery& query, bool reversed) {
    std::vector<SourceUsage> rows;
    for (const auto& [source, summary] : store.ledgerSummariesBySource(query)) {
        rows.push_back({source, summary});
    }
    std::ranges::stable_sort(rows, [](const SourceUsage& a, const SourceUsage& b) {
        return totalTokens(a.summary) > totalTokens(b.summary);
    });
    return rowsOf(std::move(rows), reversed);
}

UsageRows<LedgerProjectSummary> projectsReport(UsageStore& store, const LedgerQuery& query,
                                               bool reversed) {
    return rowsOf(store.ledgerSummariesByProject(query), reversed);
}

UsageRows<LedgerSessionSummary> sessionsReport(UsageStore& store, const LedgerQuery& query,
                                               bool reversed) {
    return rowsOf(store.ledgerSummariesBySession(query), reversed);
}

}  // namespace kestrel
