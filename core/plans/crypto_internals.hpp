#pragma once
// The few OpenSSL calls the key store, the plan salt and the fingerprints share. Private to
// core/plans.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace kestrel::crypto {

std::string toHex(std::string_view bytes);
// Absent for odd lengths or characters that are not hex digits.
std::optional<std::string> fromHex(std::string_view hex);
// HMAC-SHA-256 of `data` under `key`, raw bytes.
std::string hmacSha256(std::string_view key, std::string_view data);
// `count` bytes from the system's generator; throws std::runtime_error when it fails.
std::string randomBytes(std::size_t count);

// AES-256-GCM under a 32-byte key, authenticating `aad` too: a fresh 12-byte nonce followed by
// the ciphertext and its 16-byte tag. Absent when OpenSSL fails.
std::optional<std::string> seal(std::string_view key, std::string_view aad, std::string_view plain);
// The plain text; absent when `sealed` does not authenticate under `key` and `aad`.
std::optional<std::string> unseal(std::string_view key, std::string_view aad,
                                  std::string_view sealed);

// Compares without leaking the first differing position through timing.
bool equalBytes(std::string_view a, std::string_view b);

// Replaces `path` with `bytes` through a temporary file created mode 0600 and renamed over it, so
// a reader sees the old or the new content, and the content is never readable by others. False
// when any step fails (the old file then stays).
bool writePrivateFile(const std::filesystem::path& path, std::string_view bytes);
// The whole file; absent when it cannot be opened.
std::optional<std::string> readWholeFile(const std::filesystem::path& path);

}  // namespace kestrel::crypto
