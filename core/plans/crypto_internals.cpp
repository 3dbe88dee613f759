#include "core/plans/crypto_internals.hpp"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kestrel::crypto {

std::string toHex(std::string_view bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (const unsigned char c : bytes) {
        out.push_back(digits[c >> 4]);
        out.push_back(digits[c & 0xF]);
    }
    return out;
}

std::optional<std::string> fromHex(std::string_view hex) {
    if (hex.size() % 2 != 0) {
        return std::nullopt;
    }
    const auto value = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    std::string out;
    out.reserve(hex.size() / 2);
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        const int hi = value(hex[i]), lo = value(hex[i + 1]);
        if (hi < 0 || lo < 0) {
            return std::nullopt;
        }
        out.push_back(static_cast<char>(hi << 4 | lo));
    }
    return out;
}

std::string hmacSha256(std::string_view key, std::string_view data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
         reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest, &length);
    return std::string(reinterpret_cast<const char*>(digest), length);
}

std::string randomBytes(std::size_t count) {
    std::string out(count, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char*>(out.data()), static_cast<int>(count)) != 1) {
        throw std::runtime_error("the system's random generator failed");
    }
    return out;
}

namespace {

constexpr std::size_t kNonceBytes = 12;
constexpr std::size_t kTagBytes = 16;

struct CipherContext {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    ~CipherContext() { EVP_CIPHER_CTX_free(ctx); }
};

const unsigned char* bytes(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace

std::optional<std::string> seal(std::string_view key, std::string_view aad,
                                std::string_view plain) {
    if (key.size() != 32) {
        return std::nullopt;
    }
    const std::string nonce = randomBytes(kNonceBytes);
    std::string out = nonce + std::string(plain.size() + kTagBytes, '\0');
    auto* cipher = reinterpret_cast<unsigned char*>(out.data()) + kNonceBytes;
    CipherContext c;
    int length = 0, total = 0;
    const bool ok =
        c.ctx &&
        EVP_EncryptInit_ex(c.ctx, EVP_aes_256_gcm(), nullptr, bytes(key), bytes(nonce)) == 1 &&
        EVP_EncryptUpdate(c.ctx, nullptr, &length, bytes(aad), static_cast<int>(aad.size())) == 1 &&
        EVP_EncryptUpdate(c.ctx, cipher, &length, bytes(plain), static_cast<int>(plain.size())) ==
            1 &&
        (total = length, EVP_EncryptFinal_ex(c.ctx, cipher + total, &length) == 1) &&
        (total += length, EVP_CIPHER_CTX_ctrl(c.ctx, EVP_CTRL_GCM_GET_TAG,
                                              static_cast<int>(kTagBytes), cipher + total) == 1);
    if (!ok) {
        return std::nullopt;
    }
    out.resize(kNonceBytes + static_cast<std::size_t>(total) + kTagBytes);
    return out;
}

std::optional<std::string> unseal(std::string_view key, std::string_view aad,
                                  std::string_view sealed) {
    if (key.size() != 32 || sealed.size() < kNonceBytes + kTagBytes) {
        return std::nullopt;
    }
    const auto nonce = sealed.substr(0, kNonceBytes);
    const auto cipher = sealed.substr(kNonceBytes, sealed.size() - kNonceBytes - kTagBytes);
    std::string tag(sealed.substr(sealed.size() - kTagBytes));
    std::string plain(cipher.size(), '\0');
    auto* out = reinterpret_cast<unsigned char*>(plain.data());
    CipherContext c;
    int length = 0;
    const bool ok =
        c.ctx &&
        EVP_DecryptInit_ex(c.ctx, EVP_aes_256_gcm(), nullptr, bytes(key), bytes(nonce)) == 1 &&
        EVP_DecryptUpdate(c.ctx, nullptr, &length, bytes(aad), static_cast<int>(aad.size())) == 1 &&
        EVP_DecryptUpdate(c.ctx, out, &length, bytes(cipher), static_cast<int>(cipher.size())) ==
            1 &&
        EVP_CIPHER_CTX_ctrl(c.ctx, EVP_CTRL_GCM_SET_TAG, static_cast<int>(kTagBytes), tag.data()) ==
            1 &&
        EVP_DecryptFinal_ex(c.ctx, out + length, &length) == 1;
    if (!ok) {
        OPENSSL_cleanse(plain.data(), plain.size());
        return std::nullopt;
    }
    return plain;
}

bool equalBytes(std::string_view a, std::string_view b) {
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

bool writePrivateFile(const std::filesystem::path& path, std::string_view bytes) {
    std::error_code ec;
    std::filesystem::create_directories(path.parent_path(), ec);
    const auto temporary =
        path.parent_path() / ("." + path.filename().string() + "." + toHex(randomBytes(6)));
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        return false;
    }
    bool ok = ::fchmod(fd, 0600) == 0;  // whatever the umask said
    std::size_t written = 0;
    while (ok && written < bytes.size()) {
        const auto n = ::write(fd, bytes.data() + written, bytes.size() - written);
        ok = n > 0;
        written += ok ? static_cast<std::size_t>(n) : 0;
    }
    ok = ok && ::fsync(fd) == 0;
    ok = ::close(fd) == 0 && ok;
    if (!ok || ::rename(temporary.c_str(), path.c_str()) != 0) {
        std::filesystem::remove(temporary, ec);
        return false;
    }
    return true;
}

std::optional<std::string> readWholeFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::ostringstream text;
    text << in.rdbuf();
    return std::move(text).str();
}

}  // namespace kestrel::crypto
