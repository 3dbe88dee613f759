#include "core/model/app_language.hpp"

#include <cctype>
#include <cstdlib>

namespace kestrel {

AppLanguage effectiveLanguage(AppLanguage language, std::string_view systemLocale) {
    if (language != AppLanguage::system) {
        return language;
    }
    const bool chinese =
        systemLocale.size() >= 2 &&
        std::tolower(static_cast<unsigned char>(systemLocale[0])) == 'z' &&
        std::tolower(static_cast<unsigned char>(systemLocale[1])) == 'h' &&
        (systemLocale.size() == 2 || !std::isalpha(static_cast<unsigned char>(systemLocale[2])));
    return chinese ? AppLanguage::zhHans : AppLanguage::en;
}

std::string_view systemLocaleName() {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(name);
        if (value != nullptr && *value != '\0') {
            return value;
        }
    }
    return {};
}

}  // namespace kestrel
