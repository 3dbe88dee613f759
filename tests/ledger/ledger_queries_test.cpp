// The ledger's views against plain aggregations of the same events: totals from the quarter-hour
// rollups (and the partial quarter hours around them) must equal a full pass over the events,
// whatever the filter, the time zone and the writes in between.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <random>
#include <set>

#include "core/ledger/ledger_query.hpp"
#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/pricing/price_table.hpp"
#include "tests/support/ledger_connection.hpp"
#include "tests/support/temp_dir.hpp"
#include "tests/support/time_zone.hpp"

namespace kestrel {
namespace {

using test_support::TempDir;

constexpr double kStart = 1'780'000'000.0;  // 2026-05-28, a Thursday
constexpr double kDay = 86'400.0;

using TimeZone = test_support::ScopedTimeZone;

// Random but valid ledger events: every field the filters and totals look at varies, including
// absent buckets, absent provider totals and events without a price.
class LedgerQueriesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sqlite::exec(ledger.get(),
                     "INSERT INTO subscription_accounts(id, provider, state, created_at, "
                     "last_seen_at) VALUES('acct-1', 'anthropic', 'confirmed', 1, 1);"
                     "INSERT INTO integration_instances(id, plugin_id, enabled_capabilities, "
                     "granted_permissions, health_state, created_at, updated_at) "
                     "VALUES('inst-1', 'p', '[]', '[]', 'healthy', 1, 1);");
    }

    UsageObservation randomObservation(int n, std::mt19937& rng, double from, double span) {
        static const char* models[] = {"claude-sonnet-4-5", "claude-opus-4-1", "gpt-5-codex",
                                       "gpt_5%mini"};
        static const char* projects[] = {"alpha", "Beta_2", "100%"};
        std::uniform_real_distribution<double> at(from, from + span);
        std::uniform_int_distribution<int> pick(0, 99);
        UsageObservation o;
        o.id = "obs-" + std::to_string(n);
        const int m = pick(rng) % 4;
        o.model = models[m];
        o.source = m < 2 ? AgentSource::claude : AgentSource::codex;
        o.provider = m < 2 ? "anthropic" : "openai";
        o.occurredAt = at(rng);
        // Some events sit exactly on quarter-hour and day boundaries.
        if (pick(rng) < 10) {
            o.occurredAt = std::floor(*o.occurredAt / 900.0) * 900.0;
        }
        o.observedAt = *o.occurredAt + 1;
        o.timeQuality = ObservationTimeQuality::trusted;
        o.precision = UsagePrecision::nativeExact;
        o.granularity = UsageGranularity::request;
        o.sessionKey = "s" + std::to_string(pick(rng) % 7);
        if (pick(rng) < 80) {
            o.projectDisplayName = projects[pick(rng) % 3];
        }
        if (pick(rng) < 30) {
            o.accountID = SubscriptionAccountID("acct-1");
        }
        if (pick(rng) < 40) {
            o.integrationInstanceID = IntegrationInstanceID("inst-1");
        }
        const auto maybe = [&](int64_t v) {
            return pick(rng) < 90 ? std::optional<int64_t>(v) : std::nullopt;
        };
        o.tokens.inputUncached = maybe(pick(rng) * 10);
        o.tokens.cacheRead = maybe(pick(rng) * 100);
        o.tokens.cacheWrite = maybe(pick(rng));
        o.tokens.outputVisible = maybe(pick(rng) * 3 + 1);
        o.tokens.reasoning = maybe(pick(rng));
        if (pick(rng) < 30) {
            o.tokens.providerTotal = 5000 + pick(rng);
        }
        o.cost.billingMode = BillingMode::apiEquivalent;
        if (pick(rng) < 85) {
            o.cost.amountUSDMicros = pick(rng) * 1000 + 1;
            o.cost.completeness = CostCompleteness::complete;
            o.cost.source = CostSource::priceTable;
        }
        return o;
    }

    void commit(const std::vector<UsageObservation>& observations, const std::string& run,
                std::optional<AgentSource> replacing = std::nullopt) {
        UsageBatch b;
        b.id = run;
        b.adapterID = "test";
        b.source = replacing.value_or(AgentSource::claude);
        b.startedAt = kStart;
        b.completedAt = kStart + 1;
        b.observations = observations;
        if (replacing) {
            b.observations.clear();
            for (const auto& o : observations) {
                if (o.source == *replacing) {
                    b.observations.push_back(o);
                }
            }
        }
        store.ingest({}, {}, replacing, b);
    }

    // The plain aggregation every view must agree with.
    LedgerSummary reference(const LedgerQuery& q) {
        const std::string known =
            "CASE WHEN e.input_uncached IS NOT NULL AND e.cache_read IS NOT NULL AND "
            "e.cache_write IS NOT NULL AND e.output_visible IS NOT NULL AND e.reasoning IS NOT "
            "NULL THEN e.input_uncached + e.cache_read + e.cache_write + e.output_visible + "
            "e.reasoning END";
        const std::string provider =
            "CASE WHEN e.provider_total IS NOT NULL THEN e.provider_total ELSE " + known + " END";
        const auto f = ledgerFilter(q);
        sqlite::Statement s(ledger.get(),
                            "SELECT COUNT(*), SUM(e.input_uncached), SUM(e.cache_read), "
                            "SUM(e.cache_write), SUM(e.output_visible), SUM(e.reasoning), SUM(" +
                                known + "), SUM(" + provider +
                                "), SUM(c.amount_usd_micros), COUNT(c.amount_usd_micros), "
                                "COUNT(" +
                                provider +
                                ") FROM ledger_events e LEFT JOIN ledger_costs c ON "
                                "c.ledger_event_id=e.id WHERE 1=1" +
                                f.sql + ";");
        int i = 1;
        for (const auto& p : f.parameters) {
            std::visit([&](const auto& v) { s.bind(i++, v); }, p);
        }
        s.step();
        LedgerSummary r;
        r.eventCount = s.int64(0);
        r.inputUncached = s.optionalInt64(1);
        r.cacheRead = s.optionalInt64(2);
        r.cacheWrite = s.optionalInt64(3);
        r.outputVisible = s.optionalInt64(4);
        r.reasoning = s.optionalInt64(5);
        r.fullyKnownTokenTotal = s.optionalInt64(6);
        r.knownProviderTokenTotal = s.optionalInt64(7);
        r.knownCostUSDMicros = s.optionalInt64(8);
        r.pricedEventCount = s.int64(9);
        r.unknownCostEventCount = r.eventCount - r.pricedEventCount;
        r.tokenKnownEventCount = s.int64(10);
        r.unknownTokenEventCount = r.eventCount - r.tokenKnownEventCount;
        return r;
    }

    // Local (year, month, day) of each event by SQLite's own calendar, summed.
    std::map<std::tuple<int, int, int>, int64_t> referenceDays(double from, double to) {
        sqlite::Statement s(
            ledger.get(),
            "SELECT CAST(strftime('%Y',e.occurred_at,'unixepoch','localtime') AS INTEGER), "
            "CAST(strftime('%m',e.occurred_at,'unixepoch','localtime') AS INTEGER), "
            "CAST(strftime('%d',e.occurred_at,'unixepoch','localtime') AS INTEGER), "
            "SUM(CASE WHEN e.provider_total IS NOT NULL THEN e.provider_total ELSE CASE WHEN "
            "e.input_uncached IS NOT NULL AND e.cache_read IS NOT NULL AND e.cache_write IS NOT "
            "NULL AND e.output_visible IS NOT NULL AND e.reasoning IS NOT NULL THEN "
            "e.input_uncached + e.cache_read + e.cache_write + e.output_visible + e.reasoning "
            "END END) FROM ledger_events e WHERE e.occurred_at>=? AND e.occurred_at<? GROUP BY "
            "1,2,3;");
        s.bind(1, from).bind(2, to);
        std::map<std::tuple<int, int, int>, int64_t> out;
        while (s.step()) {
            out[{static_cast<int>(s.int64(0)), static_cast<int>(s.int64(1)),
                 static_cast<int>(s.int64(2))}] = s.optionalInt64(3).value_or(0);
        }
        return out;
    }

    std::vector<LedgerQuery> queries(std::mt19937& rng) {
        std::vector<LedgerQuery> out;
        out.push_back({});
        std::uniform_real_distribution<double> at(kStart - kDay, kStart + 12 * kDay);
        for (int i = 0; i < 40; ++i) {
            LedgerQuery q;
            std::uniform_int_distribution<int> pick(0, 9);
            if (pick(rng) < 7) {
                q.from = at(rng);
                if (pick(rng) < 3) {
                    q.from = std::floor(*q.from / 900) * 900;  // on a boundary
                }
            }
            if (pick(rng) < 7) {
                q.to = at(rng);
            }
            if (pick(rng) < 3) {
                q.source = pick(rng) < 5 ? AgentSource::claude : AgentSource::codex;
            }
            if (pick(rng) < 2) {
                q.model = pick(rng) < 5 ? "claude-opus-4-1" : "gpt_5%mini";
            }
            if (pick(rng) < 2) {
                q.provider = "openai";
            }
            if (pick(rng) < 2) {
                q.accountScope = pick(rng) < 5 ? LedgerAccountScope::account("acct-1")
                                               : LedgerAccountScope::unassigned();
            }
            if (pick(rng) < 2) {
                q.integrationInstanceID = "inst-1";
            }
            if (pick(rng) < 1) {
                q.projectDisplayName = "alpha";
            }
            if (pick(rng) < 1) {
                q.search = pick(rng) < 5 ? " 100% " : "_5%";
            }
            if (pick(rng) < 1) {
                q.sessionKey = "s" + std::to_string(pick(rng) % 8);  // s7 holds no event
            }
            out.push_back(q);
        }
        return out;
    }

    void expectAgreement(std::mt19937& rng, const char* when) {
        // A reader that may not rebuild the rollups: the first query of a round finds them
        // behind the writes just made, the others current.
        UsageStore reader(dir.path(), ReadOnlyLedger{});
        for (const auto& q : queries(rng)) {
            const auto expected = reference(q);
            ASSERT_EQ(reader.ledgerSummaries({q, {}}).at(0), expected) << when;
            ASSERT_EQ(store.ledgerSummary(q), expected) << when;
            LedgerSummary bySource, byModel, byDay, byHour;
            for (const auto& [source, s] : store.ledgerSummariesBySource(q)) {
                bySource += s;
            }
            for (const auto& m : store.ledgerSummariesByModel(q)) {
                byModel += m.summary;
            }
            for (const auto& b : store.ledgerTimeBuckets(q, LedgerBucketUnit::day)) {
                byDay += b.summary;
            }
            for (const auto& b : store.ledgerModelTimeBuckets(q, LedgerBucketUnit::hour)) {
                byHour += b.summary;
            }
            EXPECT_EQ(bySource, expected) << when;
            EXPECT_EQ(byModel, expected) << when;
            EXPECT_EQ(byDay, expected) << when;
            EXPECT_EQ(byHour, expected) << when;
        }
    }

    TempDir dir;
    UsageStore store{dir.path()};
    test_support::LedgerConnection ledger{store.databasePath()};
};

TEST_F(LedgerQueriesTest, EveryViewAgreesWithAFullAggregationThroughWrites) {
    TimeZone zone("America/New_York");
    std::mt19937 rng(7);
    std::vector<UsageObservation> all;
    for (int i = 0; i < 1500; ++i) {
        all.push_back(randomObservation(i, rng, kStart, 10 * kDay));
    }
    commit(all, "run-1");
    expectAgreement(rng, "after the first commit");

    // The same identities with other counts and times, some moved across days.
    for (int i = 0; i < 300; ++i) {
        auto o = randomObservation(i * 5, rng, kStart, 10 * kDay);
        all[static_cast<std::size_t>(i * 5)] = o;
    }
    commit(all, "run-2");
    expectAgreement(rng, "after upserts");

    // A full rescan of one source that no longer proves a third of its events.
    std::vector<UsageObservation> kept;
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (i % 3 != 0) {
            kept.push_back(all[i]);
        }
    }
    commit(kept, "run-3", AgentSource::codex);
    expectAgreement(rng, "after a replacement");

    // Repricing rewrites every cost row, telling its progress from nothing to all of them.
    std::vector<std::pair<int64_t, int64_t>> steps;
    store.repriceLedger(PriceTable::bundled(), BillingMode::apiEquivalent,
                        [&](int64_t done, int64_t total) { steps.emplace_back(done, total); });
    expectAgreement(rng, "after repricing");
    ASSERT_GE(steps.size(), 2u);
    const int64_t total = steps.front().second;
    EXPECT_GE(total, static_cast<int64_t>(kept.size()));
    EXPECT_EQ(steps.front().first, 0);
    EXPECT_EQ(steps.back(), std::make_pair(total, total));
    for (std::size_t i = 1; i < steps.size(); ++i) {
        EXPECT_GE(steps[i].first, steps[i - 1].first);
        EXPECT_EQ(steps[i].second, total);
    }
}

// A reader cannot rebuild the rollups. After a scan's small commit it takes the quarter hours
// the commit marked from the events and everything else from the rollups: every view still
// agrees with a full pass, and the unmarked days do come from the rollups.
TEST_F(LedgerQueriesTest, AReaderAfterASmallCommitReadsOnlyTheMarkedQuarterHoursFromEvents) {
    TimeZone zone("Asia/Kolkata");  // local hours cut UTC hours in half
    std::mt19937 rng(5);
    std::vector<UsageObservation> all;
    for (int i = 0; i < 1200; ++i) {
        all.push_back(randomObservation(i, rng, kStart, 10 * kDay));
    }
    commit(all, "run-1");
    (void)store.ledgerSummary({});  // the writer brings the rollups up to date

    // New requests within two hours of one day, and a few known events moved to another.
    std::vector<UsageObservation> changed;
    for (int i = 0; i < 30; ++i) {
        changed.push_back(randomObservation(5000 + i, rng, kStart + 4 * kDay, 2 * 3600));
    }
    for (int i = 0; i < 5; ++i) {
        changed.push_back(randomObservation(i * 7, rng, kStart + 8 * kDay, 3600));
    }
    commit(changed, "run-2");
    {
        sqlite::Statement marked(ledger.get(),
                                 "SELECT COUNT(DISTINCT bucket) FROM ledger_rollup_dirty;");
        marked.step();
        ASSERT_GT(marked.int64(0), 0);
        ASSERT_LT(marked.int64(0), 40);
    }

    UsageStore reader(dir.path(), ReadOnlyLedger{});
    for (const auto& q : queries(rng)) {
        const auto expected = reference(q);
        ASSERT_EQ(reader.ledgerSummaries({q}).at(0), expected);
        LedgerSummary bySource, byModel, byDay, byHour;
        for (const auto& [source, s] : reader.ledgerSummariesBySource(q)) {
            bySource += s;
        }
        for (const auto& m : reader.ledgerSummariesByModel(q)) {
            byModel += m.summary;
        }
        for (const auto& b : reader.ledgerTimeBuckets(q, LedgerBucketUnit::day)) {
            byDay += b.summary;
        }
        for (const auto& b : reader.ledgerModelTimeBuckets(q, LedgerBucketUnit::hour)) {
            byHour += b.summary;
        }
        EXPECT_EQ(bySource, expected);
        EXPECT_EQ(byModel, expected);
        EXPECT_EQ(byDay, expected);
        EXPECT_EQ(byHour, expected);
    }

    // A day the commit did not touch is read from its rollup row, not from its events.
    std::set<int64_t> touchedDays;
    {
        sqlite::Statement marks(ledger.get(), "SELECT DISTINCT bucket FROM ledger_rollup_dirty;");
        while (marks.step()) {
            touchedDays.insert(static_cast<int64_t>(std::floor(marks.int64(0) / 96.0)));
        }
    }
    auto untouchedDay = static_cast<int64_t>(std::floor(kStart / kDay)) + 1;
    while (touchedDays.contains(untouchedDay)) {
        ++untouchedDay;
    }
    sqlite::exec(ledger.get(), "UPDATE ledger_rollups_day SET event_count = event_count + 1000 "
                               "WHERE bucket = " + std::to_string(untouchedDay) + ";");
    const int rows = sqlite3_changes(ledger.get());  // one per kept dimension of that day
    ASSERT_GT(rows, 0);
    EXPECT_EQ(reader.ledgerSummaries({LedgerQuery{}}).at(0).eventCount,
              reference({}).eventCount + 1000 * rows);
}

// Local days follow the process's calendar exactly, in zones whose offsets are not whole hours
// and across a daylight-saving change, with events on day and quarter-hour boundaries.
TEST_F(LedgerQueriesTest, DailyTotalsFollowTheLocalCalendar) {
    std::mt19937 rng(11);
    std::vector<UsageObservation> all;
    for (int i = 0; i < 800; ++i) {
        all.push_back(randomObservation(i, rng, kStart - 200 * kDay, 400 * kDay));
    }
    commit(all, "run-1");
    for (const char* zone :
         {"UTC", "Asia/Kolkata", "Asia/Kathmandu", "America/New_York", "Australia/Lord_Howe"}) {
        TimeZone tz(zone);
        for (const auto& [from, to] : {std::pair{kStart - 200 * kDay, kStart + 200 * kDay},
                                       std::pair{kStart - 37.3 * kDay, kStart + 3.7 * kDay}}) {
            std::map<std::tuple<int, int, int>, int64_t> got;
            for (const auto& d : store.ledgerDailyTotals(from, to)) {
                got[{d.year, d.month, d.day}] = d.tokens;
            }
            EXPECT_EQ(got, referenceDays(from, to)) << zone;
        }
    }
}

TEST_F(LedgerQueriesTest, AnEventAtHalfPastElevenBelongsToItsLocalDay) {
    TimeZone zone("Asia/Shanghai");  // UTC+8: 23:30 local is 15:30 UTC the same day
    UsageObservation o;
    std::mt19937 rng(1);
    o = randomObservation(1, rng, kStart, 1);
    // 2026-05-28 23:30 in Shanghai.
    std::tm local{};
    local.tm_year = 126;
    local.tm_mon = 4;
    local.tm_mday = 28;
    local.tm_hour = 23;
    local.tm_min = 30;
    local.tm_isdst = -1;
    o.occurredAt = static_cast<double>(std::mktime(&local));
    commit({o}, "run-1");
    const auto days = store.ledgerDailyTotals(*o.occurredAt - kDay, *o.occurredAt + kDay);
    ASSERT_EQ(days.size(), 1u);
    EXPECT_EQ(std::tuple(days[0].year, days[0].month, days[0].day), std::tuple(2026, 5, 28));
    const auto buckets = store.ledgerTimeBuckets({}, LedgerBucketUnit::hour);
    ASSERT_EQ(buckets.size(), 1u);
    EXPECT_EQ(buckets[0].start, *o.occurredAt - 30 * 60);
}

TEST_F(LedgerQueriesTest, PagesNeitherSkipNorRepeatEventsOfTheSameInstant) {
    std::mt19937 rng(3);
    std::vector<UsageObservation> all;
    for (int i = 0; i < 57; ++i) {
        auto o = randomObservation(i, rng, kStart, kDay);
        o.occurredAt = kStart + (i % 4) * 60.0;  // many events share each instant
        all.push_back(o);
    }
    commit(all, "run-1");
    for (auto order : {LedgerSortOrder::ascending, LedgerSortOrder::descending}) {
        std::vector<std::string> seen;
        std::optional<LedgerCursor> cursor;
        int pages = 0;
        do {
            const auto page = store.ledgerEvents({}, order, cursor, 10);
            for (const auto& e : page.entries) {
                seen.push_back(e.event.id);
            }
            cursor = page.nextCursor;
            ++pages;
        } while (cursor);
        ASSERT_EQ(seen.size(), 57u);
        EXPECT_EQ(pages, 6);  // the last, short page ends the listing
        const std::set<std::string> distinct(seen.begin(), seen.end());
        EXPECT_EQ(distinct.size(), 57u);
        // Within an instant, ids come in order.
        const auto page = store.ledgerEvents({}, order, std::nullopt, 57);
        for (std::size_t i = 1; i < page.entries.size(); ++i) {
            const auto& a = page.entries[i - 1].event;
            const auto& b = page.entries[i].event;
            const bool inOrder = order == LedgerSortOrder::ascending
                                     ? std::tie(a.occurredAt, a.id) < std::tie(b.occurredAt, b.id)
                                     : std::tie(a.occurredAt, a.id) > std::tie(b.occurredAt, b.id);
            EXPECT_TRUE(inOrder) << a.id << " then " << b.id;
        }
    }
}

TEST_F(LedgerQueriesTest, FiltersScopesSearchAndFacets) {
    std::mt19937 rng(5);
    std::vector<UsageObservation> all;
    for (int i = 0; i < 300; ++i) {
        all.push_back(randomObservation(i, rng, kStart, 3 * kDay));
    }
    commit(all, "run-1");
    const auto count = [&](LedgerQuery q) { return store.ledgerEventCount(q); };
    const int64_t total = count({});
    LedgerQuery unassigned, scoped, any;
    unassigned.accountScope = LedgerAccountScope::unassigned();
    scoped.accountScope = LedgerAccountScope::account("acct-1");
    any.accountScope = LedgerAccountScope::all();
    EXPECT_EQ(count(unassigned) + count(scoped), total);
    EXPECT_GT(count(scoped), 0);
    EXPECT_EQ(count(any), total);

    // Wildcards in the search text are plain characters.
    LedgerQuery percent;
    percent.search = "100%";
    LedgerQuery underscore;
    underscore.search = "gpt_5";
    LedgerQuery blank;
    blank.search = "   ";
    LedgerQuery project;
    project.projectDisplayName = "100%";
    EXPECT_EQ(count(percent), count(project));
    LedgerQuery model;
    model.model = "gpt_5%mini";
    EXPECT_EQ(count(underscore), count(model));
    EXPECT_EQ(count(blank), total);

    const auto facets = store.ledgerFacets({});
    EXPECT_EQ(facets.sources, (std::vector{AgentSource::claude, AgentSource::codex}));
    EXPECT_EQ(facets.projects, (std::vector<std::string>{"100%", "alpha", "Beta_2"}));
    EXPECT_EQ(facets.accountIDs, std::vector<std::string>{"acct-1"});
    EXPECT_TRUE(facets.hasUnassignedAccount);
    EXPECT_EQ(store.ledgerFacets(scoped).hasUnassignedAccount, false);

    const auto bounds = store.ledgerOccurredAtBounds({});
    ASSERT_TRUE(bounds.has_value());
    EXPECT_LE(bounds->earliest, bounds->latest);
    LedgerQuery none;
    none.from = kStart + 100 * kDay;
    EXPECT_FALSE(store.ledgerOccurredAtBounds(none).has_value());
}

TEST_F(LedgerQueriesTest, SessionsProjectsAndCoverage) {
    std::mt19937 rng(9);
    std::vector<UsageObservation> all;
    for (int i = 0; i < 200; ++i) {
        all.push_back(randomObservation(i, rng, kStart, 2 * kDay));
    }
    // One observation the validator keeps out of the ledger, with its finding.
    auto untimed = randomObservation(999, rng, kStart, 1);
    untimed.timeQuality = ObservationTimeQuality::missing;
    untimed.occurredAt.reset();
    all.push_back(untimed);
    commit(all, "run-1");

    LedgerSummary sessions, projects;
    for (const auto& s : store.ledgerSummariesBySession({})) {
        EXPECT_LE(s.firstAt, s.lastAt);
        EXPECT_FALSE(s.models.empty());
        sessions += s.summary;
    }
    for (const auto& p : store.ledgerSummariesByProject({})) {
        projects += p.summary;
    }
    EXPECT_EQ(sessions, reference({}));  // every event has a session key
    EXPECT_EQ(projects, reference({}));  // the events without a project form one group

    const auto counts = store.coverageIssueCounts({});
    const auto groups = store.coverageIssueGroups({});
    int64_t inGroups = 0, inCounts = 0;
    for (const auto& g : groups) {
        inGroups += g.count;
    }
    for (const auto& c : counts) {
        inCounts += c.count;
    }
    EXPECT_EQ(inGroups, inCounts);
    EXPECT_TRUE(std::ranges::any_of(counts, [](const CoverageIssueCount& c) {
        return c.code == CoverageIssueCode::missingTrustedTime && c.count == 1;
    }));
    EXPECT_TRUE(std::ranges::any_of(counts, [](const CoverageIssueCount& c) {
        return c.code == CoverageIssueCode::unknownCost && c.count > 0;
    }));
}

}  // namespace
}  // namespace kestrel
