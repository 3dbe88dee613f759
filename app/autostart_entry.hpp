#pragma once
// "Launch at login" on a Linux desktop: an XDG autostart entry, kestrel.desktop in the user's
// autostart folder. Qt-free, so that the file logic is tested on its own.

#include <expected>
#include <filesystem>
#include <string>
#include <string_view>

#include "core/sources/agent_catalog.hpp"

namespace kestrel::desktop {

// $XDG_CONFIG_HOME/autostart/kestrel.desktop, or $HOME/.config/autostart/kestrel.desktop when
// XDG_CONFIG_HOME is unset, empty or relative (the base directory rules ignore a relative one).
// Empty when neither variable gives a folder.
std::filesystem::path autostartFile(const EnvironmentLookup& env);

// `argument` as one argument of a desktop entry's Exec key: bare when it holds no reserved
// character, else in double quotes with ", `, $ and \ escaped; then with backslashes doubled and
// % doubled, as the value of a key in a desktop file is read.
std::string desktopExecArgument(std::string_view argument);

// The entry that starts `executable` when the user logs in.
std::string autostartEntryText(const std::filesystem::path& executable);

// Writes the entry (creating the folder) when `on`, else removes it; replacing an entry written
// earlier. The error says which file and why.
std::expected<void, std::string> setLaunchAtLogin(const std::filesystem::path& file, bool on,
                                                  const std::filesystem::path& executable);

// Whether an entry of ours is there and not switched off (Hidden=true or
// X-GNOME-Autostart-enabled=false, as desktop settings tools write it).
bool launchesAtLogin(const std::filesystem::path& file);

}  // namespace kestrel::desktop
