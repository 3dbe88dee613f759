#pragma once
// The candidate roots of one agent, resolved against the home folder and the environment: the
// vocabulary the roots recipes in the agent table (agent_table.hpp) are written in. Roots are
// kept in the order they are added, each once.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/sources/agent_catalog.hpp"

namespace kestrel {

// A user-written location: "~" and "~/..." name the home folder, a relative path is taken
// below home, an absolute one stands as written.
std::filesystem::path resolveAgainstHome(std::string_view text, const std::filesystem::path& home);

class AgentRoots {
  public:
    // `env` must outlive this object.
    AgentRoots(const std::filesystem::path& home, const EnvironmentLookup& env);

    // The home folder, made absolute.
    const std::filesystem::path& home() const { return home_; }

    void addHome(const std::filesystem::path& relative);
    // The macOS application-support folder.
    void addAppSupport(const std::filesystem::path& relative);
    // Electron and VS Code-style apps: the application-support folder and the XDG config
    // folders.
    void addApp(const std::filesystem::path& relative);
    // ~/.config and $XDG_CONFIG_HOME.
    void addConfig(const std::filesystem::path& relative);
    // ~/.local/share and $XDG_DATA_HOME.
    void addData(const std::filesystem::path& relative);
    // A variable naming a folder (or file) that replaces or adds to the default location.
    void addEnv(std::string_view name);
    // Like addEnv, for variables that name a replacement home folder.
    void addEnvHome(std::string_view name, const std::filesystem::path& relative);
    // The globalStorage folder of a VS Code extension in every editor built on that shell.
    void addEditorExtension(std::string_view extensionID);
    void add(const std::filesystem::path& path);

    // The variable's value; absent when unset or empty.
    std::optional<std::string> lookup(std::string_view name) const;

    std::vector<std::filesystem::path> take() { return std::move(roots_); }

  private:
    std::optional<std::filesystem::path> xdgDir(std::string_view name) const;

    std::filesystem::path home_;
    const EnvironmentLookup& env_;
    std::filesystem::path appSupport_;
    std::vector<std::filesystem::path> configDirs_;
    std::vector<std::filesystem::path> dataDirs_;
    std::vector<std::filesystem::path> roots_;
};

}  // namespace kestrel
