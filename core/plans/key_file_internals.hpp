#pragma once
// The key file of the file key store (keys.key), shared with what else Kestrel enciphers in the
// support folder. Private to core/plans.

#include <expected>
#include <filesystem>
#include <string>

#include "core/plans/key_store.hpp"

namespace kestrel {

// The 32-byte key of `folder`/keys.key, created (mode 0600) when `create` and there is none.
std::expected<std::string, KeyStoreError> loadKeyFile(const std::filesystem::path& folder,
                                                      bool create);

}  // namespace kestrel
