// The cost of `kestrel scan` on a large Claude Code home: the first scan (everything read and
// committed) and the scans after it with no file changed, which must not read anything again.

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <filesystem>

#include "core/ledger/ingestor.hpp"
#include "tools/claude_corpus.hpp"

namespace {

using namespace kestrel;
using Clock = std::chrono::steady_clock;

double millis(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double, std::milli>(b - a).count();
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Scan cost on a synthetic Claude Code home: first scan and unchanged rescans"};
    std::string home;
    double sizeMB = 1000;
    int repeat = 7;
    bool keep = false;
    app.add_option("--home", home, "An existing home holding .claude/projects");
    app.add_option("--generate-mb", sizeMB, "Without --home: corpus size to write, MB")
        ->capture_default_str();
    app.add_option("--repeat", repeat, "Unchanged rescans to time")->capture_default_str();
    app.add_flag("--keep", keep, "Keep the generated home and ledger");
    CLI11_PARSE(app, argc, argv);

    const auto work =
        std::filesystem::temp_directory_path() / fmt::format("kestrel-bench-scan-{}", ::getpid());
    std::filesystem::path homeDir = home;
    if (home.empty()) {
        homeDir = work / "home";
        corpus::ClaudeCorpusOptions options;
        options.home = homeDir;
        options.targetBytes = static_cast<int64_t>(sizeMB * 1e6);
        auto written = corpus::writeClaudeCorpus(options);
        if (!written) {
            fmt::print(stderr, "cannot write the corpus: {}\n", written.error());
            return 1;
        }
        fmt::print("corpus    {:.1f} MB in {} files below {}\n", written->bytes / 1e6,
                   written->files, homeDir.string());
    }
    fmt::print("command   {}\n", fmt::join(std::vector<std::string>(argv, argv + argc), " "));

    int status = 0;
    {
        UsageStore store(work / "support");
        const auto prices = PriceTable::resolved(store);
        const AppSettings settings;
        Ingestor ingestor(store, prices, nullptr);
        const std::set<AgentSource> claude{AgentSource::claude};
        auto t0 = Clock::now();
        ingestor.scan(homeDir, settings, claude, false);
        auto t1 = Clock::now();
        const auto first = ingestor.lastReports().at(0);
        fmt::print("first     {:.0f} ms: {} files, {:.1f} MB, {} events, {} accepted\n",
                   millis(t0, t1), first.filesRead, first.bytes / 1e6, first.events,
                   first.counts.accepted);

        std::vector<double> again;
        for (int r = 0; r < repeat; ++r) {
            auto a = Clock::now();
            const auto progress = ingestor.scan(homeDir, settings, claude, false);
            auto b = Clock::now();
            again.push_back(millis(a, b));
            const auto rescan = ingestor.lastReports().at(0);
            if (rescan.filesRead != 0 || rescan.committed || progress.changed) {
                fmt::print("unchanged rescan read {} files: the checkpoints did not hold\n",
                           rescan.filesRead);
                status = 1;
            }
        }
        std::sort(again.begin(), again.end());
        fmt::print(
            "rescan    median {:.1f} ms (min {:.1f}, max {:.1f}) over {} unchanged scans "
            "of {} files\n",
            again[again.size() / 2], again.front(), again.back(), repeat, first.filesSeen);
    }
    if (!keep) {
        std::filesystem::remove_all(work);
    }
    return status;
}
