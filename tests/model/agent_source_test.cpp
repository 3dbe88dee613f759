#include "core/model/agent_source.hpp"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "core/model/token_semantics.hpp"

namespace kestrel {
namespace {

struct SourceRow {
    AgentSource source;
    std::string_view raw;
    TokenFamily family;
    int64_t semanticsVersion;
};

// The persisted contract: raw strings, families and semantics versions, in declaration order.
// Raw values are stored in ledger rows and checkpoints, so a typo here is data loss.
constexpr SourceRow kRows[] = {
    {AgentSource::claude, "claude", TokenFamily::independent, 1},
    {AgentSource::codex, "codex", TokenFamily::subset, 1},
    {AgentSource::cursor, "cursor", TokenFamily::additive, 1},
    {AgentSource::gemini, "gemini", TokenFamily::independent, 1},
    {AgentSource::antigravity, "antigravity", TokenFamily::independent, 1},
    {AgentSource::kiro, "kiro", TokenFamily::independent, 1},
    {AgentSource::opencode, "opencode", TokenFamily::independent, 1},
    {AgentSource::openclaw, "openclaw", TokenFamily::independent, 1},
    {AgentSource::everyCode, "every-code", TokenFamily::independent, 1},
    {AgentSource::hermes, "hermes", TokenFamily::independent, 1},
    {AgentSource::copilot, "copilot", TokenFamily::independent, 1},
    {AgentSource::kimi, "kimi", TokenFamily::additive, 2},
    {AgentSource::codebuddy, "codebuddy", TokenFamily::independent, 1},
    {AgentSource::workbuddy, "workbuddy", TokenFamily::subset, 2},
    {AgentSource::grok, "grok", TokenFamily::subset, 2},
    {AgentSource::omp, "omp", TokenFamily::independent, 1},
    {AgentSource::pi, "pi", TokenFamily::independent, 1},
    {AgentSource::dots, "dots", TokenFamily::independent, 1},
    {AgentSource::primeAgent, "prime-agent", TokenFamily::independent, 1},
    {AgentSource::craft, "craft", TokenFamily::independent, 1},
    {AgentSource::reasonix, "reasonix", TokenFamily::independent, 1},
    {AgentSource::kiloCLI, "kilo-cli", TokenFamily::independent, 1},
    {AgentSource::kiloCode, "kilocode", TokenFamily::independent, 1},
    {AgentSource::rooCode, "roocode", TokenFamily::independent, 1},
    {AgentSource::zed, "zed", TokenFamily::independent, 1},
    {AgentSource::goose, "goose", TokenFamily::independent, 1},
    {AgentSource::droid, "droid", TokenFamily::independent, 1},
    {AgentSource::mimo, "mimo", TokenFamily::independent, 1},
    {AgentSource::zcode, "zcode", TokenFamily::independent, 1},
    {AgentSource::qoder, "qoder", TokenFamily::independent, 1},
    {AgentSource::qoderCN, "qoder-cn", TokenFamily::independent, 1},
    {AgentSource::anythingLLM, "anythingllm", TokenFamily::independent, 1},
    {AgentSource::claudeScience, "claude-science", TokenFamily::independent, 1},
    {AgentSource::deepseekHarness, "dsh", TokenFamily::independent, 1},
    {AgentSource::traeWorkCN, "trae-cn", TokenFamily::additive, 1},
    {AgentSource::openrouter, "openrouter", TokenFamily::independent, 0},
    {AgentSource::deepseek, "deepseek", TokenFamily::independent, 0},
};

TEST(AgentSource, TableMatchesPersistedContractInOrder) {
    const auto all = allAgentSources();
    ASSERT_EQ(all.size(), std::size(kRows));
    for (std::size_t i = 0; i < all.size(); ++i) {
        const auto& row = kRows[i];
        SCOPED_TRACE(std::string(row.raw));
        EXPECT_EQ(all[i], row.source);
        EXPECT_EQ(rawValue(row.source), row.raw);
        EXPECT_EQ(TokenSemantics::family(row.source), row.family);
        EXPECT_EQ(usageSemanticsVersion(row.source), row.semanticsVersion);
        EXPECT_EQ(fromRawValue<AgentSource>(row.raw), row.source);
    }
}

TEST(AgentSource, FromRawValueRejectsUnknownText) {
    // Case names that differ from their raw values must not parse, nor near-misses.
    for (std::string_view text :
         {"", "Claude", "CLAUDE", " claude", "claude ", "everyCode", "primeAgent", "kiloCLI",
          "deepseekHarness", "traeWorkCN", "qoderCN", "trae", "unknown-agent"}) {
        EXPECT_FALSE(fromRawValue<AgentSource>(text).has_value()) << '"' << text << '"';
    }
}

TEST(AgentSource, UsageSourcesExcludeOnlyAccountSources) {
    std::vector<AgentSource> expected;
    for (const auto& row : kRows) {
        if (row.source != AgentSource::openrouter && row.source != AgentSource::deepseek) {
            expected.push_back(row.source);
        }
    }
    const auto usage = usageSources();
    EXPECT_EQ(std::vector<AgentSource>(usage.begin(), usage.end()), expected);
}

TEST(AgentSource, UserFacingTextsAreDistinctAndPresent) {
    std::set<std::string_view> names;
    std::set<std::string_view> labels;
    for (const auto& row : kRows) {
        EXPECT_FALSE(displayName(row.source).empty()) << row.raw;
        EXPECT_FALSE(shortLabel(row.source).empty()) << row.raw;
        names.insert(displayName(row.source));
        labels.insert(shortLabel(row.source));
    }
    // Two agents sharing a label would be indistinguishable in the menu bar and in lists.
    EXPECT_EQ(names.size(), std::size(kRows));
    EXPECT_EQ(labels.size(), std::size(kRows));
}

TEST(AgentSource, NamedByRawValueOrDisplayNameInAnyCase) {
    const struct {
        const char* name;
        std::optional<AgentSource> source;
    } cases[] = {
        {"codex", AgentSource::codex},        {"CODEX", AgentSource::codex},
        {"Claude Code", AgentSource::claude}, {"claude code", AgentSource::claude},
        {"trae-cn", AgentSource::traeWorkCN}, {"claude", AgentSource::claude},
        {"claude-code", std::nullopt},        {"", std::nullopt},
        {"Claude Code ", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(agentSourceNamed(c.name), c.source) << '"' << c.name << '"';
    }
}

}  // namespace
}  // namespace kestrel
