#pragma once
// Reading and replacing an agent's configuration file without ever leaving it half-written:
// symlinks are followed to the file they name, a write lands by rename, the mode is kept, and
// the first original goes to our support folder before anything changes.

#include <sys/types.h>

#include <expected>
#include <filesystem>
#include <optional>
#include <string>

#include "core/integrations/hook_agent.hpp"

namespace kestrel {

struct ConfigFile {
    std::filesystem::path path;    // where the agent looks
    std::filesystem::path target;  // the file behind any symlinks (== path without one)
    bool exists = false;
    std::string bytes;
    mode_t mode = 0644;  // of the existing file; what a new one gets otherwise
};

// Follows the symlink chain of `path` (a dangling link names the file to create) and reads what
// is there. Fails on a loop, a folder, or an unreadable file.
std::expected<ConfigFile, HookInstallError> readConfigFile(const std::filesystem::path& path);

// Writes `bytes` to `target` through a temporary file in the same folder and a rename, with
// `mode`. The folder is created when missing.
std::expected<void, HookInstallError> replaceFileAtomically(const std::filesystem::path& target,
                                                            const std::string& bytes, mode_t mode);

// Copies the file's current bytes to `backupDir`/<file name> unless a copy is already there
// (the first original is the one worth keeping). Absent when the file does not exist.
std::expected<std::optional<std::filesystem::path>, HookInstallError> backupOnce(
    const ConfigFile& file, const std::filesystem::path& backupDir);

}  // namespace kestrel
