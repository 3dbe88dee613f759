#include "app/figures.hpp"

#include <cmath>
#include <algorithm>
#include <cstdio>

#include "core/app/usage_rows.hpp"
#include "core/presentation/countdown_text.hpp"
#include "core/pricing/money_format.hpp"
#include "core/pricing/usage_formatting.hpp"

namespace kestrel::desktop {
namespace {

// `value` units of money with one fraction digit and a suffix once it no longer fits whole.
std::string shortAmount(double value) {
    char buf[32];
    const double magnitude = std::fabs(value);
    if (magnitude < 10) {
        std::snprintf(buf, sizeof buf, "%.2f", std::trunc(value * 100) / 100);
    } else if (magnitude < 1000) {
        std::snprintf(buf, sizeof buf, "%.0f", std::trunc(value));
    } else if (magnitude < 10'000) {
        std::snprintf(buf, sizeof buf, "%.1fK", std::trunc(value / 100) / 10);
    } else if (magnitude < 1'000'000) {
        std::snprintf(buf, sizeof buf, "%.0fK", std::trunc(value / 1000));
    } else {
        std::snprintf(buf, sizeof buf, "%.1fM", std::trunc(value / 100'000) / 10);
    }
    return buf;
}

}  // namespace

QString moneyText(const DisplayChoices& display, const LedgerSummary& summary) {
    QString out = QString::fromStdString(display.money(summary.knownCostUSDMicros.value_or(0)));
    if (summary.unknownCostEventCount > 0) {
        out += QLatin1Char('*');
    }
    return out;
}

QString tokenText(const DisplayChoices& display, int64_t tokens) {
    return QString::fromStdString(UsageFormatting::tokens(tokens, display.locale()));
}

std::string compactMoney(const DisplayChoices& display, int64_t usdMicros) {
    // Amounts are truncated, never rounded up: a tray that says "$10" has spent ten dollars.
    if (display.currency == ResolvedCurrency::cny) {
        const int64_t fen = cnyFen(usdMicros, display.cnyPerUsdE4);
        return "¥" + shortAmount(static_cast<double>(fen) / 100);
    }
    return "$" + shortAmount(static_cast<double>(usdMicros) / 1e6);
}

QString waitText(double seconds) {
    return QString::fromStdString(durationText(seconds));
}

MenuBarFormatter menuBarFormatter(const DisplayChoices& display) {
    MenuBarFormatter f;
    f.language = display.language;
    f.money = [display](int64_t micros) { return display.money(micros); };
    f.compactMoney = [display](int64_t micros) { return compactMoney(display, micros); };
    f.tokens = [display](int64_t count) { return UsageFormatting::tokens(count, display.locale()); };
    f.percent = [](double value) { return UsageFormatting::percent(value); };
    return f;
}

}  // namespace kestrel::desktop
