#pragma once
// Where each agent's integration stands (its list group, instance, installed folders, quota
// reading) and the user's switches over them: one agent on or off, or a preset for all.

#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/app/app_session.hpp"
#include "core/model/account_snapshot.hpp"

namespace kestrel {

struct IntegrationStatusRow {
    const IntegrationPlugin* plugin = nullptr;  // a built-in plug-in: valid for the process
    IntegrationInstance instance;
    IntegrationInstallation installation;
    IntegrationListGroup group = IntegrationListGroup::notInstalled;
    std::optional<AccountSnapshot> quota;  // the last quota reading of the agent's account

    bool operator==(const IntegrationStatusRow&) const = default;
};

struct IntegrationStatus {
    // Enabled agents first, then detected ones, then those not installed; plug-in order within
    // each group.
    std::vector<IntegrationStatusRow> rows;
    double checkedAt = 0;  // when installations were detected

    bool operator==(const IntegrationStatus&) const = default;
};

// Reconciles the instances with what is installed now, then lists them.
IntegrationStatus integrationStatus(AppSession& session);

struct IntegrationNameError {
    enum class Kind {
        unknown,      // no agent has this name
        accountOnly,  // an account read online, with no integration to switch
    };
    Kind kind = Kind::unknown;
    std::string name;
    std::optional<AgentSource> source;  // accountOnly only
};

// The plug-in of the agent `name` names (a raw value or display name, any case).
std::expected<const IntegrationPlugin*, IntegrationNameError> integrationPluginNamed(
    std::string_view name);

// The sources that have a plug-in, in plug-in order: the names integrationPluginNamed accepts.
std::vector<AgentSource> integrationSources();

struct IntegrationSwitch {
    IntegrationInstance instance;  // as it is now
    bool changed = false;          // false: it already was as asked
    bool installed = false;        // the agent has a folder below the home folder
};

struct IntegrationSwitchError {
    enum class Kind {
        noInstance,    // reconciling made none (not expected)
        instanceGone,  // removed from the ledger while we switched it
    };
    Kind kind = Kind::noInstance;
    std::string instanceID;
};

// The plug-in's instance once the installations are reconciled at `now` (which makes one for every
// plug-in); absent when there is none all the same.
std::optional<IntegrationInstance> reconciledInstance(AppSession& session,
                                                      const IntegrationPlugin& plugin, double now);

// Switches the agent's integration on or off (its usage in the ledger stays either way).
std::expected<IntegrationSwitch, IntegrationSwitchError> setIntegrationEnabled(
    AppSession& session, const IntegrationPlugin& plugin, bool enabled);

struct PresetOutcome {
    std::vector<IntegrationInstance> changed;  // in plug-in order
    // Some instance's last scan found its agent installed (presets touch only those).
    bool anyScanned = false;
};

// Applies `preset` to every agent a scan found installed; hooks are never switched on.
PresetOutcome applyIntegrationPreset(AppSession& session, IntegrationBulkPreset preset);

}  // namespace kestrel
