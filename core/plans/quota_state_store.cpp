#include "core/plans/quota_state_store.hpp"

#include <nlohmann/json.hpp>

#include "core/plans/crypto_internals.hpp"
#include "core/plans/key_file_internals.hpp"

namespace kestrel::QuotaStateStore {
namespace {

using json = nlohmann::json;

constexpr std::string_view kTokensLabel = "kestrel quota tokens";

json tokensJSON(const std::map<AgentSource, OAuthTokens>& all, double now) {
    json out = json::object();
    for (const auto& [source, t] : all) {
        if (t.expiresAt && *t.expiresAt <= now) {
            continue;  // an expired token is no use to the next run
        }
        json entry = {{"accessToken", t.accessToken}, {"refreshToken", t.refreshToken}};
        entry["expiresAt"] = t.expiresAt ? json(*t.expiresAt) : json(nullptr);
        entry["accountID"] = t.accountID ? json(*t.accountID) : json(nullptr);
        entry["planLabel"] = t.planLabel ? json(*t.planLabel) : json(nullptr);
        out[std::string(rawValue(source))] = std::move(entry);
    }
    return out;
}

std::optional<std::string> optionalString(const json& j, const char* key) {
    return j.contains(key) && j[key].is_string() ? std::optional(j[key].get<std::string>())
                                                 : std::nullopt;
}

}  // namespace

void load(const std::filesystem::path& supportDir, QuotaRefresher& refresher, TokenCache& tokens,
          double now) {
    const auto text = crypto::readWholeFile(supportDir / kFileName);
    if (!text) {
        return;
    }
    const auto doc = json::parse(*text, nullptr, false);
    if (doc.is_discarded() || !doc.is_object()) {
        return;
    }
    std::vector<QuotaBackoff> backoffs;
    if (doc.contains("backoff") && doc["backoff"].is_array()) {
        for (const auto& b : doc["backoff"]) {
            if (!b.is_object() || !b.contains("account") || !b["account"].is_string()) {
                continue;
            }
            const double until = b.value("blockedUntil", 0.0);
            if (until > now) {
                backoffs.push_back(
                    {b["account"].get<std::string>(), b.value("throttledInARow", 1), until});
            }
        }
    }
    refresher.restore(backoffs);

    const auto sealed = crypto::fromHex(doc.value("tokens", ""));
    if (!sealed || sealed->empty()) {
        return;
    }
    const auto key = loadKeyFile(supportDir, false);
    if (!key) {
        return;
    }
    const auto plain = crypto::unseal(*key, kTokensLabel, *sealed);
    const auto all = plain ? json::parse(*plain, nullptr, false) : json();
    if (!plain || all.is_discarded() || !all.is_object()) {
        return;
    }
    for (const auto& [name, entry] : all.items()) {
        const auto source = fromRawValue<AgentSource>(name);
        const auto access = optionalString(entry, "accessToken");
        if (!source || !access) {
            continue;
        }
        OAuthTokens t;
        t.accessToken = *access;
        t.refreshToken = optionalString(entry, "refreshToken").value_or("");
        if (entry.contains("expiresAt") && entry["expiresAt"].is_number()) {
            t.expiresAt = entry["expiresAt"].get<double>();
        }
        t.accountID = optionalString(entry, "accountID");
        t.planLabel = optionalString(entry, "planLabel");
        if (!t.expiresAt || *t.expiresAt > now) {
            tokens.put(*source, std::move(t));
        }
    }
}

bool save(const std::filesystem::path& supportDir, const QuotaRefresher& refresher,
          const TokenCache& tokens, double now) {
    json doc = {{"format", 1}};
    auto backoffs = json::array();
    for (const auto& b : refresher.backoffs(now)) {
        backoffs.push_back({{"account", b.accountID},
                            {"throttledInARow", b.throttledInARow},
                            {"blockedUntil", b.blockedUntil}});
    }
    doc["backoff"] = std::move(backoffs);
    const auto all = tokens.entries();
    if (!all.empty()) {
        const auto key = loadKeyFile(supportDir, true);
        if (!key) {
            return false;
        }
        const auto sealed = crypto::seal(*key, kTokensLabel, tokensJSON(all, now).dump());
        if (!sealed) {
            return false;
        }
        doc["tokens"] = crypto::toHex(*sealed);
    }
    return crypto::writePrivateFile(supportDir / kFileName, doc.dump(2) + "\n");
}

}  // namespace kestrel::QuotaStateStore
