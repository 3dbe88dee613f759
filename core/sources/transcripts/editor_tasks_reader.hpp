#pragma once
// Roo Code and Kilo Code, editor extensions that keep each task in
// <editor>/User/globalStorage/<extension id>/tasks/<task id>/. The usage is in ui_messages.json,
// a JSON array rewritten whole as the task goes on: each request is a "say" message
// "api_req_started" whose text is a JSON object {tokensIn, tokensOut, cacheWrites, cacheReads,
// cost, apiProtocol?}. The model is not there: it is named in the environment details of the
// user messages in api_conversation_history.json ("<model>…</model>"), only when it changes.
//
// What tokensIn holds depends on the build. With apiProtocol "anthropic" it is the provider's
// input without the cache counts; with any other protocol it includes them. Older builds write
// no apiProtocol and pass on the provider's raw input: then a Claude model is taken to have
// come through the Anthropic protocol (cache excluded) and any other model through an
// OpenAI-style one (cache included); a request whose cache counts exceed tokensIn cannot
// include them and is read as cache-excluded whatever the model.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/model/agent_source.hpp"
#include "core/model/source_checkpoint.hpp"
#include "core/sources/file_error.hpp"
#include "core/sources/ingest_result.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel::EditorTasksReader {

inline constexpr int64_t parserVersion = 1;
// Task files beyond these sizes are not read whole into memory (the history may hold images).
inline constexpr std::uintmax_t kMaxMessagesBytes = std::uintmax_t{64} << 20;
inline constexpr std::uintmax_t kMaxHistoryBytes = std::uintmax_t{64} << 20;

// Every tasks/<task id>/ui_messages.json below `root`, sorted.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// Uncached input of one request under the rule above.
int64_t uncachedInput(int64_t tokensIn, int64_t cacheReads, int64_t cacheWrites,
                      const std::optional<std::string>& apiProtocol, const std::string& model);

// Reads the task's ui_messages.json whole as `context.source`'s (kiloCode or rooCode).
std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

// The reader of kiloCode and rooCode.
SourceReader reader();

}  // namespace kestrel::EditorTasksReader
