#pragma once
// Factory's droid keeps each session's running token totals in a settings document next to the
// session's transcript: <root>/sessions/<encoded cwd>/<sessionId>.settings.json, rewritten whole
// as the session goes on. Each scan meters what `tokenUsage` grew by (one event per observed
// change); `inclusiveTokenUsage` adds the sub-sessions, which have documents of their own, so it
// is never read.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <vector>

#include "core/sources/source_readers.hpp"

namespace kestrel::DroidReader {

inline constexpr int64_t parserVersion = 1;
// Settings documents are a few kilobytes; anything far larger is not one.
inline constexpr std::uintmax_t kMaxSettingsBytes = std::uintmax_t{16} << 20;

// Every *.settings.json below <root>/sessions.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::DroidReader
