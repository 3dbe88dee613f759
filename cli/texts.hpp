#pragma once
// A command's catalogue texts in the language it prints in: `t("keys.saved", {{"provider", p}})`.

#include <initializer_list>
#include <string>
#include <string_view>

#include "core/model/app_language.hpp"
#include "core/presentation/messages.hpp"

namespace kestrel::cli {

struct Texts {
    AppLanguage language = AppLanguage::en;  // resolved, never `system`

    std::string operator()(std::string_view key,
                           std::initializer_list<MessageArg> args = {}) const {
        return Messages::bundled().text(key, language, args);
    }
};

}  // namespace kestrel::cli
