#pragma once
// Antigravity conversation transcripts (<root>/brain/<conversation>/.system_generated/logs/
// transcript.jsonl). They hold no token counts, so usage is estimated from the size of the
// model's text; such events are marked as estimates and never enter the ledger as exact usage.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/sources/source_readers.hpp"

namespace kestrel::AntigravityReader {

inline constexpr int64_t parserVersion = 1;

// A common rule of thumb for English text and code in these models' tokenizers.
inline constexpr int64_t kBytesPerToken = 4;

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// The model named by a "Model Selection from … to <name>" notice, as a model id: "Gemini 3.5
// Flash (Medium)" becomes "gemini-3.5-flash"; a name of no known family gets an "antigravity-"
// prefix. Absent when `text` holds no such notice.
std::optional<std::string> selectedModel(std::string_view text);

// Estimated tokens of `bytes` bytes of text (rounded up).
int64_t estimatedTokens(std::size_t bytes);

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::AntigravityReader
