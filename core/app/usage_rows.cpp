#include "core/app/usage_rows.hpp"

#include "core/model/checked_math.hpp"

namespace kestrel {

int64_t totalTokens(const LedgerSummary& s) {
    int64_t sum = 0;
    for (const auto& bucket :
         {s.inputUncached, s.cacheRead, s.cacheWrite, s.outputVisible, s.reasoning}) {
        sum = checkedAdd(sum, bucket.value_or(0), "report token total");
    }
    return sum;
}

}  // namespace kestrel
