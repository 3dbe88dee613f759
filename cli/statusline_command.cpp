#include "cli/statusline_command.hpp"

#include <cmath>
#include <iterator>
#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/glance_text.hpp"
#include "core/app/display_choices.hpp"
#include "core/app/glance.hpp"
#include "core/model/timestamp.hpp"

namespace kestrel::cli {
namespace {

using ojson = nlohmann::ordered_json;

// Claude Code's JSON is a few hundred bytes; more than this is not it.
constexpr std::size_t kMaxInput = 1 << 20;

std::optional<std::string> textAt(const nlohmann::json& object, const char* key) {
    const auto it = object.find(key);
    if (it == object.end() || !it->is_string() || it->get_ref<const std::string&>().empty()) {
        return std::nullopt;
    }
    return it->get<std::string>();
}

const char* levelColour(GlanceLevel level) {
    switch (level) {
        case GlanceLevel::normal:
            return "\x1b[32m";
        case GlanceLevel::warning:
            return "\x1b[33m";
        case GlanceLevel::critical:
            return "\x1b[31m";
    }
    return "";
}

constexpr const char* kDim = "\x1b[2m";
constexpr const char* kReset = "\x1b[0m";

std::string line(const DisplayChoices& show, const StatuslineInput& input, const Glance& g,
                 bool colour) {
    std::vector<std::string> parts;
    if (input.model) {
        parts.push_back(*input.model);
    }
    if (g.session) {
        parts.push_back(show.text("glance.session",
                                  {{"cost", show.money(g.session->knownCostUSDMicros.value_or(0))},
                                   {"tokens", tokensText(show, *g.session)}}));
    } else if (input.agentCostUSD) {
        // Not in the ledger yet (a scan has not read it, or session keys are not kept): the
        // agent's own estimate, marked as one.
        const auto micros = static_cast<int64_t>(std::llround(*input.agentCostUSD * 1e6));
        parts.push_back(show.text("glance.sessionEstimate", {{"cost", show.money(micros)}}));
    }
    if (!g.ledgerRead) {
        parts.push_back(show.text("glance.noLedger"));
    } else {
        parts.push_back(
            show.text("glance.today", {{"cost", show.money(g.today.knownCostUSDMicros.value_or(0))}}));
        if (g.tightest) {
            const auto level = glanceLevel(g.tightest->window.usedPercent);
            parts.push_back(windowText(show, *g.tightest, g.now, colour ? levelColour(level) : "",
                                       colour ? kReset : ""));
        }
        parts.push_back(show.text(
            "glance.burn", {{"cost", show.money(g.lastHour.knownCostUSDMicros.value_or(0))}}));
    }
    const std::string separator = colour ? std::string(kDim) + " · " + kReset : " · ";
    std::string out;
    for (const auto& part : parts) {
        out += (out.empty() ? "" : separator) + part;
    }
    return out.empty() ? std::string("Kestrel") : out;
}

ojson document(const DisplayChoices& show, const StatuslineInput& input, const Glance& g) {
    ojson doc;
    doc["model"] = input.model ? ojson(*input.model) : ojson(nullptr);
    if (input.sessionID) {
        ojson session;
        session["id"] = *input.sessionID;
        session["inLedger"] = g.session.has_value();
        const auto totals = summaryJSON(show, g.session.value_or(LedgerSummary{}));
        for (const auto& [key, value] : totals.items()) {
            session[key] = value;
        }
        session["agentCostUSD"] =
            input.agentCostUSD ? ojson(*input.agentCostUSD) : ojson(nullptr);
        doc["session"] = session;
    } else {
        doc["session"] = nullptr;
    }
    doc["today"] = summaryJSON(show, g.today);
    doc["lastHour"] = summaryJSON(show, g.lastHour);
    doc["tightest"] = windowJSON(g.tightest, g.now);
    doc["level"] = std::string(
        rawValue(glanceLevel(g.tightest ? g.tightest->window.usedPercent : std::nullopt)));
    doc["ledger"] = {{"read", g.ledgerRead},
                     {"problem", g.ledgerRead ? ojson(nullptr) : ojson(g.ledgerProblem)}};
    doc["now"] = formatISO8601UTC(g.now);
    return doc;
}

}  // namespace

StatuslineInput parseStatuslineInput(std::string_view text) {
    StatuslineInput input;
    const auto doc = nlohmann::json::parse(text, nullptr, false);
    if (doc.is_discarded() || !doc.is_object()) {
        return input;
    }
    input.sessionID = textAt(doc, "session_id");
    if (const auto model = doc.find("model"); model != doc.end()) {
        if (model->is_object()) {
            input.model = textAt(*model, "display_name");
            if (!input.model) {
                input.model = textAt(*model, "id");
            }
        } else if (model->is_string() && !model->get_ref<const std::string&>().empty()) {
            input.model = model->get<std::string>();
        }
    }
    if (const auto cost = doc.find("cost"); cost != doc.end() && cost->is_object()) {
        if (const auto total = cost->find("total_cost_usd");
            total != cost->end() && total->is_number() && std::isfinite(total->get<double>()) &&
            total->get<double>() >= 0) {
            input.agentCostUSD = total->get<double>();
        }
    }
    return input;
}

int runStatusline(CommandContext& ctx, const StatuslineOptions& options, std::istream& in) {
    std::string text;
    if (options.readInput) {
        text.reserve(4096);
        std::istreambuf_iterator<char> it(in), end;
        for (; it != end && text.size() < kMaxInput; ++it) {
            text.push_back(*it);
        }
    }
    const StatuslineInput input = parseStatuslineInput(text);

    GlanceRequest request;
    request.now = epochNow();
    request.sessionKey = input.sessionID;
    request.preferSource = AgentSource::claude;
    // Without even part of a glance, the model alone is still a line.
    const Glance g = glanceOrProblem(ctx.supportDir, request);
    const DisplayChoices show = glanceDisplay(g, options.language);
    if (options.json) {
        ctx.out << document(show, input, g).dump() << '\n';
    } else {
        ctx.out << line(show, input, g, options.colour) << '\n';
    }
    return kExitOK;
}

}  // namespace kestrel::cli
