#include "core/plans/key_providers.hpp"

#include <algorithm>

namespace kestrel {

const std::vector<std::string>& keyProviders() {
    static const std::vector<std::string> providers{"deepseek",   "openrouter", "glm-cn",
                                                    "glm-global", "minimax-cn", "minimax-global"};
    return providers;
}

bool isKeyProvider(std::string_view name) {
    return std::ranges::find(keyProviders(), name) != keyProviders().end();
}

std::string keyProviderNames() {
    std::string out;
    for (const auto& name : keyProviders()) {
        out += (out.empty() ? "" : ", ") + name;
    }
    return out;
}

}  // namespace kestrel
