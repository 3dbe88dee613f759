#include "core/model/privacy.hpp"

#include <cstdint>
#include <cstdio>

namespace kestrel::Privacy {

std::string cwdHash(std::string_view path) {
    uint64_t h = 5381;
    for (unsigned char byte : path) {
        h = h * 33 + byte;  // wraps modulo 2^64 by design: unsigned arithmetic
    }
    char buf[17];
    std::snprintf(buf, sizeof buf, "%llx", static_cast<unsigned long long>(h));
    return buf;
}

namespace {

bool isSeparator(char c) {
    return c == '/' || c == '\\';
}

std::string_view trimTrailingSeparators(std::string_view p) {
    while (p.size() > 1 && isSeparator(p.back())) {
        p.remove_suffix(1);
    }
    return p;
}

// Whole UTF-8 characters, so that masking never cuts a multi-byte character in half.
std::string_view firstCharacter(std::string_view s) {
    std::size_t n = 1;
    while (n < s.size() && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80) {
        ++n;
    }
    return s.substr(0, n);
}

std::string_view lastCharacter(std::string_view s) {
    std::size_t start = s.size() - 1;
    while (start > 0 && (static_cast<unsigned char>(s[start]) & 0xC0) == 0x80) {
        --start;
    }
    return s.substr(start);
}

}  // namespace

std::string displayName(std::string_view cwd, std::string_view home) {
    cwd = trimTrailingSeparators(cwd);
    if (cwd.empty()) {
        return {};
    }
    if (!home.empty() && cwd == trimTrailingSeparators(home)) {
        return "~";
    }
    if (cwd.size() == 1 && isSeparator(cwd[0])) {
        return "/";
    }
    const auto pos = cwd.find_last_of("/\\");
    return std::string(pos == std::string_view::npos ? cwd : cwd.substr(pos + 1));
}

std::string maskEmail(std::string_view email) {
    const auto at = email.rfind('@');
    if (at == std::string_view::npos || at == 0) {
        return email.empty() ? std::string() : std::string(firstCharacter(email)) + "***";
    }
    const auto local = email.substr(0, at);
    const auto first = firstCharacter(local);
    std::string out(first);
    out += "***";
    if (local.size() > first.size()) {
        const auto last = lastCharacter(local);
        if (local.size() > first.size() + last.size()) {
            out += last;
        }
    }
    out += email.substr(at);
    return out;
}

}  // namespace kestrel::Privacy
