#pragma once
// Money for display: dollars from micro-USD, yuan from fen. Amounts are handed to ICU as exact
// decimal text, so no binary rounding error reaches the screen.

#include <cstdint>
#include <string>

#include "core/model/currency.hpp"

namespace kestrel {

// Yuan fen for an amount in micro-USD at `cnyPerUsdE4` (yuan per dollar × 10,000):
// usdMicros × cnyPerUsdE4 / 100,000,000, truncated toward zero. Aborts when the product
// overflows 64 bits.
int64_t cnyFen(int64_t usdMicros, int64_t cnyPerUsdE4);

// `usdMicros` in the shown currency: formatUSD for usd, formatCNY of the converted fen for cny.
std::string format(int64_t usdMicros, ResolvedCurrency currency, int64_t cnyPerUsdE4,
                   const std::string& locale = "");

// micros / 1,000,000 as a "USD" amount with 2 to 4 fraction digits, rounded half away from zero
// ("$1.2346", "$1.00" in en_US). Returns UTF-8.
//
// `locale` is an ICU locale name ("en_US", "zh_CN", "zh-Hans"); empty means the process's
// default locale. An unknown name falls back to ICU's root data rather than failing.
std::string formatUSD(int64_t micros, const std::string& locale = "");

// fen / 100 as a "CNY" amount with exactly 2 fraction digits ("¥7.20" in zh_CN).
std::string formatCNY(int64_t fen, const std::string& locale = "");

}  // namespace kestrel
