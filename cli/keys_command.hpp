#pragma once
// `kestrel keys set PROVIDER` (the key read from standard input, or typed at a prompt that does
// not echo), `keys rm PROVIDER` and `keys list`. A key is never taken from the command line and
// never printed: listings show a salted fingerprint.

#include <istream>
#include <string>

#include "cli/command_context.hpp"

namespace kestrel::cli {

// `inIsTerminal`: `in` is the user's terminal, so the key is asked for with echo off.
int runKeysSet(CommandContext& ctx, const std::string& provider, std::istream& in,
               bool inIsTerminal, bool json);
int runKeysRemove(CommandContext& ctx, const std::string& provider, bool json);
int runKeysList(CommandContext& ctx, bool json);

}  // namespace kestrel::cli
