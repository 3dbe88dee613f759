#include "core/plans/live_quota.hpp"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "core/model/base64.hpp"
#include "core/model/privacy.hpp"
#include "core/plans/probe_internals.hpp"
#include "core/plans/provider_hosts.hpp"

namespace kestrel {

std::optional<OAuthTokens> TokenCache::get(AgentSource source) const {
    std::lock_guard guard(mutex_);
    const auto it = tokens_.find(source);
    return it == tokens_.end() ? std::nullopt : std::optional<OAuthTokens>(it->second);
}

void TokenCache::put(AgentSource source, OAuthTokens tokens) {
    std::lock_guard guard(mutex_);
    tokens_[source] = std::move(tokens);
}

std::map<AgentSource, OAuthTokens> TokenCache::entries() const {
    std::lock_guard guard(mutex_);
    return tokens_;
}

namespace LiveQuota {
namespace {

using json = nlohmann::json;
using namespace probe_detail;

// Refresh a little before the provider would refuse the token.
constexpr double kExpirySlackSeconds = 60;

std::optional<std::string> readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

json parseObject(std::string_view text) {
    auto parsed = json::parse(text, nullptr, false);
    return parsed.is_object() ? parsed : json::object();
}

std::string titleCase(std::string text) {
    if (!text.empty()) {
        text.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(text.front())));
    }
    return text;
}

bool expired(const OAuthTokens& tokens, double now) {
    return tokens.expiresAt && *tokens.expiresAt <= now + kExpirySlackSeconds;
}

// The file's tokens, or the ones Kestrel refreshed since when they are newer.
std::optional<OAuthTokens> currentTokens(const ProbeContext& context, AgentSource source,
                                         const std::filesystem::path& file,
                                         std::optional<OAuthTokens> (*reader)(std::string_view)) {
    std::optional<OAuthTokens> tokens;
    if (auto text = readFile(file)) {
        tokens = reader(*text);
    }
    if (context.tokens) {
        if (auto cached = context.tokens->get(source)) {
            const bool fileIsNewer = tokens && tokens->refreshToken != cached->refreshToken &&
                                     tokens->expiresAt.value_or(0) > cached->expiresAt.value_or(0);
            if (tokens && !fileIsNewer) {
                // The agent's plan label stays the file's.
                cached->planLabel = tokens->planLabel;
                tokens = cached;
            }
        }
    }
    return tokens;
}

HttpRequest bearerGet(std::string url, const std::string& token, const ProbeContext& context) {
    HttpRequest request;
    request.url = std::move(url);
    request.headers.emplace_back("Authorization", "Bearer " + token);
    request.timeout = context.timeout;
    return request;
}

std::string formEncode(std::string_view value) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    for (const unsigned char c : value) {
        if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(hex[c >> 4]);
            out.push_back(hex[c & 15]);
        }
    }
    return out;
}

// A refresh-token grant. Only the token endpoint sees the refresh token; the answer's tokens
// go to the cache, never to the agent's file.
std::expected<OAuthTokens, ProbeError> refreshTokens(const ProbeContext& context,
                                                     AgentSource source, std::string url,
                                                     std::string_view clientID,
                                                     const OAuthTokens& old, bool form,
                                                     double now) {
    if (old.refreshToken.empty()) {
        return std::unexpected(ProbeError{ProbeError::Kind::expired, "no refresh token", {}});
    }
    HttpRequest request;
    request.url = std::move(url);
    request.timeout = context.timeout;
    if (form) {
        request.contentType = "application/x-www-form-urlencoded";
        request.postBody =
            "grant_type=refresh_token&refresh_token=" + formEncode(old.refreshToken) +
            "&client_id=" + formEncode(clientID);
    } else {
        request.postBody = json{{"client_id", clientID},
                                {"grant_type", "refresh_token"},
                                {"refresh_token", old.refreshToken},
                                {"scope", "openid profile email"}}
                               .dump();
    }
    auto response = send(request);
    if (!response) {
        auto error = response.error();
        if (error.kind == ProbeError::Kind::unauthorized) {
            error = {ProbeError::Kind::expired, "refresh refused", {}};
        }
        return std::unexpected(error);
    }
    auto body = objectBody(response->body);
    if (!body) {
        return std::unexpected(body.error());
    }
    auto access = text(*body, "access_token");
    if (!access) {
        return std::unexpected(ProbeErrors::unexpected("refresh answer has no access token"));
    }
    OAuthTokens fresh = old;
    fresh.accessToken = *access;
    if (auto refresh = text(*body, "refresh_token")) {
        fresh.refreshToken = *refresh;
    }
    if (auto lifetime = number(*body, "expires_in")) {
        fresh.expiresAt = now + *lifetime;
    } else {
        fresh.expiresAt = jwtExpiry(fresh.accessToken);
    }
    if (context.tokens) {
        context.tokens->put(source, fresh);
    }
    return fresh;
}

struct RefreshPlan {
    ProviderHost authHost;
    std::string_view path;
    std::string_view clientID;
    bool form;
};

// Gets the usage with the current token; an expired token is refreshed first, and a refused one
// is refreshed and the request tried once more.
template <typename MakeRequest>
std::expected<HttpResponse, ProbeError> getWithRefresh(const ProbeContext& context,
                                                       AgentSource source, OAuthTokens& tokens,
                                                       const RefreshPlan& plan,
                                                       MakeRequest makeRequest, double now) {
    const std::string tokenURL =
        ProviderHosts::baseURL(plan.authHost, context.env) + std::string(plan.path);
    bool refreshed = false;
    if (expired(tokens, now)) {
        auto fresh =
            refreshTokens(context, source, tokenURL, plan.clientID, tokens, plan.form, now);
        if (!fresh) {
            return std::unexpected(fresh.error());
        }
        tokens = *fresh;
        refreshed = true;
    }
    auto response = send(makeRequest(tokens));
    if (!response && response.error().kind == ProbeError::Kind::unauthorized && !refreshed) {
        auto fresh =
            refreshTokens(context, source, tokenURL, plan.clientID, tokens, plan.form, now);
        if (!fresh) {
            return std::unexpected(fresh.error());
        }
        tokens = *fresh;
        response = send(makeRequest(tokens));
    }
    return response;
}

AccountSnapshot liveSnapshot(AgentSource source, double now) {
    AccountSnapshot snapshot;
    snapshot.identity.source = source;
    snapshot.fetchedAt = now;
    snapshot.provenance = QuotaProvenance::liveOAuth;
    snapshot.completeness = CostCompleteness::complete;
    return snapshot;
}

std::string windowLabel(std::string_view key) {
    std::string label(key);
    std::replace(label.begin(), label.end(), '_', ' ');
    return label;
}

// --- Codex ---------------------------------------------------------------------------------

std::optional<QuotaWindow> codexWindow(const json& window, double now) {
    if (!window.is_object()) {
        return std::nullopt;
    }
    QuotaWindow out;
    out.usedPercent = number(window, "used_percent");
    if (!out.usedPercent) {
        return std::nullopt;
    }
    out.usedPercent = clampPercent(*out.usedPercent);
    const auto seconds = number(window, "limit_window_seconds");
    out.kind = seconds ? kindForDuration(*seconds) : QuotaWindowKind::session5h;
    out.resetsAt = instant(window, "resets_at");
    if (!out.resetsAt) {
        out.resetsAt = instant(window, "reset_at");
    }
    if (!out.resetsAt) {
        if (auto after = number(window, "reset_after_seconds")) {
            out.resetsAt = now + *after;
        }
    }
    return out;
}

// A rate-limit object's two windows: "primary_window" and "secondary_window" (the log's form
// without the suffix is read too).
void appendCodexWindows(std::vector<QuotaWindow>& out, const json& limits, double now,
                        const std::optional<std::string>& scope) {
    if (!limits.is_object()) {
        return;
    }
    for (const char* key : {"primary_window", "primary", "secondary_window", "secondary"}) {
        const auto it = limits.find(key);
        if (it == limits.end()) {
            continue;
        }
        if (auto window = codexWindow(*it, now)) {
            if (scope) {
                window->scopeKey = scope;
                window->label = *scope;
                if (window->kind == QuotaWindowKind::weekly) {
                    window->kind = QuotaWindowKind::weeklyModelScoped;
                }
            }
            out.push_back(std::move(*window));
        }
    }
}

// --- Kimi ----------------------------------------------------------------------------------

std::optional<QuotaWindow> kimiWindow(const json& detail, double now) {
    const auto limit = number(detail, "limit");
    auto used = number(detail, "used");
    const auto remaining = number(detail, "remaining");
    if (!used && limit && remaining) {
        used = *limit - *remaining;
    }
    if (!limit || !used) {
        return std::nullopt;
    }
    QuotaWindow window;
    window.usedValue = *used;
    window.limitValue = *limit;
    window.usedPercent = *limit > 0 ? clampPercent(*used / *limit * 100.0) : 100.0;
    window.resetsAt = instant(detail, "resetTime");
    if (!window.resetsAt) {
        window.resetsAt = instant(detail, "reset_at");
    }
    if (window.resetsAt && *window.resetsAt < now - 1) {
        window.resetsAt.reset();  // a reset in the past says nothing about the next one
    }
    return window;
}

double kimiDurationSeconds(const json& window) {
    const double duration = number(window, "duration").value_or(0);
    const std::string unit = text(window, "timeUnit").value_or("");
    if (unit.find("SECOND") != std::string::npos) {
        return duration;
    }
    if (unit.find("HOUR") != std::string::npos) {
        return duration * 3600;
    }
    if (unit.find("DAY") != std::string::npos) {
        return duration * 86400;
    }
    return duration * 60;  // minutes, the unit the service uses
}

}  // namespace

std::filesystem::path claudeCredentialsPath(const std::filesystem::path& home) {
    return home / ".claude" / ".credentials.json";
}
std::filesystem::path codexAuthPath(const std::filesystem::path& home) {
    return home / ".codex" / "auth.json";
}
std::filesystem::path kimiCredentialsPath(const std::filesystem::path& home) {
    return home / ".kimi-code" / "credentials" / "kimi-code.json";
}
std::filesystem::path grokAuthPath(const std::filesystem::path& home) {
    return home / ".grok" / "auth.json";
}

namespace {

// The claims of a JWT; empty when it is none.
json jwtClaims(std::string_view jwt) {
    const auto first = jwt.find('.');
    const auto second = first == std::string_view::npos ? first : jwt.find('.', first + 1);
    if (second == std::string_view::npos) {
        return json::object();
    }
    std::string payload(jwt.substr(first + 1, second - first - 1));
    std::replace(payload.begin(), payload.end(), '-', '+');
    std::replace(payload.begin(), payload.end(), '_', '/');
    while (payload.size() % 4 != 0) {
        payload.push_back('=');
    }
    const auto decoded = base64::decode(payload);
    return decoded ? parseObject(*decoded) : json::object();
}

}  // namespace

std::optional<double> jwtExpiry(std::string_view jwt) {
    return number(jwtClaims(jwt), "exp");
}

std::filesystem::path signInFile(AgentSource source, const std::filesystem::path& home) {
    switch (source) {
        case AgentSource::claude:
            return claudeCredentialsPath(home);
        case AgentSource::codex:
            return codexAuthPath(home);
        case AgentSource::kimi: {
            auto path = kimiCredentialsPath(home);
            std::error_code ec;
            return std::filesystem::exists(path, ec)
                       ? path
                       : home / ".kimi" / "credentials" / "kimi-code.json";
        }
        case AgentSource::grok:
            return grokAuthPath(home);
        default:
            return {};
    }
}

std::optional<std::string> signInIdentity(AgentSource source, const std::filesystem::path& home) {
    const auto file = signInFile(source, home);
    if (file.empty()) {
        return std::nullopt;
    }
    const auto content = readFile(file);
    if (!content) {
        return std::nullopt;
    }
    std::optional<OAuthTokens> tokens;
    std::optional<std::string> account;
    switch (source) {
        case AgentSource::claude:
            tokens = claudeTokens(*content);
            if (const auto profile = readFile(home / ".claude.json")) {
                const json root = parseObject(*profile);
                const auto it = root.find("oauthAccount");
                if (it != root.end() && it->is_object()) {
                    if (auto uuid = text(*it, "accountUuid")) {
                        account = *uuid + "/" + text(*it, "organizationUuid").value_or("");
                    }
                }
            }
            break;
        case AgentSource::codex:
            tokens = codexTokens(*content);
            if (tokens) {
                account = tokens->accountID;
            }
            break;
        case AgentSource::kimi:
            tokens = kimiTokens(*content);
            if (tokens) {
                const json claims = jwtClaims(tokens->accessToken);
                account = text(claims, "sub");
                if (!account) {
                    account = text(claims, "user_id");
                }
            }
            break;
        case AgentSource::grok: {
            // The id token's subject or the address itself (a masked one could match another's).
            tokens = grokTokens(*content);
            const json root = parseObject(*content);
            const auto nested = root.find("tokens");
            const json& holder = nested != root.end() && nested->is_object() ? *nested : root;
            json claims = json::object();
            if (auto idToken = text(holder, "id_token")) {
                claims = jwtClaims(*idToken);
            }
            for (const json* from : std::initializer_list<const json*>{&claims, &holder, &root}) {
                for (const char* key : {"sub", "email"}) {
                    if (!account) {
                        account = text(*from, key);
                    }
                }
            }
            break;
        }
        default:
            return std::nullopt;
    }
    if (!tokens) {
        return std::nullopt;  // no usable sign-in, whatever the profile says
    }
    if (account && !account->empty()) {
        return "account:" + *account;
    }
    return !tokens->refreshToken.empty() ? "refresh:" + tokens->refreshToken
                                         : "access:" + tokens->accessToken;
}

std::optional<OAuthTokens> claudeTokens(std::string_view fileText) {
    const json root = parseObject(fileText);
    const auto it = root.find("claudeAiOauth");
    if (it == root.end() || !it->is_object()) {
        return std::nullopt;
    }
    auto access = text(*it, "accessToken");
    if (!access) {
        return std::nullopt;
    }
    OAuthTokens tokens;
    tokens.accessToken = *access;
    tokens.refreshToken = text(*it, "refreshToken").value_or("");
    tokens.expiresAt = instant(*it, "expiresAt");
    tokens.planLabel = text(*it, "subscriptionType");
    return tokens;
}

std::optional<OAuthTokens> codexTokens(std::string_view fileText) {
    const json root = parseObject(fileText);
    const auto it = root.find("tokens");
    if (it == root.end() || !it->is_object()) {
        return std::nullopt;
    }
    auto access = text(*it, "access_token");
    if (!access) {
        return std::nullopt;
    }
    OAuthTokens tokens;
    tokens.accessToken = *access;
    tokens.refreshToken = text(*it, "refresh_token").value_or("");
    tokens.expiresAt = jwtExpiry(*access);
    tokens.accountID = text(*it, "account_id");
    return tokens;
}

std::optional<OAuthTokens> kimiTokens(std::string_view fileText) {
    const json root = parseObject(fileText);
    auto access = text(root, "access_token");
    if (!access) {
        return std::nullopt;
    }
    OAuthTokens tokens;
    tokens.accessToken = *access;
    tokens.refreshToken = text(root, "refresh_token").value_or("");
    tokens.expiresAt = instant(root, "expires_at");
    if (!tokens.expiresAt) {
        tokens.expiresAt = jwtExpiry(*access);
    }
    return tokens;
}

std::optional<OAuthTokens> grokTokens(std::string_view fileText) {
    const json root = parseObject(fileText);
    const auto nested = root.find("tokens");
    const json& holder = nested != root.end() && nested->is_object() ? *nested : root;
    auto access = text(holder, "access_token");
    if (!access) {
        return std::nullopt;
    }
    OAuthTokens tokens;
    tokens.accessToken = *access;
    tokens.refreshToken = text(holder, "refresh_token").value_or("");
    tokens.expiresAt = instant(holder, "expires_at");
    if (!tokens.expiresAt) {
        tokens.expiresAt = jwtExpiry(*access);
    }
    return tokens;
}

std::expected<AccountSnapshot, ProbeError> parseClaude(std::string_view body, double now) {
    auto root = objectBody(body);
    if (!root) {
        return std::unexpected(root.error());
    }
    AccountSnapshot snapshot = liveSnapshot(AgentSource::claude, now);
    for (const auto& [key, value] : root->items()) {
        if (!value.is_object() || !value.contains("utilization")) {
            continue;  // null for windows the plan does not have
        }
        QuotaWindow window;
        window.label = windowLabel(key);
        if (key == "extra_usage") {
            if (!value.value("is_enabled", true)) {
                continue;
            }
            window.kind = QuotaWindowKind::extraCredits;
            window.usedValue = number(value, "used_credits");
            window.limitValue = number(value, "monthly_limit");
        } else if (key == "five_hour") {
            window.kind = QuotaWindowKind::session5h;
        } else if (key == "seven_day") {
            window.kind = QuotaWindowKind::weekly;
        } else if (key.starts_with("seven_day_")) {
            window.kind = QuotaWindowKind::weeklyModelScoped;
            window.scopeKey = key.substr(std::string_view("seven_day_").size());
        } else if (key.find("month") != std::string::npos) {
            window.kind = QuotaWindowKind::monthly;
        } else {
            // A window we do not know yet still shows, scoped by its key.
            window.kind = QuotaWindowKind::weeklyModelScoped;
            window.scopeKey = key;
        }
        if (auto used = number(value, "utilization")) {
            window.usedPercent = clampPercent(*used);
        }
        window.resetsAt = instant(value, "resets_at");
        snapshot.windows.push_back(std::move(window));
    }
    std::stable_sort(snapshot.windows.begin(), snapshot.windows.end(),
                     [](const QuotaWindow& a, const QuotaWindow& b) { return a.kind < b.kind; });
    return snapshot;
}

std::expected<AccountSnapshot, ProbeError> parseCodex(std::string_view body, double now) {
    auto root = objectBody(body);
    if (!root) {
        return std::unexpected(root.error());
    }
    AccountSnapshot snapshot = liveSnapshot(AgentSource::codex, now);
    if (auto plan = text(*root, "plan_type")) {
        snapshot.identity.planLabel = titleCase(*plan);
    }
    if (auto email = text(*root, "email")) {
        snapshot.identity.emailMasked = Privacy::maskEmail(*email);
    }
    const auto limits = root->find("rate_limit");
    if (limits != root->end()) {
        appendCodexWindows(snapshot.windows, *limits, now, std::nullopt);
    } else {
        appendCodexWindows(snapshot.windows, *root, now, std::nullopt);
    }
    if (const auto extra = root->find("additional_rate_limits");
        extra != root->end() && extra->is_array()) {
        for (const auto& entry : *extra) {
            auto scope = text(entry, "limit_name");
            if (!scope) {
                scope = text(entry, "metered_feature");
            }
            const auto inner = entry.find("rate_limit");
            appendCodexWindows(snapshot.windows, inner != entry.end() ? *inner : entry, now,
                               scope.value_or("additional"));
        }
    }
    if (const auto credits = root->find("credits");
        credits != root->end() && credits->is_object()) {
        if (credits->value("has_credits", false) || credits->value("unlimited", false)) {
            QuotaWindow window;
            window.kind = QuotaWindowKind::extraCredits;
            window.label = "credits";
            if (credits->value("unlimited", false)) {
                window.remainingLabel = "unlimited";
            } else if (auto balance = number(*credits, "balance")) {
                window.remainingLabel =
                    text(*credits, "balance").value_or(std::to_string(*balance));
            }
            snapshot.windows.push_back(std::move(window));
        }
    }
    if (snapshot.windows.empty() && limits == root->end()) {
        return std::unexpected(ProbeErrors::unexpected("no rate limits in the answer"));
    }
    return snapshot;
}

std::expected<AccountSnapshot, ProbeError> parseKimi(std::string_view body, double now) {
    auto root = objectBody(body);
    if (!root) {
        return std::unexpected(root.error());
    }
    AccountSnapshot snapshot = liveSnapshot(AgentSource::kimi, now);
    if (const auto limits = root->find("limits"); limits != root->end() && limits->is_array()) {
        for (const auto& entry : *limits) {
            const auto detail = entry.find("detail");
            auto window = kimiWindow(detail != entry.end() ? *detail : entry, now);
            if (!window) {
                continue;
            }
            if (const auto span = entry.find("window"); span != entry.end()) {
                window->kind = kindForDuration(kimiDurationSeconds(*span));
            }
            snapshot.windows.push_back(std::move(*window));
        }
    }
    if (const auto usage = root->find("usage"); usage != root->end()) {
        if (auto window = kimiWindow(*usage, now)) {
            window->kind = QuotaWindowKind::weekly;
            snapshot.windows.push_back(std::move(*window));
        }
    }
    if (const auto user = root->find("user"); user != root->end()) {
        if (auto level = text(*user, "membershipLevel")) {
            snapshot.identity.planLabel = *level;
        }
    }
    if (snapshot.windows.empty()) {
        return std::unexpected(ProbeErrors::unexpected("no usage windows in the answer"));
    }
    std::stable_sort(snapshot.windows.begin(), snapshot.windows.end(),
                     [](const QuotaWindow& a, const QuotaWindow& b) { return a.kind < b.kind; });
    return snapshot;
}

void applyKimiMe(AccountSnapshot& snapshot, std::string_view meBody) {
    json root = parseObject(meBody);
    if (const auto data = root.find("data"); data != root.end() && data->is_object()) {
        root = *data;
    }
    for (const char* key : {"name", "nickname", "display_name"}) {
        if (auto name = text(root, key)) {
            snapshot.identity.displayName = *name;
            break;
        }
    }
    if (auto email = text(root, "email")) {
        snapshot.identity.emailMasked = Privacy::maskEmail(*email);
    }
    for (const char* key : {"membershipLevel", "membership_level", "plan", "level"}) {
        if (auto plan = text(root, key)) {
            snapshot.identity.planLabel = *plan;
            break;
        }
    }
}

std::expected<AccountSnapshot, ProbeError> parseGrok(std::string_view weekly,
                                                     std::string_view monthly,
                                                     std::string_view settings, double now) {
    AccountSnapshot snapshot = liveSnapshot(AgentSource::grok, now);
    bool anyBody = false;
    const auto read = [&](std::string_view body,
                          QuotaWindowKind kind) -> std::optional<ProbeError> {
        auto root = objectBody(body);
        if (!root) {
            return root.error();
        }
        anyBody = true;
        const json& data =
            root->contains("data") && (*root)["data"].is_object() ? (*root)["data"] : *root;
        QuotaWindow window;
        window.kind = kind;
        window.usedValue = number(data, "used");
        if (!window.usedValue) {
            window.usedValue = number(data, "usage");
        }
        window.limitValue = number(data, "limit");
        if (!window.limitValue) {
            window.limitValue = number(data, "total");
        }
        window.usedPercent = number(data, "used_percent");
        if (!window.usedPercent && window.usedValue && window.limitValue &&
            *window.limitValue > 0) {
            window.usedPercent = *window.usedValue / *window.limitValue * 100.0;
        }
        if (window.usedPercent) {
            window.usedPercent = clampPercent(*window.usedPercent);
        }
        window.resetsAt = instant(data, "resets_at");
        window.currency = text(data, "currency");
        if (window.usedPercent || window.usedValue) {
            snapshot.windows.push_back(std::move(window));
        }
        return std::nullopt;
    };
    const auto weeklyError = read(weekly, QuotaWindowKind::weekly);
    const auto monthlyError = read(monthly, QuotaWindowKind::monthly);
    if (!anyBody) {
        return std::unexpected(*weeklyError);
    }
    (void)monthlyError;
    const json settingsRoot = parseObject(settings);
    if (auto plan = text(settingsRoot, "subscription_tier")) {
        snapshot.identity.planLabel = *plan;
    } else if (auto planName = text(settingsRoot, "plan")) {
        snapshot.identity.planLabel = *planName;
    }
    return snapshot;
}

AccountIdentity grokIdentity(std::string_view authText) {
    AccountIdentity identity;
    identity.source = AgentSource::grok;
    const json root = parseObject(authText);
    json claims = json::object();
    const auto nested = root.find("tokens");
    const json& holder = nested != root.end() && nested->is_object() ? *nested : root;
    if (auto idToken = text(holder, "id_token")) {
        claims = jwtClaims(*idToken);
    }
    for (const json* source : std::initializer_list<const json*>{&claims, &holder, &root}) {
        if (!identity.displayName) {
            identity.displayName = text(*source, "name");
        }
        if (!identity.emailMasked) {
            if (auto email = text(*source, "email")) {
                identity.emailMasked = Privacy::maskEmail(*email);
            }
        }
    }
    return identity;
}

LiveQuotaResult claude(const ProbeContext& context, double now) {
    auto tokens = currentTokens(context, AgentSource::claude, claudeCredentialsPath(context.home),
                                claudeTokens);
    if (!tokens) {
        return std::optional<AccountSnapshot>{};
    }
    // Claude Code refreshes its own sign-in; a token past its time waits for the agent.
    if (expired(*tokens, now)) {
        return std::unexpected(ProbeError{ProbeError::Kind::expired, "sign-in expired", {}});
    }
    HttpRequest request =
        bearerGet(ProviderHosts::baseURL(ProviderHost::claude, context.env) + "/api/oauth/usage",
                  tokens->accessToken, context);
    request.headers.emplace_back("anthropic-beta", std::string(claudeBetaHeader));
    auto response = send(request);
    if (!response) {
        return std::unexpected(response.error());
    }
    auto snapshot = parseClaude(response->body, now);
    if (!snapshot) {
        return std::unexpected(snapshot.error());
    }
    if (tokens->planLabel) {
        snapshot->identity.planLabel = titleCase(*tokens->planLabel);
    }
    return std::optional(std::move(*snapshot));
}

LiveQuotaResult codex(const ProbeContext& context, double now) {
    auto tokens =
        currentTokens(context, AgentSource::codex, codexAuthPath(context.home), codexTokens);
    if (!tokens) {
        return std::optional<AccountSnapshot>{};
    }
    const std::string usageURL =
        ProviderHosts::baseURL(ProviderHost::codex, context.env) + "/backend-api/wham/usage";
    auto response = getWithRefresh(
        context, AgentSource::codex, *tokens,
        {ProviderHost::codexAuth, "/oauth/token", chatgptOAuthClientID, false},
        [&](const OAuthTokens& t) {
            HttpRequest request = bearerGet(usageURL, t.accessToken, context);
            if (t.accountID) {
                request.headers.emplace_back("ChatGPT-Account-Id", *t.accountID);
            }
            return request;
        },
        now);
    if (!response) {
        return std::unexpected(response.error());
    }
    auto snapshot = parseCodex(response->body, now);
    if (!snapshot) {
        return std::unexpected(snapshot.error());
    }
    return std::optional(std::move(*snapshot));
}

LiveQuotaResult kimi(const ProbeContext& context, double now) {
    auto path = kimiCredentialsPath(context.home);
    if (!std::filesystem::exists(path)) {
        path = context.home / ".kimi" / "credentials" / "kimi-code.json";
    }
    auto tokens = currentTokens(context, AgentSource::kimi, path, kimiTokens);
    if (!tokens) {
        return std::optional<AccountSnapshot>{};
    }
    const std::string base = ProviderHosts::baseURL(ProviderHost::kimi, context.env);
    auto response = getWithRefresh(
        context, AgentSource::kimi, *tokens,
        {ProviderHost::kimiAuth, "/api/oauth/token", kimiClientID, true},
        [&](const OAuthTokens& t) {
            return bearerGet(base + "/coding/v1/usages", t.accessToken, context);
        },
        now);
    if (!response) {
        return std::unexpected(response.error());
    }
    auto snapshot = parseKimi(response->body, now);
    if (!snapshot) {
        return std::unexpected(snapshot.error());
    }
    // The identity is a nicety: its failure leaves the windows as they are.
    if (auto me = send(bearerGet(base + "/coding/v1/me", tokens->accessToken, context))) {
        applyKimiMe(*snapshot, me->body);
    }
    return std::optional(std::move(*snapshot));
}

LiveQuotaResult grok(const ProbeContext& context, double now) {
    const auto path = grokAuthPath(context.home);
    auto tokens = currentTokens(context, AgentSource::grok, path, grokTokens);
    if (!tokens) {
        return std::optional<AccountSnapshot>{};
    }
    const std::string base = ProviderHosts::baseURL(ProviderHost::grok, context.env);
    const RefreshPlan plan{ProviderHost::grokAuth, "/oauth2/token", grokClientID, true};
    auto weekly = getWithRefresh(
        context, AgentSource::grok, *tokens, plan,
        [&](const OAuthTokens& t) {
            return bearerGet(base + "/v1/billing", t.accessToken, context);
        },
        now);
    if (!weekly) {
        return std::unexpected(weekly.error());
    }
    auto monthly =
        send(bearerGet(base + "/v1/billing?format=credits", tokens->accessToken, context));
    auto settings = send(bearerGet(base + "/v1/settings", tokens->accessToken, context));
    auto snapshot = parseGrok(weekly->body, monthly ? monthly->body : std::string_view{},
                              settings ? settings->body : std::string_view{}, now);
    if (!snapshot) {
        return std::unexpected(snapshot.error());
    }
    if (auto text = readFile(path)) {
        const AccountIdentity identity = grokIdentity(*text);
        snapshot->identity.displayName = identity.displayName;
        snapshot->identity.emailMasked = identity.emailMasked;
    }
    return std::optional(std::move(*snapshot));
}

LiveProbe probeFor(AgentSource source) {
    switch (source) {
        case AgentSource::claude:
            return claude;
        case AgentSource::codex:
            return codex;
        case AgentSource::kimi:
            return kimi;
        case AgentSource::grok:
            return grok;
        default:
            return nullptr;
    }
}

}  // namespace LiveQuota
}  // namespace kestrel
