#include "core/pricing/fx_quote.hpp"

#include "core/pricing/decimal.hpp"

namespace kestrel {

std::string_view description(FxError error) {
    switch (error) {
        case FxError::badResponse:
            return "汇率接口返回无效";
        case FxError::missingRate:
            return "没有 USD/CNY 报价";
        case FxError::outOfRange:
            return "汇率超出 5.00–12.00，已忽略";
    }
    return {};
}

std::string_view englishDescription(FxError error) {
    switch (error) {
        case FxError::badResponse:
            return "The exchange-rate service sent an invalid response";
        case FxError::missingRate:
            return "No USD/CNY quote";
        case FxError::outOfRange:
            return "Rate outside 5.00–12.00, ignored";
    }
    return {};
}

int64_t FxQuote::e4() const {
    return parseDecimalScaled(cnyPerUsd, 4).value_or(0);
}

}  // namespace kestrel
