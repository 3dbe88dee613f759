// Every agent's reader but Claude Code's on one synthetic home: each agent's records written in
// its own format (JSON-lines transcripts, Codex rollouts, JSON documents, SQLite stores), scaled
// to a target size. Two figures per agent, each the median of several runs:
//
//   reader  the reader alone: every file read from its start, events counted and dropped; no
//           ledger, no pricing. What parsing and per-file setup cost.
//   scan    a first scan of the agent into a fresh ledger, as `kestrel scan` does it: reading,
//           pricing, the commit of every share on the committer thread, the rollups. CPU time
//           counts both threads.
//
// Both are given as MB of input per second of wall time and per second of CPU time; on a busy
// machine only the CPU figure means much. Unchanged rescans, which must read nothing again,
// are timed after the last run. Fails when an agent's event count differs from what its corpus
// holds, a rescan read a file, or a file could not be read.

#include <fmt/format.h>
#include <sys/resource.h>
#include <time.h>
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
#include "tools/codex_corpus.hpp"

namespace {

using namespace kestrel;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

double millis(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double, std::milli>(b - a).count();
}

// CPU time of the whole process (every thread), milliseconds.
double processCpuMs() {
    timespec ts{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
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
    if (source == AgentSource::codex) {
        return "Codex rollouts";
    }
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

double median(std::vector<double> values) {
    if (values.empty()) {
        return 0;
    }
    std::ranges::sort(values);
    const std::size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

struct Timing {
    double wallMs = 0, cpuMs = 0;
};

struct ReaderPass {
    Timing time;
    int64_t bytes = 0, files = 0, events = 0;
    std::vector<std::string> errors;
};

// Every file of `source` read from its start by its reader alone.
ReaderPass readAlone(AgentSource source, const fs::path& home) {
    ReaderPass pass;
    const auto reader = SourceReaders::reader(source);
    if (!reader) {
        return pass;
    }
    const auto roots = AgentCatalog::installedRoots(source, home);
    const auto t0 = Clock::now();
    const double c0 = processCpuMs();
    const std::string defaultModel = SourceReaders::defaultModel(source, roots);
    for (const auto& root : roots) {
        for (const auto& file : reader->discover(root, nullptr)) {
            SourceReadContext context;
            context.source = source;
            context.file = file;
            context.defaultModel = defaultModel;
            context.sink = [&](UsageEvent&&) { ++pass.events; };
            auto result = reader->ingest(context);
            ++pass.files;
            if (!result) {
                pass.errors.push_back(result.error().description());
                continue;
            }
            pass.events += static_cast<int64_t>(result->events.size());
            pass.bytes += result->stats.bytes;
        }
    }
    pass.time = {millis(t0, Clock::now()), processCpuMs() - c0};
    return pass;
}

struct AgentFigures {
    std::string family;
    int64_t expected = 0;
    int64_t files = 0, bytes = 0, usages = 0;
    std::vector<double> readerWall, readerCpu, scanWall, scanCpu;
    double rescanMs = 0;
};

std::string perSecond(double bytes, double ms) {
    return ms <= 0 ? std::string("-") : fmt::format("{:.0f}", bytes / 1e3 / ms);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Every agent's reader but Claude's on one synthetic home: reader alone and scan"};
    double targetMB = 100;
    double codexMB = 100;
    int runs = 3;
    int repeat = 3;
    bool keep = false;
    app.add_option("--target-mb", targetMB, "Size of the other agents' records together, MB")
        ->capture_default_str();
    app.add_option("--codex-mb", codexMB, "Size of the Codex rollouts, MB (0: none)")
        ->capture_default_str();
    app.add_option("--runs", runs, "Timed runs of the readers and of the first scans (medians)")
        ->capture_default_str();
    app.add_option("--repeat", repeat, "Unchanged rescans to time")->capture_default_str();
    app.add_flag("--keep", keep, "Keep the generated home and ledgers");
    CLI11_PARSE(app, argc, argv);
    runs = std::max(runs, 1);

    const auto work =
        fs::temp_directory_path() / fmt::format("kestrel-bench-readers-{}", ::getpid());
    auto agents = corpus::otherAgents();

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
    std::map<AgentSource, AgentFigures> figures;
    std::vector<AgentSource> order;
    for (const auto& agent : agents) {
        figures[agent.source].expected = agent.write(home, units);
        order.push_back(agent.source);
    }
    if (codexMB > 0) {
        corpus::CodexCorpusOptions options;
        options.home = home;
        options.targetBytes = static_cast<int64_t>(codexMB * 1e6);
        options.seed = 7;
        auto written = corpus::writeCodexCorpus(options);
        if (!written) {
            fmt::print(stderr, "cannot write the Codex rollouts: {}\n", written.error());
            return 1;
        }
        figures[AgentSource::codex].expected = written->expectedEvents;
        order.insert(order.begin(), AgentSource::codex);
    }
    for (auto source : order) {
        figures[source].family = familyOf(source);
    }
    fmt::print("home      {:.1f} MB below {} ({} units per agent)\n", folderBytes(home) / 1e6,
               home.string(), units);
    fmt::print("command   {}\n", fmt::join(std::vector<std::string>(argv, argv + argc), " "));
    fmt::print("figures   medians of {} runs; MB/s of input per wall second and per CPU second\n\n",
               runs);

    int status = 0;
    const AppSettings settings;
    for (int run = 0; run < runs; ++run) {
        for (auto source : order) {
            auto pass = readAlone(source, home);
            auto& f = figures[source];
            f.readerWall.push_back(pass.time.wallMs);
            f.readerCpu.push_back(pass.time.cpuMs);
            for (const auto& error : pass.errors) {
                fmt::print("  {} reader: {}\n", rawValue(source), error);
                status = 1;
            }
        }
        // A fresh ledger per run, so that every run times a first scan.
        UsageStore store(work / fmt::format("support-{}", run));
        const auto prices = PriceTable::resolved(store);
        Ingestor ingestor(store, prices, nullptr);
        for (auto source : order) {
            auto& f = figures[source];
            const std::set<AgentSource> only{source};
            const auto t0 = Clock::now();
            const double c0 = processCpuMs();
            ingestor.scan(home, settings, only, false);
            f.scanWall.push_back(millis(t0, Clock::now()));
            f.scanCpu.push_back(processCpuMs() - c0);
            const auto first = ingestor.lastReports().at(0);
            f.files = first.filesRead;
            f.bytes = first.bytes;
            // Each usage is one observation however many files repeat it (forks, copies, a
            // store and its older files); estimates are observations that stay out of the
            // ledger.
            f.usages = first.counts.accepted + first.counts.rejected;
            for (const auto& error : first.errors) {
                fmt::print("  {} scan: {}\n", rawValue(source), error.description());
                status = 1;
            }
            if (f.usages != f.expected) {
                status = 1;
            }
            if (run + 1 < runs) {
                continue;
            }
            std::vector<double> again;
            for (int r = 0; r < repeat; ++r) {
                const auto a = Clock::now();
                ingestor.scan(home, settings, only, false);
                again.push_back(millis(a, Clock::now()));
                if (ingestor.lastReports().at(0).filesRead != 0) {
                    fmt::print("  {}: an unchanged rescan read {} files again\n", rawValue(source),
                               ingestor.lastReports().at(0).filesRead);
                    status = 1;
                }
            }
            f.rescanMs = median(again);
        }
    }

    fmt::print("{:<16} {:<22} {:>5} {:>7} {:>7} {:>8} {:>9} {:>9} {:>9} {:>9} {:>8}\n", "agent",
               "family", "files", "MB", "usages", "expected", "read cpu", "scan wall", "scan cpu",
               "read MB/s", "rescan");
    struct Family {
        double bytes = 0, readerWall = 0, readerCpu = 0, scanWall = 0, scanCpu = 0, rescan = 0;
        int agents = 0;
    };
    std::map<std::string, Family> families;
    for (auto source : order) {
        const auto& f = figures[source];
        const double readerCpu = median(f.readerCpu), scanWall = median(f.scanWall),
                     scanCpu = median(f.scanCpu);
        fmt::print(
            "{:<16} {:<22} {:>5} {:>7.2f} {:>7} {:>8} {:>9.1f} {:>9.1f} {:>9.1f} {:>9} {:>8.2f}\n",
            rawValue(source), f.family, f.files, f.bytes / 1e6, f.usages, f.expected, readerCpu,
            scanWall, scanCpu, perSecond(static_cast<double>(f.bytes), readerCpu), f.rescanMs);
        auto& family = families[f.family];
        family.bytes += static_cast<double>(f.bytes);
        family.readerWall += median(f.readerWall);
        family.readerCpu += readerCpu;
        family.scanWall += scanWall;
        family.scanCpu += scanCpu;
        family.rescan += f.rescanMs;
        ++family.agents;
    }
    fmt::print("\n{:<22} {:>6} {:>8}  {:>19}  {:>19}  {:>10}\n", "family (MB/s of input)", "agents",
               "MB", "reader wall / cpu", "scan wall / cpu", "rescans ms");
    for (const auto& [name, f] : families) {
        fmt::print("{:<22} {:>6} {:>8.1f}  {:>9} / {:>7}  {:>9} / {:>7}  {:>10.1f}\n", name,
                   f.agents, f.bytes / 1e6, perSecond(f.bytes, f.readerWall),
                   perSecond(f.bytes, f.readerCpu), perSecond(f.bytes, f.scanWall),
                   perSecond(f.bytes, f.scanCpu), f.rescan);
    }
    if (status != 0) {
        fmt::print(
            "\nFAILED: an event count differs from the corpus, a rescan read again, or a file "
            "could not be read\n");
    }
    if (!keep) {
        fs::remove_all(work);
    }
    return status;
}
