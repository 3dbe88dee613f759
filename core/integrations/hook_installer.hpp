#pragma once
// Writes and removes Kestrel's live hooks in the agents' own configuration files, keeps the
// per-agent gate that lets a hook write pulses, and tells how each agent's hook is doing.
//
// Writing a user's configuration is the most dangerous thing Kestrel does, so every write here
// keeps all that is not ours, lands atomically with the file's mode, goes through symlinks to
// their target, never touches a file that does not parse, and is preceded (once) by a backup of
// the original under support/hooks/backups/<agent>/.

#include <expected>
#include <filesystem>
#include <optional>
#include <set>
#include <span>
#include <string_view>
#include <vector>

#include "core/integrations/hook_agent.hpp"
#include "core/integrations/hook_command.hpp"
#include "core/integrations/live_agent_pulse.hpp"
#include "core/sources/agent_catalog.hpp"

namespace kestrel {

// The little a pulse file says about its hook: which agent, and when.
struct HookPulseStamp {
    HookAgent agent = HookAgent::claude;
    double at = 0;
    bool operator==(const HookPulseStamp&) const = default;
};

// The agent and time of the pulses in `liveDir` of the last month (newest few hundred; files
// that are not a pulse are skipped).
std::vector<HookPulseStamp> readHookPulseStamps(const std::filesystem::path& liveDir, double now);

struct HookInstallAllOutcome {
    std::vector<HookChangeReport> installed;
    std::vector<HookAgent> skipped;  // "Skipped hooks for %@ (CLI not found)."
    std::vector<std::pair<HookAgent, HookInstallError>> failed;
};

class HookInstaller {
  public:
    // `resources` is the folder holding hooks/ks-hook.sh (the source tree's resources/ or the
    // installed share folder).
    HookInstaller(std::filesystem::path home, std::filesystem::path support,
                  bool includesProjectNames, std::optional<std::filesystem::path> resources,
                  EnvironmentLookup env = processEnvironment());

    std::filesystem::path hookScript() const;
    std::filesystem::path sessionSaltFile() const;
    std::filesystem::path authorizationDirectory() const;
    std::filesystem::path authorizationURL(HookAgent agent) const;
    std::filesystem::path liveDirectory() const;
    std::filesystem::path backupDirectory(HookAgent agent) const;
    HookPaths hookPaths(HookAgent agent) const;

    // The configuration files of the agent, as the agent finds them below the home.
    std::vector<std::filesystem::path> configFiles(HookAgent agent) const;

    std::expected<void, HookInstallError> authorize(HookAgent agent) const;
    void deauthorize(HookAgent agent) const;
    void deauthorizeAll() const;
    bool isAuthorized(HookAgent agent) const;

    // Ships the script and salt, writes the agent's entries (earlier ones of ours replaced) and
    // opens its gate. Lists the files whose bytes changed with their backups.
    std::expected<HookChangeReport, HookInstallError> install(HookAgent agent) const;
    // Removes our entries (or our own file) and closes the gate.
    std::expected<HookChangeReport, HookInstallError> uninstall(HookAgent agent) const;
    // Re-writes the installed hooks that differ from the current form; all agents when
    // `allowed` is absent.
    std::expected<std::vector<HookChangeReport>, HookInstallError> repair(
        const std::optional<std::set<HookAgent>>& allowed = std::nullopt) const;
    // Installs every command-style agent whose CLI is found; the others are skipped.
    HookInstallAllOutcome installAll(bool searchSystem = true) const;

    // Whether the agent's configuration holds our hook; an error when it cannot be read.
    std::expected<bool, HookInstallError> status(HookAgent agent) const;
    // Whether what is installed differs from what an install would write now.
    std::expected<bool, HookInstallError> differsFromCurrent(HookAgent agent) const;
    std::set<HookAgent> installed() const;

    // The agent's CLI among the PATH folders (plus /opt/homebrew/bin and /usr/bin when
    // `searchSystem`).
    bool cliPresent(HookAgent agent, bool searchSystem = true) const;

    HookHealth health(HookAgent agent, std::span<const HookPulseStamp> pulses, double now,
                      double staleAfter,
                      const std::optional<HookInstallError>& lastError = std::nullopt) const;

    // The pulses that may drive live activity: dated at most `staleAfter` seconds ago and at
    // most 30 seconds ahead (the agent's clock may run a little fast).
    static std::vector<LiveAgentPulse> exactActivityPulses(std::span<const LiveAgentPulse> pulses,
                                                           double now, double staleAfter);

    // Deletes pulse files; each returns how many went.
    std::size_t clearPulses(HookAgent agent) const;
    std::size_t clearAllPulses() const;

  private:
    std::expected<void, HookInstallError> shipScriptAndSalt() const;
    // Whether the agent's records changed after our hook was installed while no pulse came
    // since: it ran without running the hook (not approved, or not restarted).
    bool agentRanWithoutHook(HookAgent agent, std::optional<double> lastEmission, double now) const;
    std::filesystem::path recordFile(HookAgent agent) const;

    std::filesystem::path home_;
    std::filesystem::path support_;
    bool includesProjectNames_;
    std::optional<std::filesystem::path> resources_;
    EnvironmentLookup env_;
};

}  // namespace kestrel
