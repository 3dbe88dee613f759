#include "core/sources/utf8.hpp"

#include <simdjson.h>

#include <cstdint>

namespace kestrel::utf8 {
namespace {

// Length of the well-formed sequence starting at `i`, or 0 when the byte there starts none.
std::size_t sequenceLength(std::string_view s, std::size_t i) {
    const auto b = [&](std::size_t k) { return static_cast<uint8_t>(s[k]); };
    const uint8_t c = b(i);
    if (c < 0x80) {
        return 1;
    }
    auto cont = [&](std::size_t k, uint8_t lo = 0x80, uint8_t hi = 0xBF) {
        return k < s.size() && b(k) >= lo && b(k) <= hi;
    };
    if (c >= 0xC2 && c <= 0xDF) {
        return cont(i + 1) ? 2 : 0;
    }
    if (c >= 0xE0 && c <= 0xEF) {
        // Excludes overlong forms (E0 below A0) and surrogates (ED above 9F).
        const uint8_t lo = c == 0xE0 ? 0xA0 : 0x80;
        const uint8_t hi = c == 0xED ? 0x9F : 0xBF;
        return cont(i + 1, lo, hi) && cont(i + 2) ? 3 : 0;
    }
    if (c >= 0xF0 && c <= 0xF4) {
        const uint8_t lo = c == 0xF0 ? 0x90 : 0x80;
        const uint8_t hi = c == 0xF4 ? 0x8F : 0xBF;
        return cont(i + 1, lo, hi) && cont(i + 2) && cont(i + 3) ? 4 : 0;
    }
    return 0;
}

}  // namespace

bool isValid(std::string_view text) {
    return simdjson::validate_utf8(text.data(), text.size());
}

std::string replaceInvalid(std::string_view text) {
    // Nearly every name and line is valid: one vectorised check, then a plain copy.
    if (isValid(text)) {
        return std::string(text);
    }
    std::string out;
    out.reserve(text.size() + 16);
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t n = sequenceLength(text, i);
        if (n == 0) {
            out += "\xEF\xBF\xBD";
            ++i;
        } else {
            out.append(text, i, n);
            i += n;
        }
    }
    return out;
}

}  // namespace kestrel::utf8
