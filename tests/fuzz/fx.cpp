// Exchange-rate responses: the input as the body of a 200 answer, and as the rate a user types.
// Whatever is accepted must be a rate in the accepted range, so that no damaged quote reaches
// the settings.
#include <cstdint>
#include <string>

#include "core/pricing/fx_rate.hpp"
#include "core/sources/utf8.hpp"
#include "tests/fuzz/fuzz_support.hpp"

using namespace kestrel;

namespace {
bool inRange(int64_t e4) {
    return e4 >= FxRate::kMinE4 && e4 <= FxRate::kMaxE4;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const auto text = fuzz::asText(data, size);
    if (const auto quote = FxRate::quoteFromResponse(200, std::string(text))) {
        if (!inRange(quote->e4())) {
            fuzz::fail("an accepted quote is outside the accepted range");
        }
        if (!utf8::isValid(quote->date)) {
            fuzz::fail("a quote's date is not UTF-8");
        }
    }
    if (const auto typed = FxRate::parseInput(text); typed && !inRange(*typed)) {
        fuzz::fail("an accepted typed rate is outside the accepted range");
    }
    return 0;
}
