#pragma once
// AnythingLLM desktop's anythingllm.db: one workspace_chats row per reply, its response JSON
// carrying the reply's token metrics.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <vector>

#include "core/model/source_checkpoint.hpp"
#include "core/sources/file_error.hpp"
#include "core/sources/ingest_result.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel::AnythingLLMReader {

inline constexpr int64_t parserVersion = 1;
// The model of a reply that names none, in a workspace that names none either.
inline constexpr const char* kUnknownModel = "anythingllm-unknown";

// `root`/anythingllm.db when it is there.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// The replies added since the checkpoint. Fails when the database cannot be opened or queried.
std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::AnythingLLMReader
