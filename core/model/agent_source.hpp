#pragma once
// The agents Kestrel knows. The raw value is what every persisted record stores, so the strings
// below are frozen: several differ from the case names on purpose ("every-code", "dsh", ...).

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "core/model/enum_cases.hpp"

namespace kestrel {

enum class AgentSource {
    claude,
    codex,
    cursor,
    gemini,
    antigravity,
    kiro,
    opencode,
    openclaw,
    everyCode,
    hermes,
    copilot,
    kimi,
    codebuddy,
    workbuddy,
    grok,
    omp,
    pi,
    dots,
    primeAgent,
    craft,
    reasonix,
    kiloCLI,
    kiloCode,
    rooCode,
    zed,
    goose,
    droid,
    mimo,
    zcode,
    qoder,
    qoderCN,
    anythingLLM,
    claudeScience,
    deepseekHarness,
    traeWorkCN,
    openrouter,
    deepseek,
};

template <>
struct EnumCases<AgentSource> {
    using S = AgentSource;
    static constexpr std::array<std::pair<S, std::string_view>, 37> cases{{
        {S::claude, "claude"},
        {S::codex, "codex"},
        {S::cursor, "cursor"},
        {S::gemini, "gemini"},
        {S::antigravity, "antigravity"},
        {S::kiro, "kiro"},
        {S::opencode, "opencode"},
        {S::openclaw, "openclaw"},
        {S::everyCode, "every-code"},
        {S::hermes, "hermes"},
        {S::copilot, "copilot"},
        {S::kimi, "kimi"},
        {S::codebuddy, "codebuddy"},
        {S::workbuddy, "workbuddy"},
        {S::grok, "grok"},
        {S::omp, "omp"},
        {S::pi, "pi"},
        {S::dots, "dots"},
        {S::primeAgent, "prime-agent"},
        {S::craft, "craft"},
        {S::reasonix, "reasonix"},
        {S::kiloCLI, "kilo-cli"},
        {S::kiloCode, "kilocode"},
        {S::rooCode, "roocode"},
        {S::zed, "zed"},
        {S::goose, "goose"},
        {S::droid, "droid"},
        {S::mimo, "mimo"},
        {S::zcode, "zcode"},
        {S::qoder, "qoder"},
        {S::qoderCN, "qoder-cn"},
        {S::anythingLLM, "anythingllm"},
        {S::claudeScience, "claude-science"},
        {S::deepseekHarness, "dsh"},
        {S::traeWorkCN, "trae-cn"},
        {S::openrouter, "openrouter"},
        {S::deepseek, "deepseek"},
    }};
};

// Every case in declaration order (also the order of lists shown to the user).
std::span<const AgentSource> allAgentSources();

// The product name shown in lists and headings ("Claude Code", "Kimi Code", ...).
std::string_view displayName(AgentSource source);

// The source a person named: its raw value ("codex") or its display name ("Claude Code"), in
// any case; absent for other text.
std::optional<AgentSource> agentSourceNamed(std::string_view name);

// A short label for the menu-bar text and narrow table columns ("CC", "Codex", ...).
std::string_view shortLabel(AgentSource source);

// The sources that produce usage records and are therefore scanned by the ingestor: every source
// but the account-only ones (openrouter, deepseek), in declaration order.
std::span<const AgentSource> usageSources();

// Version of the counting rules an event of this source was made under; stamped on each event
// so that events made under older rules can be found and read again.
int64_t usageSemanticsVersion(AgentSource source);

}  // namespace kestrel
