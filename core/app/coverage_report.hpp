#pragma once
// What the ledger could not count or price: open coverage issues grouped by cause, agent and
// origin, with what each cause means.

#include <cstdint>
#include <string>
#include <vector>

#include "core/app/display_choices.hpp"
#include "core/ledger/usage_store.hpp"

namespace kestrel {

struct CoverageReport {
    std::vector<CoverageIssueGroup> groups;  // by code, source, origin
    std::vector<CoverageIssueCount> counts;  // per code
    int64_t total = 0;                       // issues in all groups

    bool operator==(const CoverageReport&) const = default;
};

// Throws StoreError when the ledger cannot be read.
CoverageReport coverageReport(UsageStore& store, const LedgerQuery& query);

// What an issue code means and what to do about it, in the chosen language.
std::string coverageExplanation(const DisplayChoices& display, CoverageIssueCode code);

}  // namespace kestrel
