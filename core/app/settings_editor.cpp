#include "core/app/settings_editor.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <optional>

#include "core/app/fx_settings.hpp"
#include "core/model/calendar.hpp"
#include "core/pricing/fx_rate.hpp"

namespace kestrel {
namespace {

using Json = nlohmann::ordered_json;
using Kind = AppSettingsField::Kind;

bool sameWord(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

std::string_view trimmed(std::string_view s) {
    const auto first = s.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    return s.substr(first, s.find_last_not_of(" \t") - first + 1);
}

std::optional<int64_t> wholeNumber(std::string_view text) {
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

std::optional<double> number(std::string_view text) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::string> caseNamed(const AppSettingsField& field, std::string_view text) {
    for (const auto& c : field.cases) {
        if (sameWord(c, text)) {
            return c;
        }
    }
    return std::nullopt;
}

// The JSON value the stored settings would hold for `text`; absent when it is none.
std::optional<Json> jsonValue(const AppSettingsField& field, std::string_view text) {
    switch (field.kind) {
        case Kind::flag:
            for (std::string_view yes : {"true", "yes", "on", "1"}) {
                if (sameWord(text, yes)) {
                    return Json(true);
                }
            }
            for (std::string_view no : {"false", "no", "off", "0"}) {
                if (sameWord(text, no)) {
                    return Json(false);
                }
            }
            return std::nullopt;
        case Kind::integer:
            if (auto n = wholeNumber(text)) {
                return Json(*n);
            }
            return std::nullopt;
        case Kind::instant:
            if (auto day = Calendar::current().startOfDay(std::string(text))) {
                return Json(*day);
            }
            [[fallthrough]];
        case Kind::seconds:
            if (auto n = number(text)) {
                return Json(*n);
            }
            return std::nullopt;
        case Kind::text:
            return Json(std::string(text));
        case Kind::bytes:
            return std::nullopt;
        case Kind::choice:
            if (auto c = caseNamed(field, text)) {
                return Json(*c);
            }
            return std::nullopt;
        case Kind::choices: {
            Json list = Json::array();
            std::string_view rest = text;
            while (!trimmed(rest).empty()) {
                const auto comma = rest.find(',');
                const auto c = caseNamed(field, trimmed(rest.substr(0, comma)));
                if (!c) {
                    return std::nullopt;
                }
                list.push_back(*c);
                rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
            }
            return list;
        }
    }
    return std::nullopt;
}

const AppSettingsField* fieldNamed(std::string_view name) {
    const auto& fields = appSettingsFields();
    auto it = std::ranges::find_if(fields, [&](const auto& f) { return sameWord(f.name, name); });
    return it == fields.end() ? nullptr : &*it;
}

Json storedValue(const Json& stored, const AppSettingsField& field) {
    const auto it = stored.find(field.name);
    return it == stored.end() ? Json(nullptr) : *it;
}

std::string joined(const std::vector<std::string>& names) {
    std::string out;
    for (const auto& n : names) {
        out += (out.empty() ? "" : ", ") + n;
    }
    return out;
}

}  // namespace

std::vector<SettingsEntry> settingsEntries(const AppSettings& settings) {
    const Json stored = Json::parse(encodeAppSettings(settings));
    std::vector<SettingsEntry> out;
    for (const auto& field : appSettingsFields()) {
        out.push_back({&field, storedValue(stored, field)});
    }
    return out;
}

nlohmann::ordered_json settingValue(const AppSettings& settings, const AppSettingsField& field) {
    return storedValue(Json::parse(encodeAppSettings(settings)), field);
}

std::expected<EditedSettings, SettingsInputError> withSetting(const AppSettings& settings,
                                                              std::string_view name,
                                                              std::string_view typed,
                                                              const std::string& today) {
    const AppSettingsField* field = fieldNamed(name);
    SettingsInputError error{SettingsInputError::Kind::unknownField, std::string(name),
                             std::string(typed), field};
    if (field == nullptr) {
        return std::unexpected(error);
    }
    // The rate's version and the home-folder grant follow from other actions.
    if (field->name == "fxVersion" || field->kind == Kind::bytes) {
        error.kind = SettingsInputError::Kind::keptByKestrel;
        return std::unexpected(error);
    }
    error.kind = SettingsInputError::Kind::badValue;
    const auto text = trimmed(typed);
    if (field->name == "cnyPerUsdE4") {
        const auto e4 = wholeNumber(text);
        if (!e4 || *e4 < FxRate::kMinE4 || *e4 > FxRate::kMaxE4) {
            return std::unexpected(error);
        }
        if (*e4 == settings.cnyPerUsdE4) {
            return EditedSettings{settings, field};  // the same rate keeps its date and source
        }
        return EditedSettings{withFxRate(settings, *e4, today, std::nullopt), field};
    }
    Json document = Json::parse(encodeAppSettings(settings));
    if (field->optional && (text.empty() || sameWord(text, "none"))) {
        document.erase(field->name);
    } else {
        auto value = jsonValue(*field, field->kind == Kind::text ? typed : text);
        if (!value) {
            return std::unexpected(error);
        }
        document[field->name] = std::move(*value);
    }
    // Decoding applies every rule of the stored settings (minimums, positive durations, known
    // cases), so a value it would not read back is refused here.
    auto decoded = decodeAppSettings(document.dump());
    if (std::ranges::find(decoded.invalidFields, field->name) != decoded.invalidFields.end()) {
        return std::unexpected(error);
    }
    return EditedSettings{std::move(decoded.settings), field};
}

std::string allowedValues(const AppSettingsField& field, const DisplayChoices& display) {
    std::string out;
    if (field.name == "cnyPerUsdE4") {
        out = display.text("settings.allowed.rate",
                           {{"min", std::to_string(FxRate::kMinE4)},
                            {"max", std::to_string(FxRate::kMaxE4)}});
    } else {
        switch (field.kind) {
            case Kind::flag:
                out = display.text("settings.allowed.flag");
                break;
            case Kind::integer:
                out = display.text("settings.allowed.integer",
                                   {{"min", std::to_string(field.minimum.value_or(0))}});
                break;
            case Kind::seconds:
                out = display.text(field.positive ? "settings.allowed.positiveSeconds"
                                                  : "settings.allowed.seconds");
                break;
            case Kind::instant:
                out = display.text("settings.allowed.date");
                break;
            case Kind::text:
                out = display.text("settings.allowed.text");
                break;
            case Kind::bytes:
                out = display.text("settings.allowed.kept");
                break;
            case Kind::choice:
                out = display.text("settings.allowed.choice", {{"cases", joined(field.cases)}});
                break;
            case Kind::choices:
                out = display.text("settings.allowed.choices", {{"cases", joined(field.cases)}});
                break;
        }
    }
    if (field.optional && field.kind != Kind::bytes) {
        out += display.text("settings.allowed.clear");
    }
    return out;
}

std::string settingsFieldNames() {
    std::vector<std::string> names;
    for (const auto& field : appSettingsFields()) {
        names.push_back(field.name);
    }
    return joined(names);
}

}  // namespace kestrel
