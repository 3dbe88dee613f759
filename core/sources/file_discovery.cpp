#include "core/sources/file_discovery.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>

namespace kestrel {
namespace {

using DirectoryKey = std::pair<dev_t, ino_t>;

struct Walker {
    explicit Walker(const DiscoveryOptions& o) : options(o) {}

    const DiscoveryOptions& options;
    // The folders above the one being walked: a link back to any of them is a loop. Only
    // ancestors count, so that a folder also reachable through a link keeps its own path.
    std::set<DirectoryKey> ancestors;
    // Links can make a tree exponentially larger than what is on disk; past this many
    // folders the walk stops rather than run for ever.
    std::size_t folderBudget = 200'000;
    std::vector<std::filesystem::path> found;

    void report(const std::filesystem::path& dir, int errorNumber, std::string detail = {}) {
        // A tree of links can fail the same way thousands of times; the first few say it.
        constexpr std::size_t kMaxReported = 20;
        if (options.errors != nullptr && errorNumber != ENOENT &&
            options.errors->size() < kMaxReported) {
            options.errors->push_back(
                FileError{dir.string(), "list", errorNumber, std::move(detail)});
        }
    }

    void walk(const std::filesystem::path& dir, int depth) {
        std::error_code ec;
        std::filesystem::directory_iterator it(dir, ec);
        if (ec) {
            report(dir, ec.value());  // skipped; the scan goes on
            return;
        }
        for (const auto end = std::filesystem::directory_iterator(); it != end; it.increment(ec)) {
            if (ec) {
                report(dir, ec.value());
                return;
            }
            const auto& path = it->path();
            // The type read with the folder listing spares a stat per file; only folders (for
            // their identity) and links (to follow them) need one.
            std::error_code typeError;
            if (!it->is_symlink(typeError) && !typeError && it->is_regular_file(typeError) &&
                !typeError) {
                if (!options.accept || options.accept(path)) {
                    found.push_back(path);
                }
                continue;
            }
            struct stat st {};
            if (::stat(path.c_str(), &st) != 0) {
                // A link that leads back to itself hides whatever it was meant to name; said,
                // so that the user can tell why files may be missing. Dangling links, vanished
                // files and closed permissions are passed over quietly.
                if (errno == ELOOP) {
                    report(path, ELOOP, "a loop of symbolic links");
                }
                continue;
            }
            if (S_ISDIR(st.st_mode)) {
                if (ancestors.contains({st.st_dev, st.st_ino})) {
                    // A link back up: the loop closes here. Nothing below it is missed (its
                    // folder is being walked already), but the list is named as cut short so
                    // that the link shows up in the scan's errors.
                    report(path, ELOOP, "a symbolic link back to a folder above it, not followed");
                    continue;
                }
                if (depth >= options.maxDepth || folderBudget == 0) {
                    report(path, 0,
                           depth >= options.maxDepth ? "deeper than the folder depth read"
                                                     : "more folders than are read");
                    continue;
                }
                --folderBudget;
                ancestors.insert({st.st_dev, st.st_ino});
                walk(path, depth + 1);
                ancestors.erase({st.st_dev, st.st_ino});
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
    Walker walker(options);
    struct stat st {};
    if (::stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        return {};
    }
    walker.ancestors.insert({st.st_dev, st.st_ino});
    walker.walk(root, 0);
    // Component by component (a folder before a file whose name extends the folder's), computed
    // on the text with the separator ranked lowest: path::compare's own walk costs several times
    // as much for the same order.
    std::ranges::sort(walker.found, [](const std::filesystem::path& a,
                                       const std::filesystem::path& b) {
        const auto rank = [](char c) { return c == '/' ? 0 : static_cast<unsigned char>(c) + 1; };
        return std::ranges::lexicographical_compare(
            a.native(), b.native(), [&](char x, char y) { return rank(x) < rank(y); });
    });
    return std::move(walker.found);
}

std::vector<std::filesystem::path> discoverFilesWithSuffix(const std::filesystem::path& root,
                                                           std::string_view suffix,
                                                           std::vector<FileError>* errors) {
    DiscoveryOptions options;
    options.errors = errors;
    options.accept = [suffix](const std::filesystem::path& p) {
        const auto name = p.filename().native();
        return name.size() > suffix.size() && name.ends_with(suffix);
    };
    return discoverFiles(root, options);
}

}  // namespace kestrel
