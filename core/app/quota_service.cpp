#include "core/app/quota_service.hpp"

#include <algorithm>

#include "core/model/timestamp.hpp"

namespace kestrel {

std::vector<AgentSource> liveQuotaSources() {
    return {AgentSource::claude, AgentSource::codex, AgentSource::kimi, AgentSource::grok};
}

QuotaReport quotaReport(AppSession& session, const QuotaRequest& request, QuotaRefresher& refresher,
                        TokenCache& tokens) {
    QuotaReport report;
    report.now = epochNow();
    auto& store = session.store();
    std::vector<QuotaAccountRow> rows;

    if (request.refresh) {
        auto& coordinator = session.integrations();
        const ProbeContext context{session.paths().home, session.paths().env, request.timeout,
                                   &tokens};
        for (const auto& plugin : coordinator.registry().plugins()) {
            const AgentSource source = plugin.descriptor.legacySource;
            if (!plugin.descriptor.capabilities().contains(IntegrationCapability::quota)) {
                continue;
            }
            QuotaAccountRow row;
            row.accountID = "source:" + std::string(rawValue(source));
            row.source = source;
            const auto probe = LiveQuota::probeFor(source);
            if (!coordinator.canRun(IntegrationCapability::quota, source)) {
                row.skipped = QuotaSkipReason::quotaOff;
            } else if (!probe) {
                row.skipped = QuotaSkipReason::noProbe;
            } else {
                const QuotaSlot slot{[&] { return store.quota(source); },
                                     [&](const AccountSnapshot& s) { return store.saveQuota(s); }};
                row.refresh = refresher.refresh(
                    row.accountID, slot,
                    [&] {
                        ProbeAnswer answer;
                        auto result = probe(context, report.now);
                        if (!result) {
                            answer.error = result.error();
                        } else {
                            answer.snapshot = std::move(*result);
                        }
                        return answer;
                    },
                    report.now);
            }
            rows.push_back(std::move(row));
        }
    }

    for (auto& snapshot : store.quotas()) {
        const std::string id = "source:" + std::string(rawValue(snapshot.identity.source));
        auto it = std::find_if(rows.begin(), rows.end(),
                               [&](const QuotaAccountRow& r) { return r.accountID == id; });
        if (it == rows.end()) {
            QuotaAccountRow row;
            row.accountID = id;
            row.source = snapshot.identity.source;
            rows.push_back(std::move(row));
            it = rows.end() - 1;
        }
        it->snapshot = std::move(snapshot);
    }
    for (auto& [accountID, snapshot] : store.planQuotas()) {
        QuotaAccountRow row;
        row.accountID = "plan:" + accountID;
        row.snapshot = std::move(snapshot);
        rows.push_back(std::move(row));
    }
    report.rows = std::move(rows);
    return report;
}

std::expected<QuotaSwitch, QuotaSwitchError> setQuotaCapability(AppSession& session,
                                                                const IntegrationPlugin& plugin,
                                                                bool on) {
    if (!plugin.descriptor.capabilities().contains(IntegrationCapability::quota)) {
        return std::unexpected(QuotaSwitchError::notSupported);
    }
    const auto& paths = session.paths();
    auto& coordinator = session.integrations();
    const double now = epochNow();
    const auto instances = coordinator.reconcileInstallations(paths.home, now, paths.env);
    const auto current =
        std::ranges::find(instances, plugin.descriptor.id, &IntegrationInstance::pluginID);
    if (current == instances.end()) {
        return std::unexpected(QuotaSwitchError::noInstance);
    }
    IntegrationInstance instance = *current;
    if (on && !instance.isEnabled()) {
        auto enabled = coordinator.setInstanceEnabled(true, instance.id, now);
        if (!enabled) {
            return std::unexpected(QuotaSwitchError::instanceGone);
        }
        instance = *enabled;
    }
    const bool wasRunnable =
        coordinator.canRun(IntegrationCapability::quota, plugin.descriptor.legacySource);
    const bool wasOn = instance.enabledCapabilities.contains(IntegrationCapability::quota);
    auto result =
        coordinator.setCapabilityAuthorization(IntegrationCapability::quota, on, instance.id, now);
    if (!result) {
        return std::unexpected(QuotaSwitchError::instanceGone);
    }
    QuotaSwitch out;
    out.changed = on ? !wasRunnable || *result != *current : wasOn;
    out.instance = std::move(*result);
    return out;
}

}  // namespace kestrel
