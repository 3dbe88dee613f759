#pragma once
// The text of resources/pricing.json, compiled into the program at configure time so the
// built-in prices cannot go missing at run time. Empty when the file was absent at build time.

#include <string_view>

namespace kestrel {

std::string_view bundledPricingJson();

}  // namespace kestrel
