#include "core/presentation/menu_bar_composer.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "core/presentation/countdown_text.hpp"

namespace kestrel {
namespace {

constexpr double kNow = 1'800'000'000;  // a multiple of 5 s: rotation steps start here

MenuBarFormatter formatter(AppLanguage language = AppLanguage::en) {
    MenuBarFormatter f;
    f.language = language;
    f.money = [](int64_t micros) {
        char b[32];
        std::snprintf(b, sizeof b, "$%.2f", static_cast<double>(micros) / 1e6);
        return std::string(b);
    };
    f.compactMoney = [](int64_t micros) { return "$" + std::to_string(micros / 1'000'000); };
    f.tokens = [](int64_t n) { return std::to_string(n); };
    f.percent = [](double p) { return std::to_string(std::lround(p)) + "%"; };
    return f;
}

AppSettings withElements(std::vector<MenuBarElement> elements, double interval = 5) {
    AppSettings s;
    s.menuBarElements = std::move(elements);
    s.menuBarRotateInterval = interval;
    s.menuBarPlatformStyle = MenuBarPresentationStyle::textOnly;
    s.menuBarMetricStyle = MenuBarPresentationStyle::textOnly;
    return s;
}

MenuBarQuota window(std::string account, QuotaWindowKind kind, std::optional<double> used,
                    std::optional<double> resetsIn, AgentSource source = AgentSource::claude) {
    MenuBarQuota q;
    q.source = source;
    q.accountID = std::move(account);
    q.window.kind = kind;
    q.window.usedPercent = used;
    if (resetsIn) {
        q.window.resetsAt = kNow + *resetsIn;
    }
    return q;
}

MenuBarInputs today(int64_t costMicros = 12'340'000, int64_t tokens = 45'600) {
    MenuBarInputs in;
    in.now = kNow;
    in.todayCostUSDMicros = costMicros;
    in.todayTokens = tokens;
    return in;
}

std::vector<std::string> texts(const MenuBarText& t) {
    std::vector<std::string> out;
    for (const auto& f : t.frames) {
        out.push_back(f.text());
    }
    return out;
}

TEST(MenuBarComposer, FramesFollowTheElementsAndRotateWithTheClock) {
    using E = MenuBarElement;
    const auto settings = withElements({E::todayCost, E::todayTokens, E::todayCost});
    struct Case {
        double offset;
        size_t current;
        double nextChange;
    };
    for (const Case c : {Case{0, 0, 5}, Case{4.9, 0, 5}, Case{5, 1, 10}, Case{12, 0, 15},
                         Case{17.5, 1, 20}}) {
        auto in = today();
        in.now = kNow + c.offset;
        const auto t = MenuBarComposer::compose(settings, in, formatter());
        ASSERT_EQ(texts(t), (std::vector<std::string>{"Today $12.34", "Today 45600 tok"}));
        EXPECT_EQ(t.current, c.current) << c.offset;
        EXPECT_EQ(t.nextChangeAt, kNow + c.nextChange) << c.offset;
        EXPECT_EQ(t.shown().compactValue, c.current == 0 ? "$12" : "45600");
    }
}

TEST(MenuBarComposer, ElementsWithNothingToShowFallBackToTodaysCost) {
    using E = MenuBarElement;
    for (const auto& elements : std::vector<std::vector<E>>{{}, {E::quota}, {E::activity}, {E::quota, E::activity}}) {
        auto in = today(0, 0);
        in.todayCostUSDMicros.reset();
        in.activity = {{AgentSource::codex, 0, 0}};
        const auto t = MenuBarComposer::compose(withElements(elements), in, formatter());
        ASSERT_EQ(t.frames.size(), 1u);
        EXPECT_EQ(t.shown().element, E::todayCost);
        EXPECT_EQ(t.shown().value, "$0.00");
        EXPECT_EQ(t.tooltip, "Today: $0.00");
        EXPECT_FALSE(t.nextChangeAt) << "one frame and no countdown: nothing changes with time";
    }
}

TEST(MenuBarComposer, EachAccountShowsItsTightestCurrentWindowThenItsBalances) {
    auto in = today();
    in.quotas = {
        window("a", QuotaWindowKind::session5h, 42, 2 * 3600 + 5 * 60),
        window("a", QuotaWindowKind::weekly, 70, 3 * 86400),
        window("a", QuotaWindowKind::monthly, 99, -60),  // reset a minute ago: over
        window("b", QuotaWindowKind::session5h, 30, 3600, AgentSource::codex),
        window("b", QuotaWindowKind::weekly, 30, 7200, AgentSource::codex),  // tie: resets later
        window("c", QuotaWindowKind::apiPrepaid, std::nullopt, std::nullopt, AgentSource::deepseek),
        window("c", QuotaWindowKind::extraCredits, std::nullopt, std::nullopt, AgentSource::deepseek),
    };
    in.quotas[5].window.remainingLabel = "¥12.50";
    in.quotas[6].window.limitValue = 10;
    in.quotas[6].window.usedValue = 2.5;
    in.quotas[6].window.currency = "USD";
    in.quotas[6].stale = true;

    const auto t = MenuBarComposer::compose(withElements({MenuBarElement::quota}), in, formatter());
    EXPECT_EQ(texts(t), (std::vector<std::string>{
                            "Claude Code 7d 70% ↻3d 0h",
                            "Codex 7d 30% ↻2h 0m",
                            "DeepSeek balance ¥12.50",
                            "DeepSeek credits 7.50 USD (stale)",
                        }));
    EXPECT_EQ(t.frames[0].usedPercent, 70);
    EXPECT_EQ(t.frames[0].compactValue, "70%");
    EXPECT_EQ(t.frames[0].fullText, "Claude Code 7d: 70% used, resets in 3d 0h");
    EXPECT_EQ(t.frames[2].glyph, MenuBarGlyph::balance);
    EXPECT_EQ(t.tightestUsedPercent, 70) << "the expired 99 % window no longer counts";
    EXPECT_EQ(t.tooltip,
              "Claude Code 7d: 70% used, resets in 3d 0h\nCodex 7d: 30% used, resets in 2h 0m\n"
              "DeepSeek balance: ¥12.50\nDeepSeek credits: 7.50 USD (stale)");
}

TEST(MenuBarComposer, StylesDecideWhichPartsAreTextAndWhichAreIcons) {
    using S = MenuBarPresentationStyle;
    struct Case {
        S platform, metric;
        std::string text;
        bool platformIcon, metricIcon;
    };
    for (const Case& c : {
             Case{S::textOnly, S::textOnly, "Claude Code 5h 42%", false, false},
             Case{S::iconOnly, S::textOnly, "5h 42%", true, false},
             Case{S::textOnly, S::iconOnly, "Claude Code 42%", false, true},
             Case{S::iconAndText, S::iconAndText, "Claude Code 5h 42%", true, true},
             Case{S::iconOnly, S::iconOnly, "42%", true, true},
         }) {
        auto settings = withElements({MenuBarElement::quota});
        settings.menuBarPlatformStyle = c.platform;
        settings.menuBarMetricStyle = c.metric;
        auto in = today();
        in.quotas = {window("a", QuotaWindowKind::session5h, 42, std::nullopt)};
        const auto f = MenuBarComposer::compose(settings, in, formatter()).shown();
        EXPECT_EQ(f.text(), c.text);
        EXPECT_EQ(f.showPlatformIcon, c.platformIcon);
        EXPECT_EQ(f.showMetricIcon, c.metricIcon);
        EXPECT_EQ(f.source, AgentSource::claude);
        EXPECT_EQ(f.fullText, "Claude Code 5h: 42% used") << "the full text ignores the styles";
    }
}

TEST(MenuBarComposer, ActivityCountsWorkingAndWaitingSessions) {
    auto in = today();
    in.activity = {{AgentSource::claude, 2, 1}, {AgentSource::grok, 0, 0}, {AgentSource::codex, 1, 0}};
    const auto settings = withElements({MenuBarElement::activity});
    auto t = MenuBarComposer::compose(settings, in, formatter());
    ASSERT_EQ(t.frames.size(), 1u);
    EXPECT_EQ(t.shown().text(), "Agents 3 working, 1 waiting");
    EXPECT_FALSE(t.shown().source) << "two agents: no single agent to name";
    EXPECT_EQ(t.shown().compactValue, "4");
    EXPECT_EQ(t.tooltip, "Claude Code: 2 working, 1 waiting\nCodex: 1 working");

    in.activity = {{AgentSource::codex, 0, 2}};
    t = MenuBarComposer::compose(settings, in, formatter());
    EXPECT_EQ(t.shown().text(), "Codex Agents 2 waiting");
    EXPECT_EQ(t.shown().source, AgentSource::codex);
}

TEST(MenuBarComposer, RecomposesWhenACountdownCrossesAMinute) {
    struct Case {
        double resetsIn;
        std::vector<MenuBarElement> elements;
        double nextChange;  // after kNow
    };
    using E = MenuBarElement;
    for (const Case& c : {
             Case{125.5, {E::quota}, 5.501},  // 2m 5.5s left: "2m" until just past 2m 0s
             Case{120, {E::quota}, 0.001},    // exactly 2m left: "1m" an instant later
             Case{3 * 3600 + 30, {E::quota, E::todayCost}, 5},  // rotation comes first
         }) {
        auto in = today();
        in.quotas = {window("a", QuotaWindowKind::session5h, 10, c.resetsIn)};
        const auto t = MenuBarComposer::compose(withElements(c.elements), in, formatter());
        ASSERT_TRUE(t.nextChangeAt);
        EXPECT_NEAR(*t.nextChangeAt - kNow, c.nextChange, 1e-5) << c.resetsIn;
        // Just before the change the countdown still reads the same; at it, one minute less.
        auto before = in, at = in;
        before.now = *t.nextChangeAt - 0.002;
        at.now = *t.nextChangeAt;
        const auto was = resetCountdown(in.quotas[0].window.resetsAt, in.now);
        EXPECT_EQ(resetCountdown(in.quotas[0].window.resetsAt, before.now), was);
        if (c.nextChange != 5) {
            EXPECT_NE(resetCountdown(in.quotas[0].window.resetsAt, at.now), was);
        }
    }
}

TEST(MenuBarComposer, SpeaksChinese) {
    auto in = today();
    in.activity = {{AgentSource::claude, 1, 0}};
    const auto t = MenuBarComposer::compose(
        withElements({MenuBarElement::todayTokens, MenuBarElement::activity}), in,
        formatter(AppLanguage::zhHans));
    EXPECT_EQ(texts(t), (std::vector<std::string>{"今日 45600 词元", "Claude Code 智能体 1 个运行中"}));
    EXPECT_EQ(t.tooltip, "今日：45600 词元\nClaude Code：1 个运行中");
}

}  // namespace
}  // namespace kestrel
