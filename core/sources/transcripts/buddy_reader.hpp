#pragma once
// CodeBuddy and WorkBuddy session transcripts: one JSON object a line below
// <root>/projects/<folder slug>/<session>.jsonl. Both agents write the same records; each
// reply carries its usage twice (message.usage, and a camelCase copy in providerData.usage),
// and only one copy is read. Input includes cache reads and output includes reasoning.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <vector>

#include "core/model/agent_source.hpp"
#include "core/model/source_checkpoint.hpp"
#include "core/sources/file_error.hpp"
#include "core/sources/ingest_result.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel::BuddyReader {

inline constexpr int64_t parserVersion = 1;

// Every "*.jsonl" below `root`/projects, sorted.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// Reads the transcript on from the checkpoint as `context.source`'s (codebuddy or workbuddy).
std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

// The reader of codebuddy and workbuddy.
SourceReader reader();

}  // namespace kestrel::BuddyReader
