#pragma once
// Finding agents' files below a root without trusting the tree: symbolic links to folders are
// followed once (a loop is cut where it closes, and reported), sockets, FIFOs and devices are
// ignored, and unreadable folders are skipped (and reported, so that a caller knows the list is
// partial).

#include <filesystem>
#include <functional>
#include <vector>

#include "core/sources/file_error.hpp"

namespace kestrel {

struct DiscoveryOptions {
    // Called with each regular file (symbolic links resolved); return true to keep it.
    std::function<bool(const std::filesystem::path&)> accept;
    int maxDepth = 32;  // deeper trees are not agents' data
    // When set, receives one entry per folder whose files could not all be listed: unreadable,
    // failing part-way, or cut off by the depth or folder limits; and one per symbolic link that
    // closes a loop (errno ELOOP, the link's path). A folder that vanished while being walked is
    // not an error: its files are gone.
    std::vector<FileError>* errors = nullptr;
};

// Regular files below `root` that `options.accept` keeps, sorted by path. The paths are as found
// below `root` (links are not replaced by their targets). A missing root yields nothing.
std::vector<std::filesystem::path> discoverFiles(const std::filesystem::path& root,
                                                 const DiscoveryOptions& options);

// Convenience: every regular file whose name ends with `suffix` (e.g. ".jsonl").
std::vector<std::filesystem::path> discoverFilesWithSuffix(
    const std::filesystem::path& root, std::string_view suffix,
    std::vector<FileError>* errors = nullptr);

}  // namespace kestrel
