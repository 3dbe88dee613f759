#pragma once
// OpenClaw keeps one agent's transcripts in three forms, all of them the pi session format:
// JSON-lines files agents/<agentId>/sessions/<sessionId>.jsonl (with "-topic-<thread>" files
// and "*.jsonl.reset.<time>" archives) from older releases, the agent database
// agents/<agentId>/agent/openclaw-agent.sqlite from current ones, and cold archives
// sessions/cold/<sha256>.jsonl.zst. One reader takes all three; an entry found in more than one
// of them (a session migrated into the database, then archived) keeps one identity.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <vector>

#include "core/sources/file_error.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel::OpenClawReader {

// Bumped when the reading rules change, so that files are read again from their start.
inline constexpr int64_t parserVersion = 1;

// The agent databases anywhere below `root`, and the transcripts, reset archives and cold
// archives below a "sessions" folder (the sessions.json index is not one of them), sorted.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// Reads one of the three forms, chosen by the file's name.
std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::OpenClawReader
