#pragma once
// Kiro CLI (and its former name's) conversation store: data.sqlite3, table conversations_v2, one
// row per conversation whose JSON history carries one metadata record per model request. The
// row is rewritten as the conversation grows, so the reader resumes on updated_at and remembers
// per conversation how much of its history it has already turned into events.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <vector>

#include "core/model/source_checkpoint.hpp"
#include "core/sources/file_error.hpp"
#include "core/sources/ingest_result.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel::KiroReader {

inline constexpr int64_t parserVersion = 1;
// Requests without token fields carry only UTF-8 byte sizes of the prompt and the response;
// about four bytes make a token for English text and code.
inline constexpr int64_t kEstimatedBytesPerToken = 4;
inline constexpr const char* kUnknownModel = "kiro-unknown";

// `root`/data.sqlite3 when it is there. The IDE's folders and ~/.kiro hold no token counts that
// are known, so nothing is read there.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// The requests added since the checkpoint. Fails when the database cannot be opened or queried
// (not SQLite, locked).
std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::KiroReader
