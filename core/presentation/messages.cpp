#include "core/presentation/messages.hpp"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>

#include "core/presentation/bundled_messages.hpp"

namespace kestrel {
namespace {

bool isNameChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// The name of a placeholder starting at `pattern[at]` (a '{'), absent when none starts there.
std::optional<std::string_view> placeholderAt(std::string_view pattern, size_t at) {
    size_t end = at + 1;
    while (end < pattern.size() && isNameChar(pattern[end])) {
        ++end;
    }
    if (end == at + 1 || end >= pattern.size() || pattern[end] != '}') {
        return std::nullopt;
    }
    return pattern.substr(at + 1, end - at - 1);
}

Messages::Table parseTable(std::string_view json) {
    Messages::Table table;
    const auto document = nlohmann::json::parse(json, nullptr, /*allow_exceptions=*/false);
    if (!document.is_object()) {
        return table;
    }
    for (const auto& [key, value] : document.items()) {
        if (value.is_string() && !value.get_ref<const std::string&>().empty()) {
            table.emplace(key, value.get<std::string>());
        }
    }
    return table;
}

}  // namespace

std::string formatMessage(std::string_view pattern, std::initializer_list<MessageArg> args) {
    std::string out;
    out.reserve(pattern.size());
    size_t i = 0;
    while (i < pattern.size()) {
        if (pattern[i] == '{') {
            if (const auto name = placeholderAt(pattern, i)) {
                const auto arg = std::find_if(args.begin(), args.end(),
                                              [&](const MessageArg& a) { return a.name == *name; });
                if (arg != args.end()) {
                    out += arg->value;
                    i += name->size() + 2;
                    continue;
                }
            }
        }
        out += pattern[i];
        ++i;
    }
    return out;
}

std::vector<std::string> messagePlaceholders(std::string_view pattern) {
    std::vector<std::string> names;
    for (size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] != '{') {
            continue;
        }
        if (const auto name = placeholderAt(pattern, i)) {
            names.emplace_back(*name);
        }
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

Messages::Messages(std::string_view englishJSON, std::string_view chineseJSON)
    : english_(parseTable(englishJSON)), chinese_(parseTable(chineseJSON)) {}

const Messages& Messages::bundled() {
    static const Messages messages(bundledEnglishMessagesJson(),
                                   bundledSimplifiedChineseMessagesJson());
    return messages;
}

const Messages::Table& Messages::table(AppLanguage language) const {
    return effectiveLanguage(language, systemLocaleName()) == AppLanguage::zhHans ? chinese_
                                                                                  : english_;
}

std::string Messages::text(std::string_view key, AppLanguage language) const {
    for (const Table* t : {&table(language), &english_}) {
        if (const auto it = t->find(key); it != t->end()) {
            return it->second;
        }
    }
    return std::string(key);
}

std::string Messages::text(std::string_view key, AppLanguage language,
                           std::initializer_list<MessageArg> args) const {
    return formatMessage(text(key, language), args);
}

}  // namespace kestrel
