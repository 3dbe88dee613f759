#pragma once
// Token counts and percentages as the user reads them in lists, charts and the tray text.

#include <cstdint>
#include <string>

namespace kestrel::UsageFormatting {

// Below 10,000 in magnitude: the plain integer with the locale's grouping ("9,999" in en_US).
// From 10,000 up: the locale's short compact notation with at most one fraction digit, rounded
// half away from zero ("12.3K", "4M" in en_US; "1.2万" in zh_CN). `locale` is an ICU locale
// name, empty for the process's default. INT64_MIN has no magnitude and aborts. Returns UTF-8.
std::string tokens(int64_t count, const std::string& locale = "");

// `value` rounded half away from zero to a whole number, then "%" (0.5 → "1%", -0.5 → "-1%").
// Not localised; non-finite values come out as "nan%" / "inf%".
std::string percent(double value);

}  // namespace kestrel::UsageFormatting
