#pragma once
// The `kestrel` command line, callable in-process so that tests drive it without a subprocess.

#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace kestrel::cli {

// Exit codes: 0 success; 1 some input could not be read (the rest was processed); 2 bad usage
// (unknown option, source or value); 3 the ledger could not be opened or written.
inline constexpr int kExitOK = 0;
inline constexpr int kExitPartial = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitFailure = 3;

// Runs the command line `args` (without the program name); `in` answers confirmation prompts.
int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
        std::istream& in);
int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace kestrel::cli
