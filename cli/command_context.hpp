#pragma once
// What every command gets: its output streams, whether they are terminals, and the home folder
// and environment the readers use.

#include <filesystem>
#include <functional>
#include <ostream>
#include <stop_token>
#include <string>
#include <string_view>

#include "core/sources/agent_catalog.hpp"

namespace kestrel::cli {

struct CommandContext {
    CommandContext(std::ostream& o, std::ostream& e) : out(o), err(e) {}

    std::ostream& out;
    std::ostream& err;
    bool outIsTerminal = false;
    bool errIsTerminal = false;
    bool colour = false;  // out is a terminal and NO_COLOR is not set
    std::filesystem::path home;
    std::filesystem::path supportDir;  // where the ledger lives
    EnvironmentLookup env;
};

// Runs `run` with a token that is stopped by SIGINT or SIGTERM, and returns what it returns. Both
// signals are blocked for the call's duration, so a thread `run` starts inherits the mask and a
// single waiting thread takes them.
int runUntilSignalled(const std::function<int(std::stop_token)>& run);

// Draws "Reading Codex [####......] 12/340" on a terminal's error stream, rewritten in place, and
// clears it when done; does nothing when the stream is not a terminal. Redraws only when the
// bar moves by a thousandth or the label changes, so 100,000 files cost no more than 1,000 draws.
class ProgressLine {
  public:
    ProgressLine(std::ostream& err, bool enabled) : err_(err), enabled_(enabled) {}
    ~ProgressLine() { clear(); }
    void update(std::size_t done, std::size_t total, std::string_view what = "transcripts");
    void clear();

  private:
    std::ostream& err_;
    bool enabled_;
    bool shown_ = false;
    std::size_t lastStep_ = static_cast<std::size_t>(-1);  // in thousandths of the total
    std::string lastWhat_;
};

}  // namespace kestrel::cli
