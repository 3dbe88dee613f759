#include "cli/claude_collection.hpp"

#include <sys/stat.h>

#include <set>

namespace kestrel::cli {

std::vector<std::filesystem::path> discoverClaudeTranscripts(
    const std::vector<std::filesystem::path>& roots) {
    // ~/.claude and ~/.config/claude may be one folder through a link: read each file once.
    std::set<std::pair<dev_t, ino_t>> seen;
    std::vector<std::filesystem::path> files;
    for (const auto& root : roots) {
        for (auto& file : ClaudeParser::discover(root)) {
            struct stat st {};
            if (::stat(file.c_str(), &st) == 0 && !seen.insert({st.st_dev, st.st_ino}).second) {
                continue;
            }
            files.push_back(std::move(file));
        }
    }
    return files;
}

CollectionStats collectClaude(const std::filesystem::path& home, const EnvironmentLookup& env,
                              const AppSettings& settings, const ClaudeParser::EventSink& sink,
                              const ProgressCallback& progress) {
    CollectionStats stats;
    stats.roots = AgentCatalog::installedRoots(AgentSource::claude, home, env);

    const auto files = discoverClaudeTranscripts(stats.roots);

    const auto& prices = PriceTable::bundled();
    for (std::size_t i = 0; i < files.size(); ++i) {
        if (progress) {
            progress(i, files.size(), files[i]);
        }
        auto result =
            ClaudeParser::ingest(files[i], std::nullopt, settings, prices, [&](UsageEvent&& e) {
                ++stats.events;
                sink(std::move(e));
            });
        if (!result) {
            stats.errors.push_back(result.error());
            continue;
        }
        ++stats.files;
        stats.bytes += result->stats.bytes;
        stats.lines += result->stats.lines;
        stats.malformed += result->stats.malformed;
        stats.withoutUsage += result->stats.withoutUsage;
    }
    if (progress) {
        progress(files.size(), files.size(), {});
    }
    return stats;
}

}  // namespace kestrel::cli
