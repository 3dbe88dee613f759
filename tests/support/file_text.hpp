#pragma once
// Files as the tests look at them: whole, as bytes.

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace kestrel::test_support {

// The file's bytes; empty when it cannot be read.
inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

// Creates (or replaces) `path` with `text`, creating its parent folders.
inline void writeFile(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

// The bytes of every regular file below `folder`, one after another: for looking for a secret
// anywhere Kestrel writes.
inline std::string bytesBelow(const std::filesystem::path& folder) {
    std::string all;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file()) {
            all += readFile(entry.path());
        }
    }
    return all;
}

}  // namespace kestrel::test_support
