#pragma once
// One string covering everything that decides stored costs. The ledger keeps the last one and
// re-prices its events when the current one differs.

#include <string>
#include <vector>

#include "core/model/usage_enums.hpp"
#include "core/pricing/price_row.hpp"
#include "core/pricing/price_table.hpp"

namespace kestrel::PriceFingerprint {

// "v<table version>|<billing>|<per-agent token semantics>|<overrides>" plus "|sync:<rows>" when
// catalogue rows exist. tokensOnly counts as apiEquivalent (it prices the same); rows appear in
// their canonical text, in the order given.
std::string make(const PriceTable& prices, BillingMode billing,
                 const std::vector<PriceRow>& overrides, const std::vector<PriceRow>& synced);

}  // namespace kestrel::PriceFingerprint
