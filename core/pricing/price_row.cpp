#include "core/pricing/price_row.hpp"

#include <nlohmann/json.hpp>

namespace kestrel {
namespace {

// `omitAbsent` false writes null for an absent optional, so every field has a place.
template <class J>
void fill(J& j, const PriceRow& r, bool omitAbsent) {
    j = J::object();
    auto put = [&](const char* key, const auto& value) {
        if constexpr (requires { value.has_value(); }) {
            if (value) {
                j[key] = *value;
            } else if (!omitAbsent) {
                j[key] = nullptr;
            }
        } else {
            j[key] = value;
        }
    };
    put("match", r.match);
    put("effectiveFrom", r.effectiveFrom);
    put("effectiveTo", r.effectiveTo);
    put("version", r.version);
    put("inputUncachedPerMTokUSD", r.inputUncachedPerMTokUSD);
    put("cacheReadPerMTokUSD", r.cacheReadPerMTokUSD);
    put("cacheWritePerMTokUSD", r.cacheWritePerMTokUSD);
    put("outputVisiblePerMTokUSD", r.outputVisiblePerMTokUSD);
    put("reasoningPerMTokUSD", r.reasoningPerMTokUSD);
    put("longContextThresholdTokens", r.longContextThresholdTokens);
    put("longContextInclusive", r.longContextInclusive);
    put("inputUncachedPerMTokUSDLong", r.inputUncachedPerMTokUSDLong);
    put("cacheReadPerMTokUSDLong", r.cacheReadPerMTokUSDLong);
    put("cacheWritePerMTokUSDLong", r.cacheWritePerMTokUSDLong);
    put("outputVisiblePerMTokUSDLong", r.outputVisiblePerMTokUSDLong);
    put("reasoningPerMTokUSDLong", r.reasoningPerMTokUSDLong);
}

// A price written as a string is kept as written; a number becomes its JSON text.
std::string priceText(const nlohmann::json& value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_number()) {
        return value.dump();
    }
    throw nlohmann::json::type_error::create(302, "a price must be a string or a number", &value);
}

std::optional<std::string> optionalPrice(const nlohmann::json& j, const char* key) {
    auto it = j.find(key);
    if (it == j.end() || it->is_null()) {
        return std::nullopt;
    }
    return priceText(*it);
}

template <class T>
std::optional<T> optionalValue(const nlohmann::json& j, const char* key) {
    auto it = j.find(key);
    if (it == j.end() || it->is_null()) {
        return std::nullopt;
    }
    return it->template get<T>();
}

}  // namespace

std::string PriceRow::id() const {
    return match + "|" + effectiveFrom + "|" + effectiveTo.value_or("") + "|" +
           std::to_string(version);
}

bool PriceRow::hasLongContextRates() const {
    return longContextThresholdTokens && *longContextThresholdTokens > 0 &&
           inputUncachedPerMTokUSDLong.has_value();
}

ContextBand PriceRow::contextBand(int64_t promptTokens) const {
    if (!hasLongContextRates()) {
        return ContextBand::none;
    }
    const int64_t threshold = *longContextThresholdTokens;
    const bool isLong =
        longContextInclusive.value_or(false) ? threshold <= promptTokens : threshold < promptTokens;
    return isLong ? ContextBand::longContext : ContextBand::shortContext;
}

std::string PriceRow::canonicalText() const {
    nlohmann::ordered_json j;
    fill(j, *this, false);
    return j.dump();
}

void to_json(nlohmann::json& j, const PriceRow& row) {
    fill(j, row, true);
}

void to_json(nlohmann::ordered_json& j, const PriceRow& row) {
    fill(j, row, true);
}

void from_json(const nlohmann::json& j, PriceRow& row) {
    row.match = j.at("match").get<std::string>();
    row.effectiveFrom = j.at("effectiveFrom").get<std::string>();
    row.effectiveTo = optionalValue<std::string>(j, "effectiveTo");
    row.version = j.at("version").get<int64_t>();
    row.inputUncachedPerMTokUSD = priceText(j.at("inputUncachedPerMTokUSD"));
    row.cacheReadPerMTokUSD = priceText(j.at("cacheReadPerMTokUSD"));
    row.cacheWritePerMTokUSD = priceText(j.at("cacheWritePerMTokUSD"));
    row.outputVisiblePerMTokUSD = priceText(j.at("outputVisiblePerMTokUSD"));
    row.reasoningPerMTokUSD = priceText(j.at("reasoningPerMTokUSD"));
    row.longContextThresholdTokens = optionalValue<int64_t>(j, "longContextThresholdTokens");
    row.longContextInclusive = optionalValue<bool>(j, "longContextInclusive");
    row.inputUncachedPerMTokUSDLong = optionalPrice(j, "inputUncachedPerMTokUSDLong");
    row.cacheReadPerMTokUSDLong = optionalPrice(j, "cacheReadPerMTokUSDLong");
    row.cacheWritePerMTokUSDLong = optionalPrice(j, "cacheWritePerMTokUSDLong");
    row.outputVisiblePerMTokUSDLong = optionalPrice(j, "outputVisiblePerMTokUSDLong");
    row.reasoningPerMTokUSDLong = optionalPrice(j, "reasoningPerMTokUSDLong");
}

}  // namespace kestrel
