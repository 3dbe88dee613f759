#pragma once
// Sets of persisted enumerations (capabilities, permissions, evidence kinds) as JSON arrays of
// case names and as comma-separated text for ledger columns. Both list the cases in declaration
// order, so equal sets always encode to equal text.

#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "core/model/json_enum.hpp"

namespace kestrel::enumset {

template <class E>
nlohmann::json toJSON(const std::set<E>& values) {
    auto out = nlohmann::json::array();
    for (E v : values) {
        out.push_back(jsonenum::encode(v));
    }
    return out;
}

// An unknown case name is a decoding error, like any other persisted enumeration.
template <class E>
std::set<E> fromJSON(const nlohmann::json& j) {
    std::set<E> out;
    for (const auto& item : j) {
        out.insert(jsonenum::decode<E>(item));
    }
    return out;
}

template <class E>
std::string toText(const std::set<E>& values) {
    std::string out;
    for (E v : values) {
        if (!out.empty()) {
            out += ',';
        }
        out += rawValue(v);
    }
    return out;
}

// Absent when any element is not a case name; the empty text is the empty set.
template <class E>
std::optional<std::set<E>> fromText(std::string_view text) {
    std::set<E> out;
    while (!text.empty()) {
        auto comma = text.find(',');
        auto item = text.substr(0, comma);
        auto value = fromRawValue<E>(item);
        if (!value) {
            return std::nullopt;
        }
        out.insert(*value);
        if (comma == std::string_view::npos) {
            break;
        }
        text.remove_prefix(comma + 1);
        if (text.empty()) {
            return std::nullopt;  // a trailing comma means the text was cut
        }
    }
    return out;
}

}  // namespace kestrel::enumset
