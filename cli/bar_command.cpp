#include "cli/bar_command.hpp"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/glance_text.hpp"
#include "core/app/display_choices.hpp"
#include "core/app/glance.hpp"
#include "core/model/timestamp.hpp"
#include "core/pricing/usage_formatting.hpp"

namespace kestrel::cli {
namespace {

using ojson = nlohmann::ordered_json;

// "$12.34 · 5h 42%": short enough for a panel.
std::string panelText(const DisplayChoices& show, const Glance& g) {
    if (!g.ledgerRead) {
        return show.text("glance.noLedger");
    }
    std::string text = show.money(g.today.knownCostUSDMicros.value_or(0));
    if (g.tightest) {
        text += " · " + windowName(show, g.tightest->window) + " " +
                UsageFormatting::percent(*g.tightest->window.usedPercent);
    }
    return text;
}

// "today $12.34 · 5h 42% ↻2h 5m · $3.10/h".
std::string plainLine(const DisplayChoices& show, const Glance& g) {
    if (!g.ledgerRead) {
        return show.text("glance.noLedger");
    }
    std::string text =
        show.text("glance.today", {{"cost", show.money(g.today.knownCostUSDMicros.value_or(0))}});
    if (g.tightest) {
        text += " · " + windowText(show, *g.tightest, g.now);
    }
    text += " · " + show.text("glance.burn",
                              {{"cost", show.money(g.lastHour.knownCostUSDMicros.value_or(0))}});
    return text;
}

std::string tooltip(const DisplayChoices& show, const Glance& g) {
    if (!g.ledgerRead) {
        return show.text("glance.tooltip.noLedger");
    }
    std::string text =
        show.text(g.today.eventCount == 1 ? "glance.tooltip.todayOne" : "glance.tooltip.today",
                  {{"cost", show.money(g.today.knownCostUSDMicros.value_or(0))},
                   {"tokens", tokensText(show, g.today)},
                   {"events", std::to_string(g.today.eventCount)}}) +
        "\n" +
        show.text("glance.tooltip.lastHour",
                  {{"cost", show.money(g.lastHour.knownCostUSDMicros.value_or(0))},
                   {"tokens", tokensText(show, g.lastHour)}}) +
        "\n";
    if (!g.tightest) {
        return text + show.text("glance.tooltip.noWindow");
    }
    const auto& t = *g.tightest;
    text += show.text("glance.tooltip.window",
                      {{"agent", std::string(displayName(t.source))},
                       {"window", windowName(show, t.window)},
                       {"percent", UsageFormatting::percent(*t.window.usedPercent)}});
    if (const auto wait = resetCountdown(t.window.resetsAt, g.now)) {
        text += ", " + show.text("glance.tooltip.resets", {{"wait", *wait}});
    }
    text += " (" + show.text("glance.tooltip.readAgo", {{"wait", durationText(g.now - t.fetchedAt)}}) +
            ")";
    if (t.stale) {
        text += " " + show.text("glance.stale");
    }
    return text;
}

int percentage(const Glance& g) {
    if (!g.tightest) {
        return 0;
    }
    return glancePercent(*g.tightest->window.usedPercent);
}

}  // namespace

int runBar(CommandContext& ctx, const BarOptions& options) {
    GlanceRequest request;
    request.now = epochNow();
    const Glance g = glanceOrProblem(ctx.supportDir, request);
    const DisplayChoices show = glanceDisplay(g, options.language);
    const std::string level(
        rawValue(glanceLevel(g.tightest ? g.tightest->window.usedPercent : std::nullopt)));

    switch (options.format) {
        case BarFormat::waybar: {
            // Waybar reads one JSON object per line.
            ojson doc;
            doc["text"] = panelText(show, g);
            doc["tooltip"] = tooltip(show, g);
            doc["class"] = level;
            doc["percentage"] = percentage(g);
            ctx.out << doc.dump() << '\n';
            break;
        }
        case BarFormat::json: {
            ojson doc;
            doc["today"] = summaryJSON(show, g.today);
            doc["lastHour"] = summaryJSON(show, g.lastHour);
            doc["tightest"] = windowJSON(g.tightest, g.now);
            doc["class"] = level;
            doc["percentage"] = percentage(g);
            doc["ledger"] = {{"read", g.ledgerRead},
                             {"problem", g.ledgerRead ? ojson(nullptr) : ojson(g.ledgerProblem)}};
            doc["now"] = formatISO8601UTC(g.now);
            ctx.out << doc.dump() << '\n';
            break;
        }
        case BarFormat::text:
            ctx.out << plainLine(show, g) << '\n';
            break;
    }
    return kExitOK;
}

}  // namespace kestrel::cli
