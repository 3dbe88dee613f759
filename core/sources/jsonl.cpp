#include "core/sources/jsonl.hpp"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

namespace kestrel::JSONL {
namespace {

// Owns a file descriptor opened read-only; agents' files are never written.
class ReadOnlyFile {
  public:
    static std::expected<ReadOnlyFile, FileError> open(const std::filesystem::path& path) {
        // O_NONBLOCK so that a FIFO cannot block the open; it is rejected right after.
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        if (fd < 0) {
            return std::unexpected(fileErrorFromErrno(path.string(), "open"));
        }
        ReadOnlyFile file(fd);
        struct stat st {};
        if (::fstat(fd, &st) != 0) {
            return std::unexpected(fileErrorFromErrno(path.string(), "stat"));
        }
        if (!S_ISREG(st.st_mode)) {
            return std::unexpected(
                FileError{path.string(), "read (not a regular file)", EINVAL, {}});
        }
        const int flags = ::fcntl(fd, F_GETFL);
        if (flags >= 0) {
            ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
        }
        file.size_ = st.st_size;
        file.inode_ = static_cast<uint64_t>(st.st_ino);
        return file;
    }

    ReadOnlyFile(ReadOnlyFile&& other) noexcept
        : fd_(other.fd_), size_(other.size_), inode_(other.inode_) {
        other.fd_ = -1;
    }
    ReadOnlyFile& operator=(ReadOnlyFile&&) = delete;
    ~ReadOnlyFile() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

    int64_t size() const { return size_; }
    uint64_t inode() const { return inode_; }
    // The size as it is now; -1 when it cannot be examined.
    int64_t currentSize() const {
        struct stat st {};
        return ::fstat(fd_, &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
    }

    // Reads up to `n` bytes at `offset`, retrying on EINTR; 0 at end of file, -1 on error.
    ssize_t readAt(char* dst, std::size_t n, int64_t offset) const {
        for (;;) {
            const ssize_t r = ::pread(fd_, dst, n, offset);
            if (r >= 0 || errno != EINTR) {
                return r;
            }
        }
    }

    // Reads exactly `n` bytes at `offset`; false on error or a short file.
    bool readFully(char* dst, std::size_t n, int64_t offset) const {
        while (n > 0) {
            const ssize_t r = readAt(dst, n, offset);
            if (r <= 0) {
                return false;
            }
            dst += r;
            n -= static_cast<std::size_t>(r);
            offset += r;
        }
        return true;
    }

  private:
    explicit ReadOnlyFile(int fd) : fd_(fd) {}
    int fd_;
    int64_t size_ = 0;
    uint64_t inode_ = 0;
};

std::string_view trimCarriageReturn(std::string_view line) {
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    return line;
}

std::optional<std::string> fingerprintOf(const ReadOnlyFile& file, int64_t through);

std::expected<ReadEnd, FileError> readLines(const std::filesystem::path& path, int64_t from,
                                            const LineHandler& onLine, std::size_t chunkSize,
                                            std::size_t maxLineBytes, bool sealed) {
    auto opened = ReadOnlyFile::open(path);
    if (!opened) {
        return std::unexpected(opened.error());
    }
    const ReadOnlyFile& file = *opened;
    from = std::max<int64_t>(from, 0);
    chunkSize = std::max<std::size_t>(chunkSize, 4096);

    // buffer holds [bufferBase, bufferBase + filled) of the file, plus padding that is never
    // counted as data. It only grows when one line is longer than the whole buffer. A small file
    // (most of them) gets a buffer of its own size, read in one call, rather than a whole chunk.
    const int64_t remaining = std::max<int64_t>(file.size() - from, 0);
    std::size_t capacity = static_cast<std::size_t>(
        std::clamp<int64_t>(remaining + 1, 4096, static_cast<int64_t>(chunkSize)));
    auto buffer = std::make_unique_for_overwrite<char[]>(capacity + kLinePadding);
    std::memset(buffer.get() + capacity, 0, kLinePadding);
    std::size_t filled = 0;
    int64_t bufferBase = from;
    int64_t readPos = from;
    std::size_t scanFrom = 0;  // bytes before this index hold no line feed of the current line
    // Start of an over-long line whose bytes are being dropped until its line feed arrives.
    std::optional<int64_t> discardingFrom;

    ReadEnd end;
    end.nextOffset = from;
    for (;;) {
        if (filled == capacity) {
            // Never beyond one byte over the limit: a tail that long is dropped below.
            const std::size_t grown =
                std::max(capacity + 1, std::min(capacity * 2, maxLineBytes + 1));
            auto bigger = std::make_unique_for_overwrite<char[]>(grown + kLinePadding);
            std::memcpy(bigger.get(), buffer.get(), filled);
            std::memset(bigger.get() + grown, 0, kLinePadding);
            buffer = std::move(bigger);
            capacity = grown;
        }
        const ssize_t got = file.readAt(buffer.get() + filled, capacity - filled, readPos);
        if (got < 0) {
            return std::unexpected(fileErrorFromErrno(path.string(), "read"));
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<std::size_t>(got);
        readPos += got;

        std::size_t lineStart = 0;
        char* const data = buffer.get();
        for (;;) {
            auto* nl = static_cast<char*>(std::memchr(data + scanFrom, '\n', filled - scanFrom));
            if (nl == nullptr) {
                break;
            }
            const std::size_t nlIndex = static_cast<std::size_t>(nl - data);
            if (discardingFrom || nlIndex - lineStart > maxLineBytes) {
                discardingFrom.reset();
                ++end.oversizedLines;
            } else {
                onLine(trimCarriageReturn(std::string_view(data + lineStart, nlIndex - lineStart)),
                       bufferBase + static_cast<int64_t>(lineStart));
                ++end.lines;
            }
            lineStart = nlIndex + 1;
            scanFrom = lineStart;
        }
        // Keep the unfinished line at the front of the buffer.
        if (lineStart > 0) {
            end.nextOffset = bufferBase + static_cast<int64_t>(lineStart);
            std::memmove(data, data + lineStart, filled - lineStart);
            filled -= lineStart;
            bufferBase += static_cast<int64_t>(lineStart);
        }
        scanFrom = filled;
        if (!discardingFrom && filled > maxLineBytes) {
            discardingFrom = bufferBase;
        }
        if (discardingFrom) {
            bufferBase += static_cast<int64_t>(filled);
            filled = 0;
            scanFrom = 0;
        }
    }
    if (discardingFrom) {
        end.partialStart = *discardingFrom;
    } else if (filled > 0) {
        end.partialStart = bufferBase;
    }
    if (sealed) {
        end.inode = file.inode();
        end.fingerprint = fingerprintOf(file, end.nextOffset);
    }
    return end;
}

std::optional<std::string> fingerprintOf(const ReadOnlyFile& file, int64_t through) {
    // The size now, not at opening: a file truncated while it was read has lost the bytes.
    if (through < 0 || file.currentSize() < through) {
        return std::nullopt;
    }
    constexpr int64_t kWindow = 4096;
    std::string material = std::to_string(through);
    const int64_t headLength = std::min(kWindow, through);
    const int64_t tailStart = std::max(kWindow, through - kWindow);
    const int64_t tailLength = through > kWindow ? through - tailStart : 0;
    const std::size_t prefix = material.size();
    material.resize(prefix + static_cast<std::size_t>(headLength + tailLength));
    if (!file.readFully(material.data() + prefix, static_cast<std::size_t>(headLength), 0) ||
        !file.readFully(material.data() + prefix + headLength, static_cast<std::size_t>(tailLength),
                        tailStart)) {
        return std::nullopt;
    }

    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    if (EVP_Digest(material.data(), material.size(), digest, &digestLength, EVP_sha256(),
                   nullptr) != 1) {
        return std::nullopt;
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(digestLength * 2);
    for (unsigned int i = 0; i < digestLength; ++i) {
        hex += kHex[digest[i] >> 4];
        hex += kHex[digest[i] & 15];
    }
    return hex;
}

}  // namespace

std::expected<ReadEnd, FileError> forEachCompleteLine(const std::filesystem::path& path,
                                                      int64_t from, const LineHandler& onLine,
                                                      std::size_t chunkSize,
                                                      std::size_t maxLineBytes) {
    return readLines(path, from, onLine, chunkSize, maxLineBytes, false);
}

std::expected<ReadEnd, FileError> forEachCompleteLineSealed(const std::filesystem::path& path,
                                                            int64_t from,
                                                            const LineHandler& onLine) {
    return readLines(path, from, onLine, std::size_t{1} << 20, kDefaultMaxLineBytes, true);
}

int64_t offsetAfter(std::string_view line, int64_t offset) {
    // The handler's view points into the read buffer, where its terminator still follows it.
    const bool trimmedReturn = line.data()[line.size()] == '\r';
    return offset + static_cast<int64_t>(line.size()) + (trimmedReturn ? 2 : 1);
}

std::expected<Slice, FileError> readCompleteLines(const std::filesystem::path& path, int64_t from) {
    Slice slice;
    auto end = forEachCompleteLine(
        path, from, [&](std::string_view line, int64_t) { slice.lines.emplace_back(line); });
    if (!end) {
        return std::unexpected(end.error());
    }
    slice.nextOffset = end->nextOffset;
    slice.partialStart = end->partialStart;
    return slice;
}

std::optional<std::string> boundaryFingerprint(const std::filesystem::path& path, int64_t through) {
    if (through < 0) {
        return std::nullopt;
    }
    auto opened = ReadOnlyFile::open(path);
    if (!opened) {
        return std::nullopt;
    }
    return fingerprintOf(*opened, through);
}

std::optional<uint64_t> inode(const std::filesystem::path& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        return std::nullopt;
    }
    return static_cast<uint64_t>(st.st_ino);
}

}  // namespace kestrel::JSONL
