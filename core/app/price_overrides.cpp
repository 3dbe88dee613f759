#include "core/app/price_overrides.hpp"

#include <algorithm>

#include "core/model/timestamp.hpp"
#include "core/pricing/decimal.hpp"
#include "core/pricing/price_table.hpp"

namespace kestrel {
namespace {

using Field = PriceInputError::Field;
using Kind = PriceInputError::Kind;

// A price as typed must be a plain non-negative decimal ("3", "0.30", "18.75").
std::optional<PriceInputError> checkPrice(Field field, const std::optional<std::string>& text) {
    if (!text) {
        return std::nullopt;
    }
    const auto micros = parseDecimalScaled(*text, 6);
    if (!micros || *micros < 0) {
        return PriceInputError{field, Kind::notADecimal, *text};
    }
    return std::nullopt;
}

std::optional<PriceInputError> checkDay(Field field, const std::optional<std::string>& day) {
    if (day && !Calendar::utc().startOfDay(*day)) {
        return PriceInputError{field, Kind::notADay, *day};
    }
    return std::nullopt;
}

}  // namespace

std::optional<PriceInputError> checkPriceOverride(const PriceOverrideInput& o) {
    if (o.match.empty()) {
        return PriceInputError{Field::match, Kind::empty, o.match};
    }
    for (auto problem :
         {checkPrice(Field::input, o.input), checkPrice(Field::output, o.output),
          checkPrice(Field::cacheRead, o.cacheRead), checkPrice(Field::cacheWrite, o.cacheWrite),
          checkPrice(Field::reasoning, o.reasoning), checkPrice(Field::longInput, o.longInput),
          checkPrice(Field::longOutput, o.longOutput), checkDay(Field::from, o.from),
          checkDay(Field::to, o.to)}) {
        if (problem) {
            return problem;
        }
    }
    if (o.from && o.to && *o.to <= *o.from) {
        return PriceInputError{Field::to, Kind::toNotAfterFrom, *o.to};
    }
    if ((o.longInput || o.longOutput) && (!o.longThreshold || *o.longThreshold <= 0)) {
        return PriceInputError{Field::longThreshold, Kind::needsThreshold,
                               o.longThreshold ? std::to_string(*o.longThreshold) : ""};
    }
    return std::nullopt;
}

PriceList currentPrices(AppSession& session, double at, const Calendar& calendar) {
    const auto table = session.prices();
    std::vector<std::string> overridden;
    for (const auto& row : session.store().priceOverrides()) {
        overridden.push_back(row.match);
    }
    PriceList out;
    out.version = table.version;
    for (auto& row : table.currentRows(at, calendar)) {
        const bool isOverride = std::ranges::find(overridden, row.match) != overridden.end();
        out.rows.push_back({std::move(row), isOverride});
    }
    return out;
}

std::expected<PriceRow, PriceInputError> priceOverrideRow(const PriceOverrideInput& o,
                                                          const PriceTable& prices, double now) {
    if (auto problem = checkPriceOverride(o)) {
        return std::unexpected(*problem);
    }
    PriceRow row;
    row.match = o.match;
    const auto current = prices.currentRows(now, Calendar::current());
    const auto same = std::ranges::find(current, o.match, &PriceRow::match);
    row.effectiveFrom = o.from.value_or(same != current.end() ? same->effectiveFrom : "1970-01-01");
    row.effectiveTo = o.from || o.to ? o.to : (same != current.end() ? same->effectiveTo : o.to);
    row.version = prices.version;
    row.inputUncachedPerMTokUSD = o.input;
    row.outputVisiblePerMTokUSD = o.output;
    row.cacheReadPerMTokUSD = o.cacheRead.value_or(o.input);
    row.cacheWritePerMTokUSD = o.cacheWrite.value_or(o.input);
    row.reasoningPerMTokUSD = o.reasoning.value_or(o.output);
    if (o.longThreshold) {
        row.longContextThresholdTokens = o.longThreshold;
        row.inputUncachedPerMTokUSDLong = o.longInput.value_or(o.input);
        row.outputVisiblePerMTokUSDLong = o.longOutput;
    }
    return row;
}

std::expected<PriceChange, PriceChangeError> savePriceOverride(
    AppSession& session, const PriceOverrideInput& input,
    const UsageStore::RepriceProgress& progress) {
    auto row = priceOverrideRow(input, session.prices(), epochNow());
    if (!row) {
        return std::unexpected(
            PriceChangeError{PriceChangeError::Kind::badInput, row.error(), {}, {}});
    }
    PriceChange change;
    change.row = std::move(*row);
    try {
        session.store().savePriceOverride(change.row);
    } catch (const std::exception& e) {
        return std::unexpected(
            PriceChangeError{PriceChangeError::Kind::saveFailed, {}, e.what(), {}});
    }
    try {
        change.repriced = session.reloadPrices(progress);
    } catch (const std::exception& e) {
        return std::unexpected(
            PriceChangeError{PriceChangeError::Kind::repriceFailed, {}, e.what(), change.row});
    }
    return change;
}

std::expected<RepriceOutcome, PriceChangeError> removePriceOverride(
    AppSession& session, const std::string& match,
    const UsageStore::RepriceProgress& progress) {
    try {
        if (!session.store().deletePriceOverride(match)) {
            return std::unexpected(PriceChangeError{PriceChangeError::Kind::notFound, {}, {}, {}});
        }
    } catch (const std::exception& e) {
        return std::unexpected(
            PriceChangeError{PriceChangeError::Kind::saveFailed, {}, e.what(), {}});
    }
    try {
        return session.reloadPrices(progress);
    } catch (const std::exception& e) {
        return std::unexpected(
            PriceChangeError{PriceChangeError::Kind::repriceFailed, {}, e.what(), {}});
    }
}

}  // namespace kestrel
