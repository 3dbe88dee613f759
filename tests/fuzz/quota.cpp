// The quota providers' response bodies and sign-in files. The first input byte picks the parser.
// A reading that parses is stored as JSON (quota_accounts.json) and must read back equal, so a
// value JSON cannot hold (an infinite percentage, say) is caught here rather than on disk.
#include <cstdint>
#include <nlohmann/json.hpp>

#include "core/model/account_snapshot_json.hpp"
#include "core/plans/live_quota.hpp"
#include "core/plans/plan_probes.hpp"
#include "tests/fuzz/fuzz_support.hpp"

using namespace kestrel;

namespace {

constexpr double kNow = 1.8e9;

void expectStorable(const std::expected<AccountSnapshot, ProbeError>& parsed) {
    if (!parsed) {
        return;
    }
    const nlohmann::json stored = *parsed;
    const auto text = stored.dump();
    const auto back = nlohmann::json::parse(text).get<AccountSnapshot>();
    if (!(back == *parsed)) {
        fuzz::fail("a quota reading does not survive its JSON coding");
    }
}

// Three bodies in one input for Grok, split at the first two NUL bytes.
std::array<std::string_view, 3> thirds(std::string_view text) {
    std::array<std::string_view, 3> out;
    for (std::size_t i = 0; i < 2; ++i) {
        const auto cut = text.find('\0');
        out[i] = text.substr(0, cut);
        text = cut == std::string_view::npos ? std::string_view() : text.substr(cut + 1);
    }
    out[2] = text;
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const auto input = fuzz::select(data, size);
    const auto body = input.rest;
    switch (input.selector % 10) {
    case 0:
        expectStorable(LiveQuota::parseClaude(body, kNow));
        break;
    case 1:
        expectStorable(LiveQuota::parseCodex(body, kNow));
        break;
    case 2: {
        auto parsed = LiveQuota::parseKimi(body, kNow);
        if (parsed) {
            LiveQuota::applyKimiMe(*parsed, body);
        }
        expectStorable(parsed);
        break;
    }
    case 3: {
        const auto [weekly, monthly, settings] = thirds(body);
        expectStorable(LiveQuota::parseGrok(weekly, monthly, settings, kNow));
        (void)LiveQuota::grokIdentity(body);
        break;
    }
    case 4:
        expectStorable(GlmPlan::parse(body, kNow));
        break;
    case 5:
        expectStorable(MiniMaxPlan::parse(body, kNow));
        break;
    case 6:
        expectStorable(ApiBalance::parseDeepSeek(body, kNow));
        break;
    case 7: {
        const auto [key, credits, unused] = thirds(body);
        (void)unused;
        expectStorable(ApiBalance::parseOpenRouter(key, credits, kNow));
        break;
    }
    case 8:
        (void)LiveQuota::claudeTokens(body);
        (void)LiveQuota::codexTokens(body);
        (void)LiveQuota::kimiTokens(body);
        (void)LiveQuota::grokTokens(body);
        break;
    default:
        (void)LiveQuota::jwtExpiry(body);
        break;
    }
    return 0;
}
