#include "core/plans/plan_probes.hpp"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "core/plans/probe_internals.hpp"

namespace kestrel {

std::string_view rawValue(PlanFamily family) {
    switch (family) {
        case PlanFamily::glm:
            return "glm";
        case PlanFamily::kimi:
            return "kimi";
        case PlanFamily::minimax:
            return "minimax";
        case PlanFamily::ark:
            return "ark";
        case PlanFamily::alibaba:
            return "alibaba";
        case PlanFamily::mimo:
            return "mimo";
    }
    return "glm";
}

std::string_view rawValue(PlanRegion region) {
    return region == PlanRegion::cn ? "cn" : "global";
}

namespace {

using json = nlohmann::json;
using namespace probe_detail;

AccountSnapshot keySnapshot(AgentSource source, std::string planLabel, double now) {
    AccountSnapshot snapshot;
    snapshot.identity.source = source;
    snapshot.identity.planLabel = std::move(planLabel);
    snapshot.fetchedAt = now;
    snapshot.provenance = QuotaProvenance::liveAPIKey;
    snapshot.completeness = CostCompleteness::complete;
    return snapshot;
}

HttpRequest keyRequest(std::string url, std::string authorization, const KeyProbeContext& context) {
    HttpRequest request;
    request.url = std::move(url);
    request.headers.emplace_back("Authorization", std::move(authorization));
    request.timeout = context.timeout;
    return request;
}

// The window a GLM limit's unit and number describe; absent for a unit we do not know.
std::optional<double> glmSeconds(const json& limit) {
    const auto unit = number(limit, "unit");
    const auto count = number(limit, "number");
    if (!unit || !count) {
        return std::nullopt;
    }
    switch (static_cast<int>(*unit)) {
        case 3:
            return *count * 3600;
        case 4:
            return *count * 86400;
        case 5:
            return *count * 30 * 86400;
        case 6:
            return *count * 7 * 86400;
        default:
            return std::nullopt;
    }
}

std::string formattedAmount(double value) {
    return fmt::format("{:.2f}", value);
}

}  // namespace

namespace GlmPlan {

std::string quotaURL(PlanRegion region, const EnvironmentLookup& env) {
    const auto host = region == PlanRegion::cn ? ProviderHost::glmCN : ProviderHost::glmGlobal;
    return ProviderHosts::baseURL(host, env) + "/api/monitor/usage/quota/limit";
}

bool shouldRetryBearer(long status) {
    return status == 401 || status == 403;
}

long effectiveStatus(long http, const json& body) {
    if (http != 200 || !body.is_object()) {
        return http;
    }
    if (auto code = number(body, "code"); code && *code != 200 && *code != 0) {
        // Their codes mix HTTP statuses (401) with their own (1001..1004: key problems).
        const long value = static_cast<long>(*code);
        if (value >= 1000 && value < 1100) {
            return 401;
        }
        return value >= 100 && value < 600 ? value : 500;
    }
    if (const auto it = body.find("success"); it != body.end() && it->is_boolean() && !*it) {
        return 500;
    }
    return http;
}

PlanProbeResult parse(std::string_view body, double now) {
    auto root = objectBody(body);
    if (!root) {
        return std::unexpected(root.error());
    }
    const auto data = root->find("data");
    const json& holder = data != root->end() && data->is_object() ? *data : *root;
    const auto limits = holder.find("limits");
    if (limits == holder.end() || !limits->is_array()) {
        return std::unexpected(ProbeErrors::unexpected("no limits in the answer"));
    }
    AccountSnapshot snapshot =
        keySnapshot(AgentSource::zcode, text(holder, "level").value_or("GLM Coding Plan"), now);
    for (const auto& limit : *limits) {
        const std::string type = text(limit, "type").value_or("");
        QuotaWindow window;
        const bool tokens = type == "TOKENS_LIMIT";
        window.label = tokens ? "tokens" : type == "TIME_LIMIT" ? "tool calls" : type;
        const auto seconds = glmSeconds(limit);
        window.kind = seconds ? kindForDuration(*seconds)
                              : (tokens ? QuotaWindowKind::session5h : QuotaWindowKind::monthly);
        if (auto percent = number(limit, "percentage")) {
            window.usedPercent = clampPercent(*percent);
        }
        // The token window carries only its percentage; counts come with the other limits.
        if (!tokens) {
            window.usedValue = number(limit, "currentValue");
            window.limitValue = number(limit, "usage");
            if (!window.usedPercent && window.usedValue && window.limitValue &&
                *window.limitValue > 0) {
                window.usedPercent = clampPercent(*window.usedValue / *window.limitValue * 100);
            }
        }
        window.resetsAt = instant(limit, "nextResetTime");
        if (window.usedPercent || window.usedValue) {
            snapshot.windows.push_back(std::move(window));
        }
    }
    if (snapshot.windows.empty()) {
        return std::unexpected(ProbeErrors::unexpected("no readable limit in the answer"));
    }
    return snapshot;
}

PlanProbeResult probe(const std::string& apiKey, PlanRegion region, const std::string&,
                      const KeyProbeContext& context, double now) {
    const std::string url = quotaURL(region, context.env);
    if (!ProviderHosts::mayCarryCredentials(url)) {
        return std::unexpected(
            ProbeErrors::unexpected("credentials go only over https or loopback"));
    }
    auto response = HttpClient::send(keyRequest(url, apiKey, context));
    if (response && shouldRetryBearer(response->status)) {
        response = HttpClient::send(keyRequest(url, "Bearer " + apiKey, context));
    }
    if (!response) {
        return std::unexpected(ProbeErrors::fromFailure(response.error()));
    }
    const auto body = json::parse(response->body, nullptr, false);
    HttpResponse effective = *response;
    effective.status = effectiveStatus(response->status, body);
    if (auto error = ProbeErrors::fromStatus(effective)) {
        return std::unexpected(*error);
    }
    return parse(response->body, now);
}

}  // namespace GlmPlan

namespace MiniMaxPlan {

std::string remainsURL(PlanRegion region, const EnvironmentLookup& env) {
    const auto host =
        region == PlanRegion::cn ? ProviderHost::minimaxCN : ProviderHost::minimaxGlobal;
    return ProviderHosts::baseURL(host, env) + "/v1/api/openplatform/coding_plan/remains";
}

std::optional<ProbeError> mapBodyError(const json& body) {
    const auto base = body.is_object() ? body.find("base_resp") : body.end();
    if (!body.is_object() || base == body.end()) {
        return std::nullopt;
    }
    const auto code = number(*base, "status_code");
    if (!code || *code == 0) {
        return std::nullopt;
    }
    const long value = static_cast<long>(*code);
    const std::string message = text(*base, "status_msg").value_or("");
    // 1004 and 2049: the key is unknown or not allowed; 1002, 1039: too many requests.
    if (value == 1004 || value == 2049 || value == 401) {
        return ProbeError{ProbeError::Kind::unauthorized, "code " + std::to_string(value), {}};
    }
    if (value == 1002 || value == 1039) {
        return ProbeError{ProbeError::Kind::rateLimited, "code " + std::to_string(value), {}};
    }
    return ProbeErrors::unexpected("code " + std::to_string(value) +
                                   (message.empty() ? "" : ": " + message.substr(0, 80)));
}

namespace {

// A window from one of the body's key groups. "usage_count" is, despite the name, what is left.
std::optional<QuotaWindow> remainsWindow(const json& entry, std::string_view prefix,
                                         QuotaWindowKind kind, double now) {
    const std::string p(prefix);
    auto total = number(entry, p + "_total_count");
    if (!total && kind == QuotaWindowKind::weekly) {
        total = number(entry, "weekly_total_count");
    }
    const auto remaining = number(entry, p + "_usage_count");
    const auto remainingPercent = number(entry, p + "_remaining_percent");
    QuotaWindow window;
    window.kind = kind;
    if (total && remaining) {
        window.limitValue = *total;
        window.usedValue = std::max(0.0, *total - *remaining);
        window.usedPercent = *total > 0 ? clampPercent(*window.usedValue / *total * 100) : 100.0;
    }
    if (remainingPercent) {
        window.usedPercent = clampPercent(100.0 - *remainingPercent);
    }
    if (!window.usedPercent) {
        return std::nullopt;
    }
    if (kind == QuotaWindowKind::weekly) {
        window.resetsAt = instant(entry, "weekly_end_time");
    } else {
        window.resetsAt = instant(entry, "end_time");
        if (!window.resetsAt) {
            if (auto left = number(entry, "remains_time")) {
                // Milliseconds left in the interval.
                window.resetsAt = now + *left / 1000.0;
            }
        }
    }
    return window;
}

}  // namespace

PlanProbeResult parse(std::string_view body, double now) {
    auto root = objectBody(body);
    if (!root) {
        return std::unexpected(root.error());
    }
    if (auto error = mapBodyError(*root)) {
        return std::unexpected(*error);
    }
    std::vector<const json*> entries;
    if (const auto models = root->find("model_remains");
        models != root->end() && models->is_array()) {
        for (const auto& entry : *models) {
            entries.push_back(&entry);
        }
    } else {
        entries.push_back(&*root);
    }
    // The plan has no agent of its own; it is used through Claude Code's compatible endpoint.
    // Plan readings are stored by plan account, so the source only labels.
    AccountSnapshot snapshot = keySnapshot(AgentSource::claude, "MiniMax Coding Plan", now);
    for (const json* entry : entries) {
        const auto model = text(*entry, "model_name");
        for (auto [prefix, kind] : {std::pair{"current_interval", QuotaWindowKind::session5h},
                                    std::pair{"current_weekly", QuotaWindowKind::weekly}}) {
            if (auto window = remainsWindow(*entry, prefix, kind, now)) {
                if (entries.size() > 1 && model) {
                    window->scopeKey = model;
                }
                window->label = model;
                snapshot.windows.push_back(std::move(*window));
            }
        }
    }
    if (snapshot.windows.empty()) {
        return std::unexpected(ProbeErrors::unexpected("no remaining counts in the answer"));
    }
    return snapshot;
}

PlanProbeResult probe(const std::string& apiKey, PlanRegion region, const std::string&,
                      const KeyProbeContext& context, double now) {
    auto response = send(keyRequest(remainsURL(region, context.env), "Bearer " + apiKey, context));
    if (!response) {
        return std::unexpected(response.error());
    }
    return parse(response->body, now);
}

}  // namespace MiniMaxPlan

namespace ApiBalance {

PlanProbeResult parseDeepSeek(std::string_view payload, double now) {
    auto root = objectBody(payload);
    if (!root) {
        return std::unexpected(root.error());
    }
    const auto infos = root->find("balance_infos");
    if (infos == root->end() || !infos->is_array()) {
        return std::unexpected(ProbeErrors::unexpected("no balance in the answer"));
    }
    AccountSnapshot snapshot = keySnapshot(AgentSource::deepseek, "DeepSeek API", now);
    for (const auto& info : *infos) {
        const auto balance = number(info, "total_balance");
        if (!balance) {
            continue;
        }
        QuotaWindow window;
        window.kind = QuotaWindowKind::apiPrepaid;
        window.currency = text(info, "currency").value_or("CNY");
        window.remainingLabel = formattedAmount(*balance) + " " + *window.currency;
        window.label = "balance";
        snapshot.windows.push_back(std::move(window));
    }
    if (snapshot.windows.empty()) {
        return std::unexpected(ProbeErrors::unexpected("no balance in the answer"));
    }
    if (root->contains("is_available") && !root->value("is_available", true)) {
        snapshot.plans.push_back({"deepseek-balance",
                                  "DeepSeek API",
                                  PurchasedPlanKind::prepaid,
                                  std::string("unavailable"),
                                  {},
                                  {},
                                  {},
                                  {}});
    }
    return snapshot;
}

PlanProbeResult parseOpenRouter(std::string_view key, std::string_view credits, double now) {
    auto creditsRoot = objectBody(credits);
    if (!creditsRoot) {
        return std::unexpected(creditsRoot.error());
    }
    const auto data = creditsRoot->find("data");
    const json& holder = data != creditsRoot->end() && data->is_object() ? *data : *creditsRoot;
    const auto total = number(holder, "total_credits");
    const auto used = number(holder, "total_usage");
    if (!total || !used) {
        return std::unexpected(ProbeErrors::unexpected("no credits in the answer"));
    }
    AccountSnapshot snapshot = keySnapshot(AgentSource::openrouter, "OpenRouter", now);
    QuotaWindow window;
    window.kind = QuotaWindowKind::apiPrepaid;
    window.currency = "USD";
    window.usedValue = *used;
    window.limitValue = *total;
    window.usedPercent = *total > 0 ? clampPercent(*used / *total * 100) : 100.0;
    window.remainingLabel = "$" + formattedAmount(std::max(0.0, *total - *used));
    window.label = "credits";
    snapshot.windows.push_back(std::move(window));
    // The key's own limit, when it has one, is a second window.
    if (auto keyRoot = objectBody(key)) {
        const auto keyData = keyRoot->find("data");
        const json& k = keyData != keyRoot->end() && keyData->is_object() ? *keyData : *keyRoot;
        if (auto label = text(k, "label")) {
            snapshot.identity.displayName = *label;
        }
        const auto limit = number(k, "limit");
        const auto usage = number(k, "usage");
        if (limit && usage && *limit > 0) {
            QuotaWindow keyWindow;
            keyWindow.kind = QuotaWindowKind::apiPrepaid;
            keyWindow.scopeKey = "key";
            keyWindow.label = "key limit";
            keyWindow.currency = "USD";
            keyWindow.usedValue = *usage;
            keyWindow.limitValue = *limit;
            keyWindow.usedPercent = clampPercent(*usage / *limit * 100);
            snapshot.windows.push_back(std::move(keyWindow));
        }
    }
    return snapshot;
}

PlanProbeResult deepSeek(const std::string& apiKey, const KeyProbeContext& context, double now) {
    auto response = send(
        keyRequest(ProviderHosts::baseURL(ProviderHost::deepSeek, context.env) + "/user/balance",
                   "Bearer " + apiKey, context));
    if (!response) {
        return std::unexpected(response.error());
    }
    return parseDeepSeek(response->body, now);
}

PlanProbeResult openRouter(const std::string& apiKey, const KeyProbeContext& context, double now) {
    const std::string base = ProviderHosts::baseURL(ProviderHost::openRouter, context.env);
    auto credits = send(keyRequest(base + "/api/v1/credits", "Bearer " + apiKey, context));
    if (!credits) {
        return std::unexpected(credits.error());
    }
    auto key = send(keyRequest(base + "/api/v1/key", "Bearer " + apiKey, context));
    return parseOpenRouter(key ? key->body : std::string{}, credits->body, now);
}

}  // namespace ApiBalance
}  // namespace kestrel
