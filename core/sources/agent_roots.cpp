#include "core/sources/agent_roots.hpp"

#include <algorithm>
#include <array>
#include <system_error>

namespace kestrel {

namespace fs = std::filesystem;

namespace {

// Editors built on the VS Code shell whose globalStorage may hold the Roo / Kilo Code
// extensions' task folders.
constexpr std::array<std::string_view, 6> kExtensionHostEditors{
    "Code", "Code - Insiders", "VSCodium", "Cursor", "Windsurf", "Kiro",
};

// "/a/b/" and "/a/./b" name the same folder as "/a/b"; one spelling keeps roots comparable.
fs::path normalised(const fs::path& path) {
    fs::path out = path.lexically_normal();
    if (!out.has_filename() && out.has_relative_path()) {
        out = out.parent_path();
    }
    return out;
}

fs::path absoluteHome(const fs::path& home) {
    if (home.is_absolute()) {
        return home;
    }
    std::error_code ec;
    fs::path out = fs::absolute(home, ec);
    return ec ? home : out;
}

}  // namespace

fs::path resolveAgainstHome(std::string_view text, const fs::path& home) {
    if (text == "~") {
        return home;
    }
    if (text.starts_with("~/")) {
        return home / fs::path(text.substr(2));
    }
    const fs::path path{text};
    return path.is_absolute() ? path : home / path;
}

AgentRoots::AgentRoots(const fs::path& home, const EnvironmentLookup& env)
    : home_(absoluteHome(home)), env_(env) {
    appSupport_ = home_ / "Library" / "Application Support";
    configDirs_.push_back(home_ / ".config");
    dataDirs_.push_back(home_ / ".local" / "share");
    // The XDG rules ignore relative values; the defaults stay because an agent started from
    // another session may still have written there.
    if (auto dir = xdgDir("XDG_CONFIG_HOME")) {
        configDirs_.push_back(*dir);
    }
    if (auto dir = xdgDir("XDG_DATA_HOME")) {
        dataDirs_.push_back(*dir);
    }
}

void AgentRoots::addHome(const fs::path& relative) {
    add(home_ / relative);
}

void AgentRoots::addAppSupport(const fs::path& relative) {
    add(appSupport_ / relative);
}

void AgentRoots::addApp(const fs::path& relative) {
    addAppSupport(relative);
    addConfig(relative);
}

void AgentRoots::addConfig(const fs::path& relative) {
    for (const auto& dir : configDirs_) {
        add(dir / relative);
    }
}

void AgentRoots::addData(const fs::path& relative) {
    for (const auto& dir : dataDirs_) {
        add(dir / relative);
    }
}

void AgentRoots::addEnv(std::string_view name) {
    if (auto value = lookup(name)) {
        add(resolveAgainstHome(*value, home_));
    }
}

void AgentRoots::addEnvHome(std::string_view name, const fs::path& relative) {
    if (auto value = lookup(name)) {
        add(resolveAgainstHome(*value, home_) / relative);
    }
}

void AgentRoots::addEditorExtension(std::string_view extensionID) {
    for (auto editor : kExtensionHostEditors) {
        addApp(fs::path(editor) / "User" / "globalStorage" / extensionID);
    }
}

void AgentRoots::add(const fs::path& path) {
    fs::path root = normalised(path);
    if (std::find(roots_.begin(), roots_.end(), root) == roots_.end()) {
        roots_.push_back(std::move(root));
    }
}

std::optional<std::string> AgentRoots::lookup(std::string_view name) const {
    if (!env_) {
        return std::nullopt;
    }
    auto value = env_(name);
    if (!value || value->empty()) {
        return std::nullopt;
    }
    return value;
}

std::optional<fs::path> AgentRoots::xdgDir(std::string_view name) const {
    auto value = lookup(name);
    if (!value) {
        return std::nullopt;
    }
    fs::path dir{*value};
    if (!dir.is_absolute()) {
        return std::nullopt;
    }
    return dir;
}

}  // namespace kestrel
