#include "core/pricing/price_fingerprint.hpp"

#include <algorithm>

#include "core/model/agent_source.hpp"

namespace kestrel::PriceFingerprint {
namespace {

std::string joined(const std::vector<PriceRow>& rows) {
    std::string out;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        out += i ? ";" : "";
        out += rows[i].canonicalText();
    }
    return out;
}

}  // namespace

std::string make(const PriceTable& prices, BillingMode billing,
                 const std::vector<PriceRow>& overrides, const std::vector<PriceRow>& synced) {
    if (billing == BillingMode::tokensOnly) {
        billing = BillingMode::apiEquivalent;
    }
    std::string out = "v" + std::to_string(prices.version) + "|" + std::string(rawValue(billing));

    std::vector<std::string> semantics;
    for (const auto source : allCases<AgentSource>()) {
        semantics.push_back(std::string(rawValue(source)) + ":" +
                            std::to_string(usageSemanticsVersion(source)));
    }
    std::sort(semantics.begin(), semantics.end());
    out += "|";
    for (std::size_t i = 0; i < semantics.size(); ++i) {
        out += i ? "," : "";
        out += semantics[i];
    }

    out += "|" + joined(overrides);
    if (!synced.empty()) {
        out += "|sync:" + joined(synced);
    }
    return out;
}

}  // namespace kestrel::PriceFingerprint
