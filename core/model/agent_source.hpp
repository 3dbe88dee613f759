#pragma once
// The agents Kestrel knows, and one identity row each. The raw value is what every persisted
// record stores, so those strings are frozen: several differ from the case names on purpose
// ("every-code", "dsh", ...). Adding an agent means a case here, its identity row below, and its
// row in the source table (core/sources/agent_table.hpp).

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

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

// What Kestrel knows about an agent's identity. Product names stay untranslated in both
// languages, so they live here and not in the text catalogue.
struct AgentIdentity {
    AgentSource source = AgentSource::claude;
    std::string_view rawValue;     // stored in every persisted record: frozen
    std::string_view displayName;  // "Claude Code", "Kimi Code", ...
    std::string_view shortLabel;   // the menu-bar text and narrow columns ("Claude", "AGY", ...)
    // Version of the counting rules an event of this source is made under; stamped on each
    // event so that events made under older rules can be found and read again. 0 for the
    // account-only sources, which make no events.
    int64_t usageSemanticsVersion = 1;
    bool accountOnly = false;  // an account read over the network, no usage records on disk
};

namespace detail {

inline constexpr bool kAccountOnly = true;

// One row per source, in declaration order (a static_assert in agent_source.cpp holds it).
inline constexpr std::array<AgentIdentity, 37> kAgentIdentities{{
    {AgentSource::claude, "claude", "Claude Code", "Claude", 1},
    {AgentSource::codex, "codex", "Codex", "Codex", 1},
    {AgentSource::cursor, "cursor", "Cursor", "Cursor", 1},
    {AgentSource::gemini, "gemini", "Gemini CLI", "Gemini", 1},
    {AgentSource::antigravity, "antigravity", "Antigravity", "AGY", 1},
    {AgentSource::kiro, "kiro", "Kiro", "Kiro", 1},
    {AgentSource::opencode, "opencode", "opencode", "OC", 1},
    {AgentSource::openclaw, "openclaw", "OpenClaw", "Claw", 1},
    {AgentSource::everyCode, "every-code", "Every Code", "Every", 1},
    {AgentSource::hermes, "hermes", "Hermes", "Hermes", 1},
    {AgentSource::copilot, "copilot", "Copilot", "Copilot", 1},
    {AgentSource::kimi, "kimi", "Kimi Code", "Kimi", 2},
    {AgentSource::codebuddy, "codebuddy", "CodeBuddy", "CB", 1},
    {AgentSource::workbuddy, "workbuddy", "WorkBuddy", "WB", 2},
    {AgentSource::grok, "grok", "Grok", "Grok", 2},
    {AgentSource::omp, "omp", "omp", "omp", 1},
    {AgentSource::pi, "pi", "pi", "pi", 1},
    {AgentSource::dots, "dots", "dots", "dots", 1},
    {AgentSource::primeAgent, "prime-agent", "Prime Agent", "Prime", 1},
    {AgentSource::craft, "craft", "Craft Agent", "Craft", 1},
    {AgentSource::reasonix, "reasonix", "Reasonix", "Rnx", 1},
    {AgentSource::kiloCLI, "kilo-cli", "Kilo CLI", "Kilo", 1},
    {AgentSource::kiloCode, "kilocode", "Kilo Code", "KiloC", 1},
    {AgentSource::rooCode, "roocode", "Roo Code", "Roo", 1},
    {AgentSource::zed, "zed", "Zed", "Zed", 1},
    {AgentSource::goose, "goose", "goose", "goose", 1},
    {AgentSource::droid, "droid", "Droid", "Droid", 1},
    {AgentSource::mimo, "mimo", "MiMo Code", "MiMo", 1},
    {AgentSource::zcode, "zcode", "Z Code", "ZCode", 1},
    {AgentSource::qoder, "qoder", "Qoder", "Qoder", 1},
    {AgentSource::qoderCN, "qoder-cn", "Qoder CN", "QoderCN", 1},
    {AgentSource::anythingLLM, "anythingllm", "AnythingLLM", "ALLM", 1},
    {AgentSource::claudeScience, "claude-science", "Claude Science", "CSci", 1},
    {AgentSource::deepseekHarness, "dsh", "DeepSeek Harness", "DSH", 1},
    {AgentSource::traeWorkCN, "trae-cn", "TRAE SOLO CN", "TRAE", 1},
    {AgentSource::openrouter, "openrouter", "OpenRouter", "OR", 0, kAccountOnly},
    {AgentSource::deepseek, "deepseek", "DeepSeek", "DS", 0, kAccountOnly},
}};

}  // namespace detail

template <>
struct EnumCases<AgentSource> {
    static constexpr auto cases = [] {
        std::array<std::pair<AgentSource, std::string_view>, detail::kAgentIdentities.size()> out{};
        for (std::size_t i = 0; i < out.size(); ++i) {
            out[i] = {detail::kAgentIdentities[i].source, detail::kAgentIdentities[i].rawValue};
        }
        return out;
    }();
};

// Every case in declaration order (also the order of lists shown to the user).
std::span<const AgentSource> allAgentSources();

// The identity row of `source`.
const AgentIdentity& agentIdentity(AgentSource source);

// The product name shown in lists and headings ("Claude Code", "Kimi Code", ...).
std::string_view displayName(AgentSource source);

// The source a person named: its raw value ("codex") or its display name ("Claude Code"), in
// any case; absent for other text.
std::optional<AgentSource> agentSourceNamed(std::string_view name);

// A short label for the menu-bar text and narrow table columns ("Claude", "AGY", ...).
std::string_view shortLabel(AgentSource source);

// The sources that produce usage records and are therefore scanned by the ingestor: every source
// but the account-only ones (openrouter, deepseek), in declaration order.
std::span<const AgentSource> usageSources();

// Version of the counting rules an event of this source was made under; stamped on each event
// so that events made under older rules can be found and read again.
int64_t usageSemanticsVersion(AgentSource source);

}  // namespace kestrel
