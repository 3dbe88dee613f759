#pragma once
// Z Code's CLI database (~/.zcode/cli/db/db.sqlite): one model_usage row per model request, final
// once its status is "completed", with the session's folder in the session table.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <vector>

#include "core/model/source_checkpoint.hpp"
#include "core/sources/file_error.hpp"
#include "core/sources/ingest_result.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel::ZCodeReader {

inline constexpr int64_t parserVersion = 1;

// `root`/cli/db/db.sqlite when it is there.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// The requests completed since the checkpoint. Fails when the database cannot be opened or
// queried.
std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::ZCodeReader
