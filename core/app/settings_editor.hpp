#pragma once
// The settings as a list of named values, and changing one of them from text typed by a person
// (`kestrel settings set billingMode localZero`). Values are checked by the same rules that read
// the stored settings, so whatever is accepted here reads back the same.

#include <expected>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "core/app/display_choices.hpp"
#include "core/model/app_settings.hpp"
#include "core/model/app_settings_json.hpp"

namespace kestrel {

struct SettingsEntry {
    const AppSettingsField* field = nullptr;  // from appSettingsFields(): valid for the process
    nlohmann::ordered_json value;             // as stored; null when an optional is absent
};

// Every field with its value, in declaration order.
std::vector<SettingsEntry> settingsEntries(const AppSettings& settings);

struct SettingsInputError {
    enum class Kind {
        unknownField,   // no field has that name
        keptByKestrel,  // Kestrel maintains it (fxVersion, grantedBookmark)
        badValue,       // the text is not a value the field takes
    };
    Kind kind = Kind::unknownField;
    std::string field;  // as typed
    std::string value;  // as typed
    const AppSettingsField* info = nullptr;  // badValue and keptByKestrel
};

struct EditedSettings {
    AppSettings settings;
    const AppSettingsField* field = nullptr;  // the field changed, by its own name
};

// `settings` with `field` (any case) set from `value`. Flags take true/false (also yes/no, on/off, 1/0);
// choices their raw values in any case; lists comma-separated values; dates a YYYY-MM-DD day or
// seconds since 1970; an optional field is cleared by "none" or an empty text. A new
// cnyPerUsdE4 is stored as a typed exchange rate is (dated `today`, its version moved).
std::expected<EditedSettings, SettingsInputError> withSetting(const AppSettings& settings,
                                                              std::string_view field,
                                                              std::string_view value,
                                                              const std::string& today);

// The stored value of `field` in `settings` (null when an optional is absent).
nlohmann::ordered_json settingValue(const AppSettings& settings, const AppSettingsField& field);

// What `field` accepts, in words of the chosen language ("true or false", "one of: ...").
std::string allowedValues(const AppSettingsField& field, const DisplayChoices& display);

// The names of every field, comma-separated, for messages.
std::string settingsFieldNames();

}  // namespace kestrel
