#pragma once
// A fresh folder per test below the system temp folder, removed with everything in it when the
// object goes away.

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kestrel::test_support {

class TempDir {
  public:
    TempDir() {
        static std::atomic<unsigned> counter{0};
        const auto base = std::filesystem::temp_directory_path();
        for (;;) {
            path_ = base / ("kestrel-test-" + std::to_string(::getpid()) + "-" +
                            std::to_string(counter++));
            if (std::filesystem::create_directory(path_)) {
                break;  // not left behind by an earlier process with the same id
            }
        }
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::filesystem::path& relative) const {
        return path_ / relative;
    }

    // Creates (or replaces) `relative` with exactly `bytes`, creating parent folders.
    std::filesystem::path write(const std::filesystem::path& relative,
                                std::string_view bytes) const {
        return put(relative, bytes, std::ios::trunc);
    }

    std::filesystem::path append(const std::filesystem::path& relative,
                                 std::string_view bytes) const {
        return put(relative, bytes, std::ios::app);
    }

  private:
    std::filesystem::path put(const std::filesystem::path& relative, std::string_view bytes,
                              std::ios::openmode mode) const {
        const auto target = path_ / relative;
        std::filesystem::create_directories(target.parent_path());
        std::ofstream out(target, std::ios::binary | std::ios::out | mode);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!out.flush()) {
            throw std::runtime_error("cannot write " + target.string());
        }
        return target;
    }

    std::filesystem::path path_;
};

}  // namespace kestrel::test_support
