#pragma once
// What asking the ledger to re-price after a price change did.

#include <cstdint>

namespace kestrel {

struct RepriceOutcome {
    bool skipped = true;  // the price fingerprint had not moved: nothing was done
    int64_t count = 0;    // stored events that got new cost values (0 when skipped)

    static constexpr RepriceOutcome updated(int64_t count) { return {false, count}; }
    static constexpr RepriceOutcome skippedOutcome() { return {true, 0}; }

    bool operator==(const RepriceOutcome&) const = default;
};

}  // namespace kestrel
