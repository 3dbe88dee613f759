#pragma once
// The salt of plan discovery, kept in `.plansalt` beside the ledger: fingerprints of credentials
// and the ids derived from them are salted with it, so that what the ledger stores about a key
// cannot be matched against a key seen elsewhere.

#include <expected>
#include <filesystem>
#include <string>
#include <string_view>

namespace kestrel {

namespace PlanSalt {

inline constexpr std::string_view kFileName = ".plansalt";

// The salt in `supportDir`/.plansalt, created (32 random bytes, hex, mode 0600) when missing.
// An error names the file when it cannot be read or written.
std::expected<std::string, std::string> loadOrCreate(const std::filesystem::path& supportDir);

}  // namespace PlanSalt

// "fp:" and 12 hex digits of HMAC-SHA-256(salt, secret): enough to tell two keys apart on
// screen, useless for finding the key.
std::string credentialFingerprint(std::string_view salt, std::string_view secret);

// 16 hex digits of HMAC-SHA-256(salt, text), for ids and revisions that must not carry `text`.
std::string saltedDigest(std::string_view salt, std::string_view text);

}  // namespace kestrel
