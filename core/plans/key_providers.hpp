#pragma once
// The providers an API key can be stored for, one per API-key quota probe; `kestrel keys set`
// and the desktop's Accounts page take the same names.

#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

const std::vector<std::string>& keyProviders();

bool isKeyProvider(std::string_view name);

// "deepseek, openrouter, ...": for a message that lists the names accepted.
std::string keyProviderNames();

}  // namespace kestrel
