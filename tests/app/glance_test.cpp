// The glance behind the status line and the panel: which quota window counts as the tightest,
// the warning levels, and the totals read from a ledger that is missing, old, behind on its
// rollups or held by a writer.

#include "core/app/glance.hpp"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <cmath>

#include "core/ledger/sqlite_statement.hpp"
#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"
#include "tests/support/ledger_connection.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;

TEST(GlanceLevel, TurnsWarningAtHalfAndCriticalAtFourFifthsOfTheShownPercent) {
    struct Case {
        std::optional<double> percent;
        GlanceLevel level;
        int shown;
    };
    const Case cases[] = {
        {std::nullopt, GlanceLevel::normal, 0}, {0, GlanceLevel::normal, 0},
        {-3, GlanceLevel::normal, 0},           {49.49, GlanceLevel::normal, 49},
        {49.5, GlanceLevel::warning, 50},       {49.99, GlanceLevel::warning, 50},
        {50, GlanceLevel::warning, 50},         {79.49, GlanceLevel::warning, 79},
        {79.5, GlanceLevel::critical, 80},      {80, GlanceLevel::critical, 80},
        {100, GlanceLevel::critical, 100},      {140, GlanceLevel::critical, 100},
        {std::nan(""), GlanceLevel::normal, 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(glanceLevel(c.percent), c.level) << c.percent.value_or(-1);
        if (c.percent) {
            EXPECT_EQ(glancePercent(*c.percent), c.shown) << *c.percent;
        }
    }
}

constexpr double kNow = 1'790'000'000.0;

QuotaWindow window(QuotaWindowKind kind, std::optional<double> used,
                   std::optional<double> resetsAt) {
    QuotaWindow w;
    w.kind = kind;
    w.usedPercent = used;
    w.resetsAt = resetsAt;
    return w;
}

StoredQuota stored(std::string id, AgentSource source, std::vector<QuotaWindow> windows,
                   bool stale = false) {
    AccountSnapshot s;
    s.identity.source = source;
    s.identity.planLabel = "Max";
    s.windows = std::move(windows);
    s.fetchedAt = kNow - 120;
    s.stale = stale;
    return {std::move(id), std::move(s)};
}

TEST(TightestWindow, TakesTheFullestWindowThatHasNotReset) {
    const auto claude = stored("source:claude", AgentSource::claude,
                               {window(QuotaWindowKind::session5h, 97, kNow - 1),  // reset already
                                window(QuotaWindowKind::weekly, 40, kNow + 86'400),
                                window(QuotaWindowKind::monthly, std::nullopt, kNow + 10)});
    const auto codex = stored("source:codex", AgentSource::codex,
                              {window(QuotaWindowKind::session5h, 65, kNow + 600)}, true);
    const auto plan = stored("plan:glm-1", AgentSource::claude,
                             {window(QuotaWindowKind::weekly, 55, std::nullopt)});

    const auto best = tightestWindow({claude, codex, plan}, kNow);
    ASSERT_TRUE(best);
    EXPECT_EQ(best->accountID, "source:codex");
    EXPECT_EQ(best->window.usedPercent, 65);
    EXPECT_TRUE(best->stale);
    EXPECT_EQ(best->fetchedAt, kNow - 120);

    // The agent's own windows first, even when another account is fuller.
    const auto own = tightestWindow({claude, codex, plan}, kNow, AgentSource::codex);
    ASSERT_TRUE(own);
    EXPECT_EQ(own->accountID, "source:codex");
    const auto claudeFirst = tightestWindow({codex, claude}, kNow, AgentSource::claude);
    ASSERT_TRUE(claudeFirst);
    EXPECT_EQ(claudeFirst->window.kind, QuotaWindowKind::weekly);
    EXPECT_EQ(claudeFirst->window.usedPercent, 40);
    // An agent with only spent windows falls back to every account.
    const auto spent = stored("source:kimi", AgentSource::kimi,
                              {window(QuotaWindowKind::session5h, 10, kNow)});
    const auto fallback = tightestWindow({spent, codex}, kNow, AgentSource::kimi);
    ASSERT_TRUE(fallback);
    EXPECT_EQ(fallback->accountID, "source:codex");

    EXPECT_FALSE(tightestWindow({spent}, kNow));
    EXPECT_FALSE(tightestWindow({}, kNow));
}

TEST(TightestWindow, OfTwoEquallyFullWindowsTakesTheOneThatResetsLater) {
    const auto a = stored("source:claude", AgentSource::claude,
                          {window(QuotaWindowKind::session5h, 70, kNow + 600),
                           window(QuotaWindowKind::weekly, 70, kNow + 400'000)});
    EXPECT_EQ(tightestWindow({a}, kNow)->window.kind, QuotaWindowKind::weekly);
    const auto b = stored("plan:x", AgentSource::claude,
                          {window(QuotaWindowKind::monthly, 70, std::nullopt)});
    EXPECT_EQ(tightestWindow({a, b}, kNow)->accountID, "plan:x");
}

// A ledger with events of two sessions at chosen times.
class GlanceLedgerTest : public ::testing::Test {
  protected:
    struct Event {
        double at;
        std::string session;
        int64_t tokens;
        std::optional<int64_t> costMicros;
    };

    void commit(const std::vector<Event>& events) {
        UsageBatch b;
        b.id = "run-" + std::to_string(runs++);
        b.adapterID = "test";
        b.startedAt = now;
        b.completedAt = now;
        for (const auto& e : events) {
            UsageObservation o;
            o.id = "obs-" + std::to_string(next++);
            o.source = AgentSource::claude;
            o.provider = "anthropic";
            o.model = "claude-sonnet-4-5";
            o.occurredAt = e.at;
            o.observedAt = now;
            o.timeQuality = ObservationTimeQuality::trusted;
            o.precision = UsagePrecision::nativeExact;
            o.granularity = UsageGranularity::request;
            o.sessionKey = e.session;
            o.tokens.providerTotal = e.tokens;
            o.cost.amountUSDMicros = e.costMicros;
            o.cost.completeness =
                e.costMicros ? CostCompleteness::complete : CostCompleteness::none;
            o.cost.source = e.costMicros ? CostSource::priceTable : CostSource::unknown;
            b.observations.push_back(o);
        }
        store().ingest({}, {}, std::nullopt, b);
    }

    UsageStore& store() {
        if (!writer) {
            writer = std::make_unique<UsageStore>(dir.path());
        }
        return *writer;
    }

    // The sums the glance must report, worked out from the events themselves.
    struct Expected {
        int64_t events = 0;
        int64_t tokens = 0;
        int64_t cost = 0;
    };
    Expected expected(const std::vector<Event>& events, auto&& keep) {
        Expected e;
        for (const auto& ev : events) {
            if (keep(ev)) {
                ++e.events;
                e.tokens += ev.tokens;
                e.cost += ev.costMicros.value_or(0);
            }
        }
        return e;
    }
    static void expectTotals(const LedgerSummary& s, const Expected& e, const char* what) {
        EXPECT_EQ(s.eventCount, e.events) << what;
        EXPECT_EQ(s.knownProviderTokenTotal.value_or(0), e.tokens) << what;
        EXPECT_EQ(s.knownCostUSDMicros.value_or(0), e.cost) << what;
    }

    std::vector<Event> sample() const {
        return {
            {now - 5, "s-live", 1000, 2500},
            {now - 40 * 60, "s-live", 3000, 9000},
            {now - 3 * 3600, "s-live", 7000, std::nullopt},  // unpriced
            {now - 2 * 86'400, "s-live", 11'000, 40'000},
            {now - 20 * 60, "s-other", 500, 700},
            {now - 70 * 60, "s-other", 900, 1100},
        };
    }

    void checkSample(const Glance& g, const std::vector<Event>& events) {
        const double midnight = Calendar::current().startOfDay(now);
        ASSERT_TRUE(g.ledgerRead) << g.ledgerProblem;
        expectTotals(g.today, expected(events, [&](const Event& e) { return e.at >= midnight; }),
                     "today");
        expectTotals(g.lastHour,
                     expected(events, [&](const Event& e) { return e.at >= now - 3600; }),
                     "last hour");
        ASSERT_TRUE(g.session);
        expectTotals(*g.session,
                     expected(events, [](const Event& e) { return e.session == "s-live"; }),
                     "session");
    }

    TempDir dir;
    std::unique_ptr<UsageStore> writer;
    double now = epochNow();
    int runs = 0, next = 0;
};

TEST_F(GlanceLedgerTest, SessionTodayAndLastHourFromTheLedger) {
    const auto events = sample();
    commit(events);
    store().saveQuota(stored("source:claude", AgentSource::claude,
                             {window(QuotaWindowKind::session5h, 42, now + 3600)})
                          .snapshot);
    writer.reset();

    const auto g = readGlance(dir.path(), {now, "s-live", AgentSource::claude});
    checkSample(g, events);
    ASSERT_TRUE(g.tightest);
    EXPECT_EQ(g.tightest->window.usedPercent, 42);

    // A session the ledger does not know, and none asked.
    EXPECT_FALSE(readGlance(dir.path(), {now, "s-unknown", std::nullopt}).session);
    EXPECT_FALSE(readGlance(dir.path(), {now, std::nullopt, std::nullopt}).session);
}

TEST_F(GlanceLedgerTest, ReadsCommittedEventsWhileTheRollupsAreBehind) {
    const auto events = sample();
    commit(events);
    // The writer has not queried since, so the rollups still miss these events: a reader that
    // trusted them would see an empty day.
    {
        test_support::LedgerConnection raw(store().databasePath());
        sqlite::Statement dirty(raw.get(), "SELECT COUNT(*) FROM ledger_rollup_dirty;");
        dirty.step();
        ASSERT_GT(dirty.int64(0), 0);
    }
    const auto g = readGlance(dir.path(), {now, "s-live", std::nullopt});
    checkSample(g, events);
}

TEST_F(GlanceLedgerTest, DoesNotWaitForAWriterAndSeesOnlyWhatIsCommitted) {
    const auto events = sample();
    commit(events);
    (void)store().ledgerSummary({});  // rollups current
    test_support::LedgerConnection other(store().databasePath());
    sqlite::exec(other.get(), "BEGIN IMMEDIATE;");
    sqlite::exec(other.get(),
                 "UPDATE ledger_costs SET amount_usd_micros = amount_usd_micros * 1000;");

    const auto started = std::chrono::steady_clock::now();
    const auto g = readGlance(dir.path(), {now, "s-live", std::nullopt});
    const auto took = std::chrono::steady_clock::now() - started;
    sqlite::exec(other.get(), "ROLLBACK;");

    EXPECT_LT(took, std::chrono::seconds(1));
    checkSample(g, events);
}

TEST_F(GlanceLedgerTest, AMissingOrOldLedgerIsReportedNotCreated) {
    const auto missing = readGlance(dir / "nowhere", {now, "s-live", std::nullopt});
    EXPECT_FALSE(missing.ledgerRead);
    EXPECT_FALSE(missing.ledgerProblem.empty());
    EXPECT_FALSE(std::filesystem::exists(dir / "nowhere"));

    commit(sample());
    writer.reset();
    {
        test_support::LedgerConnection raw(dir / UsageStore::kFileName);
        sqlite::exec(raw.get(), "PRAGMA user_version = 4;");
    }
    const auto old = readGlance(dir.path(), {now, "s-live", std::nullopt});
    EXPECT_FALSE(old.ledgerRead);
    EXPECT_EQ(old.today.eventCount, 0);
    EXPECT_FALSE(old.session);
}

TEST_F(GlanceLedgerTest, OneSessionsTotalsUseTheSessionIndex) {
    commit(sample());
    test_support::LedgerConnection raw(store().databasePath());
    LedgerQuery one;
    one.sessionKey = "s";
    sqlite::Statement plan(raw.get(), "EXPLAIN QUERY PLAN SELECT COUNT(*) FROM ledger_events e "
                                      "WHERE 1=1" + ledgerFilter(one).sql);
    plan.bind(1, std::string("s"));
    std::string details;
    while (plan.step()) {
        details += plan.text(3) + "\n";
    }
    EXPECT_NE(details.find("idx_ledger_events_session"), std::string::npos) << details;
}

}  // namespace
}  // namespace kestrel
