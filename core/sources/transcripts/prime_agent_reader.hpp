#pragma once
// Prime Agent's session transcripts (<root>/agent/sessions/<id>.jsonl), a pi fork whose
// "child_usage_attributed" entries add a child's usage (childUsage) to the session; the
// running aggregate beside it is never counted.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <vector>

#include "core/sources/file_error.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel::PrimeAgentReader {

// Bumped when the reading rules change, so that files are read again from their start.
inline constexpr int64_t parserVersion = 1;

// Every transcript below a "sessions" folder of `root`, sorted.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::PrimeAgentReader
