// Writes a synthetic home folder with Claude Code and Codex data (DIR/.claude/projects,
// DIR/.codex/sessions and DIR/.codex/archived_sessions) for benchmarks of the whole command line.
// The same seed, size and share give the same bytes.

#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tools/claude_corpus.hpp"
#include "tools/codex_corpus.hpp"

namespace {

// "1G", "500M", "64k" or a plain number of bytes; decimal units, as disks are sold.
std::optional<int64_t> parseSize(const std::string& text) {
    double value = 0;
    const char* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (ec != std::errc() || value <= 0) {
        return std::nullopt;
    }
    std::string unit(ptr, end);
    if (unit.size() == 2 && (unit[1] == 'B' || unit[1] == 'b')) {
        unit.pop_back();
    }
    double scale = 1;
    if (unit.empty() || unit == "B") {
        scale = 1;
    } else if (unit == "k" || unit == "K") {
        scale = 1e3;
    } else if (unit == "M" || unit == "m") {
        scale = 1e6;
    } else if (unit == "G" || unit == "g") {
        scale = 1e9;
    } else {
        return std::nullopt;
    }
    return static_cast<int64_t>(value * scale);
}

double megabytes(int64_t bytes) {
    return static_cast<double>(bytes) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Write a synthetic home folder with Claude Code and Codex records"};
    std::string out;
    std::string sizeText;
    uint64_t seed = 1;
    double codexShare = 0.4;
    bool overwrite = false;
    bool json = false;
    app.add_option("--out", out, "Home folder to write .claude and .codex into")->required();
    app.add_option("--size", sizeText,
                   "Total size of the records: bytes, or with a k, M or G suffix (10^3, 10^6, "
                   "10^9)")
        ->required();
    app.add_option("--seed", seed, "Seed; the same seed gives the same home");
    app.add_option("--codex-share", codexShare, "Part of the size that goes to Codex rollouts")
        ->check(CLI::Range(0.0, 1.0));
    app.add_flag("--overwrite", overwrite, "Replace the records of an earlier run");
    app.add_flag("--json", json, "Print the summary as JSON");
    CLI11_PARSE(app, argc, argv);

    const auto size = parseSize(sizeText);
    if (!size) {
        fmt::print(stderr, "kestrel-gen-home: cannot read the size \"{}\" (try 1G or 500M)\n",
                   sizeText);
        return 2;
    }
    const auto codexBytes = static_cast<int64_t>(static_cast<double>(*size) * codexShare);
    const int64_t claudeBytes = *size - codexBytes;

    const auto started = std::chrono::steady_clock::now();
    std::optional<kestrel::corpus::ClaudeCorpusSummary> claude;
    if (claudeBytes > 0) {
        kestrel::corpus::ClaudeCorpusOptions options;
        options.home = out;
        options.targetBytes = claudeBytes;
        options.seed = seed;
        options.overwrite = overwrite;
        auto written = kestrel::corpus::writeClaudeCorpus(options);
        if (!written) {
            fmt::print(stderr, "kestrel-gen-home: {}{}\n", written.error(),
                       overwrite ? "" : " (--overwrite replaces them)");
            return 1;
        }
        claude = std::move(*written);
    }
    std::optional<kestrel::corpus::CodexCorpusSummary> codex;
    if (codexBytes > 0) {
        kestrel::corpus::CodexCorpusOptions options;
        options.home = out;
        options.targetBytes = codexBytes;
        options.seed = seed;
        options.overwrite = overwrite;
        auto written = kestrel::corpus::writeCodexCorpus(options);
        if (!written) {
            fmt::print(stderr, "kestrel-gen-home: {}{}\n", written.error(),
                       overwrite ? "" : " (--overwrite replaces them)");
            return 1;
        }
        codex = std::move(*written);
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const int64_t totalBytes = (claude ? claude->bytes : 0) + (codex ? codex->bytes : 0);

    if (json) {
        nlohmann::ordered_json j;
        j["home"] = out;
        j["seed"] = seed;
        j["bytes"] = totalBytes;
        if (claude) {
            const auto& c = *claude;
            j["claude"] = {{"files", c.files},
                           {"subagentFiles", c.subagentFiles},
                           {"bytes", c.bytes},
                           {"lines", c.lines},
                           {"assistantLines", c.assistantLines},
                           {"distinctMessageIDs", c.distinctMessageIDs}};
        }
        if (codex) {
            const auto& c = *codex;
            j["codex"] = {{"files", c.files},
                          {"forkedFiles", c.forkedFiles},
                          {"archivedFiles", c.archivedFiles},
                          {"compressedFiles", c.compressedFiles},
                          {"bytes", c.bytes},
                          {"textBytes", c.textBytes},
                          {"lines", c.lines},
                          {"tokenCountLines", c.tokenCountLines},
                          {"nullInfoReports", c.nullInfoReports},
                          {"repeatedReports", c.repeatedReports},
                          {"replayedLines", c.replayedLines},
                          {"expectedEvents", c.expectedEvents},
                          {"longestLine", c.longestLine},
                          {"largeOutputs", c.largeOutputs}};
        }
        j["seconds"] = seconds;
        fmt::print("{}\n", j.dump(2));
        return 0;
    }

    fmt::print("home                 {}\n", out);
    if (claude) {
        const auto& c = *claude;
        fmt::print("Claude Code          {} transcripts ({} sub-agent), {:.1f} MB, {} lines\n",
                   c.files, c.subagentFiles, megabytes(c.bytes), c.lines);
        fmt::print("  message ids        {}\n", c.distinctMessageIDs);
    }
    if (codex) {
        const auto& c = *codex;
        fmt::print(
            "Codex                {} rollouts ({} forks, {} archived, {} compressed), "
            "{:.1f} MB on disk ({:.1f} MB of lines), {} lines\n",
            c.files, c.forkedFiles, c.archivedFiles, c.compressedFiles, megabytes(c.bytes),
            megabytes(c.textBytes), c.lines);
        fmt::print("  token reports      {} (replays included; {} rate limits only, {} repeated)\n",
                   c.tokenCountLines, c.nullInfoReports, c.repeatedReports);
        fmt::print("  expected events    {}\n", c.expectedEvents);
        fmt::print("  replayed lines     {} (forks)\n", c.replayedLines);
        fmt::print("  longest line       {} bytes\n", c.longestLine);
    }
    fmt::print("written in           {:.2f} s ({:.0f} MB/s)\n", seconds,
               seconds > 0 ? megabytes(totalBytes) / seconds : 0.0);
    return 0;
}
