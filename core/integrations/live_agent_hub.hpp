#pragma once
// Reads the pulse files that the hooks and plug-ins write into support/live and tells which
// agents are busy. The folder is written by other processes at any moment and by code we do not
// control, so every read is bounded: a listing stops after a fixed number of entries, files that
// are large, old, not regular or not JSON are skipped without being parsed, and a file that
// vanishes or is half-written is simply not a pulse.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/integrations/live_agent_pulse.hpp"

namespace kestrel {

struct PulseReadLimits {
    std::size_t maxEntries = 20'000;          // directory entries looked at per read
    std::size_t maxParsed = 512;              // newest files parsed per read
    std::uintmax_t maxFileBytes = 64 * 1024;  // a pulse is a few hundred bytes
};

struct PulseReading {
    std::vector<LiveAgentPulse> pulses;  // newest first
    std::size_t skipped = 0;             // files that were looked at and were not a usable pulse
    bool truncated = false;              // the listing or the parse budget ran out
};

// A one-way digest of an agent's session id, keyed by the agent and the salt, so that the id
// itself is never stored. The hook script computes the same digest (see ks-hook.sh).
namespace ActivitySessionKeyHasher {
std::string hash(std::string_view rawID, AgentSource source, std::string_view salt);
}

class LiveAgentHub {
  public:
    // A pulse dated this far ahead of our clock still counts (clocks of agents drift a little).
    static constexpr double kFutureTolerance = 30;

    explicit LiveAgentHub(std::filesystem::path support, PulseReadLimits limits = {});

    static std::filesystem::path directory(const std::filesystem::path& support);
    static std::filesystem::path sessionSaltURL(const std::filesystem::path& support);
    // The salt as the hook reads it: the first line of the salt file; absent when missing.
    static std::optional<std::string> loadSessionSalt(const std::filesystem::path& support);
    static std::string sessionKey(std::string_view rawSession, AgentSource source,
                                  std::string_view salt);

    // One pulse from one file's bytes, or absent when they are not a valid pulse. A file
    // without `source` takes `defaultSource`; an unknown source is not a pulse.
    static std::optional<LiveAgentPulse> parse(
        std::string_view bytes, std::optional<AgentSource> defaultSource = std::nullopt);

    // Whether a pulse is recent enough to count: dated within [now - maxAge,
    // now + kFutureTolerance].
    static bool isActive(const LiveAgentPulse& pulse, double now, double maxAge);

    // The valid pulses in `directory` that are active (isActive).
    static PulseReading readActive(const std::filesystem::path& directory, double now,
                                   double maxAge, const PulseReadLimits& limits = {});

    // Sources with a session whose newest pulse says `processing`.
    static std::set<AgentSource> processingSources(std::span<const LiveAgentPulse> pulses);
    // Sources that had a live (not idle) session in `previous` that is idle or gone in `current`.
    static std::set<AgentSource> sourcesWithTerminatedSessions(
        std::span<const LiveAgentPulse> previous, std::span<const LiveAgentPulse> current);

    // Deletes pulse files not written for `olderThan` seconds and temporary files a crashed hook
    // left, at most `maxRemovals` per call. Returns how many went.
    static std::size_t prune(const std::filesystem::path& directory, double now, double olderThan,
                             std::size_t maxRemovals = 1000);

    const std::filesystem::path& liveDirectory() const { return directory_; }
    // Reads the folder; the reading before is kept for terminatedSources().
    const PulseReading& read(double now, double maxAge);
    const PulseReading& lastReading() const { return current_; }
    std::set<AgentSource> terminatedSources() const;

  private:
    std::filesystem::path directory_;
    PulseReadLimits limits_;
    PulseReading previous_;
    PulseReading current_;
};

}  // namespace kestrel
