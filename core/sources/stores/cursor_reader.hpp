#pragma once
// Cursor's global state database (state.vscdb): assistant messages ("bubbles") in the
// cursorDiskKV table carry the token counts the editor recorded locally. Only the bubble and
// composer keys are ever selected: the same database holds the signed-in account's credentials,
// which must never be read.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <vector>

#include "core/model/source_checkpoint.hpp"
#include "core/sources/file_error.hpp"
#include "core/sources/ingest_result.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel::CursorReader {

inline constexpr int64_t parserVersion = 1;
inline constexpr const char* kUnknownModel = "cursor-unknown";

// `root`/state.vscdb when it is there.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// The assistant bubbles written (or rewritten) since the checkpoint. Fails when the database
// cannot be opened or queried.
std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::CursorReader
