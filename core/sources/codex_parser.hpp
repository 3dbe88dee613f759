#pragma once
// Codex session rollouts (JSON lines below <root>/sessions and <root>/archived_sessions, plain or
// Zstandard-compressed) turned into usage events. Codex reports running totals per session, so
// the state between scans (session, model, directory, the totals already counted) travels in the
// checkpoint's parserContext as a CodexContext.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "core/model/account_snapshot.hpp"
#include "core/model/agent_source.hpp"
#include "core/model/source_checkpoint.hpp"
#include "core/model/tokens.hpp"
#include "core/sources/file_error.hpp"
#include "core/sources/ingest_result.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel {

// Per-file reading state, kept between scans. JSON keys equal the field names.
struct CodexContext {
    std::string sessionID;  // from the file's own (first) session_meta
    std::string model;      // from the latest turn_context, else the caller's default
    std::string cwd;        // from the latest record that names one
    // The cumulative totals already turned into events; the last entry is the one in force.
    // Earlier entries are the totals at which the counters were seen to restart (kept, at most a
    // few, for diagnosing odd files).
    std::vector<TokenSnapshot> tokenUsageBaselines;
    // Forked sessions: the parent, and whether the copied parent history is still being read.
    std::string forkedFromID;
    bool replayingParent = false;
    double lastReplayAt = 0;  // time of the latest copied line, epoch seconds

    bool operator==(const CodexContext&) const = default;
};

void to_json(nlohmann::json& j, const CodexContext& c);
void from_json(const nlohmann::json& j, CodexContext& c);

namespace CodexParser {

// Bumped when the reading rules change, so that files are read again from their start.
inline constexpr int64_t parserVersion = 1;
inline constexpr int64_t checkpointSchemaVersion = 1;

// A fork rewrites its parent's history in one burst when it is created; the burst ends at the
// first gap between line times longer than this (seconds). Usage needs a model round trip
// after the user's prompt, so genuine reports come later than that.
inline constexpr double kForkReplayGapSeconds = 1.0;

// Every "rollout-*.jsonl" and "rollout-*.jsonl.zst" below `root`/sessions and
// `root`/archived_sessions, sorted by path. A compressed file is left out when the plain file
// of the same name sits next to it. Folders that could not be listed go to `errors` when given.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// "2026-08-21" from "rollout-2026-08-21T10-15-30-<uuid>.jsonl"; absent for other names. The date
// is the local one of the machine that wrote the file.
std::optional<std::string> rolloutDate(const std::filesystem::path& rollout);

// The session identifier in a rollout's name (the trailing UUID); empty when there is none.
std::string sessionIDFromName(const std::filesystem::path& rollout);

// Reads the part of `context.file` after the checkpoint and streams the events to the sink; the
// result carries the new checkpoint (with the updated CodexContext), the counts and the latest
// rate-limit reading as `quota`. A compressed rollout is read whole whenever its stamp differs
// from the checkpoint's, and not at all when it is the same. `context.defaultModel` names the
// model until a turn_context does. `context.source` is the agent that wrote the rollout (forks
// of Codex write the same format); events, checkpoint and quota carry it. Fails only when the
// file cannot be opened, read or decompressed.
std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

// The reader of Codex and of its forks that write the same rollouts.
SourceReader reader();

// The top-level `model = "..."` of the first `config.toml` among `roots` that sets one (before
// the first table header); empty when none does.
std::string configuredModel(const std::vector<std::filesystem::path>& roots);

// The account behind the agent's auth.json: the e-mail claim of its id_token (kept masked) and
// the subscription plan; absent when the document has no usable id_token.
std::optional<AccountIdentity> accountIdentityFromAuthJSON(const nlohmann::json& auth);
std::optional<AccountIdentity> accountIdentityFromAuthFile(const std::filesystem::path& authJSON);

}  // namespace CodexParser
}  // namespace kestrel
