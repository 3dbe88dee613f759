#include "core/sources/utf8.hpp"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace kestrel {
namespace {

const std::string kReplacement = "\xEF\xBF\xBD";

std::string repeat(const std::string& s, int n) {
    std::string out;
    for (int i = 0; i < n; ++i) {
        out += s;
    }
    return out;
}

TEST(Utf8Test, WellFormedTextIsValidAndUnchanged) {
    const std::vector<std::string> valid = {
        "",
        "plain {\"json\": [1, 2]}",
        "\xC2\x80",              // U+0080, smallest two-byte
        "caf\xC3\xA9",           // é
        "\xDF\xBF",              // U+07FF
        "\xE0\xA0\x80",          // U+0800, smallest three-byte
        "\xE2\x82\xAC",          // €
        "\xED\x9F\xBF",          // U+D7FF, just below the surrogates
        "\xEE\x80\x80",          // U+E000, just above them
        "\xEF\xBF\xBF",          // U+FFFF
        "\xF0\x90\x80\x80",      // U+10000, smallest four-byte
        "\xF0\x9D\x84\x9E",      // musical G clef
        "\xF4\x8F\xBF\xBF",      // U+10FFFF, the last code point
        std::string("a\0b", 3),  // NUL is ASCII
    };
    for (const auto& text : valid) {
        SCOPED_TRACE(::testing::PrintToString(text));
        EXPECT_TRUE(utf8::isValid(text));
        EXPECT_EQ(utf8::replaceInvalid(text), text);
    }
}

// Every byte outside a well-formed sequence becomes one U+FFFD; the bytes after it are judged
// afresh, so a valid character following a broken one survives.
TEST(Utf8Test, MalformedBytesAreReplacedOneForOne) {
    struct Case {
        const char* name;
        std::string input;
        std::string expected;
    };
    const std::string r = kReplacement;
    const std::vector<Case> cases = {
        {"overlong NUL", "\xC0\x80", repeat(r, 2)},
        {"overlong two-byte",
         "a\xC1\xBF"
         "b",
         "a" + repeat(r, 2) + "b"},
        {"overlong three-byte", "\xE0\x80\x80", repeat(r, 3)},
        {"overlong three-byte near the edge", "\xE0\x9F\xBF", repeat(r, 3)},
        {"overlong four-byte", "\xF0\x8F\xBF\xBF", repeat(r, 4)},
        {"high surrogate", "\xED\xA0\x80", repeat(r, 3)},
        {"low surrogate", "\xED\xBF\xBF", repeat(r, 3)},
        {"beyond U+10FFFF", "\xF4\x90\x80\x80", repeat(r, 4)},
        {"F5 lead", "\xF5\x80\x80\x80", repeat(r, 4)},
        {"FE and FF", "x\xFE\xFFy", "x" + repeat(r, 2) + "y"},
        {"lone continuation", "\x80", r},
        {"continuations after a complete character", "\xC3\xA9\xA9", "\xC3\xA9" + r},
        {"truncated two-byte at end", "ok\xC3", "ok" + r},
        {"truncated three-byte at end", "ok\xE2\x82", "ok" + repeat(r, 2)},
        {"truncated four-byte at end", "ok\xF0\x9D\x84", "ok" + repeat(r, 3)},
        {"truncated sequence before ASCII", "\xE2\x82\"}", repeat(r, 2) + "\"}"},
        {"truncated sequence before a valid one", "\xE2\xE2\x82\xAC", r + "\xE2\x82\xAC"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_FALSE(utf8::isValid(c.input));
        EXPECT_EQ(utf8::replaceInvalid(c.input), c.expected);
    }
}

std::string asciiOnly(const std::string& s) {
    std::string out;
    for (const char c : s) {
        if (static_cast<unsigned char>(c) < 0x80) {
            out += c;
        }
    }
    return out;
}

// Random bytes mixed with real characters: the repair is always valid, leaves valid input as it
// is, and keeps every ASCII byte in order (so JSON structure is never disturbed).
TEST(Utf8Test, RepairOfArbitraryBytes) {
    const std::vector<std::string> pieces = {
        "{", "\"", ":", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9D\x84\x9E", "\xED\xA0\x80", "\xC0"};
    std::mt19937_64 rng(42);
    for (int round = 0; round < 2000; ++round) {
        std::string input;
        const int length = static_cast<int>(rng() % 24);
        for (int i = 0; i < length; ++i) {
            if (rng() % 2 == 0) {
                input += static_cast<char>(rng());
            } else {
                input += pieces[rng() % pieces.size()];
            }
        }
        SCOPED_TRACE(::testing::PrintToString(input));
        const std::string repaired = utf8::replaceInvalid(input);
        ASSERT_TRUE(utf8::isValid(repaired));
        ASSERT_EQ(asciiOnly(repaired), asciiOnly(input));
        if (utf8::isValid(input)) {
            ASSERT_EQ(repaired, input);
        }
        ASSERT_EQ(utf8::replaceInvalid(repaired), repaired);
    }
}

}  // namespace
}  // namespace kestrel
