// The ledger's views on a large ledger: 1,000,000 events over 400 days (a heavy user's year and
// more), committed through the real ingest path. Times the summary of today, the summary of
// everything, daily totals for 365 days and a page of 100 events, as medians of repeated runs,
// and the plain one-pass aggregations they replace, for comparison.

#include <fmt/format.h>
#include <sqlite3.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <stdexcept>

#include "bench/ledger_fill.hpp"
#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"

namespace {

using namespace kestrel;
using Clock = std::chrono::steady_clock;

// A read connection of the benchmark's own, with the page cache of the store's connection, so
// that the plain aggregations run on equal terms with the store's views.
class ReadConnection {
  public:
    explicit ReadConnection(const std::filesystem::path& file) {
        if (sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
            const std::string why = db_ ? sqlite3_errmsg(db_) : "out of memory";
            sqlite3_close_v2(db_);
            throw std::runtime_error("cannot open " + file.string() + ": " + why);
        }
        sqlite::exec(db_, "PRAGMA cache_size=-65536;");
    }
    ~ReadConnection() { sqlite3_close_v2(db_); }
    ReadConnection(const ReadConnection&) = delete;
    ReadConnection& operator=(const ReadConnection&) = delete;
    sqlite3* get() const { return db_; }

  private:
    sqlite3* db_ = nullptr;
};

double medianMillis(int repeat, const std::function<void()>& work) {
    std::vector<double> times;
    for (int i = 0; i < repeat; ++i) {
        const auto a = Clock::now();
        work();
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - a).count());
    }
    std::ranges::sort(times);
    return times[times.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Ledger query times on a ledger of a million events over 400 days"};
    int64_t events = 1'000'000;
    int days = 400;
    int repeat = 15;
    std::string dir = (std::filesystem::temp_directory_path() / "kestrel-bench-queries").string();
    bool rebuild = false;
    app.add_option("--events", events, "Events in the ledger")->capture_default_str();
    app.add_option("--days", days, "Days they spread over, ending now")->capture_default_str();
    app.add_option("--repeat", repeat, "Timed runs per query (the median is printed)")
        ->capture_default_str();
    app.add_option("--dir", dir, "Where the ledger is kept between runs")->capture_default_str();
    app.add_flag("--rebuild", rebuild, "Write the ledger again even when one is there");
    CLI11_PARSE(app, argc, argv);

    const std::filesystem::path folder =
        std::filesystem::path(dir) / fmt::format("{}-over-{}-days", events, days);
    const double now = epochNow();
    if (rebuild) {
        std::filesystem::remove_all(folder);
    }
    const bool existing = std::filesystem::exists(folder / UsageStore::kFileName);
    UsageStore store(folder);
    if (!existing || store.ledgerEventCount() != events) {
        fmt::print("writing {} events over {} days into {} ...\n", events, days, folder.string());
        const auto a = Clock::now();
        bench::fill(store, events, days, now);
        fmt::print("written in {:.1f} s\n",
                   std::chrono::duration<double>(Clock::now() - a).count());
    }
    {
        const auto a = Clock::now();
        store.refreshRollups();
        fmt::print("rollups brought up to date in {:.0f} ms\n",
                   std::chrono::duration<double, std::milli>(Clock::now() - a).count());
    }

    const auto calendar = Calendar::current();
    const double today = calendar.startOfDay(now);
    LedgerQuery todayQuery;
    todayQuery.from = today;
    const double yearAgo = calendar.addingDays(today, -364);

    fmt::print("{} events, median of {} runs:\n", store.ledgerEventCount(), repeat);
    const auto row = [&](const char* what, double ms, const char* target) {
        fmt::print("  {:<34} {:>9.2f} ms   (target {})\n", what, ms, target);
    };
    row("summary of today", medianMillis(repeat, [&] { (void)store.ledgerSummary(todayQuery); }),
        "5 ms");
    row("summary of everything", medianMillis(repeat, [&] { (void)store.ledgerSummary({}); }),
        "150 ms");
    row("daily totals, 365 days",
        medianMillis(repeat, [&] { (void)store.ledgerDailyTotals(yearAgo, now + 1); }), "150 ms");
    row("page of 100 events (newest first)",
        medianMillis(
            repeat,
            [&] { (void)store.ledgerEvents({}, LedgerSortOrder::descending, std::nullopt, 100); }),
        "5 ms");
    row("summary by model, everything",
        medianMillis(repeat, [&] { (void)store.ledgerSummariesByModel({}); }), "-");
    LedgerQuery project;
    project.projectDisplayName = "project-3";
    row("summary of one project (no rollups)",
        medianMillis(3, [&] { (void)store.ledgerSummary(project); }), "-");

    // The one-pass aggregations the rollups stand in for.
    const ReadConnection reader(store.databasePath());
    const auto plain = [&](const std::string& sql, std::vector<double> args) {
        return medianMillis(3, [&] {
            sqlite::Statement s(reader.get(), sql);
            for (std::size_t i = 0; i < args.size(); ++i) {
                s.bind(static_cast<int>(i) + 1, args[i]);
            }
            while (s.step()) {
            }
        });
    };
    fmt::print("for comparison, one pass over the events:\n");
    row("summary of everything",
        plain("SELECT COUNT(*), SUM(e.input_uncached), SUM(c.amount_usd_micros) FROM "
              "ledger_events e LEFT JOIN ledger_costs c ON c.ledger_event_id=e.id;",
              {}),
        "-");
    row("daily totals by strftime, 365 days",
        plain("SELECT strftime('%Y-%m-%d', e.occurred_at, 'unixepoch', 'localtime'), "
              "SUM(e.provider_total), SUM(c.amount_usd_micros) FROM ledger_events e LEFT JOIN "
              "ledger_costs c ON c.ledger_event_id=e.id WHERE e.occurred_at>=? AND "
              "e.occurred_at<? GROUP BY 1;",
              {yearAgo, now + 1}),
        "-");
    return 0;
}
