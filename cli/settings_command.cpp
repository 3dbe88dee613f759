#include "cli/settings_command.hpp"

#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/local_time.hpp"
#include "cli/session_access.hpp"
#include "cli/text_table.hpp"
#include "core/app/display_choices.hpp"
#include "core/app/settings_editor.hpp"
#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"

namespace kestrel::cli {
namespace {

// A stored value as a person reads it: lists comma-separated, moments in local time, "-" for
// unset.
std::string valueText(const nlohmann::ordered_json& value, const AppSettingsField& field) {
    if (value.is_null()) {
        return "-";
    }
    if (field.kind == AppSettingsField::Kind::instant && value.is_number()) {
        return formatLocal(value.get<double>(), "%Y-%m-%d %H:%M");
    }
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_array()) {
        std::string out;
        for (const auto& entry : value) {
            out += (out.empty() ? "" : ",") + valueText(entry, field);
        }
        return out;
    }
    return value.dump();
}

DisplayChoices displayFor(const AppSession& session, const std::string& language) {
    std::optional<AppLanguage> asked;
    if (!language.empty()) {
        asked = fromRawValue<AppLanguage>(language);
    }
    return displayChoices(session.settings(), asked);
}

}  // namespace

int runSettings(CommandContext& ctx, const std::string& language, bool json) {
    auto session = openSession(ctx);
    if (!session) {
        return kExitFailure;
    }
    const auto entries = settingsEntries(session->settings());
    if (json) {
        nlohmann::ordered_json doc = nlohmann::ordered_json::object();
        for (const auto& entry : entries) {
            doc[entry.field->name] = entry.value;
        }
        ctx.out << doc.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
        return kExitOK;
    }
    const auto display = displayFor(*session, language);
    ctx.out << display.text("settings.title") << "\n\n";
    TextTable table({{display.text("column.setting")}, {display.text("column.value")}});
    for (const auto& entry : entries) {
        table.addRow({entry.field->name, valueText(entry.value, *entry.field)});
    }
    table.render(ctx.out, ctx.colour);
    return kExitOK;
}

int runSettingsSet(CommandContext& ctx, const std::string& field, const std::string& value,
                   const std::string& language, bool json) {
    auto session = openSession(ctx);
    if (!session) {
        return kExitFailure;
    }
    const AppSettings before = session->settings();
    const auto display = displayFor(*session, language);
    const auto changed = withSetting(before, field, value, Calendar::current().dayKey(epochNow()));
    if (!changed) {
        const auto& e = changed.error();
        switch (e.kind) {
            case SettingsInputError::Kind::unknownField:
                ctx.err << "kestrel: "
                        << display.text("settings.unknownField",
                                        {{"field", e.field}, {"fields", settingsFieldNames()}})
                        << '\n';
                break;
            case SettingsInputError::Kind::keptByKestrel:
                ctx.err << "kestrel: "
                        << display.text("settings.keptByKestrel", {{"field", e.info->name}})
                        << '\n';
                break;
            case SettingsInputError::Kind::badValue:
                ctx.err << "kestrel: "
                        << display.text("settings.badValue",
                                        {{"value", e.value},
                                         {"field", e.info->name},
                                         {"allowed", allowedValues(*e.info, display)}})
                        << '\n';
                break;
        }
        return kExitUsage;
    }
    const std::string& name = changed->field->name;
    SettingsChange change;
    try {
        change = session->updateSettings(changed->settings);
    } catch (const std::exception& e) {
        ctx.err << "kestrel: cannot save the settings: " << e.what() << '\n';
        return kExitFailure;
    }
    const auto old = settingValue(before, *changed->field);
    const auto now = settingValue(changed->settings, *changed->field);
    int64_t keptProjects = 0, keptSessions = 0;
    if (before.storeProject && !changed->settings.storeProject) {
        keptProjects = session->store().ledgerEventsHolding(PrivateField::projectName);
    }
    if (before.storeSession && !changed->settings.storeSession) {
        keptSessions = session->store().ledgerEventsHolding(PrivateField::sessionKey);
    }
    if (json) {
        nlohmann::ordered_json doc;
        doc["field"] = name;
        doc["old"] = old;
        doc["new"] = now;
        doc["changed"] = change.changed;
        doc["repriced"] = change.repriced.skipped ? 0 : change.repriced.count;
        doc["eventsWithProjectNames"] = keptProjects;
        doc["eventsWithSessionKeys"] = keptSessions;
        ctx.out << doc.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
        return kExitOK;
    }
    if (!change.changed) {
        ctx.out << display.text("settings.unchanged", {{"field", name}, {"value", valueText(now, *changed->field)}})
                << '\n';
        return kExitOK;
    }
    ctx.out << display.text("settings.changed",
                            {{"field", name},
                             {"old", valueText(old, *changed->field)},
                             {"new", valueText(now, *changed->field)}})
            << '\n';
    if (!change.repriced.skipped) {
        ctx.out << display.text("settings.repriced",
                                {{"count", groupedNumber(change.repriced.count)}})
                << '\n';
    }
    if (keptProjects > 0) {
        ctx.out << display.text("settings.projectsStay", {{"count", groupedNumber(keptProjects)}})
                << '\n';
    }
    if (keptSessions > 0) {
        ctx.out << display.text("settings.sessionsStay", {{"count", groupedNumber(keptSessions)}})
                << '\n';
    }
    return kExitOK;
}

int runSettingsForget(CommandContext& ctx, const std::string& what, const std::string& language,
                      bool json) {
    if (what != "projects" && what != "sessions") {
        ctx.err << "kestrel: forget \"" << what << "\"? give projects or sessions\n";
        return kExitUsage;
    }
    auto session = openSession(ctx);
    if (!session) {
        return kExitFailure;
    }
    const bool projects = what == "projects";
    int64_t forgotten = 0;
    try {
        forgotten =
            session->store().forget(projects ? PrivateField::projectName : PrivateField::sessionKey);
    } catch (const std::exception& e) {
        ctx.err << "kestrel: cannot change the ledger: " << e.what() << '\n';
        return kExitFailure;
    }
    if (json) {
        ctx.out << nlohmann::ordered_json{{"forgot", what}, {"events", forgotten}}.dump(2) << '\n';
        return kExitOK;
    }
    const auto display = displayFor(*session, language);
    ctx.out << display.text(projects ? "settings.forgotProjects" : "settings.forgotSessions",
                            {{"count", groupedNumber(forgotten)}})
            << '\n';
    return kExitOK;
}

}  // namespace kestrel::cli
