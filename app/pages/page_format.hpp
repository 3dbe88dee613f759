#pragma once
// Small formatting shared by the pages, so that a figure reads the same on every page and as the
// command line prints it: counts with grouped digits, money through DisplayChoices, waits as
// "2d 4h".

#include <QString>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/app/display_choices.hpp"

namespace kestrel {
class AppSession;
}

namespace kestrel::desktop {

class UiText;

inline QString qstr(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

// 1234567 -> "1,234,567", as the command line's tables group digits.
QString groupedCount(int64_t value);
// The count, or "-" when the event does not report it.
QString countOrDash(const std::optional<int64_t>& value);

// "2d 4h", "3h 12m", "8m", "<1m"; negative waits read as none.
QString intervalText(double seconds);

// The language the pages show now with the currency and rate of the stored settings.
DisplayChoices pageDisplay(AppSession& session, const UiText& text);

}  // namespace kestrel::desktop
