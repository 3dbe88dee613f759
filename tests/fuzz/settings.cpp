// The settings file: decoded whatever it holds, then written back over the same text and read
// again, which must give the same settings (a round trip that loses or changes a field would
// change the user's settings on the next save).
#include <cstdint>

#include "core/model/app_settings_json.hpp"
#include "tests/fuzz/fuzz_support.hpp"

using namespace kestrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const auto text = fuzz::asText(data, size);
    const auto decoded = decodeAppSettings(text);
    const auto written = encodeAppSettings(decoded.settings, text);
    const auto again = decodeAppSettings(written);
    if (!again.isObject || !again.invalidFields.empty()) {
        fuzz::fail("settings written by encodeAppSettings do not read back cleanly");
    }
    if (!(again.settings == decoded.settings)) {
        fuzz::fail("settings change through a write and a read");
    }
    return 0;
}
