#include "core/plans/endpoint_classifier.hpp"

#include <algorithm>
#include <cctype>

#include "core/plans/provider_hosts.hpp"

namespace kestrel::EndpointClassifier {
namespace {

using K = EndpointKind::Kind;

std::string lowerPath(std::string_view url) {
    const auto scheme = url.find("://");
    if (scheme == std::string_view::npos) {
        return {};
    }
    const auto slash = url.find('/', scheme + 3);
    if (slash == std::string_view::npos) {
        return {};
    }
    std::string path(url.substr(slash));
    path = path.substr(0, path.find_first_of("?#"));
    std::transform(path.begin(), path.end(), path.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return path;
}

EndpointKind plan(K kind, PlanFamily family, PlanRegion region) {
    EndpointKind out;
    out.kind = kind;
    out.family = family;
    out.region = region;
    return out;
}

bool endsWith(std::string_view host, std::string_view domain) {
    return host == domain || (host.size() > domain.size() && host.ends_with(domain) &&
                              host[host.size() - domain.size() - 1] == '.');
}

}  // namespace

const std::set<std::string, std::less<>>& relayHosts() {
    static const std::set<std::string, std::less<>> hosts{
        "openrouter.ai", "api.302.ai", "aihubmix.com", "api.siliconflow.cn", "api.siliconflow.com",
    };
    return hosts;
}

EndpointKind classify(std::string_view url, std::string_view credentialHint, bool loopbackIsProxy) {
    const std::string host = ProviderHosts::hostOf(url);
    if (host.empty()) {
        return {};
    }
    const std::string path = lowerPath(url);
    const bool coding = path.find("coding") != std::string::npos;
    if (ProviderHosts::isLoopbackHost(host)) {
        if (loopbackIsProxy) {
            return {K::loopbackProxy, {}, {}, {}, {}};
        }
        return {K::customEndpoint, {}, {}, {}, host};
    }
    if (host == "api.anthropic.com") {
        return {K::nativeOfficial, AgentSource::claude, {}, {}, {}};
    }
    if (host == "chatgpt.com") {
        return {K::nativeOfficial, AgentSource::codex, {}, {}, {}};
    }
    if (host == "api.x.ai") {
        return {K::nativeOfficial, AgentSource::grok, {}, {}, {}};
    }
    if (host == "api.openai.com") {
        return {K::knownOfficialAPI, {}, {}, {}, "openai"};
    }
    if (host == "api.deepseek.com") {
        return {K::knownOfficialAPI, {}, {}, {}, "deepseek"};
    }
    if (host == "api.kimi.com") {
        return coding ? plan(K::codingPlan, PlanFamily::kimi, PlanRegion::global)
                      : EndpointKind{K::nativeOfficial, AgentSource::kimi, {}, {}, {}};
    }
    if (host == "api.moonshot.cn") {
        return plan(K::payg, PlanFamily::kimi, PlanRegion::cn);
    }
    if (host == "api.moonshot.ai") {
        return plan(K::payg, PlanFamily::kimi, PlanRegion::global);
    }
    if (host == "open.bigmodel.cn" || host == "api.z.ai") {
        const auto region = host == "api.z.ai" ? PlanRegion::global : PlanRegion::cn;
        return plan(coding ? K::codingPlan : K::payg, PlanFamily::glm, region);
    }
    if (host == "api.minimaxi.com" || host == "api.minimax.io" || host == "api.minimax.chat") {
        const auto region = host == "api.minimax.io" ? PlanRegion::global : PlanRegion::cn;
        const bool planKey = credentialHint.starts_with("sk-cp-");
        return plan(planKey || coding ? K::codingPlan : K::payg, PlanFamily::minimax, region);
    }
    if (endsWith(host, "volces.com")) {
        return plan(coding ? K::codingPlan : K::payg, PlanFamily::ark, PlanRegion::cn);
    }
    if (endsWith(host, "byteplus.com") || endsWith(host, "bytepluses.com")) {
        return plan(coding ? K::codingPlan : K::payg, PlanFamily::ark, PlanRegion::global);
    }
    if (host == "coding.dashscope.aliyuncs.com") {
        return plan(K::codingPlan, PlanFamily::alibaba, PlanRegion::cn);
    }
    if (host == "dashscope.aliyuncs.com") {
        return plan(coding ? K::codingPlan : K::payg, PlanFamily::alibaba, PlanRegion::cn);
    }
    if (host == "dashscope-intl.aliyuncs.com") {
        return plan(coding ? K::codingPlan : K::payg, PlanFamily::alibaba, PlanRegion::global);
    }
    if (endsWith(host, "xiaomimimo.com")) {
        return plan(coding ? K::codingPlan : K::payg, PlanFamily::mimo, PlanRegion::global);
    }
    for (const auto& relay : relayHosts()) {
        if (endsWith(host, relay)) {
            return {K::relay, {}, {}, {}, host};
        }
    }
    return {K::customEndpoint, {}, {}, {}, host};
}

std::string sanitizedURL(std::string_view url) {
    const auto scheme = url.find("://");
    if (scheme == std::string_view::npos) {
        return {};
    }
    std::string_view rest = url.substr(scheme + 3);
    rest = rest.substr(0, rest.find_first_of("?#"));
    const auto slash = rest.find('/');
    std::string_view authority = rest.substr(0, slash);
    if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
        authority = authority.substr(at + 1);
    }
    std::string out(url.substr(0, scheme + 3));
    out += authority;
    if (slash != std::string_view::npos) {
        out += rest.substr(slash);
    }
    return out;
}

}  // namespace kestrel::EndpointClassifier
