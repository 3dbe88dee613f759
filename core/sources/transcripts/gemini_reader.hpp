#pragma once
// Gemini CLI chat sessions below <root>/tmp/<projectId>/chats/: the older whole-file JSON
// sessions (rewritten in full on every change) and the newer append-only JSON-lines sessions,
// in which a message is appended again whenever it changes; its records fold into one usage like
// every agent's repeated records (the first time, the most complete counts).

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/sources/source_readers.hpp"

namespace kestrel::GeminiReader {

inline constexpr int64_t parserVersion = 1;

// Session files below `root`/tmp: "chats/*.json" (legacy, skipped when the JSON-lines copy of
// the same session sits beside it), "chats/*.jsonl" and sub-agent "chats/<parent>/*.jsonl".
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// A JSON-lines session is read on from the checkpoint's offset; a legacy JSON session is read
// whole every time (its messages come out again under the same ids).
std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::GeminiReader
