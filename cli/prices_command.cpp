#include "cli/prices_command.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/store_access.hpp"
#include "cli/text_table.hpp"
#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"
#include "core/pricing/decimal.hpp"
#include "core/pricing/price_table.hpp"
#include "core/pricing/reprice_outcome.hpp"

namespace kestrel::cli {
namespace {

std::string longContextText(const PriceRow& row) {
    if (!row.hasLongContextRates()) {
        return "";
    }
    return fmt::format("{} {}: in {} out {}", row.longContextInclusive.value_or(false) ? "≥" : ">",
                       groupedNumber(*row.longContextThresholdTokens),
                       *row.inputUncachedPerMTokUSDLong,
                       row.outputVisiblePerMTokUSDLong.value_or(row.outputVisiblePerMTokUSD));
}

int reprice(CommandContext& ctx, UsageStore& store) {
    try {
        const auto outcome = store.repriceIfFingerprintChanged(PriceTable::resolved(store),
                                                               ctx.settings.billingMode);
        ctx.out << (outcome.skipped
                        ? std::string("Prices unchanged; nothing repriced.\n")
                        : fmt::format("Repriced {}.\n", counted(outcome.count, "stored observation",
                                                                "stored observations")));
        return kExitOK;
    } catch (const StoreError& e) {
        ctx.err << "kestrel: repricing failed: " << e.what() << '\n';
        return kExitFailure;
    }
}

// A price as typed must be a plain non-negative decimal ("3", "0.30", "18.75").
bool checkPrice(CommandContext& ctx, const char* what, const std::string& text) {
    const auto micros = parseDecimalScaled(text, 6);
    if (!micros || *micros < 0) {
        ctx.err << "kestrel: " << what << " price \"" << text
                << "\" is not a non-negative decimal number of dollars\n";
        return false;
    }
    return true;
}

bool checkDay(CommandContext& ctx, const char* what, const std::optional<std::string>& day) {
    if (day && !Calendar::utc().startOfDay(*day)) {
        ctx.err << "kestrel: " << what << " date \"" << *day << "\" is not a YYYY-MM-DD day\n";
        return false;
    }
    return true;
}

}  // namespace

int runPrices(CommandContext& ctx, bool json) {
    auto store = openStore(ctx);
    if (!store) {
        return kExitFailure;
    }
    const auto table = PriceTable::resolved(*store);
    std::vector<std::string> overridden;
    for (const auto& row : store->priceOverrides()) {
        overridden.push_back(row.match);
    }
    auto isOverride = [&](const PriceRow& row) {
        return std::find(overridden.begin(), overridden.end(), row.match) != overridden.end();
    };
    const auto rows = table.currentRows(epochNow(), Calendar::current());

    if (json) {
        auto list = nlohmann::ordered_json::array();
        for (const auto& row : rows) {
            nlohmann::ordered_json j = nlohmann::json(row);
            j["override"] = isOverride(row);
            list.push_back(j);
        }
        nlohmann::ordered_json doc;
        doc["version"] = table.version;
        doc["rows"] = list;
        ctx.out << doc.dump(2) << '\n';
        return kExitOK;
    }
    TextTable out({{"Model pattern"},
                   {"From"},
                   {"Input", Align::right},
                   {"Cache read", Align::right},
                   {"Cache write", Align::right},
                   {"Output", Align::right},
                   {"Reasoning", Align::right},
                   {"Long context"},
                   {""}});
    for (const auto& row : rows) {
        out.addRow({row.match, row.effectiveFrom, row.inputUncachedPerMTokUSD,
                    row.cacheReadPerMTokUSD, row.cacheWritePerMTokUSD, row.outputVisiblePerMTokUSD,
                    row.reasoningPerMTokUSD, longContextText(row),
                    isOverride(row) ? "override" : ""});
    }
    out.render(ctx.out, ctx.colour);
    ctx.out << fmt::format("USD per million tokens; price table version {}; {}.\n", table.version,
                           counted(static_cast<int64_t>(rows.size()), "pattern", "patterns"));
    return kExitOK;
}

int runPricesSet(CommandContext& ctx, const PriceOverrideOptions& o) {
    if (o.match.empty()) {
        ctx.err << "kestrel: the model pattern is empty\n";
        return kExitUsage;
    }
    const bool valid = checkPrice(ctx, "input", o.input) && checkPrice(ctx, "output", o.output) &&
                       (!o.cacheRead || checkPrice(ctx, "cache-read", *o.cacheRead)) &&
                       (!o.cacheWrite || checkPrice(ctx, "cache-write", *o.cacheWrite)) &&
                       (!o.reasoning || checkPrice(ctx, "reasoning", *o.reasoning)) &&
                       (!o.longInput || checkPrice(ctx, "long-context input", *o.longInput)) &&
                       (!o.longOutput || checkPrice(ctx, "long-context output", *o.longOutput)) &&
                       checkDay(ctx, "--from", o.from) && checkDay(ctx, "--to", o.to);
    if (!valid) {
        return kExitUsage;
    }
    if (o.from && o.to && *o.to <= *o.from) {
        ctx.err << "kestrel: --to must be a later day than --from\n";
        return kExitUsage;
    }
    if ((o.longInput || o.longOutput) && (!o.longThreshold || *o.longThreshold <= 0)) {
        ctx.err << "kestrel: long-context prices need --long-threshold with a positive size\n";
        return kExitUsage;
    }
    auto store = openStore(ctx);
    if (!store) {
        return kExitFailure;
    }
    const auto table = PriceTable::resolved(*store);

    PriceRow row;
    row.match = o.match;
    // Replacing the row in force for the same pattern needs its dates: an override is matched
    // to a row by pattern and both dates.
    const auto current = table.currentRows(epochNow(), Calendar::current());
    const auto same = std::find_if(current.begin(), current.end(),
                                   [&](const PriceRow& r) { return r.match == o.match; });
    row.effectiveFrom = o.from.value_or(same != current.end() ? same->effectiveFrom : "1970-01-01");
    row.effectiveTo = o.from || o.to ? o.to : (same != current.end() ? same->effectiveTo : o.to);
    row.version = table.version;
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
    try {
        store->savePriceOverride(row);
    } catch (const StoreError& e) {
        ctx.err << "kestrel: cannot save the override: " << e.what() << '\n';
        return kExitFailure;
    }
    ctx.out << fmt::format("Override for \"{}\" saved (from {}{}).\n", row.match, row.effectiveFrom,
                           row.effectiveTo ? " to " + *row.effectiveTo : "");
    return reprice(ctx, *store);
}

int runPricesRemove(CommandContext& ctx, const std::string& match) {
    auto store = openStore(ctx);
    if (!store) {
        return kExitFailure;
    }
    if (!store->deletePriceOverride(match)) {
        ctx.err << "kestrel: there is no price override for \"" << match
                << "\" (see kestrel prices)\n";
        return kExitUsage;
    }
    ctx.out << fmt::format("Override for \"{}\" removed.\n", match);
    return reprice(ctx, *store);
}

}  // namespace kestrel::cli
