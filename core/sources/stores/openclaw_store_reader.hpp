#pragma once
// OpenClaw's agent database (agents/<agentId>/agent/openclaw-agent.sqlite): table
// transcript_events holds each transcript entry's original JSON, as text in `event_json` or, from
// schema 23, as a Zstandard frame in `event_zstd`. The entries are the pi session format, so the
// same parser reads them and a migrated entry keeps the identity it had in its JSON-lines file.

#include <cstddef>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>

#include "core/model/source_checkpoint.hpp"
#include "core/sources/ingest_result.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel::OpenClawStoreReader {

// No single transcript entry comes near this once decompressed; a frame claiming more is
// damage or a bomb, skipped and counted.
inline constexpr std::size_t kMaxEventBytes = std::size_t{64} << 20;

// Reads the rows after the checkpoint's logicalHighWater (the last rowid consumed); all rows
// without one, or when the table now ends below it (the store was rebuilt). Fails when the
// database cannot be opened or queried. A database without the table or without either event
// column reports formatChanged.
std::expected<IngestResult, FileError> ingest(const SourceReadContext& context,
                                              int64_t parserVersion);

}  // namespace kestrel::OpenClawStoreReader
