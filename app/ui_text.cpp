#include "app/ui_text.hpp"

namespace kestrel::desktop {

UiText::UiText(AppLanguage language) : language_(AppLanguage::en) { setLanguage(language); }

void UiText::setLanguage(AppLanguage language) {
    language_ = effectiveLanguage(language, systemLocaleName());
}

QString UiText::operator()(std::string_view key) const {
    return QString::fromStdString(Messages::bundled().text(key, language_));
}

QString UiText::operator()(std::string_view key, std::initializer_list<MessageArg> args) const {
    return QString::fromStdString(Messages::bundled().text(key, language_, args));
}

}  // namespace kestrel::desktop
