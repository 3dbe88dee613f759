#pragma once
// The rows the usage reports are made of, and the one way they count tokens.

#include <cstdint>
#include <vector>

#include "core/ledger/ledger_query.hpp"

namespace kestrel {

// The token total of a summary as its columns add up: the five buckets (uncached input, cache
// reads, cache writes, visible output, reasoning). Agents' own totals disagree on what they
// include (some leave cache reads out), so reports do not use them.
int64_t totalTokens(const LedgerSummary& summary);

struct SourceUsage {
    AgentSource source = AgentSource::claude;
    LedgerSummary summary;

    bool operator==(const SourceUsage&) const = default;
};

// Rows of one report and what they add up to.
template <class Row>
struct UsageRows {
    std::vector<Row> rows;
    LedgerSummary total;

    bool operator==(const UsageRows&) const = default;
};

}  // namespace kestrel
