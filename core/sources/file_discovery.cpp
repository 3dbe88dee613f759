#include "core/sources/file_discovery.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <utility>

namespace kestrel {
namespace {

using DirectoryKey = std::pair<dev_t, ino_t>;

struct Walker {
    const DiscoveryOptions& options;
    std::set<DirectoryKey> visited;  // folders already entered: a symlink loop stops here
    std::vector<std::filesystem::path> found;

    void walk(const std::filesystem::path& dir, int depth) {
        std::error_code ec;
        std::filesystem::directory_iterator it(dir, ec);
        if (ec) {
            return;  // unreadable folders are skipped; the scan goes on
        }
        for (const auto end = std::filesystem::directory_iterator(); it != end;
             it.increment(ec)) {
            if (ec) {
                return;
            }
            const auto& path = it->path();
            struct stat st {};
            if (::stat(path.c_str(), &st) != 0) {
                continue;  // dangling link, vanished file, no permission
            }
            if (S_ISDIR(st.st_mode)) {
                if (depth < options.maxDepth && visited.insert({st.st_dev, st.st_ino}).second) {
                    walk(path, depth + 1);
                }
            } else if (S_ISREG(st.st_mode)) {
                if (!options.accept || options.accept(path)) {
                    found.push_back(path);
                }
            }
            // Sockets, FIFOs and devices are never agents' records.
        }
    }
};

}  // namespace

std::vector<std::filesystem::path> discoverFiles(const std::filesystem::path& root,
                                                 const DiscoveryOptions& options) {
    Walker walker{options, {}, {}};
    struct stat st {};
    if (::stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        return {};
    }
    walker.visited.insert({st.st_dev, st.st_ino});
    walker.walk(root, 0);
    std::sort(walker.found.begin(), walker.found.end());
    return std::move(walker.found);
}

std::vector<std::filesystem::path> discoverFilesWithSuffix(const std::filesystem::path& root,
                                                           std::string_view suffix) {
    DiscoveryOptions options;
    options.accept = [suffix](const std::filesystem::path& p) {
        const auto name = p.filename().native();
        return name.size() > suffix.size() && name.ends_with(suffix);
    };
    return discoverFiles(root, options);
}

}  // namespace kestrel
