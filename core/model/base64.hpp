#pragma once
// Standard base64 (RFC 4648, with padding), for byte strings carried inside JSON.

#include <optional>
#include <string>
#include <string_view>

namespace kestrel::base64 {

std::string encode(std::string_view bytes);

// Absent when `text` is not valid padded base64.
std::optional<std::string> decode(std::string_view text);

}  // namespace kestrel::base64
