#pragma once
// Model identifiers as cloud platforms spell them, reduced to the vendor's own id so that one
// price row serves every route to the same model.

#include <string>
#include <string_view>

namespace kestrel::ModelName {

// `model` without its cloud decorations: leading region and vendor prefixes ("us.", "eu.",
// "apac.", "anthropic.", "amazon.", repeated in any order) and one trailing version suffix
// ("-20250929-v1", "-v2", "-20250929", ".v1"), where a Bedrock throughput suffix (":0") after a
// "-vN" or ".vN" form goes with it. Letters are compared without regard to case; the result keeps
// the case of `model`. A name with none of these comes back unchanged.
//
// us.anthropic.claude-sonnet-4-5-20250929-v1:0 -> claude-sonnet-4-5
std::string normalizedForPricing(std::string_view model);

}  // namespace kestrel::ModelName
