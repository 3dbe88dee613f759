#pragma once
// `kestrel bar [--format waybar|json|text]`: one line for a desktop panel, so that a panel
// (Waybar's custom module, or any that runs a command and shows its output) displays today's
// cost and the tightest quota window without a tray icon. Like the status line it reads only the
// ledger and the stored quota readings, and always prints something.

#include <optional>
#include <string>

#include "cli/command_context.hpp"

namespace kestrel::cli {

enum class BarFormat { waybar, json, text };

struct BarOptions {
    BarFormat format = BarFormat::waybar;
    std::optional<std::string> language;  // en or zh-Hans; default: the settings'
};

int runBar(CommandContext& ctx, const BarOptions& options);

}  // namespace kestrel::cli
