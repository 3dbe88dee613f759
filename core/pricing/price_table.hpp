#pragma once
// Dated per-model prices and the cost of an event in whole micro-dollars (1 USD = 1,000,000).
// All money arithmetic is integral: prices are read as exact decimals, each bucket's cost is
// truncated on its own, and any overflow aborts rather than wrapping.

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "core/model/calendar.hpp"
#include "core/model/tokens.hpp"
#include "core/model/usage_enums.hpp"
#include "core/model/usage_event.hpp"
#include "core/pricing/price_row.hpp"
#include "core/pricing/reprice_outcome.hpp"

namespace kestrel {

class PriceOverrideSource;

// The result of pricing one set of tokens.
struct CostEstimate {
    std::optional<int64_t> micros;  // absent when nothing priced the tokens
    CostCompleteness completeness = CostCompleteness::none;
    std::optional<int64_t> priceVersion;
    ContextBand band = ContextBand::none;

    bool operator==(const CostEstimate&) const = default;
};

struct PriceTable {
    int64_t version = 1;
    std::vector<PriceRow> rows;   // table order matters only for ties, see row()
    int64_t cnyPerUsdE4 = 72000;  // yuan per dollar × 10,000

    // Version 1, no rows, 7.2 yuan per dollar: every event comes out unpriced. Also what the
    // built-in table falls back to when its resource cannot be read.
    static PriceTable empty() { return {}; }

    // The table built into the program (resources/pricing.json), decoded once on first use and
    // shared; the reference stays valid for the life of the process.
    static const PriceTable& bundled();

    // A table from the text of a price table file ({"version", "fxCNYPerUSD", "entries"}); the
    // empty table when the text is not such a document. An unreadable exchange rate counts as 0.
    static PriceTable fromFileText(std::string_view json);

    // The built-in table with the user's price overrides from `store` (the ledger) applied. An
    // override list that cannot be read is skipped.
    static PriceTable resolved(PriceOverrideSource& store);

    // Same version and exchange rate; each override, in order, replaces the first row with the
    // same match, effectiveFrom and effectiveTo, or is appended when there is none.
    PriceTable applying(const std::vector<PriceRow>& overrides) const;

    // The rows in force on the day of `at`, one per pattern (the one row() would choose), in the
    // order each pattern first appears in the table. What the prices screen lists.
    std::vector<PriceRow> currentRows(double at, const Calendar& calendar) const;

    // The row that prices `model` on the day of `at`: among the rows in force whose pattern the
    // lower-cased name contains, the longest pattern wins, then the later effectiveFrom, then
    // the earlier row. Cloud ids (ModelName::normalizedForPricing) are looked up by their bare
    // model id first and by the name as written when that finds nothing. Null when no row
    // applies; the pointer is valid while this table is unchanged.
    const PriceRow* row(std::string_view model, double at, const Calendar& calendar) const;

    // The cost of `tokens` for `model` at `at`. Untrusted tokens and unknown models give no
    // amount; localZero gives 0 without a lookup; otherwise each bucket is priced at the row's
    // rate for the context band of `promptTokens`. Aborts on overflow.
    CostEstimate costMicros(const ExclusiveTokens& tokens, bool trusted, std::string_view model,
                            double at, BillingMode billing, int64_t promptTokens,
                            const Calendar& calendar = Calendar::current()) const;

    // `event` with its billing mode, prompt size and cost fields filled: a vendor-reported cost
    // already on the event or in its rawExtras is kept or taken, otherwise the price table
    // prices it. tokensOnly is applied as apiEquivalent.
    UsageEvent applied(UsageEvent event, BillingMode billing,
                       const Calendar& calendar = Calendar::current()) const;

    bool operator==(const PriceTable&) const = default;
};

}  // namespace kestrel
