#pragma once
// pi's session transcripts (<root>/sessions/--<cwd>--/<ts>_<id>.jsonl), read with the shared
// pi session format.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <vector>

#include "core/sources/file_error.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel::PiReader {

// Bumped when the reading rules change, so that files are read again from their start.
inline constexpr int64_t parserVersion = 1;

// Every transcript below <root>/sessions, sorted.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::PiReader
