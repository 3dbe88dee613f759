#pragma once
// Hermes keeps running token totals per session in <root>/state.db (each profile below the root
// has its own state.db): the `sessions` row's counters, and in newer versions per-model counters
// in `session_model_usage`, which are preferred since they name the model that did the work.
// Each scan meters what the totals grew by.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <vector>

#include "core/sources/source_readers.hpp"

namespace kestrel::HermesReader {

inline constexpr int64_t parserVersion = 1;

// Every state.db below `root` (the main one and the profiles' own).
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// Fails when the database cannot be opened or queried.
std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::HermesReader
