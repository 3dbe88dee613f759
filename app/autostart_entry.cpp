#include "app/autostart_entry.hpp"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <system_error>

namespace kestrel::desktop {

std::filesystem::path autostartFile(const EnvironmentLookup& env) {
    std::filesystem::path base;
    if (auto config = env("XDG_CONFIG_HOME"); config && !config->empty() &&
                                              std::filesystem::path(*config).is_absolute()) {
        base = *config;
    } else if (auto home = env("HOME"); home && !home->empty()) {
        base = std::filesystem::path(*home) / ".config";
    } else {
        return {};
    }
    return base / "autostart" / "kestrel.desktop";
}

std::string desktopExecArgument(std::string_view argument) {
    // The reserved characters of an Exec argument; any of them asks for quotes.
    constexpr std::string_view reserved = " \t\n\"'\\><~|&;$*?#()`";
    std::string quoted;
    if (argument.empty() || argument.find_first_of(reserved) != std::string_view::npos) {
        quoted = "\"";
        for (char c : argument) {
            if (c == '"' || c == '`' || c == '$' || c == '\\') {
                quoted += '\\';
            }
            quoted += c;
        }
        quoted += '"';
    } else {
        quoted = argument;
    }
    // The desktop file's own escapes come on top: a backslash is written twice, and % starts a
    // field code, so a literal one is doubled.
    std::string out;
    for (char c : quoted) {
        if (c == '\\' || c == '%') {
            out += c;
        }
        out += c;
    }
    return out;
}

std::string autostartEntryText(const std::filesystem::path& executable) {
    return "[Desktop Entry]\n"
           "Type=Application\n"
           "Name=Kestrel\n"
           "Comment=AI coding agent usage in the tray\n"
           "Exec=" + desktopExecArgument(executable.string()) + "\n"
           "Icon=kestrel\n"
           "Terminal=false\n"
           "X-GNOME-Autostart-enabled=true\n";
}

std::expected<void, std::string> setLaunchAtLogin(const std::filesystem::path& file, bool on,
                                                  const std::filesystem::path& executable) {
    if (file.empty()) {
        return std::unexpected(std::string("no autostart folder: neither XDG_CONFIG_HOME nor HOME is set"));
    }
    std::error_code ec;
    if (!on) {
        std::filesystem::remove(file, ec);
        if (ec) {
            return std::unexpected(file.string() + ": " + ec.message());
        }
        return {};
    }
    std::filesystem::create_directories(file.parent_path(), ec);
    if (ec) {
        return std::unexpected(file.parent_path().string() + ": " + ec.message());
    }
    // Through a temporary file renamed into place, so that the session never reads half an entry.
    const auto temp = file.parent_path() / (file.filename().string() + ".tmp");
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        out << autostartEntryText(executable);
        if (!out.flush()) {
            const int error = errno;
            std::filesystem::remove(temp, ec);
            return std::unexpected(temp.string() + ": " + std::strerror(error));
        }
    }
    std::filesystem::rename(temp, file, ec);
    if (ec) {
        std::error_code ignored;
        std::filesystem::remove(temp, ignored);
        return std::unexpected(file.string() + ": " + ec.message());
    }
    return {};
}

bool launchesAtLogin(const std::filesystem::path& file) {
    std::ifstream in(file);
    if (!in) {
        return false;
    }
    std::string line;
    bool inEntry = false, ours = false;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.starts_with('[')) {
            inEntry = line == "[Desktop Entry]";
            continue;
        }
        if (!inEntry) {
            continue;
        }
        if (line == "Hidden=true" || line == "X-GNOME-Autostart-enabled=false") {
            return false;
        }
        if (line.starts_with("Exec=")) {
            ours = true;
        }
    }
    return ours;
}

}  // namespace kestrel::desktop
