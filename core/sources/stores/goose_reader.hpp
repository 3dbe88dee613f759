#pragma once
// goose keeps one row per session in <root>/sessions/sessions.db with running totals
// (accumulated_*_tokens); older versions kept <root>/sessions/<id>.jsonl files whose first line
// carries the same totals, and those files stay behind after goose imports them. Both are read
// as cumulative stores: each scan meters what the totals grew by. A session that is in the
// database is taken from there only.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <vector>

#include "core/sources/source_readers.hpp"

namespace kestrel::GooseReader {

inline constexpr int64_t parserVersion = 1;

// sessions/sessions.db when present, and every legacy sessions/*.jsonl file.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// Reads the database or a legacy session file. Fails when the database cannot be opened or
// queried (not SQLite, locked past the busy timeout).
std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::GooseReader
