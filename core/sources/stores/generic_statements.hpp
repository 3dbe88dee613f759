#pragma once
// Readers for store shapes that no agent known today writes, kept ready (and tested) so that a
// source found to use one of them can adopt it: hand the function the open database, the source
// and the checkpoint. None of them is registered for a source.
//
// - tokens_generated: one row per reply with tokens_prompt / tokens_generated (rowid cursor).
// - assistant_usage_events: one row per reply with its input, output, cache and reasoning counts
//   (cursor on id).
// - sessions with session totals: running totals per session (total_input_tokens, ...), metered
//   as differences between scans.
// - frames: auxiliary model calls recorded per frame (aux_input_tokens, ...; rowid cursor).

#include <cstdint>
#include <optional>

#include "core/model/agent_source.hpp"
#include "core/model/source_checkpoint.hpp"
#include "core/sources/ingest_result.hpp"
#include "core/sources/readonly_sqlite.hpp"

namespace kestrel::GenericStatements {

inline constexpr int64_t parserVersion = 1;

// Each returns the events after `checkpoint` and the next checkpoint; a database without the
// table or its count columns yields `formatChanged` and no events. Statement failures throw
// SQLiteUsageError.
IngestResult readTokensGenerated(ReadonlySQLite& db, AgentSource source,
                                 const std::optional<SourceCheckpoint>& checkpoint);

IngestResult readAssistantUsageEvents(ReadonlySQLite& db, AgentSource source,
                                      const std::optional<SourceCheckpoint>& checkpoint);

// Cumulative: events are the growth of each session's totals since the last scan (granularity
// sessionAggregate); totals that went down restart the session's baseline without an event.
IngestResult readSessionTotals(ReadonlySQLite& db, AgentSource source,
                               const std::optional<SourceCheckpoint>& checkpoint);

IngestResult readFrames(ReadonlySQLite& db, AgentSource source,
                        const std::optional<SourceCheckpoint>& checkpoint);

}  // namespace kestrel::GenericStatements
