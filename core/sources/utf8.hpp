#pragma once
// Repairing text that is not valid UTF-8, so that one bad byte in a tool result never costs the
// usage record that carries it.

#include <string>
#include <string_view>

namespace kestrel::utf8 {

bool isValid(std::string_view text);

// `text` with every byte that does not belong to a well-formed UTF-8 sequence replaced by
// U+FFFD. ASCII bytes, and so any JSON structure, are never changed.
std::string replaceInvalid(std::string_view text);

}  // namespace kestrel::utf8
