#pragma once
// Reads every Claude Code transcript below a home folder from its start, for the commands that
// print usage before the ledger exists: each file once, even when two roots lead to it.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <vector>

#include "core/model/app_settings.hpp"
#include "core/sources/agent_catalog.hpp"
#include "core/sources/claude_parser.hpp"

namespace kestrel::cli {

struct CollectionStats {
    std::vector<std::filesystem::path> roots;  // installed roots that were searched
    int64_t files = 0;                         // transcripts read
    int64_t bytes = 0;
    int64_t lines = 0;
    int64_t events = 0;
    int64_t malformed = 0;
    int64_t withoutUsage = 0;
    std::vector<FileError> errors;  // files that could not be opened or read
};

// (files done, files in all, file in hand)
using ProgressCallback =
    std::function<void(std::size_t done, std::size_t total, const std::filesystem::path& file)>;

// The transcripts below `roots`, each file once even when two roots lead to it.
std::vector<std::filesystem::path> discoverClaudeTranscripts(
    const std::vector<std::filesystem::path>& roots);

CollectionStats collectClaude(const std::filesystem::path& home, const EnvironmentLookup& env,
                              const AppSettings& settings, const ClaudeParser::EventSink& sink,
                              const ProgressCallback& progress = {});

}  // namespace kestrel::cli
