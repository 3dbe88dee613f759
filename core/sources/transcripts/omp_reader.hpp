#pragma once
// omp's session transcripts: <root>/agent/sessions/<dir>/<ts>_<id>.jsonl, each profile's
// <root>/profiles/<name>/agent/sessions/..., and sub-agent transcripts in a folder named after
// their parent. Counted per request: a sub-agent's own messages, and its side calls
// ("model_usage"); never the aggregate a parent's task result repeats.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <vector>

#include "core/sources/file_error.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel::OmpReader {

// Bumped when the reading rules change, so that files are read again from their start.
inline constexpr int64_t parserVersion = 1;

// Every transcript below a "sessions" folder of `root` (profiles included), sorted.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::OmpReader
