#pragma once
// The prices in force and the user's overrides of them. Saving or removing an override resolves
// the prices again and reprices the stored ledger under the stored billing mode.

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <vector>

#include "core/app/app_session.hpp"
#include "core/model/calendar.hpp"
#include "core/pricing/price_row.hpp"

namespace kestrel {

struct PriceListRow {
    PriceRow row;
    bool isOverride = false;  // one of the user's overrides

    bool operator==(const PriceListRow&) const = default;
};

struct PriceList {
    int64_t version = 0;  // of the price table
    std::vector<PriceListRow> rows;  // one per pattern, the row in force on the day of `at`

    bool operator==(const PriceList&) const = default;
};

PriceList currentPrices(AppSession& session, double at, const Calendar& calendar);

// An override as the user typed it: prices are decimal USD per million tokens.
struct PriceOverrideInput {
    std::string match;
    std::string input, output;
    std::optional<std::string> cacheRead, cacheWrite, reasoning;  // default: input, input, output
    std::optional<std::string> from, to;  // YYYY-MM-DD; default: the dates of the row replaced
    std::optional<int64_t> longThreshold;
    std::optional<std::string> longInput, longOutput;
};

struct PriceInputError {
    enum class Field {
        match, input, output, cacheRead, cacheWrite, reasoning, longInput, longOutput, from, to,
        longThreshold,
    };
    enum class Kind {
        empty,            // match: no pattern
        notADecimal,      // a price that is not a non-negative decimal
        notADay,          // from/to that is not YYYY-MM-DD
        toNotAfterFrom,   // to on or before from
        needsThreshold,   // long-context prices without a positive threshold
    };
    Field field = Field::match;
    Kind kind = Kind::empty;
    std::string text;  // the value as typed
};

// The first thing wrong with `input`, if any; checks the text alone, no ledger needed.
std::optional<PriceInputError> checkPriceOverride(const PriceOverrideInput& input);

// The row `input` describes, checked. It replaces the row in force today for the same pattern
// (an override is matched to a row by pattern and both dates), so it takes that row's dates
// unless given.
std::expected<PriceRow, PriceInputError> priceOverrideRow(const PriceOverrideInput& input,
                                                          const PriceTable& prices, double now);

struct PriceChange {
    PriceRow row;                // the override saved (or removed)
    RepriceOutcome repriced;
};

struct PriceChangeError {
    enum class Kind {
        badInput,       // nothing was saved
        notFound,       // no override with that pattern
        saveFailed,     // the ledger refused the change
        repriceFailed,  // the change was made; the ledger keeps its old costs for now
    };
    Kind kind = Kind::saveFailed;
    std::optional<PriceInputError> input;  // badInput
    std::string message;                   // the ledger's error
    PriceRow row;                          // repriceFailed after a save: the override saved
};

// Both reprice the ledger when the change moved any price; `progress` hears how far that got.
std::expected<PriceChange, PriceChangeError> savePriceOverride(
    AppSession& session, const PriceOverrideInput& input,
    const UsageStore::RepriceProgress& progress = {});
std::expected<RepriceOutcome, PriceChangeError> removePriceOverride(
    AppSession& session, const std::string& match,
    const UsageStore::RepriceProgress& progress = {});

}  // namespace kestrel
