#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "core/model/event_id.hpp"
#include "core/model/privacy.hpp"

namespace kestrel {
namespace {

TEST(EventID, FormatsArePlainColonJoinedText) {
    EXPECT_EQ(EventID::codex("s", "t", TokenSnapshot{.input = 5, .cachedInput = 2}),
              "codex:s:t:5:2");
    EXPECT_EQ(EventID::claude("msg_01ABC"), "claude:msg_01ABC");
    EXPECT_EQ(EventID::grok("sess", "prompt-7", "grok-4"), "grok:sess:prompt-7:grok-4");
    EXPECT_EQ(EventID::kimi("sess", 1700000000123, "kimi-k2", "main"),
              "kimi:sess:1700000000123:kimi-k2:main");
    EXPECT_EQ(EventID::kimi("s", -42, "m", "sub"), "kimi:s:-42:m:sub");
    // Empty parts keep their separators so that ids of different shapes cannot collide.
    EXPECT_EQ(EventID::claude(""), "claude:");
    EXPECT_EQ(EventID::local(AgentSource::claude, "", "", ""), "claude:::");
}

TEST(EventID, LocalUsesStoredRawValueNotCaseName) {
    EXPECT_EQ(EventID::local(AgentSource::everyCode, "sess", "rec", "gpt-5"),
              "every-code:sess:rec:gpt-5");
    EXPECT_EQ(EventID::local(AgentSource::deepseekHarness, "s", "r", "m"), "dsh:s:r:m");
    EXPECT_EQ(EventID::local(AgentSource::traeWorkCN, "s", "r", "m"), "trae-cn:s:r:m");
}

TEST(EventID, CodexIdIgnoresCountersOtherThanInputAndCached) {
    // Output and totals of a cumulative record may be rewritten; only input and cached
    // identify it. Extreme values are written in full decimal.
    const TokenSnapshot a{.input = INT64_MAX, .cachedInput = 0, .output = 1};
    const TokenSnapshot b{.input = INT64_MAX, .cachedInput = 0, .output = 999, .providerTotal = 3};
    EXPECT_EQ(EventID::codex("s", "2025-01-01T00:00:00Z", a),
              "codex:s:2025-01-01T00:00:00Z:9223372036854775807:0");
    EXPECT_EQ(EventID::codex("s", "t", a), EventID::codex("s", "t", b));
}

TEST(Privacy, CwdHashKnownValues) {
    // Expected values computed independently (64-bit djb2 over UTF-8 bytes).
    EXPECT_EQ(Privacy::cwdHash(""), "1505");
    EXPECT_EQ(Privacy::cwdHash("a"), "2b606");
    EXPECT_EQ(Privacy::cwdHash("/home/u/app"), "bf5e9b6ffa73b971");
    // Long enough to wrap modulo 2^64 many times.
    EXPECT_EQ(Privacy::cwdHash("/home/user/projects/kestrel"), "cb8b9c807f182e6d");
    // Bytes above 0x7F are added unsigned; the result has no leading zero (15 digits).
    EXPECT_EQ(Privacy::cwdHash("/Users/ünïcode/проект"), "773f40eaa90872e");
}

struct DisplayNameCase {
    std::string_view cwd;
    std::string_view home;
    std::string_view expected;
};

TEST(Privacy, DisplayName) {
    const DisplayNameCase cases[] = {
        {"/home/u/app/", "", "app"},
        {"/home/u/app", "/home/u", "app"},
        {"/home/u", "/home/u", "~"},
        {"/home/u/", "/home/u", "~"},
        {"/home/u", "/home/u/", "~"},
        {"/home/user", "/home/u", "user"},
        {"/", "", "/"},
        {"///", "", "/"},
        {"", "", ""},
        {"", "/home/u", ""},
        {"C:\\Users\\u\\proj\\", "", "proj"},
        {"/srv/data\\repo", "", "repo"},
        {"relative", "", "relative"},
        {"/home/u/проект", "/home/u", "проект"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Privacy::displayName(c.cwd, c.home), c.expected)
            << "cwd=\"" << c.cwd << "\" home=\"" << c.home << '"';
    }
}

TEST(Privacy, MaskEmail) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"alice@example.com", "a***e@example.com"},
        {"abc@x.io", "a***c@x.io"},
        {"ab@x.io", "a***@x.io"},
        {"a@x.io", "a***@x.io"},
        // Multi-byte characters are kept or dropped whole, never cut.
        {"élodie@exemple.fr", "é***e@exemple.fr"},
        {"josé@x.es", "j***é@x.es"},
        {"王小明@example.cn", "王***明@example.cn"},
        {"张伟@example.cn", "张***@example.cn"},
        {"é@x.fr", "é***@x.fr"},
        // The domain follows the last '@'.
        {"a@b@c.org", "a***b@c.org"},
        // No usable '@': only the first character survives.
        {"alice", "a***"},
        {"éric", "é***"},
        {"@example.com", "@***"},
        {"", ""},
    };
    for (const auto& [in, expected] : cases) {
        EXPECT_EQ(Privacy::maskEmail(in), expected) << in;
    }
}

}  // namespace
}  // namespace kestrel
