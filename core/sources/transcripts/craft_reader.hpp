#pragma once
// Craft Agents' sessions, in each workspace's <rootPath>/sessions/<sessionId>/. With the pi
// backend the per-request usage is in pi-format transcripts in .pi-sessions/*.jsonl, read here;
// with the Claude backend it is in the Claude transcripts the Claude reader already counts. The
// session.jsonl header's tokenUsage mixes a context size with running totals, so it becomes one
// estimate per session, and only when neither kind of per-request data exists.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <vector>

#include "core/sources/file_error.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel::CraftReader {

// Bumped when the reading rules change, so that files are read again from their start.
inline constexpr int64_t parserVersion = 1;

// Below `root` (the configuration folder or a workspace): every sessions/<id>/session.jsonl and
// every sessions/<id>/.pi-sessions/*.jsonl, sorted.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

// The workspace folders listed in the config.json of Craft's configuration folder `configDir`,
// resolved against `home`; a missing, oversized or malformed file or entry is passed over.
std::vector<std::filesystem::path> workspaceRoots(const std::filesystem::path& configDir,
                                                  const std::filesystem::path& home);

}  // namespace kestrel::CraftReader
