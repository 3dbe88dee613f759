#include "cli/prices_command.hpp"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/session_access.hpp"
#include "cli/text_table.hpp"
#include "core/app/price_overrides.hpp"
#include "core/model/timestamp.hpp"

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

void printRepriced(CommandContext& ctx, const RepriceOutcome& outcome) {
    ctx.out << (outcome.skipped
                    ? std::string("Prices unchanged; nothing repriced.\n")
                    : fmt::format("Repriced {}.\n", counted(outcome.count, "stored observation",
                                                            "stored observations")));
}

// The word a price field goes by on this command line.
const char* fieldWord(PriceInputError::Field field) {
    using F = PriceInputError::Field;
    switch (field) {
        case F::input:
            return "input";
        case F::output:
            return "output";
        case F::cacheRead:
            return "cache-read";
        case F::cacheWrite:
            return "cache-write";
        case F::reasoning:
            return "reasoning";
        case F::longInput:
            return "long-context input";
        case F::longOutput:
            return "long-context output";
        case F::from:
            return "--from";
        case F::to:
            return "--to";
        case F::match:
        case F::longThreshold:
            break;
    }
    return "";
}

void printInputError(CommandContext& ctx, const PriceInputError& e) {
    using K = PriceInputError::Kind;
    switch (e.kind) {
        case K::empty:
            ctx.err << "kestrel: the model pattern is empty\n";
            break;
        case K::notADecimal:
            ctx.err << "kestrel: " << fieldWord(e.field) << " price \"" << e.text
                    << "\" is not a non-negative decimal number of dollars\n";
            break;
        case K::notADay:
            ctx.err << "kestrel: " << fieldWord(e.field) << " date \"" << e.text
                    << "\" is not a YYYY-MM-DD day\n";
            break;
        case K::toNotAfterFrom:
            ctx.err << "kestrel: --to must be a later day than --from\n";
            break;
        case K::needsThreshold:
            ctx.err << "kestrel: long-context prices need --long-threshold with a positive size\n";
            break;
    }
}

// Prints why a change failed; the exit status.
int changeFailed(CommandContext& ctx, const PriceChangeError& e) {
    switch (e.kind) {
        case PriceChangeError::Kind::badInput:
            printInputError(ctx, *e.input);
            return kExitUsage;
        case PriceChangeError::Kind::notFound:
            return kExitUsage;  // said by the caller, which knows the pattern
        case PriceChangeError::Kind::saveFailed:
            ctx.err << "kestrel: cannot save the override: " << e.message << '\n';
            return kExitFailure;
        case PriceChangeError::Kind::repriceFailed:
            ctx.err << "kestrel: repricing failed: " << e.message << '\n';
            return kExitFailure;
    }
    return kExitFailure;
}

std::string savedLine(const PriceRow& row) {
    return fmt::format("Override for \"{}\" saved (from {}{}).\n", row.match, row.effectiveFrom,
                       row.effectiveTo ? " to " + *row.effectiveTo : "");
}

}  // namespace

int runPrices(CommandContext& ctx, bool json) {
    auto session = openSession(ctx);
    if (!session) {
        return kExitFailure;
    }
    const auto list = currentPrices(*session, epochNow(), Calendar::current());

    if (json) {
        auto rows = nlohmann::ordered_json::array();
        for (const auto& r : list.rows) {
            nlohmann::ordered_json j = nlohmann::json(r.row);
            j["override"] = r.isOverride;
            rows.push_back(j);
        }
        nlohmann::ordered_json doc;
        doc["version"] = list.version;
        doc["rows"] = rows;
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
    for (const auto& [row, isOverride] : list.rows) {
        out.addRow({row.match, row.effectiveFrom, row.inputUncachedPerMTokUSD,
                    row.cacheReadPerMTokUSD, row.cacheWritePerMTokUSD, row.outputVisiblePerMTokUSD,
                    row.reasoningPerMTokUSD, longContextText(row), isOverride ? "override" : ""});
    }
    out.render(ctx.out, ctx.colour);
    ctx.out << fmt::format("USD per million tokens; price table version {}; {}.\n", list.version,
                           counted(static_cast<int64_t>(list.rows.size()), "pattern", "patterns"));
    return kExitOK;
}

int runPricesSet(CommandContext& ctx, const PriceOverrideOptions& o) {
    const PriceOverrideInput input{o.match,     o.input, o.output,        o.cacheRead,
                                   o.cacheWrite, o.reasoning, o.from, o.to, o.longThreshold,
                                   o.longInput,  o.longOutput};
    // Everything that can be refused is checked before the ledger is opened.
    if (const auto problem = checkPriceOverride(input)) {
        printInputError(ctx, *problem);
        return kExitUsage;
    }
    auto session = openSession(ctx);
    if (!session) {
        return kExitFailure;
    }
    const auto change = savePriceOverride(*session, input);
    if (!change) {
        if (change.error().kind == PriceChangeError::Kind::repriceFailed) {
            ctx.out << savedLine(change.error().row);
        }
        return changeFailed(ctx, change.error());
    }
    ctx.out << savedLine(change->row);
    printRepriced(ctx, change->repriced);
    return kExitOK;
}

int runPricesRemove(CommandContext& ctx, const std::string& match) {
    auto session = openSession(ctx);
    if (!session) {
        return kExitFailure;
    }
    const auto repriced = removePriceOverride(*session, match);
    if (!repriced) {
        if (repriced.error().kind == PriceChangeError::Kind::notFound) {
            ctx.err << "kestrel: there is no price override for \"" << match
                    << "\" (see kestrel prices)\n";
        }
        if (repriced.error().kind == PriceChangeError::Kind::repriceFailed) {
            ctx.out << fmt::format("Override for \"{}\" removed.\n", match);
        }
        return changeFailed(ctx, repriced.error());
    }
    ctx.out << fmt::format("Override for \"{}\" removed.\n", match);
    printRepriced(ctx, *repriced);
    return kExitOK;
}

}  // namespace kestrel::cli
