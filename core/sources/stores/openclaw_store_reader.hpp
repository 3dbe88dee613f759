#pragma once
// OpenClaw's agent database (agents/<agentId>/agent/openclaw-agent.sqlite): table
// transcript_events holds each transcript entry's original JSON, as text in `event_json` or, from
// schema 23, as a Zstandard frame in `event_zstd`. The entries are the pi session format, so the
// same parser reads them and a migrated entry keeps the identity it had in its JSON-lines file.

#include <cstddef>
#include <cstdint>
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
// without one, or when the table now ends below it (the store was rebuilt). Throws
// SQLiteUsageError when the database cannot be opened or queried. A database without the table
// or without either event column reports formatChanged.
IngestResult ingest(const std::filesystem::path& database,
                    const std::optional<SourceCheckpoint>& checkpoint, int64_t parserVersion,
                    const SourceReadContext& context, const SourceEventSink& sink);

}  // namespace kestrel::OpenClawStoreReader
