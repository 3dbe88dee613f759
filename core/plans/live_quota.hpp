#pragma once
// Live probes of agent subscriptions, signed in with the agent's own OAuth credentials. Each
// reads the agent's credential file (never writes it), asks the provider's usage endpoint and
// turns the answer into an AccountSnapshot. Tokens refreshed here stay in Kestrel's TokenCache.

#include <chrono>
#include <expected>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "core/model/account_snapshot.hpp"
#include "core/plans/probe_error.hpp"
#include "core/sources/agent_catalog.hpp"

namespace kestrel {

struct OAuthTokens {
    std::string accessToken;
    std::string refreshToken;
    std::optional<double> expiresAt;
    std::optional<std::string> accountID;  // Codex: the ChatGPT account header
    std::optional<std::string> planLabel;  // what the credential file says of the plan

    bool operator==(const OAuthTokens&) const = default;
};

// Tokens refreshed by Kestrel during this process, by agent. The agents' credential files are
// never written, so a refreshed token lives here and wins over the file's until it expires.
class TokenCache {
  public:
    std::optional<OAuthTokens> get(AgentSource source) const;
    void put(AgentSource source, OAuthTokens tokens);
    // Every token held, for keeping them between runs.
    std::map<AgentSource, OAuthTokens> entries() const;

  private:
    mutable std::mutex mutex_;
    std::map<AgentSource, OAuthTokens> tokens_;
};

struct ProbeContext {
    std::filesystem::path home;
    EnvironmentLookup env;
    std::chrono::milliseconds timeout{15000};
    TokenCache* tokens = nullptr;  // optional; without one a refreshed token is used once
};

// A probe's answer: a reading, absent when the agent is not signed in, or why it failed.
using LiveQuotaResult = std::expected<std::optional<AccountSnapshot>, ProbeError>;

namespace LiveQuota {

inline constexpr std::string_view chatgptOAuthClientID = "app_EMoamEEZ73f0CkXaXp7hrann";
inline constexpr std::string_view kimiClientID = "17e5f671-d194-4dfb-9706-5516cb48c098";
inline constexpr std::string_view grokClientID = "grok-cli";
inline constexpr std::string_view claudeBetaHeader = "oauth-2025-04-20";

// Credential files, relative to the home folder.
std::filesystem::path claudeCredentialsPath(const std::filesystem::path& home);
std::filesystem::path codexAuthPath(const std::filesystem::path& home);
std::filesystem::path kimiCredentialsPath(const std::filesystem::path& home);
std::filesystem::path grokAuthPath(const std::filesystem::path& home);

// Token readers over the files' text; absent when no usable access token is in it.
std::optional<OAuthTokens> claudeTokens(std::string_view fileText);
std::optional<OAuthTokens> codexTokens(std::string_view fileText);
std::optional<OAuthTokens> kimiTokens(std::string_view fileText);
std::optional<OAuthTokens> grokTokens(std::string_view fileText);

// The `exp` claim of a JWT, in epoch seconds.
std::optional<double> jwtExpiry(std::string_view jwt);

// What tells the agent's OAuth sign-in apart from another, stable while the agent refreshes its
// tokens: the account the files name (Claude Code's profile in ~/.claude.json, Codex's
// account_id, Kimi's token subject, Grok's id-token name and e-mail), else the refresh token,
// else the access token. Absent when the agent is not signed in. Never shown or stored as is:
// plan discovery keeps only its salted fingerprint.
std::optional<std::string> signInIdentity(AgentSource source, const std::filesystem::path& home);

// The credential file the agent's sign-in is read from (Kimi's legacy place when the current
// one is missing); empty for an agent without a live probe.
std::filesystem::path signInFile(AgentSource source, const std::filesystem::path& home);

// Body parsers. Keys are read generically: an unknown window key still becomes a window.
std::expected<AccountSnapshot, ProbeError> parseClaude(std::string_view body, double now);
std::expected<AccountSnapshot, ProbeError> parseCodex(std::string_view body, double now);
std::expected<AccountSnapshot, ProbeError> parseKimi(std::string_view body, double now);
// Merges the /coding/v1/me identity into `snapshot`; a body that does not read changes nothing.
void applyKimiMe(AccountSnapshot& snapshot, std::string_view meBody);
std::expected<AccountSnapshot, ProbeError> parseGrok(std::string_view weekly,
                                                     std::string_view monthly,
                                                     std::string_view settings, double now);
// Account name and masked e-mail from Grok's auth file (the id token's claims or plain keys).
AccountIdentity grokIdentity(std::string_view authText);

LiveQuotaResult claude(const ProbeContext& context, double now);
LiveQuotaResult codex(const ProbeContext& context, double now);
LiveQuotaResult kimi(const ProbeContext& context, double now);
LiveQuotaResult grok(const ProbeContext& context, double now);

// The probe of `source`, or null for an agent without one.
using LiveProbe = LiveQuotaResult (*)(const ProbeContext&, double);
LiveProbe probeFor(AgentSource source);

}  // namespace LiveQuota
}  // namespace kestrel
