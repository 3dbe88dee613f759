#pragma once

#include "cli/command_context.hpp"

namespace kestrel::cli {

// `kestrel events`: every usage event of the Claude transcripts below home, read from their
// start, as an aligned table or (json) one object per line. The last line counts files, lines,
// events and skipped lines (on the error stream with json).
int runEvents(CommandContext& ctx, bool json);

}  // namespace kestrel::cli
