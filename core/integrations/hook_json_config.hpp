#pragma once
// Our entries in an agent's JSON hook settings: Claude's layout (an object `hooks` with one list
// of matcher groups per event, used by Claude, Codex and Grok) and Cursor's flat one. Every key
// and entry that is not ours is kept where it was.

#include <expected>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>
#include <vector>

#include "core/integrations/hook_command.hpp"

namespace kestrel {

// (event, matcher or "", command) of one hook entry of ours.
using HookEntry = std::tuple<std::string, std::string, std::string>;

// Removes our entries. An event list, and then the `hooks` object, that only held ours goes
// too, so that install followed by uninstall gives the original value back. Returns whether
// anything was removed.
bool removeOurJsonHooks(nlohmann::ordered_json& root, HookAgent agent);

// Appends one entry per row (after removing earlier ones of ours). Fails with a message when
// `hooks` or an event's list is there but of another type: we do not guess at a layout we do
// not know.
std::expected<void, std::string> addOurJsonHooks(nlohmann::ordered_json& root, HookAgent agent,
                                                 const std::vector<HookEventRow>& rows,
                                                 const HookPaths& paths, bool includesProjectNames);

// Our entries as they stand, in file order.
std::vector<HookEntry> ourJsonHooks(const nlohmann::ordered_json& root, HookAgent agent);

// The entries an install writes now, in the same form.
std::vector<HookEntry> expectedHooks(HookAgent agent, const HookPaths& paths,
                                     bool includesProjectNames);

}  // namespace kestrel
