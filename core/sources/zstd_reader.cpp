#include "core/sources/zstd_reader.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace kestrel::Zstd {

namespace {

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
struct StreamFreer {
    void operator()(ZSTD_DStream* s) const { ZSTD_freeDStream(s); }
};

// Splits decompressed text into lines. `buffer` holds the unconsumed text followed by
// kLinePadding spare bytes, so every line handed out has room after it for in-place parsing.
class LineSplitter {
  public:
    LineSplitter(const JSONL::LineHandler& onLine, std::size_t maxLineBytes)
        : onLine_(onLine), maxLineBytes_(maxLineBytes) {}

    void feed(const char* data, std::size_t size) {
        buffer_.resize(length_);
        buffer_.append(data, size);
        length_ = buffer_.size();
        buffer_.append(JSONL::kLinePadding, ' ');
        std::size_t start = 0;
        for (;;) {
            const void* found = std::memchr(buffer_.data() + scanned_, '\n', length_ - scanned_);
            if (found == nullptr) {
                break;
            }
            const auto newline =
                static_cast<std::size_t>(static_cast<const char*>(found) - buffer_.data());
            deliver(start, newline);
            start = newline + 1;
            scanned_ = start;
        }
        // Keep only the unfinished line; one past the limit is dropped as it arrives.
        buffer_.erase(0, start);
        length_ -= start;
        scanned_ = length_;
        if (length_ > maxLineBytes_) {
            if (!skipping_) {
                skipping_ = true;
                ++end_.oversizedLines;
            }
            consumed_ += static_cast<int64_t>(length_);
            lineStart_ = consumed_;
            buffer_.clear();
            length_ = 0;
            scanned_ = 0;
        }
    }

    JSONL::ReadEnd finish() {
        if (length_ > 0 && !skipping_) {
            buffer_.resize(length_);
            buffer_.append(JSONL::kLinePadding, ' ');
            deliver(0, length_);
        } else {
            consumed_ += static_cast<int64_t>(length_);
        }
        end_.nextOffset = consumed_;
        return end_;
    }

  private:
    // The line [from, to) of the buffer; `to` is its line feed (or the end of the text).
    void deliver(std::size_t from, std::size_t to) {
        const int64_t offset = lineStart_;
        consumed_ += static_cast<int64_t>(to - from) + (to < length_ ? 1 : 0);
        lineStart_ = consumed_;
        if (skipping_) {
            skipping_ = false;  // the rest of an oversized line, already counted
            return;
        }
        std::size_t n = to - from;
        if (n > maxLineBytes_) {
            ++end_.oversizedLines;
            return;
        }
        if (n > 0 && buffer_[from + n - 1] == '\r') {
            --n;
        }
        ++end_.lines;
        onLine_(std::string_view(buffer_.data() + from, n), offset);
    }

    const JSONL::LineHandler& onLine_;
    std::size_t maxLineBytes_;
    std::string buffer_;
    std::size_t length_ = 0;   // bytes of text in buffer_ (the rest is padding)
    std::size_t scanned_ = 0;  // text before this offset holds no line feed
    int64_t consumed_ = 0;     // decompressed bytes before buffer_
    int64_t lineStart_ = 0;
    bool skipping_ = false;  // inside a line already dropped as oversized
    JSONL::ReadEnd end_;
};

// A decoder error in words ("Unknown frame descriptor": not Zstandard data at all, ...).
FileError damaged(const std::filesystem::path& path, std::size_t code) {
    return FileError{path.string(), "decompress", EILSEQ,
                     std::string("damaged Zstandard data (") + ZSTD_getErrorName(code) + ")"};
}

}  // namespace

uint64_t contentCap(uint64_t compressedBytes) {
    if (compressedBytes > std::numeric_limits<uint64_t>::max() / kMaxExpansion) {
        return std::numeric_limits<uint64_t>::max();
    }
    return std::max(kMinContentCap, compressedBytes * kMaxExpansion);
}

std::expected<JSONL::ReadEnd, FileError> forEachLine(const std::filesystem::path& path,
                                                     const JSONL::LineHandler& onLine,
                                                     std::size_t maxLineBytes,
                                                     std::optional<uint64_t> maxContentBytes) {
    // Opened without blocking and then checked: a FIFO put in the archive's place between the
    // listing and this read must not stall the scan.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return std::unexpected(fileErrorFromErrno(path.string(), "open"));
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        auto error = fileErrorFromErrno(path.string(), "stat");
        ::close(fd);
        return std::unexpected(std::move(error));
    }
    if (!S_ISREG(st.st_mode)) {
        ::close(fd);
        return std::unexpected(FileError{path.string(), "open", 0, "not a regular file"});
    }
    std::unique_ptr<std::FILE, FileCloser> file(::fdopen(fd, "rb"));
    if (!file) {
        auto error = fileErrorFromErrno(path.string(), "open");
        ::close(fd);
        return std::unexpected(std::move(error));
    }
    if (!maxContentBytes) {
        maxContentBytes = contentCap(static_cast<uint64_t>(st.st_size));
    }
    uint64_t content = 0;
    // Checked before each chunk is split into lines, so that nothing past the cap is handed out.
    const auto pastCap = [&](std::size_t produced) -> std::optional<FileError> {
        content += produced;
        if (content <= *maxContentBytes) {
            return std::nullopt;
        }
        return FileError{path.string(), "decompress", EFBIG,
                         "the content grows past " + std::to_string(*maxContentBytes) +
                             " bytes (a decompression bomb?)"};
    };
    std::unique_ptr<ZSTD_DStream, StreamFreer> stream(ZSTD_createDStream());
    if (!stream || ZSTD_isError(ZSTD_initDStream(stream.get()))) {
        return std::unexpected(FileError{path.string(), "decompress", ENOMEM, {}});
    }
    std::vector<char> in(ZSTD_DStreamInSize());
    std::vector<char> out(ZSTD_DStreamOutSize());
    LineSplitter splitter(onLine, maxLineBytes);
    std::size_t pending = 0;  // the decoder's hint: 0 once a frame is complete
    bool sawInput = false;
    for (;;) {
        const std::size_t got = std::fread(in.data(), 1, in.size(), file.get());
        if (got == 0) {
            if (std::ferror(file.get())) {
                return std::unexpected(fileErrorFromErrno(path.string(), "read"));
            }
            break;
        }
        sawInput = true;
        ZSTD_inBuffer input{in.data(), got, 0};
        while (input.pos < input.size) {
            ZSTD_outBuffer output{out.data(), out.size(), 0};
            pending = ZSTD_decompressStream(stream.get(), &output, &input);
            if (ZSTD_isError(pending)) {
                return std::unexpected(damaged(path, pending));
            }
            if (auto tooLarge = pastCap(output.pos)) {
                return std::unexpected(std::move(*tooLarge));
            }
            splitter.feed(out.data(), output.pos);
        }
        // The decoder may still hold output for input it has fully taken in.
        for (;;) {
            ZSTD_outBuffer output{out.data(), out.size(), 0};
            ZSTD_inBuffer none{nullptr, 0, 0};
            const std::size_t hint = ZSTD_decompressStream(stream.get(), &output, &none);
            if (ZSTD_isError(hint)) {
                return std::unexpected(damaged(path, hint));
            }
            if (output.pos == 0) {
                break;  // nothing held back; after a finished frame the hint is the next header
            }
            pending = hint;
            if (auto tooLarge = pastCap(output.pos)) {
                return std::unexpected(std::move(*tooLarge));
            }
            splitter.feed(out.data(), output.pos);
            if (output.pos < output.size) {
                break;
            }
        }
    }
    if (sawInput && pending != 0) {
        // The last frame stops short: the file was cut off.
        return std::unexpected(FileError{path.string(), "decompress", EILSEQ,
                                         "the compressed data ends inside a frame (cut off?)"});
    }
    return splitter.finish();
}

std::expected<std::string, DecompressFailure> decompress(std::span<const unsigned char> compressed,
                                                         std::size_t maxBytes) {
    std::unique_ptr<ZSTD_DStream, StreamFreer> stream(ZSTD_createDStream());
    if (!stream || ZSTD_isError(ZSTD_initDStream(stream.get()))) {
        return std::unexpected(DecompressFailure::damaged);
    }
    std::string text;
    std::vector<char> out(ZSTD_DStreamOutSize());
    ZSTD_inBuffer input{compressed.data(), compressed.size(), 0};
    std::size_t pending = 1;  // nothing decoded yet is not a finished frame
    for (;;) {
        ZSTD_outBuffer output{out.data(), out.size(), 0};
        pending = ZSTD_decompressStream(stream.get(), &output, &input);
        if (ZSTD_isError(pending)) {
            return std::unexpected(DecompressFailure::damaged);
        }
        if (output.pos > maxBytes - std::min(maxBytes, text.size())) {
            return std::unexpected(DecompressFailure::tooLarge);
        }
        text.append(out.data(), output.pos);
        // Done when every input byte is taken and the decoder held nothing back.
        if (input.pos == input.size && output.pos < output.size) {
            break;
        }
    }
    if (pending != 0) {
        return std::unexpected(DecompressFailure::damaged);  // empty, or ends inside a frame
    }
    return text;
}

}  // namespace kestrel::Zstd
