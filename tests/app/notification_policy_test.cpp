// The app's notifications: each quota crossing, budget and first import told once, the switches
// obeyed, a window that resets telling again.

#include "core/app/notification_policy.hpp"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

constexpr double kNow = 1'800'000'000;

StoredQuota quota(std::optional<double> used, std::optional<double> resetsAt = kNow + 3600,
                  QuotaWindowKind kind = QuotaWindowKind::session5h) {
    StoredQuota q;
    q.accountID = "source:claude";
    q.snapshot.identity.source = AgentSource::claude;
    q.snapshot.identity.planLabel = "Max";
    QuotaWindow w;
    w.kind = kind;
    w.usedPercent = used;
    w.resetsAt = resetsAt;
    q.snapshot.windows.push_back(w);
    return q;
}

NotificationFacts facts(std::vector<StoredQuota> quotas) {
    NotificationFacts f;
    f.now = kNow;
    f.quotas = std::move(quotas);
    f.dayKey = "2027-01-15";
    f.monthKey = "2027-01";
    return f;
}

std::vector<NotificationKind> kinds(const std::vector<Notification>& ns) {
    std::vector<NotificationKind> out;
    for (const auto& n : ns) {
        out.push_back(n.kind);
    }
    return out;
}

using K = NotificationKind;

TEST(NotificationPolicy, QuotaWindowsNotifyOnEachCrossingOnce) {
    // Successive readings of one window, and what each should raise.
    struct Step {
        std::optional<double> used;
        std::vector<K> expected;
    };
    const struct {
        const char* name;
        std::vector<Step> steps;
    } cases[] = {
        {"climbs through both", {{50, {}}, {79.9, {}}, {80, {K::quotaWarning}}, {95, {}},
                                 {100, {K::quotaExhausted}}, {100, {}}}},
        {"jumps past both: only the higher", {{10, {}}, {120, {K::quotaExhausted}}}},
        {"resets, then crosses again", {{85, {K::quotaWarning}}, {3, {}}, {81, {K::quotaWarning}}}},
        {"falls from exhausted to warning and back", {{100, {K::quotaExhausted}}, {90, {}},
                                                      {100, {K::quotaExhausted}}}},
        {"a window without a figure says nothing", {{std::nullopt, {}}, {std::nullopt, {}}}},
    };
    for (const auto& c : cases) {
        NotificationPolicy policy;
        const AppSettings settings;
        int i = 0;
        for (const auto& step : c.steps) {
            EXPECT_EQ(kinds(policy.evaluate(settings, facts({quota(step.used)}))), step.expected)
                << c.name << ", reading " << i++;
        }
    }
}

TEST(NotificationPolicy, QuotaNoticeCarriesTheWindowAndItsAccount) {
    NotificationPolicy policy;
    const auto ns = policy.evaluate(AppSettings{}, facts({quota(88, kNow + 600, QuotaWindowKind::weekly)}));
    ASSERT_EQ(ns.size(), 1u);
    EXPECT_EQ(ns[0].source, AgentSource::claude);
    EXPECT_EQ(ns[0].planLabel, "Max");
    EXPECT_EQ(ns[0].window.kind, QuotaWindowKind::weekly);
    EXPECT_EQ(ns[0].window.usedPercent, 88);
}

TEST(NotificationPolicy, WindowsOfOneAccountAreToldApart) {
    NotificationPolicy policy;
    auto both = quota(85);
    both.snapshot.windows.push_back(quota(100, kNow + 7200, QuotaWindowKind::weekly).snapshot.windows[0]);
    EXPECT_EQ(kinds(policy.evaluate(AppSettings{}, facts({both}))),
              (std::vector<K>{K::quotaWarning, K::quotaExhausted}));
}

TEST(NotificationPolicy, AWindowWhoseResetHasPassedIsIgnored) {
    NotificationPolicy policy;
    EXPECT_TRUE(policy.evaluate(AppSettings{}, facts({quota(99, kNow - 1)})).empty());
}

TEST(NotificationPolicy, MemoryCarriesWhatWasToldAcrossLaunches) {
    AppSettings settings;
    settings.dailyBudgetCNYFen = 100;
    auto f = facts({quota(90)});
    f.todayCostUSDMicros = 1'000'000;  // 7.20 yuan at the default rate: over 1 yuan
    f.firstImportEvents = 5;

    // A launch with no memory: a window already past 80 % is news.
    NotificationPolicy first;
    EXPECT_EQ(kinds(first.evaluate(settings, f)),
              (std::vector<K>{K::quotaWarning, K::dailyBudget, K::firstScan}));

    // The next launch remembers all three, and still tells the next crossing.
    NotificationPolicy second;
    ASSERT_TRUE(second.restoreMemory(first.memoryJson()));
    EXPECT_TRUE(second.evaluate(settings, f).empty());
    f.quotas = {quota(100)};
    EXPECT_EQ(kinds(second.evaluate(settings, f)), std::vector<K>{K::quotaExhausted});

    // A window that reset while the app was closed and climbed again is told again.
    NotificationPolicy third;
    ASSERT_TRUE(third.restoreMemory(second.memoryJson()));
    f.quotas = {quota(10)};
    EXPECT_TRUE(third.evaluate(settings, f).empty());
    f.quotas = {quota(85)};
    EXPECT_EQ(kinds(third.evaluate(settings, f)), std::vector<K>{K::quotaWarning});

    // Yesterday's budget key is not carried into a new day's memory.
    f.dayKey = "2027-01-16";
    f.todayCostUSDMicros.reset();
    third.evaluate(settings, f);
    EXPECT_EQ(third.memoryJson().find("2027-01-15"), std::string::npos);
}

TEST(NotificationPolicy, ForeignMemoryIsRefusedAndForgotten) {
    const char* bad[] = {"", "not json", "[]", "{}", R"({"version":2,"reached":{},"delivered":[]})",
                         R"({"version":1,"reached":[],"delivered":[]})",
                         R"({"version":1,"reached":{},"delivered":{}})"};
    for (const char* text : bad) {
        NotificationPolicy policy;
        auto f = facts({quota(90)});
        policy.evaluate(AppSettings{}, f);  // something to forget
        EXPECT_FALSE(policy.restoreMemory(text)) << text;
        EXPECT_EQ(kinds(policy.evaluate(AppSettings{}, f)), std::vector<K>{K::quotaWarning})
            << text;
    }
}

TEST(NotificationPolicy, SwitchedOffKindsStaySilentAndAreNotSpent) {
    NotificationPolicy policy;
    AppSettings settings;
    settings.quotaNotificationsEnabled = false;
    settings.budgetNotificationsEnabled = false;
    settings.importNotificationsEnabled = false;
    settings.dailyBudgetCNYFen = 100;
    auto f = facts({quota(90)});
    f.firstImportEvents = 12;
    f.todayCostUSDMicros = 1'000'000;
    EXPECT_TRUE(policy.evaluate(settings, f).empty());
    // Switched on again while all three are still true: now they are told.
    settings.quotaNotificationsEnabled = true;
    settings.budgetNotificationsEnabled = true;
    settings.importNotificationsEnabled = true;
    EXPECT_EQ(kinds(policy.evaluate(settings, f)),
              (std::vector<K>{K::quotaWarning, K::dailyBudget, K::firstScan}));
}

TEST(NotificationPolicy, BudgetsNotifyOncePerPeriodWhenReached) {
    AppSettings settings;
    settings.cnyPerUsdE4 = 70000;       // 7 yuan per dollar
    settings.dailyBudgetCNYFen = 700;   // 7 yuan: one dollar
    settings.monthlyBudgetCNYFen = 7000;  // 70 yuan: ten dollars
    const struct {
        const char* name;
        std::optional<int64_t> today;
        std::optional<int64_t> month;
        std::string day;
        std::vector<K> expected;
    } steps[] = {
        {"below both", 999'999, 5'000'000, "2027-01-15", {}},
        {"daily reached exactly", 1'000'000, 6'000'000, "2027-01-15", {K::dailyBudget}},
        {"daily told already, monthly reached", 2'000'000, 10'000'000, "2027-01-15",
         {K::monthlyBudget}},
        {"a new day over again, the month told already", 1'500'000, 12'000'000, "2027-01-16",
         {K::dailyBudget}},
        {"nothing priced today", std::nullopt, 12'000'000, "2027-01-17", {}},
    };
    NotificationPolicy policy;
    for (const auto& s : steps) {
        auto f = facts({});
        f.todayCostUSDMicros = s.today;
        f.monthCostUSDMicros = s.month;
        f.dayKey = s.day;
        EXPECT_EQ(kinds(policy.evaluate(settings, f)), s.expected) << s.name;
    }
}

TEST(NotificationPolicy, BudgetNoticeCarriesFenSpentAndLimit) {
    AppSettings settings;
    settings.cnyPerUsdE4 = 72000;
    settings.dailyBudgetCNYFen = 1000;
    auto f = facts({});
    f.todayCostUSDMicros = 1'500'000;  // 10.80 yuan
    NotificationPolicy policy;
    const auto ns = policy.evaluate(settings, f);
    ASSERT_EQ(ns.size(), 1u);
    EXPECT_EQ(ns[0].spentFen, 1080);
    EXPECT_EQ(ns[0].budgetFen, 1000);
}

TEST(NotificationPolicy, FirstImportIsToldOnce) {
    NotificationPolicy policy;
    auto f = facts({});
    f.firstImportEvents = 42;
    const auto first = policy.evaluate(AppSettings{}, f);
    ASSERT_EQ(kinds(first), std::vector<K>{K::firstScan});
    EXPECT_EQ(first[0].events, 42);
    EXPECT_TRUE(policy.evaluate(AppSettings{}, f).empty());
}

TEST(ActivityNoticeWanted, FollowsTheMasterSwitchAndEachKind) {
    const struct {
        bool master;
        bool approval;
        ActivityNoticeKind kind;
        bool wanted;
    } cases[] = {
        {true, true, ActivityNoticeKind::needsApproval, true},
        {true, false, ActivityNoticeKind::needsApproval, false},
        {true, false, ActivityNoticeKind::completed, true},
        {false, true, ActivityNoticeKind::completed, false},
    };
    for (const auto& c : cases) {
        AppSettings s;
        s.activityNotificationsEnabled = c.master;
        s.activityNotifyApproval = c.approval;
        ActivityNotice n;
        n.kind = c.kind;
        EXPECT_EQ(activityNoticeWanted(s, n), c.wanted);
    }
}

}  // namespace
}  // namespace kestrel
