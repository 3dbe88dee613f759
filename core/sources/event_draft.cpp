#include "core/sources/event_draft.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

#include "core/model/privacy.hpp"
#include "core/model/token_semantics.hpp"
#include "core/sources/utf8.hpp"

namespace kestrel {

std::string providerForModel(std::string_view model) {
    std::string lower(model);
    std::ranges::transform(lower, lower.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    // A route prefix ("anthropic/claude-..." or "us.anthropic.claude-...") does not hide the
    // model's own name.
    if (const auto slash = lower.rfind('/'); slash != std::string::npos) {
        lower = lower.substr(slash + 1);
    }
    constexpr std::array<std::pair<std::string_view, std::string_view>, 14> families{{
        {"claude", "anthropic"},
        {"gpt", "openai"},
        {"o1", "openai"},
        {"o3", "openai"},
        {"o4", "openai"},
        {"codex", "openai"},
        {"gemini", "google"},
        {"deepseek", "deepseek"},
        {"kimi", "moonshot"},
        {"grok", "xai"},
        {"glm", "zhipu"},
        {"qwen", "alibaba"},
        {"mimo", "xiaomi"},
        {"anthropic.claude", "anthropic"},
    }};
    for (const auto& [prefix, provider] : families) {
        if (lower.starts_with(prefix) ||
            lower.find("." + std::string(prefix)) != std::string::npos) {
            return std::string(provider);
        }
    }
    return "unknown";
}

UsageEvent buildEvent(const EventDraft& d) {
    UsageEvent e;
    e.id = d.id;
    e.occurredAt = d.occurredAt;
    e.timeQuality = d.timeQuality;
    e.usagePrecision = d.precision;
    e.granularity = d.granularity;
    e.source = d.source;
    // Names land in the ledger, which holds valid UTF-8 only.
    e.model = utf8::replaceInvalid(d.model);
    e.provider = d.provider.empty() ? providerForModel(e.model) : utf8::replaceInvalid(d.provider);
    if (!d.cwd.empty()) {
        e.cwdHash = Privacy::cwdHash(d.cwd);
    }
    const std::string label = !d.cwd.empty() ? Privacy::displayName(d.cwd) : d.projectName;
    if (!label.empty()) {
        e.projectDisplayName = utf8::replaceInvalid(label);
    }
    e.sessionID = utf8::replaceInvalid(d.sessionID);
    e.raw = TokenSnapshot{d.input,  d.cachedInput, d.cacheWrite,
                          d.output, d.reasoning,   d.providerTotal.value_or(0)};
    const auto mapped = TokenSemantics::map(d.source, d.input, d.cachedInput, d.cacheWrite,
                                            d.output, d.reasoning, d.providerTotal);
    e.exclusive = mapped.exclusive;
    e.breakdownTrusted = mapped.trusted;
    e.providerInputTotal = mapped.providerIn;
    e.providerOutputTotal = mapped.providerOut;
    e.providerTotal = mapped.providerTotal;
    e.usageSemanticsVersion = usageSemanticsVersion(d.source);
    // Carries the agent's own cost, which pricing prefers over the table.
    e.rawExtras = d.rawExtras;
    e.promptTokens = TokenSemantics::promptTokens(e.exclusive);
    return e;
}

}  // namespace kestrel
