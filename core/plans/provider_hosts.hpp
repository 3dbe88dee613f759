#pragma once
// Where each probe sends its requests. Every base URL can be replaced by an environment variable
// KESTREL_BASE_URL_<NAME> (proxies, tests); a replaced host receives credentials only over https
// or on a loopback address.

#include <optional>
#include <string>
#include <string_view>

#include "core/sources/agent_catalog.hpp"

namespace kestrel {

enum class ProviderHost {
    claude,
    codex,
    codexAuth,
    kimi,
    kimiAuth,
    grok,
    grokAuth,
    glmCN,
    glmGlobal,
    minimaxCN,
    minimaxGlobal,
    deepSeek,
    openRouter,
};

namespace ProviderHosts {

// "CLAUDE", "CODEX_AUTH", ...: the variable is "KESTREL_BASE_URL_" followed by this.
std::string_view variableSuffix(ProviderHost host);

// The provider's own endpoint, without a trailing slash.
std::string_view officialBaseURL(ProviderHost host);

// The base URL in effect: the variable's value (trailing slashes dropped) when set and not
// empty, else the official one.
std::string baseURL(ProviderHost host, const EnvironmentLookup& env);

// True when a credential may be sent to `url`: https, or http to 127.0.0.0/8, ::1 or localhost.
bool mayCarryCredentials(std::string_view url);

// The host part of a URL ("api.example.com"), lower-cased; empty when there is none.
std::string hostOf(std::string_view url);

bool isLoopbackHost(std::string_view host);

}  // namespace ProviderHosts
}  // namespace kestrel
