#pragma once
// Reasonix session logs: append-only JSON lines in <root>/sessions (<name>.jsonl and
// <name>.events.jsonl), below ~/.reasonix or the XDG config folder. A reply's usage is DeepSeek's:
// promptTokens (cache hits + misses), completionTokens, promptCacheHitTokens and
// promptCacheMissTokens, found on the record itself or in an object nested in it.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <vector>

#include "core/model/source_checkpoint.hpp"
#include "core/sources/file_error.hpp"
#include "core/sources/ingest_result.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel::ReasonixReader {

inline constexpr int64_t parserVersion = 1;

// Every "*.jsonl" below `root`/sessions, sorted.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// "abc" for "abc.jsonl" and "abc.events.jsonl".
std::string sessionIDFromName(const std::filesystem::path& log);

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::ReasonixReader
