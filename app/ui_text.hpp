#pragma once
// The message catalogue as the widgets read it: QString texts in the language the app shows now.
// The language can change while the app runs; pages ask again in their retranslate().

#include <QString>
#include <initializer_list>
#include <string_view>

#include "core/model/app_language.hpp"
#include "core/presentation/messages.hpp"

namespace kestrel::desktop {

class UiText {
  public:
    // `system` is resolved from the process locale once, here, so that every text of one screen
    // comes from the same language.
    explicit UiText(AppLanguage language = AppLanguage::system);

    AppLanguage language() const { return language_; }
    void setLanguage(AppLanguage language);

    QString operator()(std::string_view key) const;
    QString operator()(std::string_view key, std::initializer_list<MessageArg> args) const;

  private:
    AppLanguage language_;
};

}  // namespace kestrel::desktop
