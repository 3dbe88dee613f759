#include "app/pages/page_format.hpp"

#include <algorithm>

#include "app/ui_text.hpp"
#include "core/app/app_session.hpp"

namespace kestrel::desktop {

QString groupedCount(int64_t value) {
    const bool negative = value < 0;
    // The unsigned magnitude, so that INT64_MIN does not overflow.
    const uint64_t magnitude =
        negative ? ~static_cast<uint64_t>(value) + 1 : static_cast<uint64_t>(value);
    const std::string digits = std::to_string(magnitude);
    QString out;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) {
            out += QLatin1Char(',');
        }
        out += QLatin1Char(digits[i]);
    }
    return negative ? QStringLiteral("-") + out : out;
}

QString countOrDash(const std::optional<int64_t>& value) {
    return value ? groupedCount(*value) : QStringLiteral("-");
}

QString intervalText(double seconds) {
    const auto total = static_cast<long long>(std::max(0.0, seconds));
    const long long days = total / 86400, hours = total % 86400 / 3600, minutes = total % 3600 / 60;
    if (days > 0) {
        return QStringLiteral("%1d %2h").arg(days).arg(hours);
    }
    if (hours > 0) {
        return QStringLiteral("%1h %2m").arg(hours).arg(minutes);
    }
    return minutes > 0 ? QStringLiteral("%1m").arg(minutes) : QStringLiteral("<1m");
}

DisplayChoices pageDisplay(AppSession& session, const UiText& text) {
    return displayChoices(session.settings(), text.language());
}

}  // namespace kestrel::desktop
