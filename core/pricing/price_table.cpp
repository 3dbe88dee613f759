#include "core/pricing/price_table.hpp"

#include <algorithm>
#include <exception>
#include <nlohmann/json.hpp>
#include <string>

#include "core/model/checked_math.hpp"
#include "core/model/token_semantics.hpp"
#include "core/pricing/bundled_pricing.hpp"
#include "core/pricing/decimal.hpp"
#include "core/pricing/price_override_source.hpp"
#include "core/pricing/model_name.hpp"
#include "core/pricing/vendor_cost.hpp"

namespace kestrel {
namespace {

constexpr int64_t kTokensPerMillion = 1'000'000;
constexpr int kMicrosDigits = 6;  // dollars to micro-dollars
constexpr int kFxDigits = 4;      // yuan per dollar to its E4 form

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string lowered(std::string_view s) {
    std::string out(s);
    for (char& c : out) {
        c = lower(c);
    }
    return out;
}

// Whether the lower-cased `name` contains `pattern`, the pattern compared without case.
bool containsPattern(std::string_view name, std::string_view pattern) {
    if (pattern.size() > name.size()) {
        return false;
    }
    for (std::size_t at = 0; at + pattern.size() <= name.size(); ++at) {
        std::size_t k = 0;
        while (k < pattern.size() && name[at + k] == lower(pattern[k])) {
            ++k;
        }
        if (k == pattern.size()) {
            return true;
        }
    }
    return false;
}

// Day keys and effective dates are compared as plain "yyyy-MM-dd" strings.
bool inForce(const PriceRow& row, const std::string& day) {
    return row.effectiveFrom <= day && (!row.effectiveTo || day < *row.effectiveTo);
}

// The longer pattern wins; at equal length the later start; a full tie keeps `best`.
bool beats(const PriceRow& candidate, const PriceRow& best) {
    if (candidate.match.size() != best.match.size()) {
        return candidate.match.size() > best.match.size();
    }
    return best.effectiveFrom < candidate.effectiveFrom;
}

const PriceRow* bestRow(const std::vector<PriceRow>& rows, std::string_view lowerName,
                        const std::string& day) {
    const PriceRow* best = nullptr;
    for (const auto& row : rows) {
        if (containsPattern(lowerName, row.match) && inForce(row, day) &&
            (!best || beats(row, *best))) {
            best = &row;
        }
    }
    return best;
}

int64_t microsPerMTok(const std::string& price) {
    return parseDecimalScaled(price, kMicrosDigits).value_or(0);
}

// tokens × price / 10^6, split at the million so that a large but possible count times a high
// price does not pass 64 bits on the way (the quotient is exact: q·p + r·p / 10^6).
int64_t bucketCost(int64_t tokens, const std::string& price) {
    const int64_t perMTok = microsPerMTok(price);
    const int64_t millions = tokens / kTokensPerMillion;
    const int64_t rest = tokens % kTokensPerMillion;
    return checkedAdd(checkedMul(millions, perMTok, "cost of a token bucket"),
                      checkedMul(rest, perMTok, "cost of a token bucket") / kTokensPerMillion,
                      "cost of a token bucket");
}

std::string decimalText(const nlohmann::json& value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_number()) {
        return value.dump();
    }
    throw nlohmann::json::type_error::create(302, "fxCNYPerUSD must be a decimal", &value);
}

}  // namespace

const PriceTable& PriceTable::bundled() {
    static const PriceTable table = fromFileText(bundledPricingJson());
    return table;
}

PriceTable PriceTable::fromFileText(std::string_view json) {
    const auto doc = nlohmann::json::parse(json, nullptr, false);
    if (doc.is_discarded() || !doc.is_object()) {
        return empty();
    }
    try {
        PriceTable table;
        const auto& version = doc.at("version");
        const auto& entries = doc.at("entries");
        if (!version.is_number_integer() || !entries.is_array()) {
            return empty();
        }
        table.version = version.get<int64_t>();
        table.cnyPerUsdE4 =
            parseDecimalScaled(decimalText(doc.at("fxCNYPerUSD")), kFxDigits).value_or(0);
        table.rows = entries.get<std::vector<PriceRow>>();
        return table;
    } catch (const nlohmann::json::exception&) {
        return empty();
    }
}

PriceTable PriceTable::resolved(PriceOverrideSource& store) {
    // Rows from a price catalogue would be applied between these two layers, so that an override
    // beats a synced row and a synced row beats a built-in one; this program has no catalogue
    // source yet.
    try {
        return bundled().applying(store.priceOverrides());
    } catch (const std::exception&) {
        return bundled();
    }
}

PriceTable PriceTable::applying(const std::vector<PriceRow>& overrides) const {
    PriceTable out = *this;
    for (const auto& replacement : overrides) {
        auto same = std::find_if(out.rows.begin(), out.rows.end(), [&](const PriceRow& row) {
            return row.match == replacement.match &&
                   row.effectiveFrom == replacement.effectiveFrom &&
                   row.effectiveTo == replacement.effectiveTo;
        });
        if (same != out.rows.end()) {
            *same = replacement;
        } else {
            out.rows.push_back(replacement);
        }
    }
    return out;
}

std::vector<PriceRow> PriceTable::currentRows(double at, const Calendar& calendar) const {
    const std::string day = calendar.dayKey(at);
    std::vector<std::string_view> patterns;  // in order of first appearance in the table
    std::vector<const PriceRow*> chosen;     // parallel: the row shown for each, if any
    for (const auto& row : rows) {
        auto it = std::find(patterns.begin(), patterns.end(), row.match);
        const auto index = static_cast<std::size_t>(it - patterns.begin());
        if (it == patterns.end()) {
            patterns.push_back(row.match);
            chosen.push_back(nullptr);
        }
        if (inForce(row, day) && (!chosen[index] || beats(row, *chosen[index]))) {
            chosen[index] = &row;
        }
    }
    std::vector<PriceRow> out;
    for (const auto* row : chosen) {
        if (row) {
            out.push_back(*row);
        }
    }
    return out;
}

const PriceRow* PriceTable::row(std::string_view model, double at, const Calendar& calendar) const {
    const std::string day = calendar.dayKey(at);
    const std::string name = lowered(model);
    // Some patterns keep the date that tells model generations apart ("claude-opus-4-2025"),
    // which the bare id has lost; the name as written is their fallback.
    const std::string bare = ModelName::normalizedForPricing(name);
    if (bare != name) {
        if (const auto* found = bestRow(rows, bare, day)) {
            return found;
        }
    }
    return bestRow(rows, name, day);
}

CostEstimate PriceTable::costMicros(const ExclusiveTokens& tokens, bool trusted,
                                    std::string_view model, double at, BillingMode billing,
                                    int64_t promptTokens, const Calendar& calendar) const {
    if (!trusted) {
        return {};
    }
    if (billing == BillingMode::localZero) {
        return {0, CostCompleteness::complete, version, ContextBand::none};
    }
    const PriceRow* r = row(model, at, calendar);
    if (!r) {
        return {};
    }
    const ContextBand band = r->contextBand(promptTokens);
    const bool useLong = band == ContextBand::longContext;
    auto rate = [&](const std::string& standard,
                    const std::optional<std::string>& longRate) -> const std::string& {
        return useLong && longRate ? *longRate : standard;
    };

    int64_t micros = bucketCost(tokens.inputUncached,
                                rate(r->inputUncachedPerMTokUSD, r->inputUncachedPerMTokUSDLong));
    micros = checkedAdd(
        micros,
        bucketCost(tokens.cacheRead, rate(r->cacheReadPerMTokUSD, r->cacheReadPerMTokUSDLong)),
        "event cost");
    micros = checkedAdd(
        micros,
        bucketCost(tokens.cacheWrite, rate(r->cacheWritePerMTokUSD, r->cacheWritePerMTokUSDLong)),
        "event cost");
    micros = checkedAdd(micros,
                        bucketCost(tokens.outputVisible, rate(r->outputVisiblePerMTokUSD,
                                                              r->outputVisiblePerMTokUSDLong)),
                        "event cost");
    micros = checkedAdd(
        micros,
        bucketCost(tokens.reasoning, rate(r->reasoningPerMTokUSD, r->reasoningPerMTokUSDLong)),
        "event cost");
    return {micros, CostCompleteness::complete, r->version, band};
}

UsageEvent PriceTable::applied(UsageEvent event, BillingMode billing,
                               const Calendar& calendar) const {
    // Applying prices always means money: tokensOnly only hides amounts on screen.
    const BillingMode mode =
        billing == BillingMode::tokensOnly ? BillingMode::apiEquivalent : billing;
    event.billingMode = mode;
    if (!event.promptTokens) {
        event.promptTokens = TokenSemantics::promptTokens(event.exclusive);
    }
    const int64_t prompt = *event.promptTokens;
    auto matchingRow = [&] { return row(event.model, event.occurredAt, calendar); };
    auto bandOf = [&](const PriceRow* r) { return r ? r->contextBand(prompt) : ContextBand::none; };

    if (mode == BillingMode::localZero) {
        event.estimatedCostUSDMicros = 0;
        event.costCompleteness = CostCompleteness::complete;
        event.costSource = CostSource::priceTable;
        event.priceVersion = version;
        event.contextBand = bandOf(matchingRow());
        return event;
    }
    if (event.costSource == CostSource::vendorReported && event.estimatedCostUSDMicros) {
        if (!event.contextBand) {
            event.contextBand = bandOf(matchingRow());
        }
        return event;
    }
    if (const auto vendor = VendorCost::micros(event.rawExtras)) {
        const PriceRow* r = matchingRow();
        event.estimatedCostUSDMicros = *vendor;
        event.costCompleteness = CostCompleteness::complete;
        event.costSource = CostSource::vendorReported;
        event.priceVersion = r ? std::optional(r->version) : std::nullopt;
        event.contextBand = bandOf(r);
        return event;
    }
    if (event.breakdownTrusted) {
        const auto cost = costMicros(event.exclusive, true, event.model, event.occurredAt, mode,
                                     prompt, calendar);
        event.estimatedCostUSDMicros = cost.micros;
        event.costCompleteness = cost.completeness;
        event.priceVersion = cost.priceVersion;
        event.contextBand = cost.band;
        event.costSource = cost.micros ? CostSource::priceTable : CostSource::unknown;
        return event;
    }
    event.estimatedCostUSDMicros = std::nullopt;
    event.costCompleteness = CostCompleteness::none;
    event.priceVersion = std::nullopt;
    event.costSource = CostSource::unknown;
    event.contextBand = ContextBand::none;
    return event;
}

}  // namespace kestrel
