// Ledger commit and repricing throughput: one batch of N observations into a fresh ledger, the
// same observations again under a new run into the ledger that already holds them, and a
// repricing of everything stored. Single thread; medians over --repeat fresh ledgers.

#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <random>
#include <vector>

#include "core/ledger/usage_batch_builder.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/model/event_id.hpp"
#include "core/model/token_semantics.hpp"
#include "core/pricing/price_table.hpp"

namespace {

using namespace kestrel;
using Clock = std::chrono::steady_clock;

double seconds(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

// Events shaped like a heavy Claude Code user's: a few models, cache-heavy prompts, a month of
// timestamps, priced with the built-in table.
std::vector<UsageEvent> syntheticEvents(std::size_t n, const PriceTable& prices) {
    static const char* kModels[] = {"claude-sonnet-4-5-20250929", "claude-opus-4-1-20250805",
                                    "claude-haiku-4-5-20251001", "claude-opus-4-5-20251101"};
    std::mt19937_64 rng(42);
    std::vector<UsageEvent> events;
    events.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
        UsageEvent e;
        e.id = EventID::claude(fmt::format("msg_{:016x}", rng()));
        e.occurredAt = 1'790'000'000.0 + static_cast<double>(i) * 13.0;
        e.timeQuality = ObservationTimeQuality::trusted;
        e.usagePrecision = UsagePrecision::nativeExact;
        e.granularity = UsageGranularity::request;
        e.source = AgentSource::claude;
        e.provider = "anthropic";
        e.model = kModels[rng() % 4];
        e.projectDisplayName = fmt::format("project-{}", rng() % 12);
        e.sessionID = fmt::format("session-{}", i / 200);
        e.raw = {static_cast<int64_t>(rng() % 50),
                 static_cast<int64_t>(rng() % 150'000),
                 static_cast<int64_t>(rng() % 5'000),
                 static_cast<int64_t>(rng() % 4'000),
                 0,
                 0};
        const auto m = TokenSemantics::map(AgentSource::claude, e.raw, false);
        e.exclusive = m.exclusive;
        e.providerInputTotal = m.providerIn;
        e.providerOutputTotal = m.providerOut;
        e.providerTotal = m.providerTotal;
        events.push_back(prices.applied(e, BillingMode::apiEquivalent));
    }
    return events;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Ledger commit and repricing throughput"};
    std::size_t count = 200'000;
    int repeat = 3;
    app.add_option("--observations", count, "Observations per batch")->capture_default_str();
    app.add_option("--repeat", repeat, "Fresh ledgers to measure")->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    const auto& prices = PriceTable::bundled();
    const auto events = syntheticEvents(count, prices);
    // Repricing must do real work: a table whose rows all cost a little more.
    auto dearer = prices;
    dearer.version += 1;
    for (auto& row : dearer.rows) {
        row.outputVisiblePerMTokUSD = "99";
    }

    fmt::print("command   {}\n", fmt::join(std::vector<std::string>(argv, argv + argc), " "));
    fmt::print("machine   {} cores; one thread\n", ::sysconf(_SC_NPROCESSORS_ONLN));
    std::vector<double> fresh, again, reprice;
    for (int r = 0; r < repeat; ++r) {
        const auto dir = std::filesystem::temp_directory_path() /
                         fmt::format("kestrel-bench-ledger-{}-{}", ::getpid(), r);
        std::filesystem::remove_all(dir);
        {
            UsageStore store(dir);
            const auto b1 = UsageBatchBuilder::batch("run-1", "claude", AgentSource::claude, events,
                                                     0, 1, true);
            auto t0 = Clock::now();
            // The commit a scan makes: upserts on the observation id, no replacement.
            const auto o1 = *store.ingest({}, {}, std::nullopt, b1);
            auto t1 = Clock::now();
            const auto b2 = UsageBatchBuilder::batch("run-2", "claude", AgentSource::claude, events,
                                                     2, 3, true);
            const auto o2 = *store.ingest({}, {}, std::nullopt, b2);
            auto t2 = Clock::now();
            const auto repriced = store.repriceLedger(dearer, BillingMode::apiEquivalent);
            auto t3 = Clock::now();
            fresh.push_back(static_cast<double>(count) / seconds(t0, t1));
            again.push_back(static_cast<double>(count) / seconds(t1, t2));
            reprice.push_back(static_cast<double>(count) / seconds(t2, t3));
            fmt::print(
                "run {}     fresh {:.2f} s ({} events), again {:.2f} s ({} events), reprice "
                "{:.2f} s ({} repriced)\n",
                r + 1, seconds(t0, t1), o1.ledgerEventCount, seconds(t1, t2), o2.ledgerEventCount,
                seconds(t2, t3), repriced);
        }
        std::filesystem::remove_all(dir);
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    fmt::print(
        "median    fresh ledger {:.0f} obs/s, ledger already holding them {:.0f} obs/s, "
        "repricing {:.0f} obs/s over {} runs of {} observations\n",
        median(fresh), median(again), median(reprice), repeat, count);
    fmt::print("peak RSS  {:.1f} MB\n", static_cast<double>(usage.ru_maxrss) / 1024.0);
    return 0;
}
