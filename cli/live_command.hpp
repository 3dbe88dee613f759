#pragma once
// `kestrel live`: the agent sessions at work now, and with --follow every notice as it happens
// (finished, needs approval, asks a question, failed).

#include <functional>
#include <stop_token>
#include <string>

#include "cli/command_context.hpp"

namespace kestrel::cli {

struct LiveOptions {
    bool follow = false;
    std::string language;  // en, zh-Hans or empty (the settings' language)
};

// The sessions now: agent, project (when project names may be stored), state, elapsed.
int runLive(CommandContext& ctx, const LiveOptions& options, bool json);

// Prints each notice until `stop` is requested; `onReady` once the folders are watched. With
// `json` one object per line. Status 0 when stopped.
int runLiveFollow(CommandContext& ctx, const LiveOptions& options, bool json, std::stop_token stop,
                  const std::function<void()>& onReady = {});

// `live` or, with --follow, `live --follow` stopped by SIGINT or SIGTERM.
int runLiveCommand(CommandContext& ctx, const LiveOptions& options, bool json);

}  // namespace kestrel::cli
