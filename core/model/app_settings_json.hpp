#pragma once
// AppSettings as a JSON object: keys are the field names, enumerations their raw values, the
// bookmark base64 text, absent optionals left out.
//
// The text may have been edited by hand or written by a newer build, so decoding is lenient per
// field and never throws, and encoding keeps the keys this build does not know.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/model/app_settings.hpp"

namespace kestrel {

struct AppSettingsDecoding {
    AppSettings settings;
    // Fields with a default and no key in the text (optional fields are simply absent).
    std::vector<std::string> missingFields;
    // Fields whose value could not be read, wholly or partly (wrong type, unknown case, out of
    // range); they took their default, or for lists the entries that could be read.
    std::vector<std::string> invalidFields;
    bool isObject = true;  // false: the text was not a JSON object, every field is the default
};

// Reads `text`; fields that cannot be read take their defaults and are named in the result.
AppSettingsDecoding decodeAppSettings(std::string_view text);

// What one field of AppSettings holds, for showing and editing the settings as text.
struct AppSettingsField {
    enum class Kind {
        flag,     // true or false
        integer,  // a whole number, at least `minimum`
        seconds,  // a duration in seconds
        instant,  // a moment, as seconds since the Unix epoch
        text,
        bytes,    // opaque data (base64 in JSON)
        choice,   // one of `cases`
        choices,  // a list of distinct `cases`, in the user's order
    };
    std::string name;  // the member's name, also its JSON key
    Kind kind = Kind::text;
    bool optional = false;  // may be absent
    std::optional<int64_t> minimum;    // integer only
    bool positive = false;             // seconds only: must be above zero
    std::vector<std::string> cases;    // choice and choices: the raw values, in order

    bool operator==(const AppSettingsField&) const = default;
};

// Every field of AppSettings in declaration order.
const std::vector<AppSettingsField>& appSettingsFields();

// The settings as compact JSON. Keys of `previous` (an earlier settings text) that are not
// fields of AppSettings are kept with their values and places; every field is written anew, and
// an absent optional removes its key. A `previous` that is not a JSON object is ignored.
std::string encodeAppSettings(const AppSettings& settings, std::string_view previous = {});

}  // namespace kestrel
