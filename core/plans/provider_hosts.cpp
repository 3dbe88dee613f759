#include "core/plans/provider_hosts.hpp"

#include <algorithm>
#include <cctype>

namespace kestrel::ProviderHosts {

std::string_view variableSuffix(ProviderHost host) {
    switch (host) {
        case ProviderHost::claude:
            return "CLAUDE";
        case ProviderHost::codex:
            return "CODEX";
        case ProviderHost::codexAuth:
            return "CODEX_AUTH";
        case ProviderHost::kimi:
            return "KIMI";
        case ProviderHost::kimiAuth:
            return "KIMI_AUTH";
        case ProviderHost::grok:
            return "GROK";
        case ProviderHost::grokAuth:
            return "GROK_AUTH";
        case ProviderHost::glmCN:
            return "GLM_CN";
        case ProviderHost::glmGlobal:
            return "GLM_GLOBAL";
        case ProviderHost::minimaxCN:
            return "MINIMAX_CN";
        case ProviderHost::minimaxGlobal:
            return "MINIMAX_GLOBAL";
        case ProviderHost::deepSeek:
            return "DEEPSEEK";
        case ProviderHost::openRouter:
            return "OPENROUTER";
    }
    return "";
}

std::string_view officialBaseURL(ProviderHost host) {
    switch (host) {
        case ProviderHost::claude:
            return "https://api.anthropic.com";
        case ProviderHost::codex:
            return "https://chatgpt.com";
        case ProviderHost::codexAuth:
            return "https://auth.openai.com";
        case ProviderHost::kimi:
            return "https://api.kimi.com";
        case ProviderHost::kimiAuth:
            return "https://auth.kimi.com";
        case ProviderHost::grok:
            return "https://api.x.ai";
        case ProviderHost::grokAuth:
            return "https://auth.x.ai";
        case ProviderHost::glmCN:
            return "https://open.bigmodel.cn";
        case ProviderHost::glmGlobal:
            return "https://api.z.ai";
        case ProviderHost::minimaxCN:
            return "https://api.minimaxi.com";
        case ProviderHost::minimaxGlobal:
            return "https://api.minimax.io";
        case ProviderHost::deepSeek:
            return "https://api.deepseek.com";
        case ProviderHost::openRouter:
            return "https://openrouter.ai";
    }
    return "";
}

std::string baseURL(ProviderHost host, const EnvironmentLookup& env) {
    if (env) {
        if (auto value = env("KESTREL_BASE_URL_" + std::string(variableSuffix(host)));
            value && !value->empty()) {
            std::string url = *value;
            while (!url.empty() && url.back() == '/') {
                url.pop_back();
            }
            if (!url.empty()) {
                return url;
            }
        }
    }
    return std::string(officialBaseURL(host));
}

std::string hostOf(std::string_view url) {
    const auto scheme = url.find("://");
    if (scheme == std::string_view::npos) {
        return {};
    }
    std::string_view rest = url.substr(scheme + 3);
    rest = rest.substr(0, rest.find_first_of("/?#"));
    if (const auto at = rest.rfind('@'); at != std::string_view::npos) {
        rest = rest.substr(at + 1);
    }
    std::string_view host;
    if (!rest.empty() && rest.front() == '[') {
        const auto close = rest.find(']');
        host = close == std::string_view::npos ? rest.substr(1) : rest.substr(1, close - 1);
    } else {
        host = rest.substr(0, rest.find(':'));
    }
    std::string out(host);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

bool isLoopbackHost(std::string_view host) {
    if (host == "localhost" || host == "::1") {
        return true;
    }
    // 127.0.0.0/8 written as a dotted quad; "127.0.0.1.example.com" is somebody's domain.
    if (!host.starts_with("127.")) {
        return false;
    }
    int dots = 0;
    for (const char c : host) {
        if (c == '.') {
            ++dots;
        } else if (c < '0' || c > '9') {
            return false;
        }
    }
    return dots == 3;
}

bool mayCarryCredentials(std::string_view url) {
    std::string lower(url.substr(0, 8));
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (lower.starts_with("https://")) {
        return !hostOf(url).empty();
    }
    return lower.starts_with("http://") && isLoopbackHost(hostOf(url));
}

}  // namespace kestrel::ProviderHosts
