#pragma once
// The price table readers price events with. It holds no rows yet: until the pricing work lands
// every event comes out unpriced (no cost, completeness none, cost source unknown), which is the
// honest answer when no price is known.

namespace kestrel {

struct PriceTable {
    static PriceTable empty() { return {}; }
};

}  // namespace kestrel
