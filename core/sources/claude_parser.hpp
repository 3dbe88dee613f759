#pragma once
// Claude Code session transcripts (JSON lines below <root>/projects) turned into usage events.
// Stateless: everything carried between scans is in the checkpoint.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "core/model/account_snapshot.hpp"
#include "core/model/source_checkpoint.hpp"
#include "core/sources/file_error.hpp"
#include "core/sources/ingest_result.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel::ClaudeParser {

// Bumped when the reading rules change, so that files are read again from their start.
// 2: records of one message merge to the first time and the most complete counts; reading the
// files once more moves usage that an earlier version dated by a session's replay back to its day.
inline constexpr int64_t parserVersion = 2;
inline constexpr int64_t checkpointSchemaVersion = 1;

// Every regular "*.jsonl" file below `root`/projects, at any depth (sub-agent transcripts live in
// nested folders), sorted by path. Folders that could not be listed go to `errors` when given.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// The component after "projects" with every "-Users-" removed; the parent folder's name when the
// path has no such component.
std::string projectKey(const std::filesystem::path& transcript);

// Reads the part of `context.file` after `context.checkpoint` (from offset 0 without one) and
// streams the events to the context's sink; the returned result has no events but the new
// checkpoint and the counts. Fails only when the file cannot be opened or read; malformed lines
// are skipped and counted.
std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

// The signed-in account from the agent's ~/.claude.json (its "oauthAccount" object); absent when
// the file or the object is missing. The e-mail address is kept masked only.
std::optional<AccountSnapshot> accountFromDotJSON(const std::filesystem::path& dotJSON, double now);
std::optional<AccountSnapshot> account(const nlohmann::json& json, double now);

}  // namespace kestrel::ClaudeParser
