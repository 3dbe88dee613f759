#pragma once
// The message catalogue of resources/i18n, compiled into the program at configure time so the
// texts cannot go missing at run time. A file absent at build time gives an empty text.

#include <string_view>

namespace kestrel {

std::string_view bundledEnglishMessagesJson();            // resources/i18n/en.json
std::string_view bundledSimplifiedChineseMessagesJson();  // resources/i18n/zh-Hans.json

}  // namespace kestrel
