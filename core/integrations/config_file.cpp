#include "core/integrations/config_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <system_error>

namespace kestrel {

namespace fs = std::filesystem;

namespace {

HookInstallError writeError(const fs::path& path, std::string detail) {
    return {HookInstallErrorCode::writeFailed, path, std::move(detail)};
}

bool writeAll(int fd, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

std::expected<ConfigFile, HookInstallError> readConfigFile(const fs::path& path) {
    ConfigFile file;
    file.path = path;
    fs::path current = path;
    // Dotfile managers link configs into the home; the link itself must survive our edit.
    for (int hops = 0;; ++hops) {
        std::error_code ec;
        const auto status = fs::symlink_status(current, ec);
        if (ec || !fs::is_symlink(status)) {
            break;
        }
        if (hops == 40) {
            return std::unexpected(HookInstallError{HookInstallErrorCode::configUnreadable, path,
                                                    "too many levels of symbolic links"});
        }
        fs::path next = fs::read_symlink(current, ec);
        if (ec) {
            return std::unexpected(
                HookInstallError{HookInstallErrorCode::configUnreadable, path, ec.message()});
        }
        current = next.is_absolute() ? next : current.parent_path() / next;
    }
    file.target = current.lexically_normal();

    struct stat st {};
    if (::stat(file.target.c_str(), &st) != 0) {
        if (errno == ENOENT) {
            return file;
        }
        return std::unexpected(
            HookInstallError{HookInstallErrorCode::configUnreadable, path, std::strerror(errno)});
    }
    if (!S_ISREG(st.st_mode)) {
        return std::unexpected(
            HookInstallError{HookInstallErrorCode::configUnreadable, path, "not a regular file"});
    }
    std::ifstream in(file.target, std::ios::binary);
    if (!in) {
        return std::unexpected(HookInstallError{HookInstallErrorCode::configUnreadable, path,
                                                "cannot be opened for reading"});
    }
    std::ostringstream buffer;
    buffer << in.rdbuf();
    file.bytes = buffer.str();
    file.exists = true;
    file.mode = st.st_mode & 07777;
    return file;
}

std::expected<void, HookInstallError> replaceFileAtomically(const fs::path& target,
                                                            const std::string& bytes, mode_t mode) {
    std::error_code ec;
    fs::create_directories(target.parent_path(), ec);
    if (ec) {
        return std::unexpected(writeError(target, ec.message()));
    }
    std::string pattern =
        (target.parent_path() / ("." + target.filename().string() + ".kestrel-XXXXXX")).string();
    const int fd = ::mkstemp(pattern.data());
    if (fd < 0) {
        return std::unexpected(writeError(target, std::strerror(errno)));
    }
    const bool ok = writeAll(fd, bytes) && ::fchmod(fd, mode) == 0 && ::fsync(fd) == 0;
    const int savedErrno = errno;
    ::close(fd);
    if (!ok || ::rename(pattern.c_str(), target.c_str()) != 0) {
        const int err = ok ? errno : savedErrno;
        ::unlink(pattern.c_str());
        return std::unexpected(writeError(target, std::strerror(err)));
    }
    return {};
}

std::expected<std::optional<fs::path>, HookInstallError> backupOnce(const ConfigFile& file,
                                                                    const fs::path& backupDir) {
    if (!file.exists) {
        return std::optional<fs::path>{};
    }
    const fs::path backup = backupDir / file.path.filename();
    std::error_code ec;
    if (fs::exists(backup, ec)) {
        return std::optional<fs::path>{backup};
    }
    if (auto written = replaceFileAtomically(backup, file.bytes, 0600); !written) {
        return std::unexpected(written.error());
    }
    return std::optional<fs::path>{backup};
}

}  // namespace kestrel
