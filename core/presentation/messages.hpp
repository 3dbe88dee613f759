#pragma once
// User-facing texts by key, in English or Simplified Chinese.
//
// The catalogue is two flat JSON objects, key -> text, in resources/i18n/en.json and
// resources/i18n/zh-Hans.json, with the same keys. Adding a text is one line in each file.
//
// Placeholders are named: "{rate}" in a text is replaced by the argument named "rate". Names are
// letters, digits and underscores; each translation uses the same names as the English text, in
// whatever order its grammar needs.

#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "core/model/app_language.hpp"

namespace kestrel {

struct MessageArg {
    std::string_view name;
    std::string value;
};

// `pattern` with every "{name}" that has an argument replaced by its value, in one pass (values
// are not searched again). A placeholder without an argument and any other brace stay as written.
std::string formatMessage(std::string_view pattern, std::initializer_list<MessageArg> args);

// The placeholder names in `pattern`, sorted, each once.
std::vector<std::string> messagePlaceholders(std::string_view pattern);

class Messages {
  public:
    using Table = std::map<std::string, std::string, std::less<>>;

    // Parses the two catalogue texts. A text that is not a JSON object gives an empty table;
    // entries whose value is not a non-empty string are left out, so they fall back.
    Messages(std::string_view englishJSON, std::string_view chineseJSON);

    // The catalogue compiled into the program, parsed on first use.
    static const Messages& bundled();

    // The text of `key` in `language` (`system` resolved from the process locale), else the
    // English text, else the key itself, so a missing text shows up without breaking a view.
    std::string text(std::string_view key, AppLanguage language) const;
    std::string text(std::string_view key, AppLanguage language,
                     std::initializer_list<MessageArg> args) const;

    // The entries of one language; `system` is resolved as in text().
    const Table& table(AppLanguage language) const;

  private:
    Table english_;
    Table chinese_;
};

}  // namespace kestrel
