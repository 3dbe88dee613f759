// Every other agent's reader on one synthetic home: each agent's records written in its own
// format (JSON-lines transcripts, JSON documents, SQLite stores), scaled together to a target
// size, then one first scan per agent and unchanged rescans, which must read nothing again.
// Prints a row per agent and a line per reader family, and fails when an agent's event count
// differs from what its corpus holds or a rescan read a file.

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <functional>
#include <map>

#include "core/ledger/ingestor.hpp"
#include "core/sources/source_readers.hpp"
#include "tools/agent_corpus/all_agents.hpp"

namespace {

using namespace kestrel;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

double millis(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double, std::milli>(b - a).count();
}

int64_t folderBytes(const fs::path& folder) {
    int64_t total = 0;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(folder, ec); !ec && it != fs::end(it);
         it.increment(ec)) {
        if (it->is_regular_file(ec)) {
            total += static_cast<int64_t>(it->file_size(ec));
        }
    }
    return total;
}

std::string familyOf(AgentSource source) {
    const auto reader = SourceReaders::reader(source);
    const auto spec = AgentCatalog::spec(source, "/");
    const bool sqlite = spec && (spec->format == AgentDataFormat::sqlite ||
                                 spec->format == AgentDataFormat::openCode);
    if (sqlite) {
        return "SQLite stores";
    }
    return reader && reader->kind == SourceReaderKind::store ? "JSON documents"
                                                             : "JSON-lines transcripts";
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Every other agent's reader on one synthetic home scaled to a target size"};
    double targetMB = 100;
    int repeat = 5;
    bool keep = false;
    app.add_option("--target-mb", targetMB, "Size of the whole home, MB")->capture_default_str();
    app.add_option("--repeat", repeat, "Unchanged rescans to time")->capture_default_str();
    app.add_flag("--keep", keep, "Keep the generated home and ledger");
    CLI11_PARSE(app, argc, argv);

    const auto work =
        fs::temp_directory_path() / fmt::format("kestrel-bench-readers-{}", ::getpid());
    const auto agents = corpus::otherAgents();

    // A few units of every agent first, to learn how many make the target size (several, so
    // that each agent's fixed files do not skew the estimate).
    constexpr int kProbeUnits = 5;
    const auto probe = work / "probe";
    for (const auto& agent : agents) {
        agent.write(probe, kProbeUnits);
    }
    const double perUnit =
        static_cast<double>(std::max<int64_t>(folderBytes(probe), 1)) / kProbeUnits;
    const int units = std::max(1, static_cast<int>(std::lround(targetMB * 1e6 / perUnit)));
    fs::remove_all(probe);

    const auto home = work / "home";
    std::map<AgentSource, int64_t> expected;
    for (const auto& agent : agents) {
        expected[agent.source] = agent.write(home, units);
    }
    fmt::print("home      {:.1f} MB below {} ({} units per agent)\n", folderBytes(home) / 1e6,
               home.string(), units);
    fmt::print("command   {}\n\n", fmt::join(std::vector<std::string>(argv, argv + argc), " "));

    int status = 0;
    struct Family {
        double bytes = 0, ms = 0, rescanMs = 0;
        int agents = 0;
    };
    std::map<std::string, Family> families;
    UsageStore store(work / "support");
    const auto prices = PriceTable::resolved(store);
    const AppSettings settings;
    Ingestor ingestor(store, prices, nullptr);
    fmt::print("{:<16} {:<22} {:>6} {:>9} {:>8} {:>8} {:>9} {:>10}\n", "agent", "family", "files",
               "MB", "usages", "expected", "first ms", "rescan ms");
    for (const auto& agent : agents) {
        const std::set<AgentSource> only{agent.source};
        auto t0 = Clock::now();
        ingestor.scan(home, settings, only, false);
        auto t1 = Clock::now();
        const auto first = ingestor.lastReports().at(0);
        std::vector<double> again;
        for (int r = 0; r < repeat; ++r) {
            auto a = Clock::now();
            ingestor.scan(home, settings, only, false);
            again.push_back(millis(a, Clock::now()));
            if (ingestor.lastReports().at(0).filesRead != 0) {
                fmt::print("  {}: an unchanged rescan read {} files again\n",
                           rawValue(agent.source), ingestor.lastReports().at(0).filesRead);
                status = 1;
            }
        }
        std::ranges::sort(again);
        const double rescan = again.empty() ? 0 : again[again.size() / 2];
        const std::string family = familyOf(agent.source);
        // Each usage is one observation however many files repeat it (forks, copies, a store
        // and its older files); estimates are observations that stay out of the ledger.
        const int64_t usages = first.counts.accepted + first.counts.rejected;
        fmt::print("{:<16} {:<22} {:>6} {:>9.2f} {:>8} {:>8} {:>9.1f} {:>10.2f}\n",
                   rawValue(agent.source), family, first.filesRead, first.bytes / 1e6, usages,
                   expected[agent.source], millis(t0, t1), rescan);
        for (const auto& error : first.errors) {
            fmt::print("  error: {}\n", error.description());
            status = 1;
        }
        if (usages != expected[agent.source]) {
            status = 1;
        }
        auto& f = families[family];
        f.bytes += static_cast<double>(first.bytes);
        f.ms += millis(t0, t1);
        f.rescanMs += rescan;
        ++f.agents;
    }
    fmt::print("\n");
    for (const auto& [name, f] : families) {
        fmt::print(
            "{:<22} {:>2} agents  {:>7.1f} MB  first scans {:>7.0f} ms ({:.0f} MB/s)  "
            "unchanged rescans {:.1f} ms\n",
            name, f.agents, f.bytes / 1e6, f.ms, f.bytes / 1e3 / std::max(f.ms, 1e-3), f.rescanMs);
    }
    if (status != 0) {
        fmt::print(
            "\nFAILED: an event count differs from the corpus, a rescan read again, or a "
            "store could not be read\n");
    }
    if (!keep) {
        fs::remove_all(work);
    }
    return status;
}
