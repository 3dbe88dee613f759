#pragma once
// The menu-bar text: what the tray item shows and says, built from today's figures, the quota
// windows and balances, and the agents working right now.
//
// The user picks the elements (menuBarElements) and their order. An element gives one "frame"
// per thing it can show — today's cost, today's tokens, one per account for quotas and balances,
// one for the working agents — and the item shows one frame at a time, rotating every
// menuBarRotateInterval seconds. The frame on show follows from the clock alone, so every view
// composed at the same moment agrees. Elements with nothing to show give no frame; with no frame
// at all the item shows today's cost.
//
// Pure: no clock, no I/O, no toolkit. Money and token counts are formatted by the caller's
// functions (they need the currency and the locale), everything else here.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/model/account_snapshot.hpp"
#include "core/model/agent_source.hpp"
#include "core/model/app_language.hpp"
#include "core/model/app_settings.hpp"

namespace kestrel {

// One quota window or balance of an account, as the stored readings give it.
struct MenuBarQuota {
    AgentSource source = AgentSource::claude;
    std::string accountID;  // windows of one account make one frame
    std::string planLabel;
    QuotaWindow window;
    bool stale = false;  // a failed refresh kept an older reading
};

// Agents with sessions working right now (live activity), one entry per agent.
struct MenuBarActivity {
    AgentSource source = AgentSource::claude;
    int working = 0;   // sessions working
    int waiting = 0;   // sessions waiting for the user (approval, a question)
};

struct MenuBarInputs {
    double now = 0;
    std::optional<int64_t> todayCostUSDMicros;  // absent: nothing priced today
    std::optional<int64_t> todayTokens;         // absent: nothing counted today
    std::vector<MenuBarQuota> quotas;
    std::vector<MenuBarActivity> activity;
};

struct MenuBarFormatter {
    AppLanguage language = AppLanguage::en;             // resolved, never `system`
    std::function<std::string(int64_t)> money;          // "$12.34" / "¥88.80"
    std::function<std::string(int64_t)> compactMoney;   // at most ~5 characters: "$12", "$1.2K"
    std::function<std::string(int64_t)> tokens;         // "1.2M"
    std::function<std::string(double)> percent;         // "42%"
};

// What the frame is about, for an icon where the style asks for one.
enum class MenuBarGlyph { cost, tokens, quota, balance, activity };

struct MenuBarFrame {
    MenuBarElement element = MenuBarElement::todayCost;
    std::optional<AgentSource> source;  // the agent the figure belongs to (quotas, activity)
    MenuBarGlyph glyph = MenuBarGlyph::cost;
    // The parts as the styles ask for them: the agent's name and the metric's label are empty
    // when their style is iconOnly (the view draws the icon instead).
    std::string platformText;  // "Claude Code"
    std::string metricText;    // "Today", "5h"
    std::string value;         // "$12.34", "42% ↻2h 5m", "2 working"
    bool showPlatformIcon = false;
    bool showMetricIcon = false;
    // The value alone, short enough for a 22–32 px tray icon: "$12", "42%", "1.2M", "2".
    std::string compactValue;
    // The frame said whole, whatever the styles, for tooltips and screen readers.
    std::string fullText;
    std::optional<double> usedPercent;  // quota frames: the account's tightest window

    // platformText, metricText and value joined with single spaces, empty parts left out.
    std::string text() const;

    bool operator==(const MenuBarFrame&) const = default;
};

struct MenuBarText {
    std::vector<MenuBarFrame> frames;  // every frame, in the order they rotate
    size_t current = 0;                // the frame on show now
    std::string tooltip;               // every frame's fullText, one per line
    // The highest used share of any current quota window, for the item's colour (absent
    // without a reading).
    std::optional<double> tightestUsedPercent;
    // When the text may change with the clock alone: the next rotation step, or the next
    // minute of a countdown on show, whichever comes first. Absent when nothing depends on time.
    std::optional<double> nextChangeAt;

    const MenuBarFrame& shown() const { return frames.at(current); }
};

namespace MenuBarComposer {

// The frames for `settings` (elements, rotation interval, styles) and `inputs` at inputs.now.
MenuBarText compose(const AppSettings& settings, const MenuBarInputs& inputs,
                    const MenuBarFormatter& format);

}  // namespace MenuBarComposer

}  // namespace kestrel
