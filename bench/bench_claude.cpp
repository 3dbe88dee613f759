// Throughput and memory of the Claude transcript reader: discovers every transcript below a data
// folder and streams each from its start through ClaudeParser::ingest, single-threaded, several
// times. Without --home a synthetic corpus is written to a temporary folder first.

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/sources/claude_parser.hpp"
#include "tools/claude_corpus.hpp"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

int64_t peakRssKB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;  // kilobytes on Linux
}

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

int64_t currentRssKB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with("VmRSS:"))
            return std::strtoll(line.c_str() + 6, nullptr, 10);
    }
    return 0;
}

std::string cpuModel() {
    std::ifstream info("/proc/cpuinfo");
    std::string line;
    while (std::getline(info, line)) {
        if (line.starts_with("model name")) {
            const auto colon = line.find(':');
            if (colon != std::string::npos)
                return line.substr(colon + 2);
        }
    }
    return "unknown";
}

std::string commandLine(int argc, char** argv) {
    std::string out;
    for (int i = 0; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (i > 0)
            out += ' ';
        if (arg.find_first_of(" \t'\"$") == std::string_view::npos && !arg.empty()) {
            out += arg;
        } else {
            out += '\'';
            for (char c : arg)
                out += c == '\'' ? std::string("'\\''") : std::string(1, c);
            out += '\'';
        }
    }
    return out;
}

// Writes the corpus in a child process, so that the generator's buffers do not count towards
// this process's peak memory, which is the reader's figure.
std::optional<kestrel::corpus::ClaudeCorpusSummary> generateInChild(
    const kestrel::corpus::ClaudeCorpusOptions& options) {
    int fds[2];
    if (pipe(fds) != 0)
        return std::nullopt;
    const pid_t pid = fork();
    if (pid < 0)
        return std::nullopt;
    if (pid == 0) {
        close(fds[0]);
        const auto result = kestrel::corpus::writeClaudeCorpus(options);
        if (!result) {
            fmt::print(stderr, "corpus: {}\n", result.error());
            _exit(1);
        }
        const auto* bytes = reinterpret_cast<const char*>(&*result);
        std::size_t left = sizeof *result;
        while (left > 0) {
            const ssize_t n = write(fds[1], bytes, left);
            if (n <= 0)
                _exit(1);
            bytes += n;
            left -= static_cast<std::size_t>(n);
        }
        _exit(0);
    }
    close(fds[1]);
    kestrel::corpus::ClaudeCorpusSummary summary;
    auto* bytes = reinterpret_cast<char*>(&summary);
    std::size_t got = 0;
    while (got < sizeof summary) {
        const ssize_t n = read(fds[0], bytes + got, sizeof summary - got);
        if (n <= 0)
            break;
        got += static_cast<std::size_t>(n);
    }
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (got != sizeof summary || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return std::nullopt;
    }
    return summary;
}

// What the sink sees; summed so that no part of the event can be optimised away.
struct Totals {
    int64_t events = 0;
    int64_t tokens = 0;
    int64_t idBytes = 0;
};

struct Run {
    int64_t bytes = 0;
    int64_t lines = 0;
    int64_t malformed = 0;
    double seconds = 0;
    double cpuSeconds = 0;  // user + system: steadier than wall time on a busy machine
    Totals totals;
    int64_t failedFiles = 0;

    double mbPerSecond() const {
        return seconds > 0 ? static_cast<double>(bytes) / 1e6 / seconds : 0;
    }
    double mbPerCpuSecond() const {
        return cpuSeconds > 0 ? static_cast<double>(bytes) / 1e6 / cpuSeconds : 0;
    }
};

Run ingestAll(const std::vector<fs::path>& files) {
    Run run;
    kestrel::SourceReadContext context;
    context.sink = [&run](kestrel::UsageEvent&& e) {
        ++run.totals.events;
        run.totals.tokens += e.raw.input + e.raw.cachedInput + e.raw.cacheCreate + e.raw.output;
        run.totals.idBytes += static_cast<int64_t>(e.id.size() + e.model.size());
    };
    const double cpuStarted = cpuSeconds();
    const auto started = Clock::now();
    for (const auto& file : files) {
        context.file = file;
        auto result = kestrel::ClaudeParser::ingest(context);
        if (!result) {
            ++run.failedFiles;
            continue;
        }
        run.bytes += result->stats.bytes;
        run.lines += result->stats.lines;
        run.malformed += result->stats.malformed;
    }
    run.seconds = std::chrono::duration<double>(Clock::now() - started).count();
    run.cpuSeconds = cpuSeconds() - cpuStarted;
    return run;
}

nlohmann::ordered_json runJson(const Run& r) {
    return {{"bytes", r.bytes},
            {"seconds", r.seconds},
            {"cpuSeconds", r.cpuSeconds},
            {"mbPerSecond", r.mbPerSecond()},
            {"mbPerCpuSecond", r.mbPerCpuSecond()},
            {"events", r.totals.events},
            {"lines", r.lines},
            {"malformed", r.malformed},
            {"tokens", r.totals.tokens},
            {"failedFiles", r.failedFiles}};
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Claude transcript reader throughput (single thread)"};
    std::string home;
    double generateMB = 256;
    int repeat = 5;
    uint64_t seed = 1;
    bool keep = false;
    bool json = false;
    auto* homeOpt = app.add_option("--home", home, "Folder holding .claude/projects to read");
    app.add_option("--generate-mb", generateMB,
                   "Without --home: size of the synthetic corpus to write, MB (10^6 bytes)")
        ->excludes(homeOpt)
        ->check(CLI::PositiveNumber);
    app.add_option("--repeat", repeat, "Timed runs over the whole corpus")
        ->check(CLI::Range(1, 1000));
    app.add_option("--seed", seed, "Seed of the synthetic corpus");
    app.add_flag("--keep", keep, "Keep the synthetic corpus instead of deleting it");
    app.add_flag("--json", json, "Print the result as JSON on stdout (the report goes to stderr)");
    CLI11_PARSE(app, argc, argv);

    std::FILE* out = json ? stderr : stdout;
    nlohmann::ordered_json doc;

    utsname un{};
    uname(&un);
    const std::string cpu = cpuModel();
    const long cores = sysconf(_SC_NPROCESSORS_ONLN);
    const std::string cmd = commandLine(argc, argv);
    fmt::print(out, "command   {}\n", cmd);
    fmt::print(out, "machine   {} x {}, {} {}, {}\n", cores, cpu, un.sysname, un.release,
               un.machine);
#ifdef NDEBUG
    const char* build = "optimised, assertions off";
#else
    const char* build = "assertions on";
#endif
    fmt::print(out, "build     GCC {} ({})\n", __VERSION__, build);
    doc["command"] = cmd;
    doc["machine"] = {{"nproc", cores},          {"cpu", cpu},
                      {"kernel", un.release},    {"arch", un.machine},
                      {"compiler", __VERSION__}, {"build", build}};

    fs::path root;
    fs::path tempDir;
    std::optional<kestrel::corpus::ClaudeCorpusSummary> generated;
    if (!home.empty()) {
        root = fs::path(home) / ".claude";
    } else {
        std::string pattern = (fs::temp_directory_path() / "kestrel-bench-claude-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            fmt::print(stderr, "cannot create a temporary folder\n");
            return 1;
        }
        tempDir = pattern;
        root = tempDir / ".claude";
        kestrel::corpus::ClaudeCorpusOptions options;
        options.home = tempDir;
        options.targetBytes = static_cast<int64_t>(generateMB * 1e6);
        options.seed = seed;
        const auto started = Clock::now();
        generated = generateInChild(options);
        const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
        if (!generated) {
            fmt::print(stderr, "could not write the synthetic corpus to {}\n", tempDir.string());
            return 1;
        }
        fmt::print(out,
                   "corpus    {:.1f} MB synthetic (seed {}) in {}, written in {:.1f} s: {} files, "
                   "{} lines, {} assistant lines ({} API errors), {} message ids, longest "
                   "line {} bytes\n",
                   static_cast<double>(generated->bytes) / 1e6, seed, tempDir.string(), seconds,
                   generated->files, generated->lines, generated->assistantLines,
                   generated->apiErrorLines, generated->distinctMessageIDs, generated->longestLine);
        doc["corpus"] = {{"synthetic", true},
                         {"seed", seed},
                         {"bytes", generated->bytes},
                         {"files", generated->files},
                         {"lines", generated->lines},
                         {"assistantLines", generated->assistantLines},
                         {"apiErrorLines", generated->apiErrorLines},
                         {"distinctMessageIDs", generated->distinctMessageIDs},
                         {"longestLine", generated->longestLine}};
    }

    const auto discoverStarted = Clock::now();
    const auto files = kestrel::ClaudeParser::discover(root);
    const double discoverSeconds =
        std::chrono::duration<double>(Clock::now() - discoverStarted).count();
    int64_t corpusBytes = 0;
    int64_t largestFile = 0;
    for (const auto& f : files) {
        std::error_code ec;
        const auto size = static_cast<int64_t>(fs::file_size(f, ec));
        if (ec)
            continue;
        corpusBytes += size;
        largestFile = std::max(largestFile, size);
    }
    fmt::print(out, "discover  {} transcripts below {}, {:.1f} MB, largest {:.1f} MB ({:.3f} s)\n",
               files.size(), root.string(), static_cast<double>(corpusBytes) / 1e6,
               static_cast<double>(largestFile) / 1e6, discoverSeconds);
    if (files.empty()) {
        fmt::print(stderr, "no transcripts found below {}\n", (root / "projects").string());
        return 1;
    }
    if (generated) {
        // Freshly written pages would otherwise be written back during the timed runs.
        for (const auto& f : files) {
            const int fd = open(f.c_str(), O_RDONLY);
            if (fd >= 0) {
                fdatasync(fd);
                close(fd);
            }
        }
    }
    const int64_t rssBefore = peakRssKB();

    // Warm-up on the first ~1/16 of the corpus: the peak after it against the peak after the
    // whole corpus shows whether memory follows the corpus size.
    std::vector<fs::path> head;
    int64_t headBytes = 0;
    for (const auto& f : files) {
        if (!head.empty() && headBytes * 16 >= corpusBytes)
            break;
        std::error_code ec;
        headBytes += static_cast<int64_t>(fs::file_size(f, ec));
        head.push_back(f);
    }
    const Run warm = ingestAll(head);
    const int64_t rssAfterWarm = peakRssKB();
    fmt::print(
        out,
        "warm-up   {} files, {:.1f} MB, {:.3f} s, {:.0f} MB/s, {} events; peak RSS {:.1f} MB\n",
        head.size(), static_cast<double>(warm.bytes) / 1e6, warm.seconds, warm.mbPerSecond(),
        warm.totals.events, static_cast<double>(rssAfterWarm) / 1024);

    std::vector<Run> runs;
    for (int i = 0; i < repeat; ++i) {
        runs.push_back(ingestAll(files));
        const Run& r = runs.back();
        fmt::print(out,
                   "run {:<5} {} bytes  {:.3f} s  {:7.1f} MB/s  (cpu {:.3f} s, {:.1f} MB/s)  "
                   "{} events  {} lines  {} malformed{}\n",
                   i + 1, r.bytes, r.seconds, r.mbPerSecond(), r.cpuSeconds, r.mbPerCpuSecond(),
                   r.totals.events, r.lines, r.malformed,
                   r.failedFiles > 0 ? fmt::format("  {} files failed", r.failedFiles) : "");
    }
    auto medianOf = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v.size() % 2 == 1 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
    };
    std::vector<double> rates;
    std::vector<double> cpuRates;
    for (const auto& r : runs) {
        rates.push_back(r.mbPerSecond());
        cpuRates.push_back(r.mbPerCpuSecond());
    }
    const double median = medianOf(rates);
    const double cpuMedian = medianOf(cpuRates);
    const int64_t rssPeak = peakRssKB();
    const int64_t rssNow = currentRssKB();

    fmt::print(out,
               "median    {:.1f} MB/s (min {:.1f}, max {:.1f}) over {} runs, {:.1f} MB per CPU "
               "second; MB = 10^6 bytes\n",
               median, *std::min_element(rates.begin(), rates.end()),
               *std::max_element(rates.begin(), rates.end()), runs.size(), cpuMedian);
    fmt::print(out,
               "peak RSS  {:.1f} MB before reading, {:.1f} MB after {:.1f} MB, {:.1f} MB after "
               "{} x {:.1f} MB (now {:.1f} MB)\n",
               static_cast<double>(rssBefore) / 1024, static_cast<double>(rssAfterWarm) / 1024,
               static_cast<double>(warm.bytes) / 1e6, static_cast<double>(rssPeak) / 1024,
               runs.size(), static_cast<double>(runs.front().bytes) / 1e6,
               static_cast<double>(rssNow) / 1024);
    if (generated) {
        // The reader emits one event per usage line; API error lines carry no usage.
        const int64_t expected = generated->assistantLines - generated->apiErrorLines;
        fmt::print(out, "check     {} events, {} assistant lines with usage: {}\n",
                   runs.front().totals.events, expected,
                   runs.front().totals.events == expected ? "match" : "MISMATCH");
        doc["expectedEvents"] = expected;
    }

    doc["discover"] = {
        {"files", files.size()}, {"bytes", corpusBytes}, {"seconds", discoverSeconds}};
    doc["warmup"] = runJson(warm);
    nlohmann::ordered_json runList = nlohmann::ordered_json::array();
    for (const auto& r : runs)
        runList.push_back(runJson(r));
    doc["runs"] = runList;
    doc["medianMBPerSecond"] = median;
    doc["medianMBPerCpuSecond"] = cpuMedian;
    doc["peakRssKB"] = {{"beforeReading", rssBefore},
                        {"afterWarmup", rssAfterWarm},
                        {"afterRuns", rssPeak},
                        {"currentAtEnd", rssNow}};

    if (!tempDir.empty()) {
        if (keep) {
            fmt::print(out, "kept      {}\n", tempDir.string());
        } else {
            std::error_code ec;
            fs::remove_all(tempDir, ec);
        }
    }
    if (json)
        fmt::print("{}\n", doc.dump(2));
    return 0;
}
