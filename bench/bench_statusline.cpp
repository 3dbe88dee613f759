// `kestrel statusline` as Claude Code runs it: a new process per refresh, the session's JSON on
// stdin, on a ledger of 1,000,000 events over 400 days with a stored quota reading. Times the
// whole process (start to exit), as the median of repeated runs, twice: with the rollups
// current (after a scan or a view brought them up to date) and right after a scan's commit (the
// read-only command cannot rebuild them: it takes the quarter hours the commit marked from the
// events and the rest from the rollups). Also the glance read in-process, for what the process
// start costs.

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>

#include "bench/ledger_fill.hpp"
#include "core/app/glance.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/model/timestamp.hpp"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using namespace kestrel;
using Clock = std::chrono::steady_clock;

struct Times {
    double median = 0, min = 0, max = 0;
};

Times measure(int repeat, const std::function<void()>& work) {
    std::vector<double> times;
    for (int i = 0; i < repeat; ++i) {
        const auto a = Clock::now();
        work();
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - a).count());
    }
    std::ranges::sort(times);
    return {times[times.size() / 2], times.front(), times.back()};
}

// Runs `argv` with stdin from `input` and stdout into `output`; throws unless it exits 0.
void runProcess(const std::vector<std::string>& argv, const fs::path& input,
                const fs::path& output) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char*> args;
    for (const auto& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    pid_t pid = 0;
    const int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        throw std::runtime_error("cannot run " + argv[0] + ": " + std::strerror(rc));
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error(argv[0] + " failed");
    }
}

std::string firstLine(const fs::path& file) {
    std::ifstream in(file);
    std::string line;
    std::getline(in, line);
    return line;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"kestrel statusline on a ledger of a million events"};
    int64_t events = 1'000'000;
    int days = 400;
    int repeat = 31;
    std::string dir = (fs::temp_directory_path() / "kestrel-bench-statusline").string();
    std::string kestrelPath =
        (fs::canonical("/proc/self/exe").parent_path().parent_path() / "cli" / "kestrel").string();
    bool rebuild = false;
    app.add_option("--events", events, "Events in the ledger")->capture_default_str();
    app.add_option("--days", days, "Days they spread over, ending now")->capture_default_str();
    app.add_option("--repeat", repeat, "Timed runs (the median is printed)")->capture_default_str();
    app.add_option("--dir", dir, "Where the ledger is kept between runs")->capture_default_str();
    app.add_option("--kestrel", kestrelPath, "The kestrel binary to time")->capture_default_str();
    app.add_flag("--rebuild", rebuild, "Write the ledger again even when one is there");
    CLI11_PARSE(app, argc, argv);

    const fs::path folder = fs::path(dir) / fmt::format("{}-over-{}-days", events, days);
    const double now = epochNow();
    if (rebuild) {
        fs::remove_all(folder);
    }
    const bool existing = fs::exists(folder / UsageStore::kFileName);
    UsageStore store(folder);
    if (!existing || store.ledgerEventCount() < events) {
        fmt::print("writing {} events over {} days into {} ...\n", events, days, folder.string());
        const auto a = Clock::now();
        bench::fill(store, events, days, now);
        fmt::print("written in {:.1f} s\n",
                   std::chrono::duration<double>(Clock::now() - a).count());
    }
    AccountSnapshot quota;
    quota.identity.source = AgentSource::claude;
    quota.identity.planLabel = "Max";
    QuotaWindow fiveHours;
    fiveHours.kind = QuotaWindowKind::session5h;
    fiveHours.usedPercent = 42;
    fiveHours.resetsAt = now + 7500;
    quota.windows = {fiveHours};
    quota.fetchedAt = now;
    quota.provenance = QuotaProvenance::liveOAuth;
    store.saveQuota(quota);
    store.refreshRollups();

    // A session of the middle of the ledger (fill() keeps 40 events per session).
    const std::string session = fmt::format("s{}", events / 80);
    const fs::path work = fs::temp_directory_path() / fmt::format("kestrel-statusline-run-{}", ::getpid());
    fs::create_directories(work / "home");
    const fs::path input = work / "input.json", output = work / "output.txt";
    std::ofstream(input) << R"({"session_id":")" << session
                         << R"(","transcript_path":"/nonexistent.jsonl","model":{"id":)"
                         << R"("claude-opus-4-1","display_name":"Opus"},)"
                         << R"("workspace":{"current_dir":"/w"},"cost":{"total_cost_usd":1.5}})";
    const std::vector<std::string> command = {kestrelPath,     "statusline",
                                              "--support-dir", folder.string(),
                                              "--home",        (work / "home").string()};

    fmt::print("{} events, session {}, median of {} runs (min .. max):\n",
               store.ledgerEventCount(), session, repeat);
    const auto row = [](const char* what, const Times& t, const char* target) {
        fmt::print("  {:<44} {:>7.2f} ms  ({:.2f} .. {:.2f})   target {}\n", what, t.median, t.min,
                   t.max, target);
    };
    runProcess(command, input, output);  // warm the page cache and the binary
    row("kestrel statusline, rollups current",
        measure(repeat, [&] { runProcess(command, input, output); }), "30 ms");
    const std::string sample = firstLine(output);

    GlanceRequest request{now, session, AgentSource::claude};
    row("glance read in-process", measure(repeat, [&] { (void)readGlance(folder, request); }),
        "-");

    // A scan's commit: the session's latest 240 requests over the last three hours (twelve
    // quarter hours marked); the rollups stay behind until a writer's next query.
    UsageBatch b;
    b.id = fmt::format("bench-statusline-{}", now);
    b.adapterID = "bench";
    b.startedAt = now;
    b.completedAt = now;
    for (int i = 0; i < 240; ++i) {
        UsageObservation o;
        o.id = fmt::format("bench-statusline:{}:{}", now, i);
        o.model = "claude-opus-4-1";
        o.provider = "anthropic";
        o.occurredAt = now - 3 * 3600.0 + i * 45.0;
        o.observedAt = now;
        o.timeQuality = ObservationTimeQuality::trusted;
        o.precision = UsagePrecision::nativeExact;
        o.sessionKey = session;
        o.tokens.providerTotal = 1000;
        b.observations.push_back(std::move(o));
    }
    store.ingest({}, {}, std::nullopt, b);
    row("kestrel statusline, right after a commit",
        measure(repeat, [&] { runProcess(command, input, output); }), "30 ms");
    row("glance read in-process, after a commit",
        measure(repeat, [&] { (void)readGlance(folder, request); }), "-");
    store.refreshRollups();

    fmt::print("its line: {}\n", sample);
    fs::remove_all(work);
    return 0;
}
