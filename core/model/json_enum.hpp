#pragma once
// JSON helpers for persisted enumerations and optionals: enums as their raw strings, absent
// optionals as null. An unknown raw string is a decoding error, not a silent default.

#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>

#include "core/model/enum_cases.hpp"

namespace kestrel::jsonenum {

template <class E>
nlohmann::json encode(E value) {
    return std::string(rawValue(value));
}

template <class E>
E decode(const nlohmann::json& j) {
    const auto& text = j.get_ref<const std::string&>();
    if (auto v = fromRawValue<E>(text)) {
        return *v;
    }
    throw nlohmann::json::other_error::create(501, "unknown enumeration value \"" + text + "\"",
                                              &j);
}

template <class T>
nlohmann::json optional(const std::optional<T>& value) {
    if (!value) {
        return nullptr;
    }
    if constexpr (std::is_enum_v<T>) {
        return encode(*value);
    } else {
        return *value;
    }
}

// Reads `key` from `j`: missing or null gives an absent value.
template <class T>
std::optional<T> readOptional(const nlohmann::json& j, const char* key) {
    auto it = j.find(key);
    if (it == j.end() || it->is_null()) {
        return std::nullopt;
    }
    if constexpr (std::is_enum_v<T>) {
        return decode<T>(*it);
    } else {
        return it->template get<T>();
    }
}

}  // namespace kestrel::jsonenum
