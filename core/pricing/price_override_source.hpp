#pragma once
// Where the user's price overrides are kept. The ledger store is one; the price table resolves
// its layers through this without knowing the store.

#include <vector>

#include "core/pricing/price_row.hpp"

namespace kestrel {

class PriceOverrideSource {
  public:
    virtual ~PriceOverrideSource() = default;

    // The overrides in the order they were saved; throws when they cannot be read.
    virtual std::vector<PriceRow> priceOverrides() = 0;
};

}  // namespace kestrel
