#include "core/model/agent_source.hpp"

#include <algorithm>
#include <array>
#include <cctype>

namespace kestrel {
namespace {

struct SourceTexts {
    AgentSource source;
    std::string_view display;
    std::string_view shortLabel;
};

// Product names stay untranslated in both languages, so they live here and not in the catalogue.
constexpr std::array<SourceTexts, 37> kTexts{{
    {AgentSource::claude, "Claude Code", "Claude"},
    {AgentSource::codex, "Codex", "Codex"},
    {AgentSource::cursor, "Cursor", "Cursor"},
    {AgentSource::gemini, "Gemini CLI", "Gemini"},
    {AgentSource::antigravity, "Antigravity", "AGY"},
    {AgentSource::kiro, "Kiro", "Kiro"},
    {AgentSource::opencode, "opencode", "OC"},
    {AgentSource::openclaw, "OpenClaw", "Claw"},
    {AgentSource::everyCode, "Every Code", "Every"},
    {AgentSource::hermes, "Hermes", "Hermes"},
    {AgentSource::copilot, "Copilot", "Copilot"},
    {AgentSource::kimi, "Kimi Code", "Kimi"},
    {AgentSource::codebuddy, "CodeBuddy", "CB"},
    {AgentSource::workbuddy, "WorkBuddy", "WB"},
    {AgentSource::grok, "Grok", "Grok"},
    {AgentSource::omp, "omp", "omp"},
    {AgentSource::pi, "pi", "pi"},
    {AgentSource::dots, "dots", "dots"},
    {AgentSource::primeAgent, "Prime Agent", "Prime"},
    {AgentSource::craft, "Craft Agent", "Craft"},
    {AgentSource::reasonix, "Reasonix", "Rnx"},
    {AgentSource::kiloCLI, "Kilo CLI", "Kilo"},
    {AgentSource::kiloCode, "Kilo Code", "KiloC"},
    {AgentSource::rooCode, "Roo Code", "Roo"},
    {AgentSource::zed, "Zed", "Zed"},
    {AgentSource::goose, "goose", "goose"},
    {AgentSource::droid, "Droid", "Droid"},
    {AgentSource::mimo, "MiMo Code", "MiMo"},
    {AgentSource::zcode, "Z Code", "ZCode"},
    {AgentSource::qoder, "Qoder", "Qoder"},
    {AgentSource::qoderCN, "Qoder CN", "QoderCN"},
    {AgentSource::anythingLLM, "AnythingLLM", "ALLM"},
    {AgentSource::claudeScience, "Claude Science", "CSci"},
    {AgentSource::deepseekHarness, "DeepSeek Harness", "DSH"},
    {AgentSource::traeWorkCN, "TRAE SOLO CN", "TRAE"},
    {AgentSource::openrouter, "OpenRouter", "OR"},
    {AgentSource::deepseek, "DeepSeek", "DS"},
}};

constexpr auto kAll = allCases<AgentSource>();

constexpr bool producesUsage(AgentSource s) {
    return s != AgentSource::openrouter && s != AgentSource::deepseek;
}

constexpr auto kUsageSources = [] {
    std::array<AgentSource, kAll.size() - 2> out{};
    std::size_t n = 0;
    for (auto s : kAll) {
        if (producesUsage(s)) {
            out[n++] = s;
        }
    }
    return out;
}();

const SourceTexts& texts(AgentSource source) {
    return kTexts[static_cast<std::size_t>(source)];
}

static_assert([] {
    for (std::size_t i = 0; i < kTexts.size(); ++i) {
        if (static_cast<std::size_t>(kTexts[i].source) != i) {
            return false;
        }
    }
    return true;
}());

}  // namespace

std::span<const AgentSource> allAgentSources() {
    return kAll;
}

std::string_view displayName(AgentSource source) {
    return texts(source).display;
}

std::string_view shortLabel(AgentSource source) {
    return texts(source).shortLabel;
}

std::span<const AgentSource> usageSources() {
    return kUsageSources;
}

int64_t usageSemanticsVersion(AgentSource source) {
    switch (source) {
        case AgentSource::kimi:
        case AgentSource::workbuddy:
        case AgentSource::grok:
            return 2;
        case AgentSource::openrouter:
        case AgentSource::deepseek:
            return 0;
        default:
            return 1;
    }
}

std::optional<AgentSource> agentSourceNamed(std::string_view name) {
    const auto same = [&](std::string_view known) {
        return known.size() == name.size() &&
               std::equal(known.begin(), known.end(), name.begin(), [](char a, char b) {
                   return std::tolower(static_cast<unsigned char>(a)) ==
                          std::tolower(static_cast<unsigned char>(b));
               });
    };
    for (auto source : allAgentSources()) {
        if (same(rawValue(source)) || same(displayName(source))) {
            return source;
        }
    }
    return std::nullopt;
}

}  // namespace kestrel
