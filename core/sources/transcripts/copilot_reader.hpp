#pragma once
// Copilot CLI usage: the per-model totals a session writes into its events.jsonl when it shuts
// down (each run of a resumed session writes its own), and the spans of the optional
// OpenTelemetry file export, whose attributes carry each model call's tokens.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/sources/source_readers.hpp"

namespace kestrel::CopilotReader {

inline constexpr int64_t parserVersion = 1;

// session-state/<id>/events.jsonl, the legacy history-session-state/ logs, and JSON-lines files
// in a folder or with a name mentioning "otel" (the telemetry export).
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::CopilotReader
