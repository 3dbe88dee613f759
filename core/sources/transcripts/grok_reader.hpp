#pragma once
// Grok Build sessions (<root>/sessions/<percent-encoded cwd>/<session>/updates.jsonl). The
// usage of a turn rides on one of the JSON-RPC update envelopes; where exactly is not fixed, so
// the reader looks for an object carrying the usage keys anywhere in an envelope, a few levels
// deep, and reports a file whose envelopes never carry one as a changed format.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/sources/source_readers.hpp"

namespace kestrel::GrokReader {

inline constexpr int64_t parserVersion = 1;

// How deep below the envelope a usage object is looked for.
inline constexpr int kMaxUsageDepth = 6;

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// "%2Fhome%2Fu%2Fapp" -> "/home/u/app"; malformed escapes are kept as written.
std::string percentDecoded(std::string_view text);

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::GrokReader
