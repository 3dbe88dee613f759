#include "cli/status_command.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/local_time.hpp"
#include "cli/session_access.hpp"
#include "core/app/integration_status.hpp"
#include "cli/text_table.hpp"
#include "core/model/timestamp.hpp"
#include "core/model/account_snapshot_json.hpp"

namespace kestrel::cli {
namespace {

std::string_view capabilityLabel(IntegrationCapability capability) {
    switch (capability) {
        case IntegrationCapability::installationDetection:
            return "detect";
        case IntegrationCapability::activity:
            return "activity";
        case IntegrationCapability::usageImport:
            return "import";
        case IntegrationCapability::subscriptionDiscovery:
            return "plans";
        case IntegrationCapability::quota:
            return "quota";
        case IntegrationCapability::hookManagement:
            return "hooks";
    }
    return "?";
}

template <class E>
nlohmann::ordered_json rawValues(const std::set<E>& values) {
    auto out = nlohmann::ordered_json::array();
    for (E v : values) {
        out.push_back(std::string(rawValue(v)));
    }
    return out;
}

nlohmann::ordered_json paths(const std::vector<std::filesystem::path>& list) {
    auto out = nlohmann::ordered_json::array();
    for (const auto& p : list) {
        out.push_back(p.string());
    }
    return out;
}

template <class T>
nlohmann::ordered_json orNull(const std::optional<T>& value) {
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

nlohmann::ordered_json healthJSON(const IntegrationHealth& h) {
    nlohmann::ordered_json j;
    j["state"] = std::string(rawValue(h.state));
    j["hook"] = h.hook ? nlohmann::ordered_json(std::string(rawValue(*h.hook))) : nullptr;
    j["checkedAt"] = h.checkedAt;
    j["diagnosticCode"] = orNull(h.diagnosticCode);
    return j;
}

nlohmann::ordered_json scanJSON(const IntegrationScanResult& s) {
    nlohmann::ordered_json j;
    j["finishedAt"] = s.finishedAt;
    j["installedRootCount"] = s.installedRootCount;
    j["acceptedObservationCount"] = s.acceptedObservationCount;
    j["rejectedObservationCount"] = s.rejectedObservationCount;
    j["conflictCount"] = s.conflictCount;
    j["coverageIssueCount"] = s.coverageIssueCount;
    j["health"] = healthJSON(s.health);
    return j;
}

nlohmann::ordered_json rowJSON(const IntegrationStatusRow& row) {
    nlohmann::ordered_json j;
    j["group"] = std::string(rawValue(row.group));
    const auto fields = instanceJSON(row.instance, row.plugin->descriptor);
    for (auto it = fields.begin(); it != fields.end(); ++it) {
        j[it.key()] = it.value();
    }
    j["installedRoots"] = paths(row.installation.installedRoots);
    j["candidateRoots"] = paths(row.installation.candidateRoots);
    return j;
}

std::string windowName(const QuotaWindow& w) {
    if (w.label) {
        return *w.label;
    }
    switch (w.kind) {
        case QuotaWindowKind::session5h:
            return "5-hour window";
        case QuotaWindowKind::weekly:
            return "weekly window";
        case QuotaWindowKind::weeklyModelScoped:
            return "weekly window (" + w.scopeKey.value_or("model") + ")";
        case QuotaWindowKind::monthly:
            return "monthly window";
        case QuotaWindowKind::extraCredits:
            return "extra credits";
        case QuotaWindowKind::apiPrepaid:
            return "prepaid balance";
    }
    return "window";
}

// "Codex quota (plus, read from its logs at 2026-11-22 19:06): 5-hour window 12% used, resets
// 20:15; weekly window 41% used, resets 2026-11-27 09:00".
std::string quotaLine(const AccountSnapshot& q) {
    std::string windows;
    for (const auto& w : q.windows) {
        std::string text = windowName(w);
        if (w.usedPercent) {
            text += fmt::format(" {:.0f}% used", *w.usedPercent);
        }
        if (w.resetsAt) {
            const bool today =
                formatLocal(*w.resetsAt, "%Y-%m-%d") == formatLocal(epochNow(), "%Y-%m-%d");
            text += ", resets " + formatLocal(*w.resetsAt, today ? "%H:%M" : "%Y-%m-%d %H:%M");
        }
        windows += (windows.empty() ? "" : "; ") + text;
    }
    const std::string plan = q.identity.planLabel.empty() ? "" : q.identity.planLabel + ", ";
    const std::string origin =
        q.provenance == QuotaProvenance::localSession ? "read from its logs" : "fetched";
    return fmt::format("{} quota ({}{} at {}): {}{}", displayName(q.identity.source), plan, origin,
                       formatLocal(q.fetchedAt, "%Y-%m-%d %H:%M"),
                       windows.empty() ? "no windows" : windows, q.stale ? " (stale)" : "");
}

std::vector<std::string> rowCells(const IntegrationStatusRow& row) {
    const auto& instance = row.instance;
    std::vector<std::string> cells{
        row.plugin->descriptor.displayName,
        std::string(rawValue(row.group)),
        std::string(rawValue(instance.health.state)),
        groupedNumber(static_cast<int64_t>(row.installation.installedRoots.size())),
        capabilityLabels(instance.enabledCapabilities),
    };
    if (const auto& scan = instance.lastScanResult) {
        cells.push_back(formatLocal(scan->finishedAt, "%Y-%m-%d %H:%M"));
        cells.push_back(groupedNumber(scan->acceptedObservationCount));
        cells.push_back(groupedNumber(scan->rejectedObservationCount));
    } else {
        cells.push_back("never");
    }
    return cells;
}

}  // namespace

std::string capabilityLabels(const std::set<IntegrationCapability>& capabilities) {
    std::string out;
    for (auto c : capabilities) {
        out += out.empty() ? "" : ",";
        out += capabilityLabel(c);
    }
    return out.empty() ? "-" : out;
}

nlohmann::ordered_json instanceJSON(const IntegrationInstance& instance,
                                    const IntegrationPluginDescriptor& descriptor) {
    nlohmann::ordered_json j;
    j["source"] = std::string(rawValue(descriptor.legacySource));
    j["displayName"] = descriptor.displayName;
    j["instanceID"] = instance.id.rawValue;
    j["pluginID"] = instance.pluginID.rawValue;
    j["enabled"] = instance.isEnabled();
    j["health"] = healthJSON(instance.health);
    j["enabledCapabilities"] = rawValues(instance.enabledCapabilities);
    j["grantedPermissions"] = rawValues(instance.grantedPermissions);
    j["lastScanResult"] =
        instance.lastScanResult ? scanJSON(*instance.lastScanResult) : nlohmann::ordered_json();
    j["archivedAt"] = orNull(instance.archivedAt);
    return j;
}

int runStatus(CommandContext& ctx, bool json) {
    auto session = openSession(ctx);
    if (!session) {
        return kExitFailure;
    }
    const auto status = integrationStatus(*session);
    const auto& rows = status.rows;

    if (json) {
        auto doc = nlohmann::ordered_json::array();
        for (const auto& row : rows) {
            auto j = rowJSON(row);
            j["quota"] = row.quota ? nlohmann::ordered_json::parse(nlohmann::json(*row.quota).dump())
                                   : nlohmann::ordered_json(nullptr);
            doc.push_back(std::move(j));
        }
        ctx.out << doc.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
        return kExitOK;
    }

    TextTable table({{"Agent"},
                     {"Group"},
                     {"Health"},
                     {"Roots", Align::right},
                     {"Capabilities"},
                     {"Last scan"},
                     {"Accepted", Align::right},
                     {"Rejected", Align::right}});
    std::size_t detected = 0, enabled = 0;
    for (const auto& row : rows) {
        table.addRow(rowCells(row));
        detected += row.group != IntegrationListGroup::notInstalled ? 1 : 0;
        enabled += row.group == IntegrationListGroup::enabled ? 1 : 0;
    }
    table.render(ctx.out, ctx.colour);
    ctx.out << fmt::format("{} of {} agents detected below {}, {} enabled.\n", detected,
                           rows.size(), ctx.home.string(), enabled);

    std::string folders;
    for (const auto& row : rows) {
        for (const auto& root : row.installation.installedRoots) {
            folders += fmt::format("  {}: {}\n", row.plugin->descriptor.displayName, root.string());
        }
    }
    if (!folders.empty()) {
        ctx.out << "\nData folders:\n" << folders;
    }
    std::string quotaLines;
    for (const auto& row : rows) {
        if (row.quota) {
            quotaLines += "  " + quotaLine(*row.quota) + "\n";
        }
    }
    if (!quotaLines.empty()) {
        ctx.out << "\nQuota:\n" << quotaLines;
    }
    return kExitOK;
}

}  // namespace kestrel::cli
