// The store as the repository of integration instances: one row per instance in
// integration_instances, capability and permission sets as comma-separated case names.

#include <string_view>

#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/ledger/usage_store_internals.hpp"
#include "core/model/enum_set_coding.hpp"

namespace kestrel {
namespace {

using sqlite::Statement;

constexpr std::string_view kColumns =
    "id, plugin_id, enabled_capabilities, granted_permissions, health_state, hook_health, "
    "diagnostic_code, last_scan_at, installed_root_count, accepted_observation_count, "
    "rejected_observation_count, conflict_count, coverage_issue_count, archived_at, created_at, "
    "updated_at";

enum Column : int {
    kID,
    kPluginID,
    kCapabilities,
    kPermissions,
    kHealthState,
    kHookHealth,
    kDiagnosticCode,
    kLastScanAt,
    kInstalledRootCount,
    kAcceptedCount,
    kRejectedCount,
    kConflictCount,
    kCoverageIssueCount,
    kArchivedAt,
    kCreatedAt,
    kUpdatedAt,
};

std::string selectSQL(std::string_view tail) {
    return "SELECT " + std::string(kColumns) + " FROM integration_instances " + std::string(tail);
}

// Unlike enumset::fromText, a name this build does not know is passed over rather than voiding
// the whole set: a newer build may have added capabilities.
template <class E>
std::set<E> knownCases(std::string_view text) {
    std::set<E> out;
    while (!text.empty()) {
        const auto comma = text.find(',');
        if (auto value = fromRawValue<E>(text.substr(0, comma))) {
            out.insert(*value);
        }
        if (comma == std::string_view::npos) {
            break;
        }
        text.remove_prefix(comma + 1);
    }
    return out;
}

int count(const Statement& row, int column) {
    return static_cast<int>(row.optionalInt64(column).value_or(0));
}

IntegrationInstance instanceFromRow(const Statement& row) {
    IntegrationInstance instance;
    instance.id = IntegrationInstanceID(row.text(kID));
    instance.pluginID = IntegrationPluginID(row.text(kPluginID));
    instance.enabledCapabilities = knownCases<IntegrationCapability>(row.text(kCapabilities));
    instance.grantedPermissions = knownCases<IntegrationPermission>(row.text(kPermissions));
    instance.archivedAt = row.optionalReal(kArchivedAt);

    IntegrationHealth& health = instance.health;
    const std::string stateName = row.text(kHealthState);
    health.diagnosticCode = row.optionalText(kDiagnosticCode);
    if (auto state = fromRawValue<IntegrationHealthState>(stateName)) {
        health.state = *state;
    } else {
        // Written by a newer build: shown as degraded, with the name kept for diagnosis.
        health.state = IntegrationHealthState::degraded;
        health.diagnosticCode = "unknownHealthState:" + stateName;
    }
    if (auto hook = row.optionalText(kHookHealth)) {
        health.hook = fromRawValue<HookHealthState>(*hook);  // an unknown hook state is dropped
    }

    const auto lastScanAt = row.optionalReal(kLastScanAt);
    // No column holds health.checkedAt: disable() stamps it with archivedAt, the ingestor with
    // the end of the scan it records, and every other health change is saved when it happens.
    if (health.state == IntegrationHealthState::disabled && instance.archivedAt) {
        health.checkedAt = *instance.archivedAt;
    } else if (lastScanAt) {
        health.checkedAt = *lastScanAt;
    } else {
        health.checkedAt = row.real(kUpdatedAt);
    }

    if (lastScanAt) {
        IntegrationScanResult scan;
        scan.finishedAt = *lastScanAt;
        scan.installedRootCount = count(row, kInstalledRootCount);
        scan.acceptedObservationCount = count(row, kAcceptedCount);
        scan.rejectedObservationCount = count(row, kRejectedCount);
        scan.conflictCount = count(row, kConflictCount);
        scan.coverageIssueCount = count(row, kCoverageIssueCount);
        // The row keeps one health; the scan's own is known only while it is still the
        // instance's, as recordScan leaves it.
        scan.health = health;
        scan.health.checkedAt = *lastScanAt;
        instance.lastScanResult = scan;
    }
    return instance;
}

}  // namespace

std::vector<IntegrationInstance> UsageStore::loadAll() {
    std::lock_guard guard(state_->lock);
    Statement select(state_->connection(), selectSQL("ORDER BY created_at, id;"));
    std::vector<IntegrationInstance> out;
    while (select.step()) {
        out.push_back(instanceFromRow(select));
    }
    return out;
}

std::optional<IntegrationInstance> UsageStore::activeInstance(const IntegrationPluginID& plugin) {
    std::lock_guard guard(state_->lock);
    Statement select(state_->connection(), selectSQL("WHERE plugin_id=? AND archived_at IS NULL\n"
                                                     "ORDER BY updated_at DESC LIMIT 1;"));
    select.bind(1, plugin.rawValue);
    if (!select.step()) {
        return std::nullopt;
    }
    return instanceFromRow(select);
}

void UsageStore::save(const IntegrationInstance& instance, double now) {
    std::lock_guard guard(state_->lock);
    // created_at is left out of the update, so the first save's time stays.
    Statement upsert(state_->connection(),
                     "INSERT INTO integration_instances(" + std::string(kColumns) +
                         ")\n"
                         "VALUES(?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11,?12,?13,?14,?15,?15)\n"
                         "ON CONFLICT(id) DO UPDATE SET\n"
                         "  plugin_id=excluded.plugin_id,\n"
                         "  enabled_capabilities=excluded.enabled_capabilities,\n"
                         "  granted_permissions=excluded.granted_permissions,\n"
                         "  health_state=excluded.health_state,\n"
                         "  hook_health=excluded.hook_health,\n"
                         "  diagnostic_code=excluded.diagnostic_code,\n"
                         "  last_scan_at=excluded.last_scan_at,\n"
                         "  installed_root_count=excluded.installed_root_count,\n"
                         "  accepted_observation_count=excluded.accepted_observation_count,\n"
                         "  rejected_observation_count=excluded.rejected_observation_count,\n"
                         "  conflict_count=excluded.conflict_count,\n"
                         "  coverage_issue_count=excluded.coverage_issue_count,\n"
                         "  archived_at=excluded.archived_at,\n"
                         "  updated_at=excluded.updated_at;");
    const auto& health = instance.health;
    upsert.bind(1, instance.id.rawValue)
        .bind(2, instance.pluginID.rawValue)
        .bind(3, enumset::toText(instance.enabledCapabilities))
        .bind(4, enumset::toText(instance.grantedPermissions))
        .bind(5, rawValue(health.state))
        .bind(7, health.diagnosticCode)
        .bind(14, instance.archivedAt)
        .bind(15, now);
    if (health.hook) {
        upsert.bind(6, rawValue(*health.hook));
    } else {
        upsert.bindNull(6);
    }
    if (const auto& scan = instance.lastScanResult) {
        upsert.bind(8, scan->finishedAt)
            .bind(9, scan->installedRootCount)
            .bind(10, scan->acceptedObservationCount)
            .bind(11, scan->rejectedObservationCount)
            .bind(12, scan->conflictCount)
            .bind(13, scan->coverageIssueCount);
    } else {
        for (int parameter = 8; parameter <= 13; ++parameter) {
            upsert.bindNull(parameter);
        }
    }
    upsert.run();
}

}  // namespace kestrel
