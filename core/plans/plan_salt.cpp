#include "core/plans/plan_salt.hpp"

#include <algorithm>
#include <cctype>

#include "core/plans/crypto_internals.hpp"

namespace kestrel {

std::expected<std::string, std::string> PlanSalt::loadOrCreate(
    const std::filesystem::path& supportDir) {
    const auto path = supportDir / kFileName;
    if (auto text = crypto::readWholeFile(path)) {
        std::string salt = *text;
        std::erase_if(salt, [](unsigned char c) { return std::isspace(c) != 0; });
        if (salt.size() >= 32) {
            return salt;
        }
        return std::unexpected("the plan salt " + path.string() + " is too short or damaged");
    }
    std::error_code ec;
    if (std::filesystem::exists(path, ec)) {
        return std::unexpected("the plan salt " + path.string() + " cannot be read");
    }
    std::string salt = crypto::toHex(crypto::randomBytes(32));
    if (!crypto::writePrivateFile(path, salt + "\n")) {
        return std::unexpected("cannot write the plan salt " + path.string());
    }
    return salt;
}

std::string credentialFingerprint(std::string_view salt, std::string_view secret) {
    return "fp:" + crypto::toHex(crypto::hmacSha256(salt, secret)).substr(0, 12);
}

std::string saltedDigest(std::string_view salt, std::string_view text) {
    return crypto::toHex(crypto::hmacSha256(salt, text)).substr(0, 16);
}

}  // namespace kestrel
