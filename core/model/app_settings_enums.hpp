#pragma once
// The small choices inside AppSettings: what the menu-bar item shows and how, the colour theme,
// and the modules of the main window. All persist as their case names.

#include "core/model/enum_cases.hpp"

namespace kestrel {

// One figure the menu-bar item can show; several rotate every menuBarRotateInterval seconds.
enum class MenuBarElement {
    todayCost,    // money spent today, in the display currency
    todayTokens,  // tokens used today
    quota,        // the tightest quota window of the agents that report one
    activity,     // how many agent sessions are working right now
};

// How one part of the menu-bar text is drawn: the agent it belongs to (platform) or the figure
// itself (metric). Icons keep the item narrow; text reads without learning the icons.
enum class MenuBarPresentationStyle { iconOnly, textOnly, iconAndText };

enum class AppTheme { system, light, dark };

// A module of the main window, shown in the order the user arranged them.
enum class ConsoleModuleKind {
    overview,  // today's and the period's totals
    heatmap,   // daily usage on a calendar
    models,    // totals per model
    sources,   // totals and status per agent
    quota,     // quota windows and plans
    events,    // the latest ledger events
};

template <>
struct EnumCases<MenuBarElement> {
    using E = MenuBarElement;
    static constexpr std::array<std::pair<E, std::string_view>, 4> cases{{
        KESTREL_ENUM_CASE(E, todayCost),
        KESTREL_ENUM_CASE(E, todayTokens),
        KESTREL_ENUM_CASE(E, quota),
        KESTREL_ENUM_CASE(E, activity),
    }};
};

template <>
struct EnumCases<MenuBarPresentationStyle> {
    using E = MenuBarPresentationStyle;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        KESTREL_ENUM_CASE(E, iconOnly),
        KESTREL_ENUM_CASE(E, textOnly),
        KESTREL_ENUM_CASE(E, iconAndText),
    }};
};

template <>
struct EnumCases<AppTheme> {
    using E = AppTheme;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        KESTREL_ENUM_CASE(E, system),
        KESTREL_ENUM_CASE(E, light),
        KESTREL_ENUM_CASE(E, dark),
    }};
};

template <>
struct EnumCases<ConsoleModuleKind> {
    using E = ConsoleModuleKind;
    static constexpr std::array<std::pair<E, std::string_view>, 6> cases{{
        KESTREL_ENUM_CASE(E, overview),
        KESTREL_ENUM_CASE(E, heatmap),
        KESTREL_ENUM_CASE(E, models),
        KESTREL_ENUM_CASE(E, sources),
        KESTREL_ENUM_CASE(E, quota),
        KESTREL_ENUM_CASE(E, events),
    }};
};

}  // namespace kestrel
