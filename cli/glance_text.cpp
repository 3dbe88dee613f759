#include "cli/glance_text.hpp"

#include <cmath>
#include <nlohmann/json.hpp>

#include "core/model/timestamp.hpp"
#include "core/pricing/usage_formatting.hpp"

namespace kestrel::cli {

using ojson = nlohmann::ordered_json;

Glance glanceOrProblem(const std::filesystem::path& supportDir, const GlanceRequest& request) {
    try {
        return readGlance(supportDir, request);
    } catch (const std::exception& e) {
        Glance g;
        g.now = request.now;
        g.ledgerProblem = e.what();
        return g;
    }
}

DisplayChoices glanceDisplay(const Glance& glance, const std::optional<std::string>& language) {
    std::optional<AppLanguage> chosen;
    if (language) {
        chosen = fromRawValue<AppLanguage>(*language);
    }
    return displayChoices(glance.settings, chosen);
}

std::string windowName(const DisplayChoices& show, const QuotaWindow& window) {
    std::string name = show.text(std::string("glance.window.") + std::string(rawValue(window.kind)));
    if (window.scopeKey) {
        name += " " + *window.scopeKey;
    }
    return name;
}

std::string windowText(const DisplayChoices& show, const GlanceWindow& window, double now,
                       std::string_view colourOn, std::string_view colourOff) {
    std::string text = windowName(show, window.window) + " " + std::string(colourOn) +
                       UsageFormatting::percent(*window.window.usedPercent) +
                       std::string(colourOff);
    if (const auto wait = resetCountdown(window.window.resetsAt, now)) {
        text += " " + show.text("glance.resetsIn", {{"wait", *wait}});
    }
    if (window.stale) {
        text += " " + show.text("glance.stale");
    }
    return text;
}

std::string tokensText(const DisplayChoices& show, const LedgerSummary& summary) {
    return show.text("glance.tokens",
                     {{"count", UsageFormatting::tokens(summary.knownProviderTokenTotal.value_or(0),
                                                        show.locale())}});
}

namespace {

ojson optionalJSON(const auto& value) {
    return value ? ojson(*value) : ojson(nullptr);
}

}  // namespace

ojson summaryJSON(const DisplayChoices& show, const LedgerSummary& summary) {
    ojson doc;
    doc["events"] = summary.eventCount;
    doc["tokens"] = optionalJSON(summary.knownProviderTokenTotal);
    doc["costUSDMicros"] = optionalJSON(summary.knownCostUSDMicros);
    doc["cost"] = show.money(summary.knownCostUSDMicros.value_or(0));
    return doc;
}

ojson windowJSON(const std::optional<GlanceWindow>& window, double now) {
    if (!window) {
        return nullptr;
    }
    const auto& w = window->window;
    ojson doc;
    doc["account"] = window->accountID;
    doc["agent"] = std::string(rawValue(window->source));
    doc["plan"] = window->planLabel;
    doc["kind"] = std::string(rawValue(w.kind));
    doc["scope"] = optionalJSON(w.scopeKey);
    doc["label"] = optionalJSON(w.label);
    doc["usedPercent"] = *w.usedPercent;
    doc["resetsAt"] = w.resetsAt ? ojson(formatISO8601UTC(*w.resetsAt)) : ojson(nullptr);
    doc["resetsInSeconds"] =
        w.resetsAt ? ojson(static_cast<int64_t>(std::floor(*w.resetsAt - now))) : ojson(nullptr);
    doc["fetchedAt"] = formatISO8601UTC(window->fetchedAt);
    doc["stale"] = window->stale;
    return doc;
}

}  // namespace kestrel::cli
