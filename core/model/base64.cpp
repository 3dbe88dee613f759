#include "core/model/base64.hpp"

#include <array>
#include <cstdint>

namespace kestrel::base64 {
namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int8_t, 256> kReverse = [] {
    std::array<int8_t, 256> r{};
    r.fill(-1);
    for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
        r[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int8_t>(i);
    }
    return r;
}();

}  // namespace

std::string encode(std::string_view bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const uint32_t v = (uint32_t(uint8_t(bytes[i])) << 16) |
                           (uint32_t(uint8_t(bytes[i + 1])) << 8) | uint8_t(bytes[i + 2]);
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += kAlphabet[v & 63];
    }
    const std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        uint32_t v = uint32_t(uint8_t(bytes[i])) << 16;
        if (rest == 2) {
            v |= uint32_t(uint8_t(bytes[i + 1])) << 8;
        }
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += rest == 2 ? kAlphabet[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

std::optional<std::string> decode(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::string out;
    out.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        int pad = 0;
        uint32_t v = 0;
        for (std::size_t k = 0; k < 4; ++k) {
            const char c = text[i + k];
            if (c == '=' && last && k >= 2) {
                ++pad;
                v <<= 6;
                continue;
            }
            const int8_t d = kReverse[static_cast<unsigned char>(c)];
            if (d < 0 || pad > 0) {
                return std::nullopt;
            }
            v = (v << 6) | uint32_t(d);
        }
        out += char((v >> 16) & 0xFF);
        if (pad < 2) {
            out += char((v >> 8) & 0xFF);
        }
        if (pad < 1) {
            out += char(v & 0xFF);
        }
    }
    return out;
}

}  // namespace kestrel::base64
