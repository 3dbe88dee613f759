#pragma once
// What the harnesses share: a scratch folder of this process for the readers that take a file
// rather than bytes, and a small cursor over the fuzzer's input.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <string_view>

#include "core/sources/source_readers.hpp"
#include "core/sources/utf8.hpp"

namespace kestrel::fuzz {

// Removed when the process ends normally (libFuzzer exits through exit()).
class ScratchFolder {
  public:
    ScratchFolder() {
        const char* tmp = std::getenv("TMPDIR");
        root_ = std::filesystem::path(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") /
                ("kestrel-fuzz-" + std::to_string(::getpid()));
        std::filesystem::create_directories(root_);
    }
    ~ScratchFolder() {
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::filesystem::path& root() const { return root_; }

    // Writes `bytes` to root()/relative, replacing what was there, and returns the path.
    std::filesystem::path write(const std::filesystem::path& relative, std::string_view bytes) const {
        const auto path = root_ / relative;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return path;
    }

  private:
    std::filesystem::path root_;
};

inline ScratchFolder& scratch() {
    static ScratchFolder folder;
    return folder;
}

inline std::string_view asText(const uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// Takes a selector byte off the front of the input: harnesses that cover several parsers pick
// one with it, so that the corpus of each parser lives under one harness.
struct Selected {
    uint8_t selector = 0;
    std::string_view rest;
};
inline Selected select(const uint8_t* data, std::size_t size) {
    if (size == 0) {
        return {};
    }
    return {data[0], asText(data + 1, size - 1)};
}

// A failed expectation inside a harness: abort, so that libFuzzer keeps the input.
[[noreturn]] inline void fail(const char* what) {
    std::fprintf(stderr, "harness expectation failed: %s\n", what);
    std::abort();
}

// Text the ledger stores and the commands print must be valid UTF-8 whatever the input held.
inline void expectCleanText(const UsageEvent& e) {
    const bool clean = utf8::isValid(e.id) && utf8::isValid(e.provider) && utf8::isValid(e.model) &&
                       utf8::isValid(e.sessionID) &&
                       (!e.projectDisplayName || utf8::isValid(*e.projectDisplayName));
    if (!clean) {
        fail("an event carries invalid UTF-8");
    }
}

// Reads `file` with `reader` from its start, then again from the checkpoint that read returned.
// When that checkpoint holds an offset to resume from, the second read of the unchanged file
// must find nothing new: anything it found would be counted twice. (Files read whole are not
// read again while unchanged: the scan compares their size and time first.)
inline void readTwice(const SourceReader& reader, AgentSource source,
                      const std::filesystem::path& file, std::string defaultModel = {}) {
    SourceReadContext context;
    context.source = source;
    context.file = file;
    context.defaultModel = std::move(defaultModel);
    const auto first = SourceReaders::collect(reader.ingest, context);
    if (!first) {
        return;
    }
    for (const auto& e : first->events) {
        expectCleanText(e);
    }
    context.checkpoint = first->checkpoint;
    const auto second = SourceReaders::collect(reader.ingest, context);
    if (first->checkpoint.byteOffset && second && !second->events.empty()) {
        fail("an unchanged file read again from its checkpoint gave new events");
    }
}

}  // namespace kestrel::fuzz
