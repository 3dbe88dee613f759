#pragma once
// Zed's agent threads: <root>/threads.db, one row per thread holding the thread as JSON, plain
// or zstd-compressed. A thread's `cumulative_token_usage` is its billed running total; each scan
// meters what it grew by. Threads imported from elsewhere carry zeroed usage and are skipped.

#include <cstddef>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/sources/source_readers.hpp"

namespace kestrel::ZedReader {

inline constexpr int64_t parserVersion = 1;

// Threads are a few megabytes at most; 64 MiB of JSON (after decompression) is damage or a
// bomb, and reading it would cost more memory than a scan should take.
inline constexpr std::size_t kMaxThreadJSONBytes64MiB = std::size_t{64} << 20;

// Why a thread row was skipped; each also counts as malformed.
inline constexpr const char* kUnsupportedDataType = "Unsupported Zed data type";
inline constexpr const char* kJSONTooLarge = "Zed JSON too large";
inline constexpr const char* kDamagedZstd = "Damaged Zed zstd data";
inline constexpr const char* kNotThreadJSON = "Zed thread is not a JSON object";
inline constexpr const char* kUnreadableUsage = "Zed token usage is not a set of counts";

struct Options {
    std::size_t maxThreadJSONBytes = kMaxThreadJSONBytes64MiB;
};

struct Outcome {
    IngestResult result;
    // One entry per skipped thread: "<reason>: <thread id>".
    std::vector<std::string> skipped;
};

// <root>/threads.db when present.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// Reads the threads; fails when the database cannot be opened or queried.
std::expected<Outcome, FileError> read(const SourceReadContext& context,
                                       const Options& options = {});

// The reader's entry point: read() without the list of skipped threads.
std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::ZedReader
