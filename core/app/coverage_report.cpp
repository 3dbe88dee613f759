#include "core/app/coverage_report.hpp"

#include "core/model/checked_math.hpp"

namespace kestrel {

CoverageReport coverageReport(UsageStore& store, const LedgerQuery& query) {
    CoverageReport out;
    out.groups = store.coverageIssueGroups(query);
    out.counts = store.coverageIssueCounts(query);
    for (const auto& g : out.groups) {
        out.total = checkedAdd(out.total, g.count, "coverage issue total");
    }
    return out;
}

std::string coverageExplanation(const DisplayChoices& display, CoverageIssueCode code) {
    // An unpriced model is the issue people meet most; it shares the price view's advice.
    if (code == CoverageIssueCode::unknownCost) {
        return display.text("price.noMatch");
    }
    return display.text("coverage." + std::string(rawValue(code)));
}

}  // namespace kestrel
