#pragma once
// Keeping paths and addresses private: working directories are stored only as hashes, e-mail
// addresses only masked.

#include <string>
#include <string_view>

namespace kestrel::Privacy {

// 64-bit djb2 of the path's UTF-8 bytes (start 5381, h = h * 33 + byte, wrapping), lowercase
// hexadecimal without leading zeros. "" hashes to "1505".
std::string cwdHash(std::string_view path);

// The label shown for a working directory: its last path component ("/home/u/app/" -> "app"),
// "~" for the home folder itself, "/" for the root, "" for an empty path. Both "/" and "\" count
// as separators.
std::string displayName(std::string_view cwd, std::string_view home = {});

// "alice@example.com" -> "a***e@example.com": the first and last character of the local part
// stay (only the first when it has two characters or fewer), the domain stays. Text without a
// usable "@" keeps only its first character.
std::string maskEmail(std::string_view email);

}  // namespace kestrel::Privacy
