#pragma once
// Kimi's two agents keep their wire logs below <root>/sessions: Kimi CLI (~/.kimi) writes a
// StatusUpdate with the step's token usage, also forwarded into the parent's log for sub-agents
// and copied verbatim into forks; Kimi Code (~/.kimi-code) writes usage.record lines per agent,
// a fork starting with a copy of its source's records closed by a "forked" line.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/sources/source_readers.hpp"

namespace kestrel::KimiReader {

inline constexpr int64_t parserVersion = 1;

// Every "wire.jsonl" below `root`/sessions, sub-agents' and agents' logs included.
std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors = nullptr);

// The model Kimi CLI uses when its log does not say: `default_model` of the first root's
// config.toml, resolved through its [models.<alias>] table when it names an alias.
std::string configuredModel(const std::vector<std::filesystem::path>& roots);

// `defaultModel` stands for the model of Kimi CLI records, which name none.
std::expected<IngestResult, FileError> ingest(const SourceReadContext& context);

SourceReader reader();

}  // namespace kestrel::KimiReader
