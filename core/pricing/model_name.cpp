#include "core/pricing/model_name.hpp"

#include <array>
#include <optional>

namespace kestrel::ModelName {
namespace {

constexpr std::array<std::string_view, 5> kCloudPrefixes{"anthropic.", "amazon.", "us.", "eu.",
                                                         "apac."};

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool startsWithNoCase(std::string_view s, std::string_view lowerPrefix) {
    if (s.size() < lowerPrefix.size()) {
        return false;
    }
    for (std::size_t i = 0; i < lowerPrefix.size(); ++i) {
        if (lower(s[i]) != lowerPrefix[i]) {
            return false;
        }
    }
    return true;
}

// How many digits end at `end`.
std::size_t digitsEndingAt(std::string_view s, std::size_t end) {
    std::size_t n = 0;
    while (n < end && isDigit(s[end - n - 1])) {
        ++n;
    }
    return n;
}

// True when "-" and exactly eight digits end at `end`.
bool dateEndsAt(std::string_view s, std::size_t end) {
    return end >= 9 && s[end - 9] == '-' && digitsEndingAt(s, end) >= 8;
}

// Where a "-vN" or ".vN" version ending at `end` starts, a "-yyyymmdd" before a "-vN" included.
std::optional<std::size_t> versionStart(std::string_view s, std::size_t end) {
    const std::size_t n = digitsEndingAt(s, end);
    if (n == 0 || end - n < 2 || lower(s[end - n - 1]) != 'v') {
        return std::nullopt;
    }
    const std::size_t start = end - n - 2;
    if (s[start] == '.') {
        return start;
    }
    if (s[start] != '-') {
        return std::nullopt;
    }
    return dateEndsAt(s, start) ? start - 9 : start;
}

}  // namespace

std::string normalizedForPricing(std::string_view model) {
    for (bool stripped = true; stripped;) {
        stripped = false;
        for (auto prefix : kCloudPrefixes) {
            if (startsWithNoCase(model, prefix)) {
                model.remove_prefix(prefix.size());
                stripped = true;
            }
        }
    }

    const std::size_t end = model.size();
    // Bedrock ids end in ":N" after the model version (…-v1:0).
    const std::size_t throughput = digitsEndingAt(model, end);
    if (throughput > 0 && throughput < end && model[end - throughput - 1] == ':') {
        if (auto start = versionStart(model, end - throughput - 1)) {
            return std::string(model.substr(0, *start));
        }
        return std::string(model);
    }
    if (auto start = versionStart(model, end)) {
        return std::string(model.substr(0, *start));
    }
    if (dateEndsAt(model, end)) {
        return std::string(model.substr(0, end - 9));
    }
    return std::string(model);
}

}  // namespace kestrel::ModelName
