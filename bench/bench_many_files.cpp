// A root holding a great many small transcripts (100,000 by default, in one folder): the first
// scan, the scan after it with nothing changed, and one after a single file grew. Checks that
// every usage lands once and that the unchanged scan opens no file.

#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <filesystem>
#include <fstream>

#include "core/ledger/ingestor.hpp"

namespace {

using namespace kestrel;
using Clock = std::chrono::steady_clock;

double millis(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double, std::milli>(b - a).count();
}

std::string line(int64_t n) {
    return fmt::format(
        R"({{"type":"assistant","sessionId":"s{0}","cwd":"/home/u/app","timestamp":)"
        R"("2026-03-02T10:00:00Z","message":{{"id":"msg_{0}","model":"claude-sonnet-4-5-20250929",)"
        R"("role":"assistant","usage":{{"input_tokens":12,"cache_read_input_tokens":2000,)"
        R"("output_tokens":40}}}}}})"
        "\n",
        n);
}

long peakRSSKB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Scan cost of one root with very many small transcripts"};
    int64_t files = 100'000;
    bool keep = false;
    app.add_option("--files", files, "Transcripts to write, all in one folder")
        ->capture_default_str();
    app.add_flag("--keep", keep, "Keep the generated home and ledger");
    CLI11_PARSE(app, argc, argv);

    const auto work = std::filesystem::temp_directory_path() /
                      fmt::format("kestrel-bench-many-files-{}", ::getpid());
    const auto folder = work / "home/.claude/projects/-home-u-app";
    std::filesystem::create_directories(folder);
    auto t0 = Clock::now();
    for (int64_t i = 0; i < files; ++i) {
        std::ofstream(folder / fmt::format("{:08}.jsonl", i)) << line(i);
    }
    fmt::print("wrote     {} files in {:.0f} ms\n", files, millis(t0, Clock::now()));

    int status = 0;
    {
        UsageStore store(work / "support");
        Ingestor ingestor(store, PriceTable::resolved(store), nullptr);
        const AppSettings settings;
        const std::set<AgentSource> claude{AgentSource::claude};
        const auto timed = [&](const char* what) {
            const auto a = Clock::now();
            ingestor.scan(work / "home", settings, claude, false);
            const auto b = Clock::now();
            const auto r = ingestor.lastReports().at(0);
            fmt::print(
                "{:<9} {:.0f} ms: {} files seen, {} read, {} unchanged, {} events, status {}\n",
                what, millis(a, b), r.filesSeen, r.filesRead, r.filesUnchanged, r.events,
                rawValue(r.status));
            return r;
        };
        const auto first = timed("first");
        const auto events = store.ledgerEventCount({});
        if (events != files) {
            fmt::print("the ledger holds {} events, {} expected\n", events, files);
            status = 1;
        }
        const auto again = timed("unchanged");
        if (again.filesRead != 0) {
            fmt::print("the unchanged scan read {} files\n", again.filesRead);
            status = 1;
        }
        std::ofstream(folder / "00000000.jsonl", std::ios::app) << line(files);
        const auto grown = timed("one grew");
        if (grown.filesRead != 1 || store.ledgerEventCount({}) != files + 1) {
            fmt::print("after one file grew: {} read, {} events\n", grown.filesRead,
                       store.ledgerEventCount({}));
            status = 1;
        }
        (void)first;
    }
    fmt::print("peak RSS  {:.1f} MB\n", peakRSSKB() / 1024.0);
    if (!keep) {
        std::filesystem::remove_all(work);
    } else {
        fmt::print("kept      {}\n", work.string());
    }
    return status;
}
