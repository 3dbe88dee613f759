#pragma once
// The chat_message stores of Qoder, Qoder CN and TRAE SOLO CN: one row per message, assistant
// rows carrying a token_info JSON object, with optional session (chat_session) and request
// (chat_record) tables for the project and model. The JSON's keys are not documented, so the
// usual spellings are accepted and a store whose rows hold none of them is reported as changed.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <vector>

#include "core/model/agent_source.hpp"
#include "core/model/source_checkpoint.hpp"
#include "core/sources/file_error.hpp"
#include "core/sources/ingest_result.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel::ChatMessageReader {

inline constexpr int64_t parserVersion = 1;

// The SQLite files below `root` (names ending .db, .sqlite or .sqlite3) that hold a chat_message
// table. Files that cannot be opened are passed over.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// The assistant messages with token counts added since the checkpoint, as events of
// `context.source`. Fails when the database cannot be opened or queried.
std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

// The reader of qoder, qoderCN and traeWorkCN.
SourceReader reader();

}  // namespace kestrel::ChatMessageReader
