#pragma once
// Our edits to agents' TOML configuration. The edits are textual so that every byte that is not
// ours stays as the user wrote it (no TOML writer round-trips comments and layout); toml++ only
// checks that a file parses before and after.

#include <optional>
#include <string>
#include <vector>

#include "core/integrations/hook_command.hpp"

namespace kestrel {

// The parser's message when `text` is not valid TOML.
std::optional<std::string> tomlParseError(const std::string& text);

// A TOML basic string: in double quotes, backslashes, quotes and control characters escaped.
std::string tomlBasicString(std::string_view text);

// Kimi: removes every [[hooks]] table whose command runs our script (with the blank line
// before it, so that removing what appendKimiHookTables added gives the earlier bytes back).
std::string removeKimiHookTables(const std::string& text);

// Kimi: appends one table per row after removing earlier ones of ours.
std::string appendKimiHookTables(const std::string& text, const std::vector<HookEventRow>& rows,
                                 const HookPaths& paths, bool includesProjectNames);

// The commands of our [[hooks]] tables, in file order.
std::vector<std::string> kimiHookCommands(const std::string& text);

// How Codex's `hooks` feature switch was turned on, so that uninstall takes back exactly that.
enum class CodexFeaturesEdit {
    none,   // already on, or switched off by the user (that choice is theirs)
    block,  // "\n[features]\nhooks = true\n" appended
    line,   // "hooks = true\n" added under an existing [features] header
};

struct CodexFeaturesResult {
    std::string text;
    CodexFeaturesEdit edit = CodexFeaturesEdit::none;
};

// Switches Codex's hooks feature on in a config that parses.
CodexFeaturesResult enableCodexHooksFeature(const std::string& text);

// Takes back an edit of enableCodexHooksFeature when it is still there as written.
std::string revertCodexHooksFeature(const std::string& text, CodexFeaturesEdit edit);

}  // namespace kestrel
