#include "core/model/app_settings_json.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <type_traits>

#include "core/model/base64.hpp"

namespace kestrel {
namespace {

// Ordered, so a rewritten text keeps the order its keys were found in.
using Json = nlohmann::ordered_json;

// A codec reads one JSON value as a field's value type (absent when it cannot) and writes it
// back. `lossy` is set when only part of the value could be read.

struct Flag {
    std::optional<bool> read(const Json& j, bool&) const {
        return j.is_boolean() ? std::optional(j.get<bool>()) : std::nullopt;
    }
    Json write(bool value) const { return value; }
};

struct Integer {
    int64_t min = std::numeric_limits<int64_t>::min();

    std::optional<int64_t> read(const Json& j, bool&) const {
        std::optional<int64_t> value;
        if (j.is_number_unsigned()) {
            const auto u = j.get<uint64_t>();
            if (u <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
                value = static_cast<int64_t>(u);
            }
        } else if (j.is_number_integer()) {
            value = j.get<int64_t>();
        } else if (j.is_number_float()) {
            // A hand edit may write 72000.0 or 7.2e4; whole numbers a double holds exactly pass.
            const double d = j.get<double>();
            if (std::isfinite(d) && d == std::trunc(d) && std::fabs(d) <= 9007199254740992.0) {
                value = static_cast<int64_t>(d);
            }
        }
        if (value && *value < min) {
            return std::nullopt;
        }
        return value;
    }
    Json write(int64_t value) const { return value; }
};

// Dates (epoch seconds) and durations.
struct Seconds {
    bool positive = false;

    std::optional<double> read(const Json& j, bool&) const {
        if (!j.is_number()) {
            return std::nullopt;
        }
        const double d = j.get<double>();
        if (!std::isfinite(d) || (positive && d <= 0)) {
            return std::nullopt;
        }
        return d;
    }
    Json write(double value) const { return value; }
};

// A moment in time: read and written as Seconds, told apart for people editing the settings.
struct Instant : Seconds {};

struct Text {
    std::optional<std::string> read(const Json& j, bool&) const {
        return j.is_string() ? std::optional(j.get<std::string>()) : std::nullopt;
    }
    Json write(const std::string& value) const { return value; }
};

// Opaque bytes, which JSON text cannot carry as they are.
struct Bytes {
    std::optional<std::string> read(const Json& j, bool&) const {
        return j.is_string() ? base64::decode(j.get_ref<const std::string&>()) : std::nullopt;
    }
    Json write(const std::string& value) const { return base64::encode(value); }
};

template <class E>
struct Choice {
    std::optional<E> read(const Json& j, bool&) const {
        return j.is_string() ? fromRawValue<E>(j.get_ref<const std::string&>()) : std::nullopt;
    }
    Json write(E value) const { return std::string(rawValue(value)); }
};

// A list of cases in the user's order. Entries this build does not know (a newer build's cases)
// and repeats are dropped rather than losing the whole list; a list left with nothing of what
// it held is unreadable.
template <class E>
struct Choices {
    std::optional<std::vector<E>> read(const Json& j, bool& lossy) const {
        if (!j.is_array()) {
            return std::nullopt;
        }
        std::vector<E> out;
        for (const auto& entry : j) {
            const auto value = entry.is_string()
                                   ? fromRawValue<E>(entry.get_ref<const std::string&>())
                                   : std::nullopt;
            if (!value || std::find(out.begin(), out.end(), *value) != out.end()) {
                lossy = true;
                continue;
            }
            out.push_back(*value);
        }
        if (out.empty() && lossy) {
            return std::nullopt;
        }
        return out;
    }
    Json write(const std::vector<E>& values) const {
        Json out = Json::array();
        for (const E value : values) {
            out.push_back(std::string(rawValue(value)));
        }
        return out;
    }
};

template <class T>
constexpr bool isOptional = false;
template <class T>
constexpr bool isOptional<std::optional<T>> = true;

// Every field in declaration order: its key, its member and its codec. A new field of
// AppSettings needs one line here.
template <class Visit>
void forEachField(Visit&& visit) {
    using S = AppSettings;
    visit("menuBarElements", &S::menuBarElements, Choices<MenuBarElement>{});
    visit("menuBarRotateInterval", &S::menuBarRotateInterval, Seconds{.positive = true});
    visit("menuBarPlatformStyle", &S::menuBarPlatformStyle, Choice<MenuBarPresentationStyle>{});
    visit("menuBarMetricStyle", &S::menuBarMetricStyle, Choice<MenuBarPresentationStyle>{});
    visit("billingMode", &S::billingMode, Choice<BillingMode>{});
    visit("cnyPerUsdE4", &S::cnyPerUsdE4, Integer{.min = 1});
    visit("fxVersion", &S::fxVersion, Integer{.min = 0});
    visit("fxDate", &S::fxDate, Text{});
    visit("fxProvider", &S::fxProvider, Text{});
    visit("retentionDays", &S::retentionDays, Integer{.min = 0});
    visit("storeProject", &S::storeProject, Flag{});
    visit("storeSession", &S::storeSession, Flag{});
    visit("cursorAccountUsageEnabled", &S::cursorAccountUsageEnabled, Flag{});
    visit("traeCNAccountUsageEnabled", &S::traeCNAccountUsageEnabled, Flag{});
    visit("cursorAccountUsageLastSuccessAt", &S::cursorAccountUsageLastSuccessAt, Instant{});
    visit("traeCNAccountUsageLastSuccessAt", &S::traeCNAccountUsageLastSuccessAt, Instant{});
    visit("dailyBudgetCNYFen", &S::dailyBudgetCNYFen, Integer{.min = 0});
    visit("monthlyBudgetCNYFen", &S::monthlyBudgetCNYFen, Integer{.min = 0});
    visit("grantedBookmark", &S::grantedBookmark, Bytes{});
    visit("didGrantHomeAccess", &S::didGrantHomeAccess, Flag{});
    visit("didCompleteOnboarding", &S::didCompleteOnboarding, Flag{});
    visit("usageImportSince", &S::usageImportSince, Instant{});
    visit("launchAtLogin", &S::launchAtLogin, Flag{});
    visit("keepMenuBar", &S::keepMenuBar, Flag{});
    visit("didConfirmMenuBarStay", &S::didConfirmMenuBarStay, Flag{});
    visit("confirmBeforeQuit", &S::confirmBeforeQuit, Flag{});
    visit("theme", &S::theme, Choice<AppTheme>{});
    visit("language", &S::language, Choice<AppLanguage>{});
    visit("displayCurrency", &S::displayCurrency, Choice<DisplayCurrency>{});
    visit("showMascotSpeech", &S::showMascotSpeech, Flag{});
    visit("quotaNotificationsEnabled", &S::quotaNotificationsEnabled, Flag{});
    visit("activityNotificationsEnabled", &S::activityNotificationsEnabled, Flag{});
    visit("activityNotifyCompleted", &S::activityNotifyCompleted, Flag{});
    visit("activityNotifyApproval", &S::activityNotifyApproval, Flag{});
    visit("activityNotifyQuestion", &S::activityNotifyQuestion, Flag{});
    visit("activityNotifyFailure", &S::activityNotifyFailure, Flag{});
    visit("budgetNotificationsEnabled", &S::budgetNotificationsEnabled, Flag{});
    visit("importNotificationsEnabled", &S::importNotificationsEnabled, Flag{});
    visit("didDismissTrayHint", &S::didDismissTrayHint, Flag{});
    visit("consoleModules", &S::consoleModules, Choices<ConsoleModuleKind>{});
    visit("autoSyncModelPrices", &S::autoSyncModelPrices, Flag{});
    visit("autoCheckAppUpdates", &S::autoCheckAppUpdates, Flag{});
    visit("skippedAppUpdateVersion", &S::skippedAppUpdateVersion, Text{});
    visit("lastAppUpdateCheckAt", &S::lastAppUpdateCheckAt, Instant{});
}

using Field = AppSettingsField;

template <class E>
std::vector<std::string> rawValues() {
    std::vector<std::string> out;
    for (const auto& [value, name] : EnumCases<E>::cases) {
        out.emplace_back(name);
    }
    return out;
}

void describe(Field& f, const Flag&) { f.kind = Field::Kind::flag; }
void describe(Field& f, const Integer& c) {
    f.kind = Field::Kind::integer;
    f.minimum = c.min;
}
void describe(Field& f, const Seconds& c) {
    f.kind = Field::Kind::seconds;
    f.positive = c.positive;
}
void describe(Field& f, const Instant&) { f.kind = Field::Kind::instant; }
void describe(Field& f, const Text&) { f.kind = Field::Kind::text; }
void describe(Field& f, const Bytes&) { f.kind = Field::Kind::bytes; }
template <class E>
void describe(Field& f, const Choice<E>&) {
    f.kind = Field::Kind::choice;
    f.cases = rawValues<E>();
}
template <class E>
void describe(Field& f, const Choices<E>&) {
    f.kind = Field::Kind::choices;
    f.cases = rawValues<E>();
}

}  // namespace

const std::vector<AppSettingsField>& appSettingsFields() {
    static const std::vector<AppSettingsField> fields = [] {
        std::vector<AppSettingsField> out;
        const AppSettings defaults;
        forEachField([&](const char* name, auto member, const auto& codec) {
            AppSettingsField field;
            field.name = name;
            field.optional = isOptional<std::remove_cvref_t<decltype(defaults.*member)>>;
            describe(field, codec);
            out.push_back(std::move(field));
        });
        return out;
    }();
    return fields;
}

AppSettingsDecoding decodeAppSettings(std::string_view text) {
    AppSettingsDecoding out;
    const Json document = Json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!document.is_object()) {
        out.isObject = false;
        return out;
    }
    forEachField([&](const char* name, auto member, const auto& codec) {
        auto& field = out.settings.*member;
        constexpr bool optional = isOptional<std::remove_cvref_t<decltype(field)>>;
        const auto it = document.find(name);
        if (it == document.end() || (optional && it->is_null())) {
            if (!optional) {
                out.missingFields.emplace_back(name);
            }
            return;
        }
        bool lossy = false;
        auto value = codec.read(*it, lossy);
        if (!value || lossy) {
            out.invalidFields.emplace_back(name);
        }
        if (value) {
            field = std::move(*value);
        }
    });
    return out;
}

std::string encodeAppSettings(const AppSettings& settings, std::string_view previous) {
    Json document = Json::parse(previous, nullptr, /*allow_exceptions=*/false);
    if (!document.is_object()) {
        document = Json::object();
    }
    forEachField([&](const char* name, auto member, const auto& codec) {
        const auto& field = settings.*member;
        if constexpr (isOptional<std::remove_cvref_t<decltype(field)>>) {
            if (field) {
                document[name] = codec.write(*field);
            } else {
                document.erase(name);
            }
        } else {
            document[name] = codec.write(field);
        }
    });
    // Replacing invalid UTF-8 keeps encoding from throwing on a text field set from odd input.
    return document.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace kestrel
