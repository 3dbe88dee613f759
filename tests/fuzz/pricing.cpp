// pricing.json: the input as a price table file, then every row of what was read used to price a
// request of its own model, short and long, at the row's first day.
#include <cstdint>

#include "core/model/calendar.hpp"
#include "core/pricing/price_table.hpp"
#include "tests/fuzz/fuzz_support.hpp"

using namespace kestrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const auto table = PriceTable::fromFileText(fuzz::asText(data, size));
    const auto& calendar = Calendar::utc();
    // A large but real request: every bucket in the hundreds of thousands.
    const ExclusiveTokens tokens{400'000, 300'000, 200'000, 100'000, 50'000};
    for (const auto& row : table.rows) {
        (void)row.id();
        (void)row.contextBand(300'000);
        const double at = 1.8e9;
        for (const int64_t prompt : {int64_t{0}, int64_t{1'000'000}}) {
            (void)table.costMicros(tokens, true, row.match, at, BillingMode::apiEquivalent, prompt,
                                   calendar);
        }
    }
    (void)table.currentRows(1.8e9, calendar);
    return 0;
}
