// Writes a synthetic Claude Code data folder (DIR/.claude/projects/...) for benchmarks and soak
// runs. The same seed, size and file count give the same bytes.

#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/claude_corpus.hpp"

int main(int argc, char** argv) {
    CLI::App app{"Write a synthetic Claude Code transcript folder"};
    std::string out;
    double sizeMB = 0;
    uint64_t seed = 1;
    int64_t files = 0;
    bool overwrite = false;
    bool json = false;
    app.add_option("--out", out, "Folder to write DIR/.claude/projects into")->required();
    app.add_option("--size-mb", sizeMB, "Total size of the transcripts in MB (10^6 bytes)")
        ->required()
        ->check(CLI::PositiveNumber);
    app.add_option("--seed", seed, "Seed; the same seed gives the same corpus");
    app.add_option("--files", files,
                   "Number of transcripts, sub-agent ones included "
                   "(default: one per ~3 MB, at least 4)")
        ->check(CLI::PositiveNumber);
    app.add_flag("--overwrite", overwrite, "Replace an existing DIR/.claude/projects");
    app.add_flag("--json", json, "Print the summary as JSON");
    CLI11_PARSE(app, argc, argv);

    kestrel::corpus::ClaudeCorpusOptions options;
    options.home = out;
    options.targetBytes = static_cast<int64_t>(sizeMB * 1e6);
    options.seed = seed;
    options.files = files;
    options.overwrite = overwrite;

    const auto started = std::chrono::steady_clock::now();
    const auto result = kestrel::corpus::writeClaudeCorpus(options);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    if (!result) {
        fmt::print(stderr, "kestrel-gen-claude-home: {}{}\n", result.error(),
                   overwrite ? "" : " (--overwrite replaces them)");
        return 1;
    }
    const auto& s = *result;
    if (json) {
        nlohmann::ordered_json j;
        j["root"] = (options.home / ".claude").string();
        j["seed"] = seed;
        j["files"] = s.files;
        j["subagentFiles"] = s.subagentFiles;
        j["projects"] = s.projects;
        j["bytes"] = s.bytes;
        j["lines"] = s.lines;
        j["assistantLines"] = s.assistantLines;
        j["apiErrorLines"] = s.apiErrorLines;
        j["distinctMessageIDs"] = s.distinctMessageIDs;
        j["copiedLines"] = s.copiedLines;
        j["longestLine"] = s.longestLine;
        j["largeToolResults"] = s.largeToolResults;
        j["seconds"] = seconds;
        fmt::print("{}\n", j.dump(2));
        return 0;
    }
    fmt::print("root                 {}\n", (options.home / ".claude").string());
    fmt::print("files                {} ({} sub-agent, {} projects)\n", s.files, s.subagentFiles,
               s.projects);
    fmt::print("bytes                {} ({:.1f} MB)\n", s.bytes,
               static_cast<double>(s.bytes) / 1e6);
    fmt::print("lines                {}\n", s.lines);
    fmt::print("assistant lines      {} ({:.1f}%, {} API errors)\n", s.assistantLines,
               s.lines > 0
                   ? 100.0 * static_cast<double>(s.assistantLines) / static_cast<double>(s.lines)
                   : 0.0,
               s.apiErrorLines);
    fmt::print("distinct message ids {}\n", s.distinctMessageIDs);
    fmt::print("copied lines         {} (resumed sessions)\n", s.copiedLines);
    fmt::print("longest line         {} bytes\n", s.longestLine);
    fmt::print("tool results >200 KB {}\n", s.largeToolResults);
    fmt::print("written in           {:.2f} s ({:.0f} MB/s)\n", seconds,
               seconds > 0 ? static_cast<double>(s.bytes) / 1e6 / seconds : 0.0);
    return 0;
}
