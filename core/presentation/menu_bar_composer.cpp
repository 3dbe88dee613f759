#include "core/presentation/menu_bar_composer.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>

#include "core/presentation/countdown_text.hpp"
#include "core/presentation/messages.hpp"

namespace kestrel {

std::string MenuBarFrame::text() const {
    std::string out;
    for (const std::string* part : {&platformText, &metricText, &value}) {
        if (part->empty()) {
            continue;
        }
        if (!out.empty()) {
            out += ' ';
        }
        out += *part;
    }
    return out;
}

namespace {

constexpr double kDefaultRotateSeconds = 5.0;

MenuBarFrame frameOf(MenuBarElement element, MenuBarGlyph glyph) {
    MenuBarFrame frame;
    frame.element = element;
    frame.glyph = glyph;
    return frame;
}

struct Composer {
    const AppSettings& settings;
    const MenuBarInputs& in;
    const MenuBarFormatter& format;

    std::string text(std::string_view key) const {
        return Messages::bundled().text(key, format.language);
    }
    std::string text(std::string_view key, std::initializer_list<MessageArg> args) const {
        return Messages::bundled().text(key, format.language, args);
    }

    void styleMetric(MenuBarFrame& frame, std::string label) const {
        const auto style = settings.menuBarMetricStyle;
        frame.showMetricIcon = style != MenuBarPresentationStyle::textOnly;
        frame.metricText = style == MenuBarPresentationStyle::iconOnly ? std::string() : std::move(label);
    }
    void stylePlatform(MenuBarFrame& frame, AgentSource source) const {
        const auto style = settings.menuBarPlatformStyle;
        frame.source = source;
        frame.showPlatformIcon = style != MenuBarPresentationStyle::textOnly;
        frame.platformText =
            style == MenuBarPresentationStyle::iconOnly ? std::string() : std::string(displayName(source));
    }

    MenuBarFrame todayCost() const {
        MenuBarFrame f = frameOf(MenuBarElement::todayCost, MenuBarGlyph::cost);
        const int64_t cost = in.todayCostUSDMicros.value_or(0);
        styleMetric(f, text("menubar.today"));
        f.value = format.money(cost);
        f.compactValue = format.compactMoney(cost);
        f.fullText = text("menubar.full.todayCost", {{"cost", f.value}});
        return f;
    }

    MenuBarFrame todayTokens() const {
        MenuBarFrame f = frameOf(MenuBarElement::todayTokens, MenuBarGlyph::tokens);
        const std::string count = format.tokens(in.todayTokens.value_or(0));
        styleMetric(f, text("menubar.today"));
        f.value = text("glance.tokens", {{"count", count}});
        f.compactValue = count;
        f.fullText = text("menubar.full.todayTokens", {{"tokens", f.value}});
        return f;
    }

    static bool isCurrent(const QuotaWindow& w, double now) {
        return !w.resetsAt || !std::isfinite(*w.resetsAt) || *w.resetsAt > now;
    }
    // A balance says what is left rather than a share used: prepaid credit, or a window the
    // provider reports only as amounts.
    static bool isBalance(const QuotaWindow& w) {
        if (w.kind == QuotaWindowKind::apiPrepaid) {
            return true;
        }
        return !w.usedPercent && (w.remainingLabel || w.limitValue);
    }
    static bool hasShare(const QuotaWindow& w) {
        return w.usedPercent && std::isfinite(*w.usedPercent);
    }

    std::string windowName(const QuotaWindow& w) const {
        std::string name = text(std::string("glance.window.") + std::string(rawValue(w.kind)));
        if (w.scopeKey) {
            name += " " + *w.scopeKey;
        }
        return name;
    }

    MenuBarFrame quotaFrame(const MenuBarQuota& q) const {
        MenuBarFrame f = frameOf(MenuBarElement::quota, MenuBarGlyph::quota);
        stylePlatform(f, q.source);
        styleMetric(f, windowName(q.window));
        const std::string used = format.percent(*q.window.usedPercent);
        f.usedPercent = *q.window.usedPercent;
        f.compactValue = used;
        f.value = used;
        f.fullText = text("glance.tooltip.window", {{"agent", std::string(displayName(q.source))},
                                                    {"window", windowName(q.window)},
                                                    {"percent", used}});
        if (const auto wait = resetCountdown(q.window.resetsAt, in.now)) {
            f.value += " " + text("glance.resetsIn", {{"wait", *wait}});
            f.fullText += ", " + text("glance.tooltip.resets", {{"wait", *wait}});
        }
        if (q.stale) {
            f.value += " " + text("glance.stale");
            f.fullText += " " + text("glance.stale");
        }
        return f;
    }

    std::string balanceAmount(const QuotaWindow& w) const {
        if (w.remainingLabel) {
            return *w.remainingLabel;
        }
        const double left = w.limitValue.value_or(0) - w.usedValue.value_or(0);
        char buffer[64];
        std::snprintf(buffer, sizeof buffer, "%.2f", left);
        return w.currency ? std::string(buffer) + " " + *w.currency : std::string(buffer);
    }

    MenuBarFrame balanceFrame(const MenuBarQuota& q) const {
        MenuBarFrame f = frameOf(MenuBarElement::quota, MenuBarGlyph::balance);
        stylePlatform(f, q.source);
        const std::string label = q.window.label ? *q.window.label : windowName(q.window);
        styleMetric(f, label);
        f.value = balanceAmount(q.window);
        f.compactValue = f.value;
        f.fullText = text("menubar.full.balance", {{"agent", std::string(displayName(q.source))},
                                                   {"label", label},
                                                   {"amount", f.value}});
        if (q.stale) {
            f.value += " " + text("glance.stale");
            f.fullText += " " + text("glance.stale");
        }
        return f;
    }

    // Per account, in the order the accounts first appear: the window closest to its limit
    // (ties to the later reset: it binds longer), then each balance.
    std::vector<MenuBarFrame> quotas() const {
        std::vector<std::string> order;
        std::map<std::string, std::vector<const MenuBarQuota*>> byAccount;
        for (const auto& q : in.quotas) {
            if (!isCurrent(q.window, in.now)) {
                continue;
            }
            auto [it, inserted] = byAccount.try_emplace(q.accountID);
            if (inserted) {
                order.push_back(q.accountID);
            }
            it->second.push_back(&q);
        }
        std::vector<MenuBarFrame> frames;
        for (const auto& account : order) {
            const MenuBarQuota* tightest = nullptr;
            for (const auto* q : byAccount[account]) {
                if (isBalance(q->window) || !hasShare(q->window)) {
                    continue;
                }
                if (tightest == nullptr || *q->window.usedPercent > *tightest->window.usedPercent ||
                    (*q->window.usedPercent == *tightest->window.usedPercent &&
                     q->window.resetsAt.value_or(INFINITY) >
                         tightest->window.resetsAt.value_or(INFINITY))) {
                    tightest = q;
                }
            }
            if (tightest != nullptr) {
                frames.push_back(quotaFrame(*tightest));
            }
            for (const auto* q : byAccount[account]) {
                if (isBalance(q->window)) {
                    frames.push_back(balanceFrame(*q));
                }
            }
        }
        return frames;
    }

    std::optional<MenuBarFrame> activity() const {
        std::vector<const MenuBarActivity*> busy;
        int working = 0, waiting = 0;
        for (const auto& a : in.activity) {
            if (a.working > 0 || a.waiting > 0) {
                busy.push_back(&a);
                working += std::max(0, a.working);
                waiting += std::max(0, a.waiting);
            }
        }
        if (busy.empty()) {
            return std::nullopt;
        }
        MenuBarFrame f = frameOf(MenuBarElement::activity, MenuBarGlyph::activity);
        if (busy.size() == 1) {
            stylePlatform(f, busy.front()->source);
        }
        styleMetric(f, text("menubar.agents"));
        f.value = states(working, waiting);
        f.compactValue = std::to_string(working + waiting);
        for (const auto* a : busy) {
            if (!f.fullText.empty()) {
                f.fullText += "\n";
            }
            f.fullText += text("menubar.full.activity",
                               {{"agent", std::string(displayName(a->source))},
                                {"state", states(std::max(0, a->working), std::max(0, a->waiting))}});
        }
        return f;
    }

    // "2 working", "1 waiting", "2 working, 1 waiting".
    std::string states(int working, int waiting) const {
        std::string out;
        if (working > 0) {
            out = text("menubar.working", {{"count", std::to_string(working)}});
        }
        if (waiting > 0) {
            if (!out.empty()) {
                out += text("menubar.separator");
            }
            out += text("menubar.waiting", {{"count", std::to_string(waiting)}});
        }
        return out;
    }
};

// The countdowns shown read whole minutes, truncated: "2m" lasts while 2 to 3 minutes are left
// and turns "1m" just after exactly two are. Hence the moment a little past the next boundary.
constexpr double kPastTheMinute = 0.001;

std::optional<double> nextCountdownChange(const MenuBarInputs& in) {
    std::optional<double> next;
    for (const auto& q : in.quotas) {
        const auto& at = q.window.resetsAt;
        if (!at || !std::isfinite(*at) || *at <= in.now) {
            continue;
        }
        const double when = in.now + std::fmod(*at - in.now, 60.0) + kPastTheMinute;
        if (!next || when < *next) {
            next = when;
        }
    }
    return next;
}

}  // namespace

namespace MenuBarComposer {

MenuBarText compose(const AppSettings& settings, const MenuBarInputs& inputs,
                    const MenuBarFormatter& format) {
    const Composer c{settings, inputs, format};
    MenuBarText out;

    std::vector<MenuBarElement> seen;
    for (const auto element : settings.menuBarElements) {
        if (std::find(seen.begin(), seen.end(), element) != seen.end()) {
            continue;
        }
        seen.push_back(element);
        switch (element) {
            case MenuBarElement::todayCost:
                out.frames.push_back(c.todayCost());
                break;
            case MenuBarElement::todayTokens:
                out.frames.push_back(c.todayTokens());
                break;
            case MenuBarElement::quota:
                for (auto& frame : c.quotas()) {
                    out.frames.push_back(std::move(frame));
                }
                break;
            case MenuBarElement::activity:
                if (auto frame = c.activity()) {
                    out.frames.push_back(std::move(*frame));
                }
                break;
        }
    }
    if (out.frames.empty()) {
        out.frames.push_back(c.todayCost());
    }

    for (const auto& q : inputs.quotas) {
        if (Composer::isCurrent(q.window, inputs.now) && !Composer::isBalance(q.window) &&
            Composer::hasShare(q.window) &&
            (!out.tightestUsedPercent || *q.window.usedPercent > *out.tightestUsedPercent)) {
            out.tightestUsedPercent = *q.window.usedPercent;
        }
    }

    for (const auto& frame : out.frames) {
        if (!out.tooltip.empty()) {
            out.tooltip += "\n";
        }
        out.tooltip += frame.fullText;
    }

    const double interval =
        std::isfinite(settings.menuBarRotateInterval) && settings.menuBarRotateInterval > 0
            ? settings.menuBarRotateInterval
            : kDefaultRotateSeconds;
    const double step = std::floor(inputs.now / interval);
    if (out.frames.size() > 1) {
        const auto count = static_cast<double>(out.frames.size());
        out.current = static_cast<size_t>(step - count * std::floor(step / count));
        out.nextChangeAt = (step + 1) * interval;
    }
    if (const auto countdown = nextCountdownChange(inputs);
        countdown && (!out.nextChangeAt || *countdown < *out.nextChangeAt)) {
        out.nextChangeAt = countdown;
    }
    return out;
}

}  // namespace MenuBarComposer

}  // namespace kestrel
