#include "core/sources/checkpoint_reuse.hpp"

#include <sys/stat.h>

#include "core/sources/jsonl.hpp"

namespace kestrel {

namespace {

struct FileFacts {
    int64_t size = 0;
    uint64_t device = 0;
    uint64_t inode = 0;
    std::string stamp;
};

std::optional<FileFacts> examine(const std::filesystem::path& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        return std::nullopt;
    }
    const int64_t mtimeNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 +
                            static_cast<int64_t>(st.st_mtim.tv_nsec);
    return FileFacts{static_cast<int64_t>(st.st_size), static_cast<uint64_t>(st.st_dev),
                     static_cast<uint64_t>(st.st_ino),
                     std::to_string(st.st_size) + ":" + std::to_string(mtimeNs)};
}

}  // namespace

std::optional<std::string> fileStamp(const std::filesystem::path& path) {
    auto facts = examine(path);
    return facts ? std::optional<std::string>(facts->stamp) : std::nullopt;
}

FileReadDecision decideFileRead(const std::filesystem::path& path,
                                const std::optional<SourceCheckpoint>& checkpoint,
                                int64_t parserVersion) {
    FileReadDecision d;
    const auto facts = examine(path);
    if (facts) {
        d.fileStamp = facts->stamp;
        d.identity = std::pair{facts->device, facts->inode};
    }
    if (!checkpoint) {
        d.reason = "new file";
        return d;
    }
    if (checkpoint->parserVersion != parserVersion) {
        d.reason = "newer parser";
        return d;
    }
    if (!facts) {
        d.reason = "cannot examine";
        return d;  // the read itself will report the error
    }
    if (checkpoint->fileStamp && *checkpoint->fileStamp == facts->stamp) {
        d.plan = FileReadPlan::skipUnchanged;
        d.startOffset = checkpoint->byteOffset.value_or(0);
        d.reason = "unchanged";
        return d;
    }
    if (checkpoint->inode && *checkpoint->inode != facts->inode) {
        d.reason = "replaced";
        return d;
    }
    const int64_t offset = checkpoint->byteOffset.value_or(0);
    if (facts->size < offset) {
        d.reason = "truncated";
        return d;
    }
    if (offset > 0 && JSONL::boundaryFingerprint(path, offset) != checkpoint->contentFingerprint) {
        d.reason = "rewritten";
        return d;
    }
    d.plan = FileReadPlan::resume;
    d.startOffset = offset;
    d.reason = "grown";
    return d;
}

std::optional<std::string> storeStamp(const std::filesystem::path& database) {
    auto main = fileStamp(database);
    if (!main) {
        return std::nullopt;
    }
    auto wal = database;
    wal += "-wal";
    // An empty log holds nothing: opening a WAL store (our own read included) may create one,
    // which must not make the next scan read the store again.
    const auto log = examine(wal);
    return *main + "+" + (log && log->size > 0 ? log->stamp : std::string("-"));
}

}  // namespace kestrel
