#pragma once
// The DeepSeek harness (dsh; ~/.dsh or DSH_HOME, one folder per profile below profiles/). Its
// session files are JSON lines whose exact layout is not published; what is known is the token
// meter it keeps per session, running totals {uncachedInputTokens, cacheReadTokens,
// cacheWriteTokens, outputTokens}. Every record carrying that meter (at the top or nested) is a
// reading of the session's totals, and the usage is the growth between readings. A file with
// records but no meter reading at all is reported as a changed format rather than read as zero.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <vector>

#include "core/model/source_checkpoint.hpp"
#include "core/sources/file_error.hpp"
#include "core/sources/ingest_result.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel::DshReader {

inline constexpr int64_t parserVersion = 1;

// Every "*.jsonl" below `root` (the profiles and any session folder), sorted.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// Reads on from the checkpoint; the totals already counted per session travel in the
// checkpoint's parser context (SQLiteCumulativeContext).
std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::DshReader
