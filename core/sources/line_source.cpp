#include "core/sources/line_source.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "core/sources/jsonl.hpp"

namespace kestrel::LineSource {
namespace {

SourceCheckpoint lineCheckpoint(AgentSource source, int64_t parserVersion,
                                const std::filesystem::path& file, int64_t nextOffset,
                                std::optional<int64_t> partialStart) {
    SourceCheckpoint cp = wholeFileCheckpoint(source, parserVersion, file);
    cp.byteOffset = nextOffset;
    cp.partialLineStart = partialStart;
    cp.contentFingerprint = JSONL::boundaryFingerprint(file, nextOffset);
    return cp;
}

}  // namespace

std::expected<IngestResult, FileError> read(AgentSource source, int64_t parserVersion,
                                            const std::filesystem::path& file,
                                            const std::optional<SourceCheckpoint>& checkpoint,
                                            const LineParser& parse, const HandOver& handOver) {
    const int64_t start = checkpoint && checkpoint->byteOffset ? *checkpoint->byteOffset : 0;
    const std::string previousContext = checkpoint ? checkpoint->parserContext : std::string();
    const SourceReadContext* ingestor =
        handOver.context != nullptr && handOver.context->wantsHandOver && handOver.context->handOver
            ? handOver.context
            : nullptr;
    IngestResult result;
    int64_t usable = 0, unreadable = 0;
    // Sealed: the final checkpoint's inode and fingerprint come through the file as it was read.
    auto end =
        JSONL::forEachCompleteLineSealed(file, start, [&](std::string_view line, int64_t offset) {
            ++result.stats.lines;
            switch (parse(line, offset)) {
                case LineKind::usage:
                    ++usable;
                    break;
                case LineKind::noUsage:
                    ++result.stats.withoutUsage;
                    break;
                case LineKind::malformed:
                    ++result.stats.malformed;
                    break;
                case LineKind::unreadableUsage:
                    ++result.stats.malformed;
                    ++unreadable;
                    break;
                case LineKind::blank:
                    break;
            }
            if (ingestor != nullptr && (!handOver.ready || handOver.ready()) &&
                ingestor->wantsHandOver()) {
                auto cp = lineCheckpoint(source, parserVersion, file,
                                         JSONL::offsetAfter(line, offset), std::nullopt);
                cp.parserContext = handOver.state ? handOver.state() : previousContext;
                ingestor->handOver(std::move(cp));
            }
        });
    if (!end) {
        return std::unexpected(end.error());
    }
    result.stats.malformed += end->oversizedLines;
    result.stats.lines += end->oversizedLines;
    result.stats.bytes = end->nextOffset - start;
    result.formatChanged = start == 0 && unreadable > 0 && usable == 0;

    SourceCheckpoint& cp = result.checkpoint;
    cp.source = source;
    cp.stableID = SourceCheckpoint::stableIDFor(file);
    cp.pathHint = file.string();
    cp.inode = end->inode;
    cp.byteOffset = end->nextOffset;
    cp.partialLineStart = end->partialStart;
    cp.contentFingerprint = std::move(end->fingerprint);
    cp.parserVersion = parserVersion;
    cp.parserContext = previousContext;
    return result;
}

SourceCheckpoint wholeFileCheckpoint(AgentSource source, int64_t parserVersion,
                                     const std::filesystem::path& file) {
    SourceCheckpoint cp;
    cp.source = source;
    cp.stableID = SourceCheckpoint::stableIDFor(file);
    cp.pathHint = file.string();
    cp.inode = JSONL::inode(file);
    cp.parserVersion = parserVersion;
    return cp;
}

std::expected<std::string, FileError> readSmallFile(const std::filesystem::path& file,
                                                    std::uintmax_t maxBytes) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return std::unexpected(fileErrorFromErrno(file.string(), "open"));
    }
    struct Close {
        int fd;
        ~Close() { ::close(fd); }
    } closer{fd};
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        return std::unexpected(fileErrorFromErrno(file.string(), "stat"));
    }
    if (!S_ISREG(st.st_mode)) {
        return std::unexpected(FileError{file.string(), "read", 0, "not a regular file"});
    }
    if (static_cast<std::uintmax_t>(st.st_size) > maxBytes) {
        return std::unexpected(FileError{file.string(), "read", 0,
                                         "larger than " + std::to_string(maxBytes) + " bytes"});
    }
    std::string text(static_cast<size_t>(st.st_size), '\0');
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::read(fd, text.data() + done, text.size() - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return std::unexpected(fileErrorFromErrno(file.string(), "read"));
        }
        if (n == 0) {
            break;  // shrank while being read: what is there is what counts
        }
        done += static_cast<size_t>(n);
    }
    text.resize(done);
    return text;
}

double modificationTime(const std::filesystem::path& file) {
    struct stat st {};
    if (::stat(file.c_str(), &st) != 0) {
        return 0;
    }
    return static_cast<double>(st.st_mtim.tv_sec) + static_cast<double>(st.st_mtim.tv_nsec) / 1e9;
}

}  // namespace kestrel::LineSource
